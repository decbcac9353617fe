// Waiting and counting: how a client learns that its picture is complete, and which kind holds it back.
#include "tests/support/live_cache.h"

#include "tq_dm_cache/dm_cache_status.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <future>

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
