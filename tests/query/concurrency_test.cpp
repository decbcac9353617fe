// Every query asked by several threads while the store's changes arrive: an answer mixed of two moments sends a client to
// a device that never was, and a lock that is missing or held too long ends or stops the process.
#include "tests/support/live_cache.h"

#include "tq_dm_cache/dm_port_index.h"
#include "tq_dm_cache/dm_schema.h"
#include "tq_dm_cache/ndm.h"
#include "tq_dm_cache/p_dev.pb-c.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <iterator>
#include <regex>
#include <set>
#include <span>
#include <tuple>

namespace {

using std::chrono::seconds;

std::atomic<uint32_t> steps = 0;   // of the delivering thread; odd during one
thread_local int held_locks = 0;   // by this thread
thread_local uint32_t dawdle = 0;  // not 0: this thread lets some deliveries pass whenever it has released the lock

// Room for whatever a query writes: numbers, text, up to 256 messages, or an array of `count` entries.
struct Out {
    template <class T> operator T *() {
        take = taken<T>;
        std::memset(bytes, 0, sizeof bytes);
        if (std::is_same_v<T, int32_t>) bytes[0] = 8;  // the room of an array, where a query asks
        return reinterpret_cast<T *>(bytes);
    }

    // What is the caller's own is released.
    template <class T> static std::string taken(Out &out, int32_t *count) {
        std::string text;
        if constexpr (std::is_void_v<T>) {
            for (auto **each = reinterpret_cast<ProtobufCMessage **>(out.bytes); *each; ndm_port_obj_free(*each++))
                text += packed(*each) + ';';
        } else if constexpr (std::is_pointer_v<T>) {
            T array = *reinterpret_cast<T *>(out.bytes);
            if (array) text.assign(reinterpret_cast<char *>(array), static_cast<size_t>(*count) * sizeof *array);
            std::free(array);
        } else {
            if (std::is_same_v<T, int32_t>) std::memcpy(count, out.bytes, sizeof *count);
            text.assign(out.bytes, 64).erase(text.find_last_not_of('\0') + 1);
        }
        return text;
    }

    std::string (*take)(Out &out, int32_t *count) = nullptr;
    alignas(void *) char bytes[257 * sizeof(void *)] = {};
};

const Out out{};

struct Query {
    std::string name;
    std::function<std::string()> answer;  // the result and all that was written, the last first
};

template <auto query, class... Argument> Query ask(Argument... arguments) {
    const std::string self = __PRETTY_FUNCTION__;  // it contains the query's name
    const size_t start = self.find_first_not_of('&', self.find("query = ") + 8);
    return {self.substr(start, self.find_first_of(",;", start) - start), [given = std::tuple(arguments...)] {
                auto own = given;
                std::string text = std::to_string(static_cast<int32_t>(std::apply(query, own)));
                int32_t count = 8;
                const auto take = [&](auto &each) {
                    if constexpr (requires { each.take; }) text += '|' + each.take(each, &count);
                };
                [&]<size_t... i>(std::index_sequence<i...>) {
                    (take(std::get<sizeof...(i) - 1 - i>(own)), ...);
                }
                (std::index_sequence_for<Argument...>());
                return text;
            }};
}

constexpr uint32_t node = 3U << 26 | 1 << 18 | 3 << 8, node_22 = 3U << 26 | 2 << 18 | 2 << 8;
constexpr uint32_t port_1 = 5U << 26 | 1 << 18 | 3 << 8 | 1, port_2 = port_1 + 1;
constexpr int32_t any_ap = 2;
ndm_lib_sub_info followed{};

const std::vector<Query> queries = {
    // clang-format off
    ask<_ndm_get_chip_family>(77, 1), ask<_ndm_get_chip_type_by_card_type>(645, out, out, 1),
    ask<_ndm_get_my_card_obj_rt>(out, 1), ask<_ndm_get_my_card_type_rt>(out, 1), ask<_ndm_get_my_lchips>(out, 1),
    ask<_ndm_get_my_lport_num>(1), ask<ndm_calculate_tipc_node>(1, 3, 0), ask<ndm_card_is_online>(1, 4, 0),
    ask<ndm_card_is_online_by_node>(node), ask<ndm_card_sup_subslot>(1, 3), ask<ndm_dev_is_box_switch>(1),
    ask<ndm_device_is_online>(1), ask<ndm_get_card_name_by_slot>(1, 2, 0, out, 64),
    ask<ndm_get_card_static_by_type>(646, out), ask<ndm_get_card_switch_chip_num>(645),
    ask<ndm_get_card_type_by_lslotid>(3), ask<ndm_get_card_type_by_slot>(1, 4, 0, out, 1),
    ask<ndm_get_card_type_by_slot>(0, 3, 0, out, 1), ask<ndm_get_chip_family>(77),
    ask<ndm_get_chip_stattr_by_type>(77, out), ask<ndm_get_chip_type_by_card_type>(646, out, out),
    ask<ndm_get_cpu_num>(node), ask<ndm_get_dcm_addr_from_node>(node, out), ask<ndm_get_dev_name_by_id>(1, out, 64),
    ask<ndm_get_dev_name_by_type>(10, out, 64), ask<ndm_get_dev_phy_type>(1, 3, 0),
    ask<ndm_get_dev_slot_cpuid_from_node>(node, out, out, out), ask<ndm_get_dev_slot_from_node>(node, out, out),
    ask<ndm_get_device_num>(), ask<ndm_get_device_sn>(1, out, 64), ask<ndm_get_device_type>(3, out),
    ask<ndm_get_fe_slot_range_by_dev_id>(2, out, out), ask<ndm_get_fe_slot_range_from_device_type>(11, out, out),
    ask<ndm_get_global_ifx_by_objid>(port_1), ask<ndm_get_global_port_by_dm_phyid>(1, 3, 0, 1, out),
    ask<ndm_get_global_port_by_ifx>(0, 101, out), ask<ndm_get_global_port_by_lsm_key>(1, 3, 1, 7, out),
    ask<ndm_get_global_port_by_lsm_key_with_subslot>(1, 3, 0, 2, 7, out),
    ask<ndm_get_global_port_by_ss_phyid>(1, 3, 2, out), ask<ndm_get_global_port_in_chip>(1, 3, 0, out, out),
    ask<ndm_get_hpoe_support_by_objid>(port_2, out), ask<ndm_get_id_from_phy_card_type>(node, out, out, out, out),
    ask<ndm_get_id_from_phyid>(port_1, out, out, out, out), ask<ndm_get_ifx_by_objid>(port_1),
    ask<ndm_get_lc_slot_range_from_device_type>(10, out, out), ask<ndm_get_local_port_by_lport>(1, out),
    ask<ndm_get_local_port_by_unit_cport>(0, 2, out), ask<ndm_get_master_node>(), ask<ndm_get_master_slotid>(out, out),
    ask<ndm_get_max_devid>(), ask<ndm_get_max_lport_by_slot>(1, 3, 20, out), ask<ndm_get_max_port_num>(1, 3, out),
    ask<ndm_get_max_slot_num>(1, out), ask<ndm_get_max_slot_num>(0, out), ask<ndm_get_min_devid>(),
    ask<ndm_get_min_lport_by_slot>(1, 3, 21, out), ask<ndm_get_min_port_num>(1, 3, out),
    ask<ndm_get_min_slot_num>(0, out), ask<ndm_get_my_card_multi_lport>(out, out), ask<ndm_get_my_card_type>(out),
    ask<ndm_get_my_dcm_addr>(out), ask<ndm_get_my_dev_grole>(), ask<ndm_get_my_dev_lrole>(),
    ask<ndm_get_my_device_name>(out, 64), ask<ndm_get_my_device_type>(out), ask<ndm_get_my_devid>(),
    ask<ndm_get_my_devid_rt>(), ask<ndm_get_my_lchips>(out), ask<ndm_get_my_local_master_node>(out),
    ask<ndm_get_my_local_master_node_rt>(out), ask<ndm_get_my_lport_num>(),
    ask<ndm_get_my_lport_num_by_sub_slot>(0, out), ask<ndm_get_my_lslotid>(), ask<ndm_get_my_lslotid_rt>(),
    ask<ndm_get_my_node>(), ask<ndm_get_my_node_type>(), ask<ndm_get_my_phy_slot>(out), ask<ndm_get_my_role>(),
    ask<ndm_get_my_user_slot>(), ask<ndm_get_node_from_dcm_addr>(259, out),
    ask<ndm_get_node_from_dev_slot_cpuid>(1, 3, 1, out), ask<ndm_get_node_from_userslot>(1, 2, out),
    ask<ndm_get_node_type>(node), ask<ndm_get_node_type_from_card_type>(645),
    ask<ndm_get_objid_by_slot_lport>(1, 3, 1, out), ask<ndm_get_online_lc_num>(1),
    ask<ndm_get_online_node_bmp_gms>(out, out), ask<ndm_get_physlot_by_devid_userslot>(1, 2, out),
    ask<ndm_get_physlot_by_userslot>(1, 2, 0, out, out), ask<ndm_get_poe_support_by_objid>(port_2, out),
    ask<ndm_get_port_host_userslot_from_userslot>(4), ask<ndm_get_port_type>(port_1, out),
    ask<ndm_get_port_type>(port_2, out), ask<ndm_get_role_by_node>(node_22), ask<ndm_get_slaver_id>(out, out),
    ask<ndm_get_slaver_node>(out), ask<ndm_get_slot_num>(1), ask<ndm_get_slot_num_rt>(3),
    ask<ndm_get_sslot_by_lport>(1, 3, 20), ask<ndm_get_static_port_by_dm_phyid>(1, 3, 0, 1, out),
    ask<ndm_get_static_port_by_ifx>(0, 102, out), ask<ndm_get_static_port_by_ifx_in_vsd>(101, out),
    ask<ndm_get_static_port_by_lsm_key>(1, 3, 1, 7, out),
    ask<ndm_get_static_port_by_lsm_key_with_subslot>(1, 3, 0, 2, 7, out),
    ask<ndm_get_static_port_by_ss_phyid>(1, 3, 1, out), ask<ndm_get_static_port_in_chip>(1, 3, 0, out, out),
    ask<ndm_get_system_l3_mac>(out, 6), ask<ndm_get_total_chip_num_by_card_type>(645),
    ask<ndm_get_user_slot_name>(2, 4, 0, out, 64), ask<ndm_get_user_slot_range_from_device_type>(10, out, out),
    ask<ndm_get_userslot_from_boardname>("FE2"), ask<ndm_get_userslot_from_node>(node, out),
    ask<ndm_get_vsd_l3mac>(0, out, 6), ask<ndm_get_vsd_port_by_dm_phyid>(1, 3, 0, 1, out),
    ask<ndm_get_vsd_port_by_ifx>(101, out), ask<ndm_get_vsd_port_by_lsm_key>(1, 3, 1, 7, out),
    ask<ndm_get_vsd_port_by_lsm_key_with_subslot>(1, 3, 0, 2, 7, out), ask<ndm_get_vsd_port_by_ss_phyid>(1, 3, 2, out),
    ask<ndm_get_vsdid_by_objid>(port_1, out), ask<ndm_get_vsdid_by_objid_rt>(port_1, out),
    ask<ndm_indep_get_master_node>(), ask<ndm_indep_get_master_node_rt>(), ask<ndm_indep_get_slave_node>(),
    ask<ndm_indep_get_slave_node_rt>(), ask<ndm_indep_get_userslot_from_boardname>("M1"), ask<ndm_is_mboard>(node),
    ask<ndm_is_vsl_card>(1, 3), ask<ndm_is_vsu>(), ask<ndm_lib_subcribe>(&followed),
    ask<ndm_lib_subcribe_com>(nullptr, nullptr, nullptr), ask<ndm_local_is_online>(3, 0),
    ask<ndm_mb_is_local_master>(1, 30), ask<ndm_vsl_cmp_ap>(nullptr, &any_ap),
    ask<ndm_reset_module_by_node_causelly>(node, "cause", "module"),
    // clang-format on
};

// These read in more than one hold of the lock: their parts may be of two moments.
const std::set<std::string> in_parts = {"_ndm_get_my_card_obj_rt", "_ndm_get_my_lchips", "ndm_get_my_device_name",
                                        "ndm_is_vsl_card", "ndm_reset_module_by_node_causelly"};

// Every field of a kind, packed; whatever its type can say is `number`.
std::string content(const ProtobufCMessageDescriptor *kind, int32_t number) {
    std::string bytes;
    const auto varint = [&bytes](size_t value) {
        for (; value > 127; value >>= 7) bytes += static_cast<char>(value | 128);
        bytes += static_cast<char>(value);
    };
    for (const ProtobufCFieldDescriptor &field : std::span(kind->fields, kind->n_fields)) {
        const auto *inner =
            field.type == PROTOBUF_C_TYPE_MESSAGE ? static_cast<decltype(kind)>(field.descriptor) : nullptr;
        const bool text = inner || field.type == PROTOBUF_C_TYPE_STRING || field.type == PROTOBUF_C_TYPE_BYTES;
        const int32_t n = field.label != PROTOBUF_C_LABEL_REPEATED ? 1 : inner ? 2 : 4;
        for (int32_t i = number; i < number + n; ++i) {
            const std::string part = inner ? content(inner, i) : std::string(6, static_cast<char>('@' + i % 32));
            varint(field.id << 3 | (text ? 2 : 0));
            varint(text ? part.size() : static_cast<size_t>(field.type == PROTOBUF_C_TYPE_BOOL ? i % 2 : i));
            if (text) bytes += part;
        }
    }
    return bytes;
}

Message of(const std::string &kind, int32_t number, std::initializer_list<Message::Field> fields = {}) {
    const auto *descriptor = dm_schema_find_message(("p_dev." + kind).c_str());
    Message made = Message::unpack(descriptor, content(descriptor, number));
    for (const auto &[path, value] : fields) made = std::move(made).set(path, value);
    return made;
}

// Who refers to a type refers to one that ends in 0 or 5, or to the next one.
Message of_type(const std::string &kind, int32_t type, int32_t v) {
    return of(kind, 2 + 3 * (type % 10) + 2 * v, {{"index.type", type}});
}

Message device_type(int32_t type, int32_t v) {
    return of_type("device_static_info", type, v).set("is_box", type == 11).set("min_slot", 1);
}

Message card_attributes(int32_t type, int32_t v) {
    Message made = of_type("dm_card_stattr_t", type, v).set("chip_num", 2);
    auto *card = made.as<PDev__DmCardStattrT>();
    card->extended_port_array[0]->logic_id = 5;
    card->extended_port_array[0]->poe_support = card->extended_port_array[0]->hpoe_support = type % 2;
    for (const int32_t i : {0, 1}) {  // the card's own port 1, and port 2 of its sub-card
        PDev__DmPortAttrT *port = card->chip_attr_array[0]->port_attr[i];
        port->lport = 1 + i;
        port->owner_subcard = i;
        port->logic_id = 5;
    }
    return made;
}

Message device(int32_t devid, int32_t v) {
    Message made = of("device_info", 6 + v,
                      {{"index.devid", devid},
                       {"devid", devid},
                       {"config_dev_type", 10 + v},
                       {"static_info.is_box", v},
                       {"static_info.min_slot", 1}});
    made.as<PDev__DeviceInfo>()->static_info->slot_index[2] = 3;
    return made;
}

Message a_card(int32_t slot, int32_t sslot, int32_t type, int32_t v) {
    return of("card_info", slot + v,
              {{"index.t_mod", 0},
               {"index.devid", 1},
               {"index.slotid", slot},
               {"index.sslotid", sslot},
               {"config_dev_type", type},
               {"card_nodeid", 9 * slot + v}});
}

Message link(int32_t v) {
    return of("vsl_port_info", 2 + v, {{"index.devid", 1}, {"index.slotid", 3 + v}});
}

void step() {
    ++steps;
    steps.notify_all();
}

// The store changes, then tells.
void set(const Message &object) {
    step();
    platform.put(object);
    platform.push(object);
    step();
}

void remove(const Message &object) {
    step();
    platform.erase(object);
    platform.push_delete(object);
    step();
}

std::vector<std::set<std::string>> held(queries.size());
bool recording = false;

int32_t record(tq_mom_handle *, int32_t, int32_t, ProtobufCMessage *) {
    for (size_t i = 0; recording && i < queries.size(); ++i) held[i].insert(queries[i].answer());
    return 0;
}

// Much changes at once and is not told: the store announces its content again, or its connections are lost.
void rescan(int32_t v) {
    step();
    platform.put(of("dp_lib_grole", 2 + v, {{"global_slave.devid", 9 - v}}));
    platform.put(a_card(4, 0, 645, v));
    platform.put(link(v), 3);
    platform.erase(link(1 - v), 3);
    v ? platform.put(device(3, 0)) : platform.erase(device(3, 0));
    if (v) {
        platform.push(complete());
    } else {
        for (const uint32_t db : {1U, 3U}) platform.lose_connection(db, 2);
        platform.confirm();
        platform.push(a_card(5, 0, 645, 1));
        platform.push_delete(a_card(5, 0, 645, 1));
        platform.fire_timers();
    }
    platform.answer_scans();
    record(nullptr, 0, 0, nullptr);  // a sweep calls nobody back
    step();
}

// Ends where it began. What refers to a type goes over to the other first; then the type that nobody refers to changes for
// a while: so an answer of the one moment's reference and the next one's type never held.
void cycle() {
    for (const int32_t v : {1, 0}) {
        set(of("dp_lib_my_info", 1 + v,
               {{"card_type", 645 + v}, {"card_nodeid", static_cast<int32_t>(node) + 256 * v}}));
        set(of("dp_lib_my_chss_info", v, {{"devid", 1 + v}, {"dev_type", 10 + v}}));
        set(device(1, v));
        set(a_card(3, 0, 645 + v, v));
        set(a_card(3, 1, 700 + v, v));
        for (const int32_t other : {1, 0}) {
            set(device_type(11 - v, other));
            for (const int32_t type : {646 - v, 701 - v}) {
                set(card_attributes(type, other));
                set(of_type("card_static_info", type, other));
            }
        }
        for (const int32_t p : {2 - v, 1 + v}) {  // never the second port's new content beside the first one's old
            set(static_port(1, 3, p, 7).set("static_info.mport", v));
            set(global_port(0, 1, 3, p, 7, 100 + p).set("layer", v));
            set(vsd_port(1, 3, p, 7, 100 + p).set("layer", v));
            set(local_port(0, p, p).set("static_info.mport", v).set("static_info.pd_medium_type", v ? 2 : 0));
        }
        const Message brief[] = {
            of("dp_lib_grole", 2 + v),
            of("dp_lib_lrole", 2 + v),
            of("local_port_info", 2 + v),
            of_type("dm_chip_stattr_t", 77, v),
            of("vsd_info", 2 + v, {{"index.t_vsdid", 0}, {"id", 0}}),
            of("device_sync_info", 2 + v, {{"index.devid", 1}}),
            of("local_card_info", 2 + v,
               {{"index.t_mod", 0}, {"index.devid", 0}, {"index.slotid", 3}, {"index.sslotid", 0}}),
            global_port(0, 1, 3, 1, 7, 101).set("layer", v),
            static_port(1, 3, 2, 7).set("static_info.mport", v)};
        for (const Message &object : brief) {
            set(object);
            remove(object);
            set(object);
        }
        if (v == 0) {  // what a box asks of its main board changes while the device is none
            remove(a_card(30, 0, 646, 0));
            set(a_card(30, 0, 646, 0));
            for (const int32_t other : {1, 0}) set(a_card(30, 2, 646, other));
        }
        rescan(v);
    }
}

void start_live(dm_cache_change_cb callback) {
    dm_cache_multi_thread_init();
    for (int32_t row = 1; row < DM_ROW_COUNT; ++row) dm_cache_sub_obj(row, callback, 0);
    start({});
    platform.put(complete());
    platform.become_ready();
    followed.db = 1;
    followed.key = Message("p_dev.vsd_info", {{"index.t_vsdid", 0}}).release();
    followed.cb = [](tq_mom_handle *, store_msg *, const char *) { return 0; };
    ndm_lib_subcribe(&followed);
    platform.confirm();
    platform.answer_scans();
}

bool another_thread_can_lock() {
    const auto other = std::async(std::launch::async, [] { return dm_cache_lock() + dm_cache_unlock(); });
    return other.wait_for(seconds(10)) == std::future_status::ready;
}

// Until told to stop, and so often at least; the first wrong answer ends it.
void keep_asking(size_t from, int passes, const std::atomic<bool> *stop) {
    dawdle = static_cast<uint32_t>(from) + 1;
    for (; passes > 0 || !*stop; --passes)
        for (size_t i = from; i < from + queries.size(); ++i) {
            const Query &query = queries[i % queries.size()];
            const uint32_t before = steps.load(std::memory_order_relaxed);
            const std::string answer = query.answer();
            if (held[i % queries.size()].contains(answer)) continue;
            if (in_parts.contains(query.name) && (before % 2 || steps != before)) continue;
            ADD_FAILURE() << query.name << " answered " << testing::PrintToString(answer);
            return;
        }
}

// An empty cache in the place of every row's list and trees, to be seen by this thread whenever it holds neither side.
struct Hidden {
    dm_cache_list *lists[DM_ROW_COUNT];
    ndm_cache_tree *trees[DM_ROW_COUNT];
    dm_cache_list empty{{&empty.head, &empty.head}, 0};

    Hidden() { hide(); }
    ~Hidden() { show(); }
    Hidden(const Hidden &) = delete;
    void hide() {
        for (int32_t row = 0; row < DM_ROW_COUNT; ++row) {
            lists[row] = std::exchange(obj_sub_list[row].obj_list, obj_sub_list[row].obj_list ? &empty : nullptr);
            trees[row] = std::exchange(obj_sub_list[row].port_tree, nullptr);
        }
    }
    void show() {
        for (int32_t row = 0; row < DM_ROW_COUNT; ++row) {
            obj_sub_list[row].obj_list = lists[row];
            obj_sub_list[row].port_tree = trees[row];
        }
    }
};
thread_local Hidden *hidden = nullptr;
thread_local int hidden_holds = 0;

void lock_taken() {
    if (hidden && hidden_holds++ == 0) hidden->show();
}
void lock_to_be_released() {
    if (hidden && --hidden_holds == 0) hidden->hide();
}

}  // namespace

extern "C" {
void __real__ZN2dm15lock_for_changeEv(void);
void __real__ZN2dm19unlock_after_changeEv(void);
void __wrap__ZN2dm15lock_for_changeEv(void);
void __wrap__ZN2dm19unlock_after_changeEv(void);
void __wrap__ZN2dm15lock_for_changeEv(void) {
    __real__ZN2dm15lock_for_changeEv();
    lock_taken();
}
void __wrap__ZN2dm19unlock_after_changeEv(void) {
    lock_to_be_released();
    __real__ZN2dm19unlock_after_changeEv();
}
bool __real__ZN2dm11lock_sharedEv(void);
void __real__ZN2dm13unlock_sharedEv(void);
bool __wrap__ZN2dm11lock_sharedEv(void);
void __wrap__ZN2dm13unlock_sharedEv(void);
bool __wrap__ZN2dm11lock_sharedEv(void) {
    const bool taken = __real__ZN2dm11lock_sharedEv();
    held_locks += taken;
    if (taken) lock_taken();
    return taken;
}
void __wrap__ZN2dm13unlock_sharedEv(void) {
    lock_to_be_released();
    __real__ZN2dm13unlock_sharedEv();
    if (--held_locks > 0 || dawdle == 0) return;
    dawdle = dawdle * 1103515245 + 12345;
    // Relaxed: a reader that learned of the deliveries here would have its unlocked reads taken for ordered ones.
    constexpr auto relaxed = std::memory_order_relaxed;
    const uint32_t begin = steps.load(relaxed), wait = dawdle >> 16 & 3 ? 0 : dawdle >> 18 & 31;
    for (uint32_t now = begin; now - begin < wait; now = steps.load(relaxed)) steps.wait(now, relaxed);
}
}

// A query that is added later is to be asked here too.
TEST(Concurrency, AsksEveryQueryOfTheHeaders) {
    std::set<std::string> declared, asked = {"ndm_port_obj_free"};
    for (const auto &header : std::filesystem::directory_iterator(NDM_HEADERS)) {
        std::ifstream file(header.path());
        const std::string text(std::istreambuf_iterator<char>(file), {});
        const std::regex name("\nDM_API [a-z0-9_]+ ([a-z0-9_]+)\\(");
        for (std::sregex_iterator at(text.begin(), text.end(), name), end; at != end; ++at) declared.insert((*at)[1]);
    }
    for (const Query &query : queries) asked.insert(query.name);
    EXPECT_EQ(asked, declared);
}

// What a query reads without the lock may be freed under it. Here it finds an empty cache instead, whatever was there.
TEST(Concurrency, NoQueryReadsTheCacheWithoutTheLock) {
    const auto audit = [](tq_mom_handle *, int32_t, int32_t, ProtobufCMessage *) {
        for (const Query &query : queries) {
            query.answer();  // what it reads from the store is cached from then on
            const std::string answer = query.answer();
            Hidden rows;
            hidden = &rows;
            const std::string again = query.answer();
            hidden = nullptr;
            EXPECT_EQ(again, answer) << query.name;
        }
        return 0;
    };
    start_live(audit);
    cycle();
    set(of("dp_lib_my_chss_info", 1, {{"devid", 1}, {"dev_type", 10}}));  // a virtual unit, whose links stay
    Message roles = of("dp_lib_grole", 1);
    PDev__LibCardRole &leader = *roles.as<PDev__DpLibGrole>()->card_role[0];
    leader.devid = leader.is_local_master = 1;
    leader.slotid = 30;
    set(roles);
    EXPECT_EQ(ndm_is_vsl_card(1, 3) + ndm_mb_is_local_master(1, 30), 2);
}

// First by one thread, which asks whenever a change is complete; then by three at any time.
TEST(Concurrency, EveryAnswerHeldAtSomeMomentAndNoStoreReadHoldsTheLock) {
    start_live(record);
    for (const int32_t type : {10, 11}) set(device_type(type, 0));
    for (const int32_t type : {645, 646, 700, 701}) set(card_attributes(type, 0));
    for (const int32_t type : {645, 646}) set(of_type("card_static_info", type, 0));
    set(device(2, 1));
    set(a_card(30, 0, 646, 0));
    cycle();
    recording = true;
    platform.during_read = [] { EXPECT_TRUE(another_thread_can_lock()); };
    for (auto before = held; cycle(), before != held; before = held) {
    }
    EXPECT_GT(platform.reads, 100);
    recording = false;
    platform.during_read = nullptr;

    std::atomic<bool> stop = false;
    std::vector<std::future<void>> readers;
    for (const size_t from : {0UL, 70UL})
        readers.push_back(std::async(std::launch::async, keep_asking, from, 30, &stop));
    for (int i = 0; i < 20; ++i) cycle();
    stop = true;
    for (auto &reader : readers)
        while (reader.wait_for(seconds(0)) != std::future_status::ready) cycle();
    EXPECT_EQ(platform.unreleased, 0);
}
