// The record layouts that programs built elsewhere rely on, checked where they are fixed: timer records everywhere, all
// others on 32-bit machines.
#include <cstddef>

#include "tq_dm_cache/dm_port_index.h"
#include "tq_dm_cache/p_dev.pb-c.h"

static_assert(sizeof(tq_thread_timer) == 64);
static_assert(offsetof(tq_thread_timer, arg) == 20);
static_assert(offsetof(tq_thread_timer, state) == 27);
static_assert(sizeof(void *) == sizeof(uintptr_t), "a word handed through a callback is one pointer wide");

#if UINTPTR_MAX == 0xffffffffu
static_assert(offsetof(tq_mom_handle, timer_master) == 4);
static_assert(offsetof(store_msg, cmd) == 644);
static_assert(offsetof(store_msg, value) == 648);
static_assert(offsetof(store_msg, flag) == 656);
static_assert(offsetof(store_msg, result) == 668);
static_assert(sizeof(store_msg) == 672);
static_assert(offsetof(result_rec, error) == 20);
static_assert(offsetof(PDev__CardInfo, index) == 12, "the key follows the message header");
#endif
