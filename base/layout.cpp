// The record layouts that programs built elsewhere rely on, checked where they are fixed: timer records everywhere, all
// others on 32-bit ARM, where 64-bit numbers are aligned to 8 bytes. A key follows its message's header. Nothing runs here.
// Takes no lock.
#include <cstddef>

#include "tq_dm_cache/dm_port_index.h"
#include "tq_dm_cache/ndm/requests.h"
#include "tq_dm_cache/p_dev.pb-c.h"

static_assert(sizeof(tq_thread_timer) == 64);
static_assert(offsetof(tq_thread_timer, arg) == 20);
static_assert(offsetof(tq_thread_timer, state) == 27);
static_assert(sizeof(void *) == sizeof(uintptr_t), "a word handed through a callback is one pointer wide");

#if defined(__arm__)
static_assert(offsetof(tq_mom_handle, timer_master) == 4);
static_assert(offsetof(store_msg, cmd) == 644);
static_assert(offsetof(store_msg, value) == 648);
static_assert(offsetof(store_msg, flag) == 656);
static_assert(offsetof(store_msg, result) == 668);
static_assert(sizeof(store_msg) == 672);
static_assert(offsetof(result_rec, error) == 20);
static_assert(sizeof(dm_cache_list) == 12);
static_assert(offsetof(dm_cache_list_node, key) == 12);
static_assert(offsetof(dm_cache_list_node, dirty) == 16);
static_assert(offsetof(obj_sub_entry, cmp_func) == 12);
static_assert(offsetof(obj_sub_entry, obj_size) == 16);
static_assert(offsetof(obj_sub_entry, index_offset) == 20);
static_assert(offsetof(obj_sub_entry, func) == 32);
static_assert(offsetof(obj_sub_entry, db_id) == 72);
static_assert(offsetof(obj_sub_entry, proc_order) == 80);
static_assert(sizeof(obj_sub_entry) == 88);
static_assert(offsetof(rbtree_node, parent) == 24);
static_assert(sizeof(rbtree_node) == 32);
static_assert(offsetof(dm_rbtree_node, value) == 32);
static_assert(sizeof(ndm_cache_key) == 40);
static_assert(sizeof(ndm_cache_tree) == 24);
static_assert(offsetof(ndm_lib_sub_info, scan_done) == 12);
static_assert(offsetof(ndm_lib_sub_info, field_num) == 16);

static_assert(sizeof(PDev__DpLibComplete) == 40);
static_assert(sizeof(PDev__DpLibMyInfo) == 64);
static_assert(sizeof(PDev__DeviceStaticInfo) == 96 && offsetof(PDev__DeviceStaticInfo, index) == 12);
static_assert(sizeof(PDev__DmDeviceStattrT) == 140 && offsetof(PDev__DmDeviceStattrT, index) == 12);
static_assert(sizeof(PDev__DmPortAttrT) == 336);
static_assert(sizeof(PDev__CardStaticInfo) == 28 && offsetof(PDev__CardStaticInfo, index) == 12);
static_assert(sizeof(PDev__PortStatic) == 20 && offsetof(PDev__PortStatic, index) == 12);
static_assert(sizeof(PDev__UnitCportInfo) == 24 && offsetof(PDev__UnitCportInfo, index) == 12);
static_assert(sizeof(PDev__LportInfo) == 24 && offsetof(PDev__LportInfo, index) == 12);
static_assert(sizeof(PDev__LocalPortInfo) == 24);
static_assert(sizeof(PDev__DmCardStattrT) == 280 && offsetof(PDev__DmCardStattrT, index) == 12);
static_assert(sizeof(PDev__DpLibLrole) == 32);
static_assert(sizeof(PDev__DpLibMyChssInfo) == 52);
static_assert(sizeof(PDev__LocalCardInfo) == 28 && offsetof(PDev__LocalCardInfo, index) == 12);
static_assert(sizeof(PDev__DpLibGrole) == 68);
static_assert(sizeof(PDev__DeviceInfo) == 72 && offsetof(PDev__DeviceInfo, index) == 12);
static_assert(sizeof(PDev__CardInfo) == 88 && offsetof(PDev__CardInfo, index) == 12);
static_assert(sizeof(PDev__DmChipStattrT) == 36 && offsetof(PDev__DmChipStattrT, index) == 12);
static_assert(sizeof(PDev__VslPortInfo) == 72 && offsetof(PDev__VslPortInfo, index) == 12);
static_assert(sizeof(PDev__VsdPort) == 152 && offsetof(PDev__VsdPort, index) == 12);
static_assert(sizeof(PDev__VsdPortAttr) == 152 && offsetof(PDev__VsdPortAttr, index) == 12);
static_assert(sizeof(PDev__VsdInfo) == 64 && offsetof(PDev__VsdInfo, index) == 12);
static_assert(sizeof(PDev__DeviceSyncInfo) == 32 && offsetof(PDev__DeviceSyncInfo, index) == 12);
#endif
