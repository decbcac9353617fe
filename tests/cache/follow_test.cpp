// Followers. One event that is left out, told twice or in the wrong order leaves a client's picture false for ever.
#include "tests/support/live_cache.h"

namespace {

// One follower's notes: "first added 3", "live replaced 3 5 6" (slot, number of ports before and after), "applied first".
struct Notes {
    Strings lines;
    std::function<void()> within;  // runs once, with the next event
};

void note(const dm_cache_event *event, void *word) {
    const char *const whats[] = {"added", "replaced", "deleted", "swept", "unchanged", "applied"};
    const char *const phases[] = {"first", "live", "resync"};
    const auto ports = [](const ProtobufCMessage *card) {
        return card ? ' ' + std::to_string(reinterpret_cast<const PDev__CardInfo *>(card)->port_num) : "";
    };
    auto &notes = *static_cast<Notes *>(word);
    std::string line = std::string(phases[event->phase]) + ' ' + whats[event->what];
    if (const auto *any = event->after ? event->after : event->before)
        line += ' ' + std::to_string(reinterpret_cast<const PDev__CardInfo *>(any)->index->slotid) +
                ports(event->before) + ports(event->after);
    EXPECT_EQ(event->type, event->what == DM_CACHE_EVENT_APPLIED ? -1 : 17);
    EXPECT_EQ(!event->before, event->what == DM_CACHE_EVENT_ADDED || event->what == DM_CACHE_EVENT_APPLIED);
    notes.lines.push_back(line);
    if (const auto once = std::exchange(notes.within, nullptr)) once();
}

constexpr auto told = [](Notes &notes) { return drained(&notes.lines); };
constexpr auto slot = [](int32_t number, int32_t ports = 0) { return card(1, number, 0).set("port_num", ports); };
constexpr auto follow = [](Notes &notes, uint32_t flags = 0, int32_t type = 17) {
    return dm_cache_follow(type, note, &notes, flags);
};
constexpr auto unfollow = [](Notes &notes, int32_t type = 17) { return dm_cache_unfollow(type, note, &notes); };

}  // namespace

// From an empty cache to a lost connection and back: each object's whole story, with what it was before.
TEST(Follow, TellsWhatHappensToEachObject) {
    Notes notes, applied, unchanged;
    EXPECT_EQ(follow(notes) + follow(applied, 0, -1) + follow(unchanged, DM_CACHE_FOLLOW_UNCHANGED), 0);
    start({1});
    dm_cache_set_obj(17, slot(9).get());  // before anything is known of the store
    platform.fire_timers();
    for (const int32_t n : {1, 2}) platform.put(slot(n, n));
    platform.synchronise();
    EXPECT_EQ(told(notes), (Strings{"first added 9 0", "first added 1 1", "first added 2 2"}));
    EXPECT_EQ(told(applied), Strings{"first applied"});

    told(unchanged);
    platform.push(slot(1, 5));
    platform.push(slot(2, 2));
    platform.push(slot(3));
    platform.push_delete(slot(3));
    dm_cache_set_obj(17, slot(1, 6).get());
    EXPECT_EQ(drained(&platform.calls).back(), "timer 0 0 dmcache_follow");
    platform.push(slot(4));  // what another thread has changed goes before
    EXPECT_EQ(told(notes), (Strings{"live replaced 1 1 5", "live added 3 0", "live deleted 3 0", "live replaced 1 5 6",
                                    "live added 4 0"}));
    EXPECT_EQ(told(unchanged)[1], "live unchanged 2 2 2");
    dm_cache_set_obj(17, slot(1, 7).get());
    EXPECT_EQ(told(notes), Strings{});
    platform.fire_timers();
    EXPECT_EQ(told(notes), Strings{"live replaced 1 6 7"});

    for (const int32_t n : {2, 3}) platform.put(slot(n, n));
    told(unchanged);
    platform.lose_connection(1, 1);
    platform.confirm();
    platform.fire_timers();
    platform.answer_scans();
    EXPECT_EQ(told(notes),
              (Strings{"resync replaced 1 7 1", "resync added 3 3", "resync swept 9 0", "resync swept 4 0"}));
    EXPECT_EQ(told(unchanged)[1], "resync unchanged 2 2 2");
    EXPECT_EQ(told(applied), Strings{"resync applied"});
    EXPECT_EQ(dm_cache_clear_data_dirty(), 0);
    EXPECT_EQ(unfollow(notes) + unfollow(applied, -1) + unfollow(unchanged), 0);
}

// A row that nobody asked for at the start: the others stay live, and the row becomes like them.
TEST(Follow, BeginsWithARowOfALiveCache) {
    start({1});
    platform.synchronise();
    platform.put(slot(1, 1));
    dm_cache_set_obj(17, slot(9).get());  // not in the store
    platform.calls.clear();
    Notes notes, later, from_now, of_another_row;
    EXPECT_EQ(follow(notes), 0);
    EXPECT_EQ(platform.calls, (Strings{"subscribe 1 p_dev.card_info", "timer 0 0 dmcache_follow"}));
    platform.fire_timers();
    EXPECT_EQ(told(notes), Strings{"first added 9 0"});
    platform.calls.clear();
    receive(1, SET, complete());
    // The late one's subscription is under way.
    EXPECT_EQ(drained(&platform.calls), Strings{"scan 1 p_dev.dp_lib_complete"});
    receive_end(1);
    platform.push(slot(2));
    platform.confirm();
    EXPECT_EQ(platform.calls, Strings{"scan 1 p_dev.card_info"});
    receive(1, SET, {"p_dev.dp_lib_complete"});  // the others are scanned again, and wait for nobody
    receive_end(1);
    EXPECT_EQ(g_cache_proc_done + dm_cache_applied(), 4U);
    EXPECT_EQ(told(notes), Strings{"first added 2 0"});
    platform.answer_scans();
    EXPECT_EQ(told(notes), (Strings{"first added 1 1", "first swept 9 0", "first swept 2 0"}));
    EXPECT_EQ(g_cache_proc_done, 1);
    platform.push(slot(1, 2));
    EXPECT_EQ(told(notes), Strings{"live replaced 1 1 2"});

    // One that was registered too late is subscribed by the first who follows it.
    dm_cache_sub_obj(16, nullptr, 0);
    platform.calls.clear();
    EXPECT_EQ(follow(of_another_row, 0, 16), 0);
    EXPECT_EQ(platform.calls.front(), "subscribe 1 p_dev.device_info");

    EXPECT_EQ(follow(later) + follow(from_now, DM_CACHE_FOLLOW_FROM_NOW), 0);
    EXPECT_EQ(follow(later, DM_CACHE_FOLLOW_UNCHANGED), 0);  // the same follower
    platform.push(slot(1, 2));
    EXPECT_EQ(told(later), (Strings{"first added 1 2", "live unchanged 1 2 2"}));
    EXPECT_EQ(told(from_now), Strings{});
    platform.push_delete(slot(1));
    EXPECT_EQ(told(later), Strings{"live deleted 1 2"});
    EXPECT_EQ(told(from_now), Strings{"live deleted 1 2"});

    for (Notes *each : {&notes, &later, &from_now}) EXPECT_EQ(unfollow(*each), 0);
    EXPECT_EQ(unfollow(of_another_row, 16), 0);
}

// Followers come and go from within callbacks, their own and others', and while others are being told.
TEST(Follow, LetsFollowersComeAndGoAtAnyTime) {
    start({1, 17});
    platform.synchronise();
    Notes first, second, third;
    follow(first);
    follow(second);
    platform.fire_timers();
    first.within = [&] {
        EXPECT_EQ(unfollow(second) + follow(third), 0);
        platform.push(slot(2));  // a delivery within another
        EXPECT_EQ(first.lines.size(), 1U);
    };
    platform.push(slot(1));
    EXPECT_EQ(told(first), (Strings{"live added 1 0", "live added 2 0"}));
    EXPECT_EQ(told(second), Strings{});
    EXPECT_EQ(told(third), (Strings{"first added 1 0", "live added 2 0"}));

    first.within = [&] { EXPECT_EQ(unfollow(first), 0); };
    platform.push(slot(3));
    platform.push(slot(4));
    EXPECT_EQ(told(first), Strings{"live added 3 0"});
    EXPECT_EQ(unfollow(first), -1);

    // One that leaves while it is told what is there, and one that leaves before it hears of anything.
    first.within = [&] { EXPECT_EQ(unfollow(first), 0); };
    follow(first);
    follow(second);
    EXPECT_EQ(unfollow(second), 0);
    platform.fire_timers();
    EXPECT_EQ(told(first), Strings{"first added 1 0"});
    EXPECT_EQ(told(second), Strings{});
    EXPECT_EQ(told(third).size(), 2U);

    // Another thread that ends it returns when the callback has.
    std::promise<void> entered, leave;
    third.within = [&] {
        entered.set_value();
        leave.get_future().wait();
        third.lines.clear();
    };
    auto ended = std::async(std::launch::async, [&] {
        entered.get_future().wait();
        const auto end = [&] { return unfollow(third) + static_cast<int32_t>(third.lines.size()); };
        auto unfollowed = std::async(std::launch::async, end);
        EXPECT_EQ(unfollowed.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
        leave.set_value();
        return unfollowed.get();
    });
    platform.push(slot(5));
    EXPECT_EQ(ended.get(), 0);
    platform.push(slot(6));
    EXPECT_EQ(told(third), Strings{});
}

// Change callbacks run first, whoever delivers; what is refused leaves nothing behind.
TEST(Follow, RunsAfterTheChangeCallbacksAndRefusesWhatItCannotDo) {
    static Notes notes;
    const auto before = [](tq_mom_handle *, int32_t, int32_t, ProtobufCMessage *) {
        platform.fire_timers();  // as of a platform whose timers have a thread of their own
        notes.lines.push_back("callback");
        return 0;
    };
    dm_cache_sub_obj(17, before, 0);
    start({1});
    platform.synchronise();
    follow(notes);
    platform.push(slot(1));
    platform.push_delete(slot(1));
    EXPECT_EQ(told(notes), (Strings{"callback", "live added 1 0", "callback", "live deleted 1 0"}));
    for (const int32_t type : {-2, 0, 18, 39, INT32_MAX}) EXPECT_EQ(follow(notes, 0, type), -1);
    EXPECT_EQ(dm_cache_follow(17, nullptr, nullptr, 0), -1);
    EXPECT_EQ(dm_cache_unfollow(17, nullptr, nullptr), -1);
    Notes other;
    for (const int32_t type : {-2, -1, 18, 17}) EXPECT_EQ(unfollow(other, type), -1);
    EXPECT_EQ(unfollow(notes), 0);
}
