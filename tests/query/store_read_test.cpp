// Reads of the store for what the cache lacks. One under the cache lock stops every thread of the process; one that is
// cached although the cache has moved on brings back what is gone.
#include "query/ndm_port.h"
#include "tests/query/topology.h"

class StoreRead : public Topology {};

namespace {

constexpr auto expect_unlocked = [] { EXPECT_TRUE(another_thread_can_lock()); };

// The answer and one field of a copy that is handed out, or the second entry of an array.
template <class T, class Ask> std::string copied(int32_t T::*field, const Ask &ask_for) {
    T *copy = nullptr;
    const int32_t answer = ask_for(&copy);
    const dm::owned<T> own(copy);
    return copy ? each(answer, copy->*field) : each(answer);
}
template <class Ask> std::string second(const Ask &ask_for) {
    int32_t *types = nullptr;
    const int32_t answer = ask_for(&types);
    const dm::OwnedMemory<int32_t> own(types);
    return types ? each(answer, types[1]) : each(answer);
}
constexpr auto switches = &PDev__DmCardStattrT::switch_num;

struct Read {
    const char *how;  // as a record, or as a bare object
    int32_t row;
    std::string stored, want;
    bool cached;
    const char *reader;  // the function in whose name a failure is logged
    std::function<std::string(uint8_t rt)> ask_with;
};

}  // namespace

TEST_F(StoreRead, IsMadeOnceUnlockedAndNeverUndoesAChange) {
    const auto card = [](uint8_t rt) { return ask(ndm_get_card_type_by_slot, 1, 7, 2, out, rt); };
    const auto local_card = [](uint8_t rt) { return ask(ndm_get_card_type_by_slot, 0, 7, 2, out, rt); };
    const auto of_type = [](uint8_t rt) {
        return copied(switches, [rt](auto *to) { return dm::ndm_get_card_obj_by_type(645, to, rt); });
    };
    const auto mine = [](uint8_t rt) {
        return copied(switches, [rt](auto *to) { return _ndm_get_my_card_obj_rt(to, rt); });
    };
    const auto port = [](uint8_t rt) {
        dm::PortFacts facts{};
        const int32_t answer = dm::ndm_get_port_static_by_objid(0x1404232C, &facts, rt, 1);
        return answer == 0 ? each(answer, facts.type) : each(answer);
    };
    const auto my_chips = [](uint8_t rt) { return second([rt](auto *to) { return _ndm_get_my_lchips(to, rt); }); };
    const auto chips = [](uint8_t rt) {
        int32_t n;
        return second([&](auto *to) { return _ndm_get_chip_type_by_card_type(645, to, &n, rt); });
    };
    const auto family = [](uint8_t rt) { return each(_ndm_get_chip_family(88, rt)); };
    const auto ports = [](uint8_t rt) { return each(_ndm_get_my_lport_num(rt)); };
    const auto type = [](uint8_t rt) { return ask(_ndm_get_my_card_type_rt, out, rt); };
    const auto leader = [](uint8_t rt) {
        return ask(rt == 1 ? ndm_get_my_local_master_node_rt : ndm_get_my_local_master_node, out);
    };
    const auto slots = [](uint8_t rt) { return ask(rt == 1 ? ndm_get_slot_num_rt : ndm_get_slot_num, 9); };
    const auto master = [](uint8_t rt) {
        return ask(rt == 1 ? ndm_indep_get_master_node_rt : ndm_indep_get_master_node);
    };
    const auto slave = [](uint8_t rt) { return ask(rt == 1 ? ndm_indep_get_slave_node_rt : ndm_indep_get_slave_node); };
    const std::string card_7 = "index{devid:1 slotid:7 sslotid:2} config_dev_type:5";
    const Read reads[] = {
        {"hgetall", 17, card_7, "0 5;", false, "ndm_get_card_type_by_slot", card},
        {"hgetall", 14, "index{slotid:7 sslotid:2} card_type:5", "0 5;", false, "ndm_get_card_type_by_slot",
         local_card},
        {"get", 11, line_card, "0 1;", true, "ndm_get_card_obj_by_type", of_type},
        {"get", 11, line_card, "0 1;", true, "ndm_get_card_obj_by_type", mine},
        {"get", 11, line_card, "0 10;", false, "ndm_get_port_static_by_objid", port},
        {"get", 11, line_card, "2 99;", true, "ndm_get_card_obj_by_type", my_chips},
        {"get", 11, line_card, "0 99;", true, "ndm_get_card_obj_by_type", chips},
        {"get", 20, "index{type:88} family:4", "4;", true, "ndm_get_chip_obj_by_type", family},
        {"hgetall", 10, "lport_num:48", "48;", true, "_ndm_get_my_lport_num", ports},
        {"hgetall", 2, "card_type:5", "0 5;", true, "_ndm_get_my_card_type_rt", type},
        {"hgetall", 12, "local_master_node:9", "0 9;", false, "_ndm_get_my_local_master_node", leader},
        {"hgetall", 16, "index{devid:9} static_info{slot_type:1,8,2}", "2;", false, "_ndm_get_slot_num", slots},
        {"hgetall", 15, role_record, each(0x0C051E00), false, "_ndm_indep_get_master_node", master},
        {"hgetall", 15, role_record, each(0x0C088500), false, "_ndm_indep_get_slave_node", slave},
    };
    for (const Read &read : reads) {
        SCOPED_TRACE(read.reader);
        const Message stored = object(read.row, read.stored), newer = key_only(stored.get());
        const std::string call = std::string(read.how) + " 1 " + stored.get()->descriptor->name;
        // The answer, and whether the one call of the store was made.
        const auto expect_answer = [&](int rt, const std::string &want, bool called) {
            platform.calls.clear();
            EXPECT_EQ(read.ask_with(static_cast<uint8_t>(rt)).substr(0, want.size()), want);
            EXPECT_EQ(drained(&platform.calls), called ? Strings{call} : Strings());
        };
        const auto is_cached = [&](const Message &one) {
            const auto *node = element(read.row, one);
            return node && equal(node->obj, one.get());
        };
        drop(read.row, read.stored);
        const bool any_rt = read.row == 2;  // the others want exactly 1
        expect_answer(any_rt ? 0 : 2, "-1", false);
        for (const int32_t error : {0, 5, ScriptedPlatform::no_reply}) {  // 0: not there
            LogCapture log(3, 2);
            platform.answers = {{call, error}};
            expect_answer(1, "-1", true);
            const int32_t code = call[0] == 'h' && error != 5 ? 0 : error;
            const std::string line = text("l2 ndm_port:%s>unexpected, error:%d!\r\n", read.reader, code);
            EXPECT_EQ(log.take(), at_threshold(3, {line}, 2));
        }
        platform.answers.clear();
        platform.put(stored);
        platform.during_read = expect_unlocked;
        expect_answer(any_rt ? 2 : 1, read.want, true);
        EXPECT_EQ(is_cached(stored), read.cached);
        expect_answer(1, read.want, !read.cached);
        drop(read.row, read.stored);
        platform.during_read = [&] { receive(read.row, SET, newer); };
        expect_answer(1, read.want, true);
        EXPECT_TRUE(is_cached(newer));
        drop(read.row, read.stored);
        platform.during_read = [&] { receive(read.row, DELETE, stored); };
        expect_answer(1, read.want, true);
        EXPECT_FALSE(is_cached(stored));
        EXPECT_EQ(platform.unreleased, 0);
        platform.during_read = nullptr;
        platform.erase(stored);
        set(read.row, read.stored);
    }
}

// A scan brings a slot's ports and their static ports, and nothing that went away while it ran.
TEST_F(StoreRead, ScansForAPort) {
    constexpr uint32_t wanted = 0x14040300;  // device 1, slot 3, port 0
    const auto global = [](int32_t place, int32_t ifx) { return global_port(4, 1, 3, place, 7, ifx); };
    const auto vsdid = [] {
        platform.calls.clear();
        const std::string answer = ask(ndm_get_vsdid_by_objid_rt, wanted, out);
        return answer + each(cached(7), cached(30), ndm_get_global_ifx_by_objid(wanted));
    };
    for (const int32_t n : {0, 1}) {
        platform.put(global(n, n));
        platform.put(static_port(1, 3, n, 7));
    }
    platform.put(global_port(4, 1, 4, 0, 7, 9));
    platform.put(global_port(4, 2, 3, 0, 7, 9));
    platform.put(global(0, 8).set("index.t_sslot", 1));
    for (const char *failing : {"scan_sync", "get 1 p_dev.port_static"}) {
        platform.answers = {{failing, 5}};
        EXPECT_EQ(vsdid(), "-1 ~;0 0 -1;");
    }
    platform.answers.clear();
    platform.during_read = expect_unlocked;
    EXPECT_EQ(ask(ndm_get_vsdid_by_objid, wanted, out), "-1 ~;");
    EXPECT_EQ(vsdid(), "0 4;2 2 0;");
    const std::string get = "get 1 p_dev.port_static";
    EXPECT_EQ(platform.calls, (Strings{"scan_sync 1 p_dev.vsd_port", get, get}));
    EXPECT_EQ(vsdid(), "0 4;2 2 0;");
    EXPECT_EQ(platform.calls, Strings());
    EXPECT_EQ(ask(ndm_get_vsdid_by_objid, wanted, out) + each(platform.unreleased.load()), "0 4;0;");

    const auto scanned = [&](const char *during, int32_t row, int32_t cmd, const Message &change) {
        for (const int32_t n : {0, 1}) {
            receive(30, DELETE, global(n, n));
            receive(7, DELETE, static_port(1, 3, n, 7));
        }
        platform.during_read = [&] {
            if (platform.calls.back().starts_with(during)) receive(row, cmd, change);
        };
        return vsdid();
    };
    EXPECT_EQ(scanned("scan", 30, DELETE, global(0, 0)), "-1 ~;2 0 -1;");  // any of them may be gone
    EXPECT_EQ(scanned("scan", 30, SET, global(0, 55)), "0 4;2 2 55;");
    EXPECT_EQ(scanned("get", 7, DELETE, static_port(1, 3, 0, 7)), "-1 ~;0 0 -1;");
    EXPECT_EQ(scanned("get", 7, SET, static_port(1, 3, 1, 7).set("static_info.user_port", 9)), "0 4;2 2 0;");
    const uint32_t before = counters(30).refused;
    platform.during_read = [] { obj_sub_list[30].obj_list->count = DM_CACHE_LIST_LIMIT; };
    receive(30, DELETE, global(0, 0));
    EXPECT_EQ(ask(ndm_get_vsdid_by_objid_rt, wanted, out), "-1 ~;");
    EXPECT_EQ(counters(30).refused, before + 1);
    obj_sub_list[30].obj_list->count = 1;
}

TEST_F(StoreRead, ScansForTheLocalPorts) {
    const auto combos = [](int32_t rt) {
        for (const char *port : {"index{cport:1}", "index{cport:2}"}) drop(8, port);
        int32_t lports[4] = {}, n = 4;
        const int32_t answer = dm::_ndm_get_my_card_multi_lport(lports, &n, static_cast<uint8_t>(rt));
        return each(answer, n, lports[0], lports[1]);
    };
    const std::string one = "index{cport:1} static_info{lport:11 pd_medium_type:2";
    set(10, "lport_num:2");
    platform.put(object(8, one + "}"));
    platform.put(object(8, "index{cport:2} static_info{lport:12 pd_medium_type:2}"));
    platform.during_read = expect_unlocked;
    EXPECT_EQ(over({0, 1, 2}, combos), "-1 4 0 0;0 2 11 12;0 2 11 12;");
    int32_t lport, n = 1;
    EXPECT_EQ(dm::_ndm_get_my_card_multi_lport(&lport, &n, 1), -1);
    EXPECT_EQ(platform.reads, 2);  // the last time the ports were there
    platform.during_read = [&] { receive(8, SET, object(8, one + " user_port:3}")); };
    EXPECT_EQ(combos(1), "0 2 11 12;");
    EXPECT_TRUE(equal(element(8, object(8, "index{cport:1}"))->obj, object(8, one + " user_port:3}").get()));
    platform.during_read = [&] { receive(8, DELETE, object(8, "index{cport:1}")); };
    EXPECT_EQ(combos(1), "-1 4 0 0;");  // any of them may be gone
    platform.answers["scan_sync"] = 7;
    EXPECT_EQ(combos(1), "-1 4 0 0;");
}

// Two answers of one scan for one object: the later one is the newer, and a change that comes between them newer still.
TEST_F(StoreRead, KeepsTheLaterOfTwoThatAScanBrings) {
    const auto local = [](int32_t lport) { return local_port(0, 1, lport).set("static_info.pd_medium_type", 2); };
    const auto global = [](int32_t ifx) { return global_port(4, 1, 3, 0, 7, ifx); };
    const auto scan_brings_two = [](int32_t row, const Message(&objects)[3], bool pushed) {
        platform.before_scan = [&objects, row, pushed](const Request &scan) {
            scan.deliver(SET, objects[0].get());
            if (pushed) receive(row, SET, objects[2]);
            scan.deliver(SET, objects[1].get());
        };
    };
    set(10, "lport_num:2");
    platform.put(static_port(1, 3, 0, 7));
    for (const bool pushed : {false, true}) {
        for (const int32_t row : {8, 30}) receive(row, DELETE, row == 8 ? local(1) : global(1));
        const Message ports[] = {local(11), local(12), local(13)}, globals[] = {global(21), global(22), global(23)};
        scan_brings_two(8, ports, pushed);
        int32_t lport = 0, n = 1;
        EXPECT_EQ(dm::_ndm_get_my_card_multi_lport(&lport, &n, 1), 0);
        EXPECT_EQ(lport, pushed ? 13 : 12);
        scan_brings_two(30, globals, pushed);
        EXPECT_EQ(ask(ndm_get_vsdid_by_objid_rt, 0x14040300, out), "0 4;");
        EXPECT_EQ(ndm_get_global_ifx_by_objid(0x14040300), pushed ? 23 : 22);
    }
    platform.before_scan = nullptr;
}

// A reply is of the kind that was asked for, or it is no answer.
TEST_F(StoreRead, RefusesARepliedObjectOfAnotherKind) {
    platform.instead = vsd_port(1, 2, 3, 7, 5);
    for (const int32_t row : {2, 11, 17}) {
        drop(row, row == 11 ? line_card : row == 17 ? "index{devid:1 slotid:7 sslotid:2}" : "");
        const uint32_t before = counters(row).refused;
        EXPECT_EQ(row == 2    ? ask(_ndm_get_my_card_type_rt, out, 1)
                  : row == 17 ? ask(ndm_get_card_type_by_slot, 1, 7, 2, out, 1)
                              : copied(switches, [](auto *to) { return dm::ndm_get_card_obj_by_type(645, to, 1); }),
                  row == 11 ? "-1;" : "-1 ~;");
        EXPECT_EQ(counters(row).refused, before + 1);
    }
    platform.instead = Message();
    EXPECT_EQ(platform.unreleased, 0);
}

// What a damaged store hands to a scan must neither end it nor be taken for a port.
TEST_F(StoreRead, ScansPastWhatIsNoObject) {
    set(10, "lport_num:2");
    const uint32_t before[] = {counters(8).refused, counters(30).refused};
    const Message port = object(8, "index{cport:1} static_info{lport:11}"), other = global_port(4, 9, 9, 9, 7, 9),
                  alien = card(1, 3, 0);
    Strings answers;
    platform.before_scan = [&](const Request &scan) {
        result_rec bad = {port.get(), {}, 5}, empty = {nullptr, {}, 0};
        // The last one is taken; or passed over, as it is not the port that is wanted.
        answers.push_back(each(scan.callback(&platform.handle, nullptr, scan.privdata), scan.deliver(REPLY, nullptr),
                               scan.deliver(REPLY, &bad), scan.deliver(REPLY, &empty), scan.deliver(SET, nullptr),
                               scan.deliver(OTHER, port.get()), scan.deliver(SET, alien.get()),
                               scan.deliver(SET, answers.empty() ? port.get() : other.get())));
    };
    int32_t lport, n = 1;
    EXPECT_EQ(dm::_ndm_get_my_card_multi_lport(&lport, &n, 1), 0);
    EXPECT_EQ(cached(8), 1);
    EXPECT_EQ(ask(ndm_get_vsdid_by_objid_rt, 0x14040300, out), "-1 ~;");
    EXPECT_EQ(answers, Strings(2, "-1 -1 -1 -1 -1 -1 -1 0;"));
    EXPECT_EQ(counters(8).refused - before[0], 5U);
    EXPECT_EQ(counters(30).refused - before[1], 5U);
    platform.before_scan = nullptr;
}
