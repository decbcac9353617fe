// Synchronisation with the store, step by step. A wrong step leaves a client with a false picture, and nothing tells it.
#include "tests/support/live_cache.h"

namespace {

const std::string scan_complete = "scan 1 p_dev.dp_lib_complete", scan_card = "scan 1 p_dev.card_info";

// Of rows 6, 14, 21 and 32, in classes 1, 2, 4 and 5.
constexpr auto type_info = [](int32_t type) { return Message("p_dev.card_static_info", {{"index.type", type}}); };
constexpr auto local = [](int32_t slot) { return Message("p_dev.local_card_info", {{"index.slotid", slot}}); };
constexpr auto vsl_link = [](int32_t lport) { return Message("p_dev.vsl_port_info", {{"index.lport", lport}}); };
constexpr auto vsd = [](int32_t id) { return Message("p_dev.vsd_info", {{"index.t_vsdid", id}}); };

void start_live(std::initializer_list<int32_t> rows) {
    start_gathering(rows);
    platform.answer_scans();
    ASSERT_EQ(g_cache_proc_done, 1);
    platform.calls.clear();
    changes.clear();
}

void queue(int32_t row, const Message &object) {
    store_msg msg{};
    msg.cmd = SET;
    msg.value = object.get();
    EXPECT_EQ(dm_cache_mom_cache(&msg, row), 0);
}

}  // namespace

// Every enabled kind and no other is asked for, in its own database; one refusal must not stop the others.
TEST(Sync, SubscribesAndScansEveryEnabledRowInItsDatabase) {
    dm_cache_sub_obj(18, nullptr, 0);  // holds no kind: never asked for, waited for by nobody
    start({1, 17, 21});
    platform.answers = {{"subscribe 1 p_dev.dp", -3}};
    platform.calls.clear();
    platform.become_ready();
    EXPECT_EQ(drained(&platform.calls), (Strings{"subscribe 1 p_dev.dp_lib_complete", "subscribe 1 p_dev.card_info",
                                                 "subscribe 3 p_dev.vsl_port_info"}));
    platform.confirm();
    receive(17, SET, card(1, 9, 0));
    receive_end(17);  // of a rescan, say: what it brought was dropped
    EXPECT_EQ(drained(&platform.calls), Strings{});
    receive_value(1, SUBSCRIBED, nullptr);
    EXPECT_EQ(drained(&platform.calls), (Strings{scan_complete, scan_card, "scan 3 p_dev.vsl_port_info"}));
    receive_value(17, SUBSCRIBED, nullptr);  // another confirmation, another full scan
    EXPECT_EQ(drained(&platform.calls), (Strings{scan_complete, scan_card, "scan 3 p_dev.vsl_port_info"}));
    for (const int32_t row : {1, 21}) receive_end(row);
    EXPECT_EQ(g_cache_proc_done, 0);
    platform.answer_scans();
    EXPECT_EQ(g_cache_proc_done, 1);
    EXPECT_EQ(drained(&changes), Strings{});
    receive_value(21, SUBSCRIBED, nullptr);
    EXPECT_EQ(platform.calls.size(), 3U);
}

// Static facts must be there before the cards and ports that refer to them, whichever the store sent first.
TEST(Sync, AppliesClassByClassAndTheRestAsItCame) {
    start_gathering({1, 6, 14, 15, 17, 21, 32});
    receive(32, REPLY, vsd(1));
    receive(15, REPLY, {"p_dev.dp_lib_grole"});
    receive(17, REPLY, card(1, 2, 0));
    receive(21, REPLY, vsl_link(1));
    receive(1, REPLY, complete());
    receive(14, REPLY_HASH, local(1));
    receive(32, REPLY, vsd(2));
    receive(6, REPLY, type_info(3));
    receive(17, SET, card(1, 1, 0));
    receive(6, DELETE, type_info(3));
    receive(6, REPLY_GET, type_info(4));  // queued, never applied
    receive(6, OTHER, type_info(5));
    receive_end(32);
    receive(21, REPLY, vsl_link(2), /*flag=*/1);  // an end that carries an object: queued once, of the last scan too
    for (const int32_t row : {1, 6, 14, 15}) receive_end(row);
    EXPECT_EQ(cached(32) + cached(17) + cached(1), 0);
    EXPECT_EQ(g_cache_proc_done, 0);
    EXPECT_EQ(drained(&changes), Strings{});
    receive(17, REPLY, card(1, 3, 0), /*flag=*/1);
    EXPECT_EQ(drained(&changes), (Strings{"6 added 3", "6 deleted 3", "14 added 0.0.1.0", "15 added",
                                          "17 added 0.1.2.0", "17 added 0.1.1.0", "17 added 0.1.3.0", "32 added 1",
                                          "21 added 0.0.0.1", "1 added", "32 added 2", "21 added 0.0.0.2"}));
    EXPECT_EQ(cached(6), 0);
    EXPECT_EQ(g_cache_proc_done, 1);
}

// In Live a change is in the cache before its callback, which may take the lock and ask; a scan's stray end changes nothing.
TEST(Sync, AppliesALiveChangeBeforeItsCallbackAndWithoutTheLock) {
    static int seen = 0;
    EXPECT_EQ(dm_cache_unlock() + dm_cache_lock(), 0);  // who has one thread leaves the lock out: nobody is stopped
    EXPECT_TRUE(another_thread_can_lock());
    dm_cache_multi_thread_init();
    const auto look = [](tq_mom_handle *handle, int32_t type, int32_t operation, ProtobufCMessage *message) {
        EXPECT_EQ(handle, &platform.handle);
        EXPECT_TRUE(another_thread_can_lock());
        PDev__CardInfo *now = nullptr;
        EXPECT_EQ(dm_cache_get_obj(type, key_message(message), &now), operation == DM_CACHE_DELETED ? -1 : 0);
        EXPECT_EQ(now ? now->port_num : 2, ++seen > 2 ? 2 : seen);
        EXPECT_EQ(operation, seen - 1);
        EXPECT_EQ(reinterpret_cast<PDev__CardInfo *>(message)->port_num, seen > 2 ? 2 : seen);
        return 0;
    };
    dm_cache_sub_obj(17, look, 0);
    start_live({});
    EXPECT_EQ(receive(17, SET, card(1, 3, 0).set("port_num", 1)), 0);
    EXPECT_EQ(receive(17, REPLY_HASH, card(1, 3, 0).set("port_num", 2)), 0);
    EXPECT_EQ(receive(17, REPLY, card(1, 4, 0), /*flag=*/1), 0);
    EXPECT_EQ(receive(17, REPLY_GET, card(1, 4, 0)), 0);
    EXPECT_EQ(receive(17, DELETE, card(1, 3, 0)), 0);
    EXPECT_EQ(seen, 3);
    EXPECT_EQ(cached(17), 0);
}

// What still waits when a push arrives is older than the push: it must go first.
TEST(Sync, AppliesWhatWaitsBeforeALivePushAndSweepsOnlyThen) {
    start_live({1, 17, 32});
    receive(17, SET, card(1, 1, 0));
    element(17, card(1, 1, 0))->dirty = 1;
    receive(17, SET, card(1, 2, 0));
    EXPECT_EQ(cached(17), 2);  // an empty queue sweeps nothing
    drained(&changes);
    queue(1, complete());
    queue(32, vsd(1));
    queue(1, complete());
    queue(17, card(1, 3, 0));
    EXPECT_EQ(dm_cache_resort_over(), 0);
    receive(17, DELETE, card(1, 3, 0));
    EXPECT_EQ(drained(&changes),
              (Strings{"17 added 0.1.3.0", "32 added 1", "1 added", "1 replaced", "17 deleted 0.1.3.0"}));
    EXPECT_EQ(cached(17), 1);
    EXPECT_EQ(element(17, card(1, 1, 0)), nullptr);
}

// What nobody follows is not the store's business: it survives what sweeps the others.
TEST(Sync, SweepsOnlyWhatIsFollowedAndTellsNobody) {
    start_live({1, 17});
    receive(17, SET, card(1, 3, 0));
    dm_cache_set_obj(16, Message("p_dev.device_info", {{"index.devid", 1}}).get());
    drained(&changes);
    receive(1, SET, complete());
    EXPECT_EQ(drained(&platform.calls), (Strings{scan_complete, scan_card}));
    EXPECT_EQ(cached(1) + cached(17), 1);
    platform.answer_scans();
    EXPECT_EQ(cached(16) - cached(17), 1);
    EXPECT_EQ(drained(&changes), Strings{});
}

// What a late row 1 brings is no announcement: nothing is scanned again for it.
TEST(Sync, TakesALateRow1ForContent) {
    start_live({17});
    dm_cache_follow(
        1, [](const dm_cache_event *, void *) {}, nullptr, 0);
    platform.put(complete());
    platform.confirm();
    platform.calls.clear();
    platform.answer_scans();
    EXPECT_EQ(platform.calls, Strings{});
    EXPECT_EQ(cached(1), 1);
}

// An empty kind ends within the call that asks for its scan.
TEST(Sync, TakesTheEndOfAScanWithinTheCallThatAsksForIt) {
    start_live({1, 17});
    platform.during_call = [&](const std::string &call) {
        if (call == scan_card) receive_end(17);
    };
    for (const uint32_t applied : {2U, 3U}) {
        receive(1, SET, complete());
        receive_end(1);
        EXPECT_EQ(dm_cache_applied(), applied);
    }
}

// A reconnect rescans its own database only, after the store's delay, on the right loop; timers must not double.
TEST(Sync, RescansTheRowsOfAReconnectedDatabase) {
    start_live({17, 21});
    receive(17, SET, card(1, 3, 0));
    receive(21, SET, vsl_link(1));
    for (const auto &[reason, word] : {std::pair(1, 2), {7, 2}, {2, 3}}) {
        platform.lose_connection(1, reason);
        EXPECT_EQ(g_dm_db_connect_reason, word);
    }
    EXPECT_EQ(drained(&platform.calls), Strings(3, "subscribe 1 p_dev.card_info"));
    Request second = platform.subscriptions.back();
    EXPECT_NE(second.callback, dm_cache_mom_callback_func);
    tq_mom_handle other{nullptr, reinterpret_cast<tq_thread_master *>(&platform)};
    second.handle = &other;
    platform.reconnect_scan_ms = 250;
    for (const int32_t cmd : {SUBSCRIBED, SUBSCRIBED, SET}) EXPECT_EQ(second.deliver(cmd, card(1, 4, 0).get()), 0);
    EXPECT_EQ(drained(&platform.calls), (Strings{"scan_time 1", "timer 17 250 dmcache_scan", "scan_time 1", "cancel 17",
                                                 "timer 17 250 dmcache_scan"}));
    ASSERT_EQ(platform.timers.size(), 1U);
    EXPECT_EQ(platform.timers.begin()->second.master, other.timer_master);
    platform.fire_timers();
    EXPECT_EQ(drained(&platform.calls), Strings{scan_card});
}

// Scans that end before the delayed rescans do not stand in for them.
TEST(Sync, WaitsForTheRescanThatIsStillToCome) {
    start_live({1, 17});
    platform.lose_connection(1, 1);
    platform.confirm();
    receive_value(17, SUBSCRIBED, nullptr);
    ASSERT_EQ(platform.scans.size(), 2U);
    platform.answer_scans();
    EXPECT_EQ(dm_cache_applied(), 1U);
    platform.fire_timers();
    platform.answer_scans();
    EXPECT_EQ(dm_cache_applied(), 2U);
}

// A full kind loses the new object and nothing else; a kind that is not stored fills no memory and reports nothing.
TEST(Sync, RefusesWhatCannotBeStoredAndGoesOn) {
    start_live({17, 32});
    dm_cache_sub_obj(32, nullptr, DM_CACHE_NO_STORE);
    EXPECT_EQ(receive(32, SET, vsd(1)), 0);
    EXPECT_EQ(receive(32, DELETE, vsd(1)), 0);
    EXPECT_EQ(cached(32), 0);
    EXPECT_EQ(counters(32).refused, 2U);  // there was nothing to delete
    receive(17, SET, card(1, 5, 0));
    obj_sub_list[17].obj_list->count = DM_CACHE_LIST_LIMIT;
    drained(&changes);
    LogCapture log(2);
    const auto told_of = [](const std::string &count) {
        return "2 dm_cache_refused>row 17 p_dev.card_info has refused " + count +
               ", the first with key t_mod=0 devid=2 slotid=0 sslotid=0.\r\n";
    };
    EXPECT_EQ(receive(17, SET, card(2, 0, 0)), 0);
    EXPECT_EQ(log.take(), at_threshold(2, {"2 dm_cache_handle_setmsg>dm_cache_list_add error[-1]\r\n", told_of("1")}));
    EXPECT_EQ(dm_cache_set_obj(17, card(2, 0, 0).get()), -1);
    EXPECT_EQ(log.take(), at_threshold(2, {"2 dm_cache_set_obj>dm_cache_list_add error[-1]\r\n", told_of("2")}));
    for (int i = 0; i < 6; ++i) dm_cache_set_obj(17, card(3, i, 0).get());
    const std::string rest = log.take();
    EXPECT_NE(rest.find(" 4, the first"), std::string::npos);
    EXPECT_EQ(rest.find(" 5, the first"), std::string::npos);
    EXPECT_EQ(receive(17, SET, card(1, 5, 0)), 0);
    EXPECT_EQ(drained(&changes), Strings{"17 replaced 0.1.5.0"});
    EXPECT_EQ(obj_sub_list[17].obj_list->count, DM_CACHE_LIST_LIMIT);
}

// One kind that the store does not give, for now, must hold up nobody but those who want that kind: the others come alive,
// nothing of it is swept, and it comes when it is granted.
TEST(Sync, GoesOnWithoutARowThatIsHeld) {
    constexpr int32_t held = TQ_MOM_RESULT_HELD;
    start({17, 32});
    platform.become_ready();
    EXPECT_EQ(receive_value(32, SUBSCRIBED, nullptr), 0);
    EXPECT_TRUE(platform.scans.empty());
    EXPECT_EQ(receive_value(17, SUBSCRIBED, nullptr, 0, held), -1);
    ASSERT_EQ(platform.scans.size(), 2U);
    receive(32, REPLY, vsd(1));
    receive_end(32);
    EXPECT_EQ(g_cache_proc_done, 1);
    EXPECT_EQ(cached(32), 1);
    EXPECT_EQ(counters(17).held, 1);
    platform.calls.clear();
    EXPECT_EQ(receive_value(17, SUBSCRIBED, nullptr), 0);  // granted: the scan that was asked for comes, and no other
    receive(17, REPLY, card(1, 1, 0));
    receive(17, REPLY, card(1, 2, 0));
    receive_end(17);
    EXPECT_EQ(platform.calls, Strings{});
    EXPECT_EQ(cached(17), 2);
    EXPECT_EQ(counters(17).held, 0);

    // Held again after a lost connection, by subscription and then by scan: what is cached stays until a scan says otherwise.
    platform.lose_connection(1, 2);
    platform.confirm();
    platform.fire_timers();
    for (const int32_t row : {17, 32, 17, 32})
        receive_end(row);  // what the confirmations asked for is older than the rescans
    receive(32, REPLY, vsd(1));
    receive_end(32);
    result_rec none{nullptr, {}, held};
    receive_value(17, REPLY, &none, 0, held);
    EXPECT_EQ(cached(17), 2);
    receive(32, SET, vsd(2));
    EXPECT_EQ(cached(32), 2);
    receive(17, REPLY, card(1, 2, 0));
    receive_end(17);
    EXPECT_EQ(cached(17), 1);
    EXPECT_NE(element(17, card(1, 2, 0)), nullptr);
}

// All of them held is no picture at all.
TEST(Sync, WaitsWhenEveryRowIsHeld) {
    start({17, 32});
    platform.become_ready();
    for (const int32_t row : {17, 32}) receive_value(row, SUBSCRIBED, nullptr, 0, TQ_MOM_RESULT_HELD);
    EXPECT_TRUE(platform.scans.empty());
    EXPECT_EQ(g_cache_proc_done, 0);
}

// What a callback asks the store for may let the store deliver within: nothing that waits may be applied twice, used after it
// was freed, lost to an older sweep or overtaken.
TEST(Sync, TakesADeliveryWithinAnApplication) {
    static std::function<void()> within;
    const auto once = [](tq_mom_handle *, int32_t, int32_t, ProtobufCMessage *) {
        if (const auto deliver = std::exchange(within, nullptr)) deliver();
        return 0;
    };
    start_gathering({1, 17, 32});
    for (const int32_t row : {17, 32}) dm_cache_sub_obj(row, once, 0);
    const auto scanned = [] {
        receive(32, REPLY, vsd(1));
        for (const int32_t slot : {1, 2, 3}) receive(17, REPLY, card(1, slot, 0));
        receive_end(1), receive_end(32), receive_end(17);
    };
    within = [] { receive(17, SET, card(1, 9, 0)); };
    scanned();
    EXPECT_EQ(drained(&changes),
              (Strings{"17 added 0.1.1.0", "17 added 0.1.2.0", "17 added 0.1.3.0", "32 added 1", "17 added 0.1.9.0"}));
    EXPECT_EQ(dm_cache_applied(), 1U);

    receive(1, SET, complete());
    within = [] { receive(1, SET, complete()); };  // all is marked dirty again, for scans still to come
    scanned();
    EXPECT_EQ(dm_cache_applied(), 2U);
    EXPECT_EQ(cached(17) + cached(32), 4);
    EXPECT_EQ(drained(&changes),
              (Strings{"17 replaced 0.1.1.0", "17 replaced 0.1.2.0", "17 replaced 0.1.3.0", "32 replaced 1"}));
    within = [] {  // what was gathered for the row is void
        platform.lose_connection(1, 1);
        platform.confirm();
        dm_cache_resort_over();
    };
    scanned();
    EXPECT_EQ(dm_cache_applied(), 2U);
    EXPECT_EQ(drained(&changes), Strings{"17 replaced 0.1.1.0"});
    EXPECT_EQ(cached(17) + cached(32), 4);
    within = [] { queue(32, vsd(2)); };  // behind the last one of the application: the picture lacks it
    platform.put(vsd(1));
    platform.fire_timers();
    platform.answer_scans();
    EXPECT_EQ(g_cache_proc_done, 0);
    EXPECT_EQ(dm_cache_applied(), 2U);
    receive_value(17, OTHER, nullptr);
    EXPECT_EQ(dm_cache_applied(), 3U);
    EXPECT_EQ(cached(17) + cached(32), 2);
    EXPECT_EQ(g_cache_proc_done, 1);
}
