// Waiting and counting: how a client learns that its picture is complete, and which kind holds it back.
#include "tests/support/live_cache.h"
#include "tests/support/log_capture.h"

#include "tq_dm_cache/dm_cache_follow.h"
#include "tq_dm_cache/dm_cache_status.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <future>
#include <regex>

using Clock = std::chrono::steady_clock;

namespace {

dm_cache_stats stats_of(int32_t row) {
    dm_cache_stats stats{};
    EXPECT_EQ(dm_cache_get_stats(row, &stats, sizeof stats), 0);
    return stats;
}

}  // namespace

// A wait that does not end holds a service up for ever; one that ends early hands it an empty cache.
TEST(Status, WaitsForTheFirstAndForEachLaterApplication) {
    start({1, 17});
    EXPECT_EQ(dm_cache_wait_synced(-5), -1);
    const auto begin = Clock::now();
    EXPECT_EQ(dm_cache_wait_synced(30), -1);
    EXPECT_GE(Clock::now() - begin, std::chrono::milliseconds(30));

    const auto wait = [] { return dm_cache_wait_synced(20000); };
    auto first = std::async(std::launch::async, wait), also = std::async(std::launch::async, wait);
    auto second = std::async(std::launch::async, [] { return dm_cache_wait_applied(1, 20000); });
    platform.synchronise();
    EXPECT_EQ(first.get() + also.get(), 0);
    receive(17, SET, card(1, 3, 0));
    receive(1, SET, complete());
    EXPECT_EQ(dm_cache_applied(), 1U);
    EXPECT_EQ(dm_cache_wait_applied(1, 0), -1);
    platform.answer_scans();
    EXPECT_EQ(second.get(), 0);
    EXPECT_EQ(dm_cache_applied(), 2U);
    EXPECT_EQ(dm_cache_wait_synced(0), 0);
}

// "Not synchronised" alone sends an operator through every process of the switch.
TEST(Status, SaysWhatItWaitsFor) {
    const auto reason = [] {
        char text[256];
        EXPECT_LT(dm_cache_reason(text, sizeof text), 256);
        return std::regex_replace(std::string(text), std::regex("[0-9]+\\.[0-9] s"), "T");
    };
    EXPECT_EQ(reason(), "dm_cache_init() has not finished");
    start({});
    EXPECT_EQ(reason(), "no row is enabled");
    for (const int32_t row : {1, 17, 21}) dm_cache_sub_obj(row, nullptr, 0);
    EXPECT_EQ(reason(),
              "row 1 p_dev.dp_lib_complete and 2 others are not subscribed, the first has not been asked for, or was "
              "refused");
    platform.become_ready();
    for (const int32_t row : {1, 21}) receive_value(row, SUBSCRIBED, nullptr);
    EXPECT_EQ(reason(), "row 17 p_dev.card_info is not subscribed, it has not been confirmed for T");
    platform.answers = {{"scan 3", -3}};
    receive_value(17, SUBSCRIBED, nullptr);
    EXPECT_EQ(reason(), "row 1 p_dev.dp_lib_complete is subscribed, its scan has not ended for T (and 2 more rows)");
    LogCapture log(2);
    EXPECT_EQ(dm_cache_wait_synced(0) + dm_cache_wait_synced(1), -2);
    EXPECT_NE(log.take().find("dm_cache_wait_synced>not synchronised: row 1 "), std::string::npos);
    receive_end(1);
    receive_end(17);
    EXPECT_EQ(reason(), "row 21 p_dev.vsl_port_info is subscribed, its scan has not begun or was refused");
    receive(21, SUBSCRIBED, complete());
    static std::string within;
    dm_cache_follow(
        17,
        [](const dm_cache_event *, void *told) {
            if (within.empty()) within = (*static_cast<decltype(reason) *>(told))();
        },
        const_cast<void *>(static_cast<const void *>(&reason)), 0);
    for (int32_t n = 0; n < 1000; ++n) receive(17, REPLY, card(1, n, 0));
    EXPECT_EQ(stats_of(17).queued, 1000U);
    for (const int32_t row : {1, 17, 21}) receive_end(row);
    EXPECT_EQ(within, "all 3 rows are scanned, 1 of 1,000 objects applied");
    EXPECT_EQ(reason(), "");
    EXPECT_EQ(stats_of(17).queued, 0U);
    EXPECT_EQ(stats_of(17).callbacks, 1000U);
    EXPECT_LT(stats_of(17).last_change_ms, 20000U);
    EXPECT_EQ(stats_of(1).last_change_ms, UINT32_MAX);
    platform.lose_connection(1, 1);
    char cut[4];
    EXPECT_GT(dm_cache_reason(cut, sizeof cut), 90);
    EXPECT_STREQ(cut, "row");
}

// The age of a picture while the store goes on being heard: a row that is not whole must not seem to be fresh.
TEST(Status, PromisesAnAgeOnlyForARowThatIsWhole) {
    const auto ages = [] {
        Strings all;
        for (const int32_t row : {17, 21, 30, -1}) all.push_back(std::to_string(dm_cache_age_ms(row)));
        return all;
    };
    platform.heard_ms = 5'000'000;
    const Strings nothing(4, "-1");
    EXPECT_EQ(ages(), nothing);
    start({1, 17, 21});
    platform.answers = {{"subscribe 3 p_dev.vsl_port_info", -3}};
    platform.become_ready();
    platform.confirm();
    EXPECT_EQ(ages(), nothing);
    platform.answer_scans();
    EXPECT_EQ(ages(), nothing);  // row 21 holds the machine
    platform.answers = {};
    for (const uint32_t db : {1U, 3U}) platform.lose_connection(db, 1);
    platform.confirm();
    platform.fire_timers();
    platform.answer_scans();
    EXPECT_EQ(ages(), (Strings{"5000000", "5000000", "-1", "-1"}));
    dm_cache_follow(
        30, [](const dm_cache_event *, void *) {}, nullptr, 0);
    EXPECT_EQ(ages()[2], "-1");
    platform.confirm();
    platform.answer_scans();
    EXPECT_EQ(ages()[2], "5000000");

    for (const uint32_t db : {1U, 3U}) platform.lose_connection(db, 1);
    platform.heard_ms = 0;  // the new connection
    for (int i = 0; i < 3; ++i) EXPECT_GE(dm_cache_age_ms(17), 5'000'000);
    platform.confirm();
    platform.fire_timers();
    receive_value(21, REPLY, nullptr, 0, TQ_MOM_RESULT_HELD);
    for (const int32_t row : {1, 17, 30}) receive_end(row);
    EXPECT_EQ(ages(), (Strings{"0", "-1", "0", "-1"}));
    receive(1, SET, complete());
    for (int scan = 0; scan < 2; ++scan) receive_end(21);  // what the store has held back so far waits for the others
    EXPECT_EQ(ages()[1], "-1");
    for (const int32_t row : {1, 17, 30}) receive_end(row);
    EXPECT_EQ(ages(), (Strings{"0", "0", "0", "-1"}));
    platform.heard_ms = -1;
    EXPECT_EQ(ages(), nothing);
    platform.heard_ms = 0;
    EXPECT_EQ(dm_cache_stop(), 0);
    EXPECT_EQ(ages(), nothing);
    platform.answers = {{"connect_sync", -7}};
    EXPECT_EQ(dm_cache_init(&platform.handle, "test"), -7);
    platform.synchronise();
    EXPECT_EQ(ages()[0], "0");
    platform.answers = {{"connect 3", -7}};  // the rows are emptied, and stay so
    EXPECT_EQ(dm_cache_init(&platform.handle, "test"), -7);
    EXPECT_EQ(ages(), nothing);
}

// A process that has a log of its own gets whole lines, and those of one thread at a time.
TEST(Status, HandsItsLinesToASink) {
    static Strings lines;
    const auto sink = [](int32_t level, const char *module, const char *function, int32_t line, const char *said,
                         void *word) {
        EXPECT_GT(line, 0);
        lines.push_back(std::to_string(level) + ' ' + module + ' ' + function + ": " + said +
                        static_cast<char *>(word));
        dm_cache_sub_obj(39, nullptr, 0);  // is heard by nobody
        if (lines.size() == 2) dm_cache_set_log(nullptr, nullptr);
    };
    LogCapture log(2);
    static char end[] = ".";
    dm_cache_set_log(sink, end);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(dm_cache_set_obj(17, nullptr), -1);
    EXPECT_EQ(drained(&lines), Strings(2, "2 dm_cache dm_cache_set_obj: invalid param.."));
    EXPECT_EQ(log.take(), at_threshold(2, {"2 dm_cache_set_obj>invalid param.\r\n"}));
}

// One row that is never confirmed or scanned stops all others: the counters must name it.
TEST(Status, CountsEachRowSinceTheProcessBegan) {
    start({1, 17});
    platform.become_ready();
    receive_end(17);
    EXPECT_EQ(stats_of(17).last_scan_ms, 0U);  // nobody asked
    receive_value(17, SUBSCRIBED, nullptr);
    EXPECT_EQ(stats_of(17).enabled + stats_of(17).subscribed, 2);
    EXPECT_EQ(stats_of(1).enabled - stats_of(1).subscribed + stats_of(16).enabled, 1);
    receive_value(1, SUBSCRIBED, nullptr);
    for (const int32_t slot : {1, 2, 3}) receive(17, REPLY, card(1, slot, 0));
    for (const auto begin = Clock::now(); Clock::now() - begin < std::chrono::milliseconds(3);) continue;
    receive_end(17);
    EXPECT_EQ(stats_of(17).scanned - stats_of(1).scanned, 1);
    EXPECT_GE(stats_of(17).last_scan_ms, 2U);
    receive_end(1);
    receive(17, SET, card(1, 3, 0));
    receive(17, DELETE, card(1, 3, 0));
    receive(17, DELETE, card(1, 3, 0));
    receive(17, SET, {"p_dev.card_info"});
    receive(1, SET, complete());
    EXPECT_EQ(stats_of(17).scanned, 0);
    receive(17, REPLY, card(1, 1, 0));
    receive_end(17);
    receive_end(1);

    const dm_cache_stats stats = stats_of(17);
    const uint32_t counts[] = {stats.objects, stats.sets, stats.deletes, stats.swept, stats.refused};
    EXPECT_EQ(std::vector<uint32_t>(counts, counts + 5), (std::vector<uint32_t>{1, 5, 1, 1, 2}));
    EXPECT_EQ(stats_of(0).objects, 0U);
    uint8_t part[sizeof stats];
    std::memset(part, 0x5A, sizeof part);
    EXPECT_EQ(dm_cache_get_stats(17, reinterpret_cast<dm_cache_stats *>(part), 8), 0);
    EXPECT_EQ(part[4], 1);
    EXPECT_EQ(part[8], 0x5A);
    for (const int32_t type : {-1, 39})
        EXPECT_EQ(dm_cache_get_stats(type, reinterpret_cast<dm_cache_stats *>(part), 8), -1);
    EXPECT_EQ(dm_cache_get_stats(17, nullptr, 8), -1);
}
