// The cache lock: without it a reader's borrowed message is freed under its hands.
#include "tests/support/live_cache.h"

#include "base/lock.h"

#include <cerrno>
#include <fstream>

using namespace std::chrono_literals;

namespace {

// Starts a thread and returns when it sleeps, waiting for the lock.
std::thread waiting(const std::function<void()> &run) {
    std::promise<pid_t> id;
    std::thread thread([&id, run] {
        id.set_value(gettid());
        run();
    });
    const std::string stat = "/proc/self/task/" + std::to_string(id.get_future().get()) + "/stat";
    for (char state = 'R'; state != 'S'; std::this_thread::sleep_for(1ms)) {
        std::string line;
        std::getline(std::ifstream(stat), line);
        state = line.at(line.rfind(')') + 2);
    }
    return thread;
}

}  // namespace

// A query takes the lock again inside a client's own hold; the first release must not let the writer in.
TEST(Lock, IsRecursiveAndKeepsOthersOutUntilTheLastRelease) {
    ASSERT_EQ(dm_cache_multi_thread_init(), 0);
    dm_cache_init_obj(obj_sub_list);
    EXPECT_EQ(dm_cache_lock(), 0);
    EXPECT_EQ(dm_cache_lock(), 0);
    EXPECT_EQ(dm_cache_set_obj(DM_ROW_CARD_INFO, card(1, 2, 0).get()), 0);
    EXPECT_EQ(dm_cache_multi_thread_init(), 0);
    std::thread([] { EXPECT_EQ(dm_cache_unlock(), EPERM); }).join();
    auto other = std::async(std::launch::async, another_thread_can_lock);
    EXPECT_EQ(dm_cache_unlock(), 0);
    EXPECT_EQ(other.wait_for(50ms), std::future_status::timeout);
    EXPECT_EQ(dm_cache_unlock(), 0);
    EXPECT_TRUE(other.get());
}

// Readers and writers by every side of the lock, nested as queries nest them: no reader sees half a change, none of the
// changes is lost, and everybody gets to the end.
TEST(Lock, ReadersShareAndWritersExclude) {
    ASSERT_EQ(dm_cache_multi_thread_init(), 0);
    constexpr int turns = 3000;
    int64_t one = 0, other = 0;
    std::atomic<int> torn = 0;
    const auto look = [&] {
        const dm::SharedCacheLock lock;
        torn += one != other;
    };
    const auto look_twice = [&] {
        const dm::SharedCacheLock lock;
        look();
    };
    const auto write = [&] {
        dm_cache_lock();
        look();
        ++one, ++other;
        look();
        dm_cache_unlock();
    };
    const auto change = [&] {
        const dm::CacheLock lock;
        look();
        ++one, ++other;
    };
    const std::function<void()> threads[] = {look, look, look_twice, write, change, change};
    std::vector<std::thread> running;
    for (const auto &turn : threads)
        running.emplace_back([&turn] {
            for (int i = 0; i < turns; ++i) turn();
        });
    for (std::thread &thread : running) thread.join();
    EXPECT_EQ(torn, 0);
    EXPECT_EQ(one, 3 * turns);
    EXPECT_EQ(other, one);
}

// An object that is still being read must not be freed.
TEST(Lock, IsHeldOnlyWhenTheLastReaderHasLeft) {
    ASSERT_EQ(dm_cache_multi_thread_init(), 0);
    std::atomic<bool> reads = true;
    ASSERT_TRUE(dm::lock_shared());
    std::thread writer = waiting([&reads] {
        const dm::CacheLock lock;
        EXPECT_FALSE(reads);
    });
    reads = false;
    dm::unlock_shared();
    writer.join();
}

// Clients that walk the cache without a pause stand in a queue; a change goes before them, and in turn with them.
TEST(Lock, HoldsNoChangeUpAndNoReaderForEver) {
    ASSERT_EQ(dm_cache_multi_thread_init(), 0);
    std::string order;  // guarded by the lock
    dm_cache_lock();
    std::vector<std::thread> threads;
    for (const char name : {'a', 'b', 'c'})
        threads.push_back(waiting([&order, name] {
            dm_cache_lock();
            order += name;
            dm_cache_unlock();
        }));
    std::atomic<int> shared = 0;
    threads.push_back(waiting([&shared] {
        const dm::SharedCacheLock lock;
        ++shared;
    }));
    for (const char name : {'X', 'Y'})
        threads.push_back(waiting([&order, name] {
            const dm::CacheLock lock;
            order += name;
        }));
    dm_cache_unlock();
    for (std::thread &thread : threads) thread.join();
    EXPECT_EQ(order, "XaYbc");
    EXPECT_EQ(shared, 1);
}
