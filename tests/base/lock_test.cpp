// The cache lock: without it a reader's borrowed message is freed under its hands.
#include "support/messages.h"

#include "tq_dm_cache/dm_cache.h"

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <thread>

using namespace std::chrono_literals;

namespace {

std::future<int32_t> lock_elsewhere() {
    return std::async(std::launch::async, [] {
        const int32_t answer = dm_cache_lock();
        dm_cache_unlock();
        return answer;
    });
}

}  // namespace

// A client of one thread leaves the lock out; it must not be stopped by one.
TEST(Lock, DoesNothingUntilItIsMade) {
    EXPECT_EQ(dm_cache_unlock(), 0);
    EXPECT_EQ(dm_cache_lock(), 0);
    auto other = lock_elsewhere();
    ASSERT_EQ(other.wait_for(10s), std::future_status::ready);
    EXPECT_EQ(other.get(), 0);
}

// A query takes the lock again inside a client's own hold; the first release must not let the writer in.
TEST(Lock, IsRecursiveAndKeepsOthersOutUntilTheLastRelease) {
    ASSERT_EQ(dm_cache_multi_thread_init(), 0);
    dm_cache_init_obj(obj_sub_list);
    EXPECT_EQ(dm_cache_lock(), 0);
    EXPECT_EQ(dm_cache_lock(), 0);
    EXPECT_EQ(dm_cache_set_obj(DM_ROW_CARD_INFO, card(1, 2, 0).get()), 0);
    EXPECT_EQ(dm_cache_multi_thread_init(), 0);
    auto other = lock_elsewhere();
    EXPECT_EQ(dm_cache_unlock(), 0);
    EXPECT_EQ(other.wait_for(50ms), std::future_status::timeout);
    EXPECT_EQ(dm_cache_unlock(), 0);
    ASSERT_EQ(other.wait_for(10s), std::future_status::ready);
    EXPECT_EQ(other.get(), 0);
}
