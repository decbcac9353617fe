// Every query asked by several threads while the store's changes arrive: an answer mixed of two moments sends a client to
// a device that never was, and a lock that is missing or held too long ends or stops the process.
#include "tests/query/questions.h"
#include "tests/support/live_cache.h"
#include "tq_dm_cache/ndm.h"

#include <set>

namespace {

using std::chrono::seconds;

constexpr int32_t node = 3 << 26 | 1 << 18 | 3 << 8;

std::atomic<uint32_t> steps = 0;   // of the delivering thread; odd during one
thread_local int held_locks = 0;   // by this thread
thread_local uint32_t dawdle = 0;  // not 0: this thread lets some deliveries pass whenever it has released the lock

// Every query, and some again with other arguments.
const std::vector<Question> &queries() {
    static std::vector<Question> all;
    if (!all.empty()) return all;
    for (const std::string &name : Question::names()) all.emplace_back(name);
    for (const char *line : {"ndm_card_is_online slot=4",
                             "ndm_get_card_static_by_type card_type=646",
                             "ndm_get_card_type_by_slot slot=4",
                             "ndm_get_card_type_by_slot devid=0",
                             "ndm_get_chip_type_by_card_type card_type=646",
                             "ndm_get_device_type devid=3",
                             "ndm_get_fe_slot_range_by_dev_id devid=2",
                             "ndm_get_fe_slot_range_from_device_type device_type=11",
                             "ndm_get_global_port_by_lsm_key_with_subslot port=2",
                             "ndm_get_global_port_by_ss_phyid lport=2",
                             "ndm_get_hpoe_support_by_objid objid=336855810",
                             "ndm_get_max_lport_by_slot sslot=20",
                             "ndm_get_max_slot_num devid=0",
                             "ndm_get_min_lport_by_slot sslot=21",
                             "ndm_get_min_slot_num devid=0",
                             "ndm_get_poe_support_by_objid objid=336855810",
                             "ndm_get_port_type objid=336855810",
                             "ndm_get_role_by_node node=201851392",
                             "ndm_get_slot_num_rt devid=3",
                             "ndm_get_sslot_by_lport lport=20",
                             "ndm_get_static_port_by_ifx ifx=102",
                             "ndm_get_system_l3_mac len=6",
                             "ndm_get_user_slot_name devid=2 user_slot=4",
                             "ndm_mb_is_local_master slot=30"})
        all.emplace_back(line);
    return all;
}

// These read in more than one hold of the lock: their parts may be of two moments.
const std::set<std::string> in_parts = {"_ndm_get_my_card_obj_rt", "_ndm_get_my_lchips", "ndm_get_my_device_name",
                                        "ndm_is_vsl_card", "ndm_reset_module_by_node_causelly"};

// Every field says the number; but for the key, and the fields that are named.
Message of(const std::string &kind, std::initializer_list<int32_t> key, int32_t number,
           std::initializer_list<Message::Value> fields = {}) {
    const auto every_field = [](const ProtobufCFieldDescriptor &, int32_t i) { return i; };
    Message made = filled(*dm_schema_find_message(("p_dev." + kind).c_str()), number, every_field);
    if (key.size() > 0) made = keyed(std::move(made), key);
    for (const auto &[path, value] : fields) std::move(made).set(path, value);
    return made;
}

// Who refers to a type refers to one that ends in 0 or 5, or to the next one.
Message of_type(const std::string &kind, int32_t type, int32_t v) {
    return of(kind, {type}, 2 + 3 * (type % 10) + 2 * v);
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
    Message made = of("device_info", {devid}, 6 + v, {{"devid", devid}, {"config_dev_type", 10 + v}})
                       .set("static_info.is_box", v)
                       .set("static_info.min_slot", 1);
    made.as<PDev__DeviceInfo>()->static_info->slot_index[2] = 3;
    return made;
}

Message a_card(int32_t slot, int32_t sslot, int32_t type, int32_t v) {
    return of("card_info", {1, slot, sslot}, slot + v, {{"config_dev_type", type}, {"card_nodeid", 9 * slot + v}});
}

constexpr auto link = [](int32_t v) { return of("vsl_port_info", {1, 3 + v}, 2 + v); };

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

std::vector<std::set<std::string>> held;
bool recording = false;

void record() {
    for (size_t i = 0; recording && i < queries().size(); ++i) held[i].insert(queries()[i].answer());
}

void (*on_change)() = record;

// Much changes at once and is not told: the store announces its content again, or its connections are lost.
void rescan(int32_t v) {
    step();
    platform.put(of("dp_lib_grole", {}, 2 + v, {{"global_slave.devid", 9 - v}}));
    platform.put(a_card(4, 0, 645, v));
    platform.put(link(v), 3);
    platform.erase(link(1 - v), 3);
    if (v) {
        platform.put(device(3, 0));
        platform.push(complete());
    } else {
        platform.erase(device(3, 0));
        for (const uint32_t db : {1U, 3U}) platform.lose_connection(db, 2);
        platform.confirm();
        platform.push(a_card(5, 0, 645, 1));
        platform.push_delete(a_card(5, 0, 645, 1));
        platform.fire_timers();
    }
    platform.answer_scans();
    record();  // a sweep calls nobody back
    step();
}

// Ends where it began. What refers to a type goes over to the other first; then the type that nobody refers to changes for
// a while: so an answer of the one moment's reference and the next one's type never held.
void cycle() {
    for (const int32_t v : {1, 0}) {
        set(of("dp_lib_my_info", {}, 1 + v, {{"card_type", 645 + v}, {"card_nodeid", node + 256 * v}}));
        set(of("dp_lib_my_chss_info", {}, 1 + v, {{"devid", 1 + v}, {"dev_type", 10 + v}}));
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
        const Message brief[] = {of("dp_lib_grole", {}, 2 + v),
                                 of("dp_lib_lrole", {}, 2 + v),
                                 of("local_port_info", {}, 2 + v),
                                 of_type("dm_chip_stattr_t", 77, v),
                                 of("vsd_info", {0}, 2 + v, {{"id", 0}}),
                                 of("device_sync_info", {1}, 2 + v),
                                 of("local_card_info", {0, 3, 0}, 2 + v),
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

void start_live(void (*told)()) {
    const auto tell = [](tq_mom_handle *, int32_t, int32_t, ProtobufCMessage *) {
        on_change();
        return 0;
    };
    on_change = told;
    dm_cache_multi_thread_init();
    for (int32_t row = 1; row < DM_ROW_COUNT; ++row) dm_cache_sub_obj(row, tell, 0);
    start({});
    platform.put(complete());
    platform.synchronise();
}

// Until told to stop, and so often at least; the first wrong answer ends it.
void keep_asking(size_t from, int passes, const std::atomic<bool> *stop) {
    dawdle = static_cast<uint32_t>(from) + 1;
    for (; passes > 0 || !*stop; --passes)
        for (size_t i = from; i < from + queries().size(); ++i) {
            const Question &query = queries()[i % queries().size()];
            const uint32_t before = steps.load(std::memory_order_relaxed);
            const std::string answer = query.answer();
            if (held[i % queries().size()].contains(answer)) continue;
            if (in_parts.contains(query.name()) && (before % 2 || steps != before)) continue;
            ADD_FAILURE() << query.line << " answered " << testing::PrintToString(answer);
            return;
        }
}

// An empty cache in the place of every row's list and trees, to be seen by this thread whenever it holds neither side.
struct Hidden {
    dm_cache_list empty{{&empty.head, &empty.head}, 0};
    dm_cache_list *lists[DM_ROW_COUNT];
    ndm_cache_tree *trees[DM_ROW_COUNT] = {};

    Hidden() {
        for (int32_t row = 0; row < DM_ROW_COUNT; ++row) lists[row] = obj_sub_list[row].obj_list ? &empty : nullptr;
        hide_or_show();
    }
    ~Hidden() { hide_or_show(); }
    Hidden(const Hidden &) = delete;
    void hide_or_show() {
        for (int32_t row = 0; row < DM_ROW_COUNT; ++row) {
            std::swap(obj_sub_list[row].obj_list, lists[row]);
            std::swap(obj_sub_list[row].port_tree, trees[row]);
        }
    }
};
thread_local Hidden *hidden = nullptr;
thread_local int hidden_holds = 0;

void lock_taken() {
    if (hidden && hidden_holds++ == 0) hidden->hide_or_show();
}
void lock_to_be_released() {
    if (hidden && --hidden_holds == 0) hidden->hide_or_show();
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

// What a query reads without the lock may be freed under it. Here it finds an empty cache instead, whatever was there.
TEST(Concurrency, NoQueryReadsTheCacheWithoutTheLock) {
    const auto audit = [] {
        for (const Question &query : queries()) {
            query.answer();  // what it reads from the store is cached from then on
            const std::string answer = query.answer();
            Hidden rows;
            hidden = &rows;
            const std::string again = query.answer();
            hidden = nullptr;
            EXPECT_EQ(again, answer) << query.line;
        }
    };
    start_live(audit);
    cycle();
    set(of("dp_lib_my_chss_info", {}, 1, {{"devid", 1}, {"dev_type", 10}}));  // a virtual unit, whose links stay
    Message roles = of("dp_lib_grole", {}, 1);
    PDev__LibCardRole &leader = *roles.as<PDev__DpLibGrole>()->card_role[0];
    leader.devid = leader.is_local_master = 1;
    leader.slotid = 30;
    set(roles);
    EXPECT_EQ(ndm_is_vsl_card(1, 3) + ndm_mb_is_local_master(1, 30), 2);
}

// Nor does a change look at the cache, or touch it, without the lock.
TEST(Concurrency, NoChangeIsMadeWithoutTheLock) {
    start_live([] {});
    const auto all_answers = [] {
        std::string all;
        for (const Question &query : queries()) all += query.answer();
        return all;
    };
    cycle();
    const std::string answers = all_answers();
    {
        Hidden rows;
        hidden = &rows;
        cycle();
        hidden = nullptr;
    }
    EXPECT_EQ(all_answers(), answers);
}

// First by one thread, which asks whenever a change is complete; then by three at any time.
TEST(Concurrency, EveryAnswerHeldAtSomeMomentAndNoStoreReadHoldsTheLock) {
    held.resize(queries().size());
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
