// Timers: when and where they run, and what a client may do to its records meanwhile.
#include <cstring>

#include "tests/platform/recording_client.h"

namespace {

// A record and what its handler does; the record comes first, so that the handler finds the rest.
struct Timer {
    tq_thread_timer record = {};
    std::function<void(Timer &)> then = [](Timer &) {};

    int32_t arm(tq_thread_master *master, int32_t arg, int32_t delay_ms) {
        return tq_thread_insert_timer(master, &record, run, arg, delay_ms, "test");
    }
    bool armed() const { return record.state & TQ_THREAD_TIMER_ARMED; }
    static int32_t run(tq_thread_timer *record) {
        auto &self = *reinterpret_cast<Timer *>(record);
        self.then(self);
        return 0;
    }
};

class Timers : public testing::Test {
protected:
    RecordingClient client{"mem:timers"};
    tq_thread_master *master = client.handle()->timer_master;

    Timer noting(const std::string &name) {
        return {{}, [this, name](Timer &self) {
                    client.note(name + " " + std::to_string(self.record.arg) + (self.armed() ? " armed" : ""));
                }};
    }
};

// A rescan that runs twice, never, or for another row leaves a kind out of date.
TEST_F(Timers, RunOnceInTheOrderOfTheirTime) {
    Timer far = noting("far"), late = noting("late"), early = noting("early"), moved = noting("moved"),
          cancelled = noting("cancelled"), first;
    first.then = [&](Timer &) {  // on the thread that runs timers: none is on its way meanwhile
        EXPECT_EQ(cancelled.arm(master, 1, 20), 0);
        EXPECT_EQ(late.arm(master, 7, 60), 0);
        EXPECT_EQ(moved.arm(master, 1, 10), 0);
        EXPECT_EQ(moved.arm(master, 2, 30), 0);
        EXPECT_EQ(early.arm(master, -5, -1), 0);
        EXPECT_TRUE(late.armed());
        EXPECT_EQ(tq_thread_cancel(&cancelled.record), 0);
        EXPECT_FALSE(cancelled.armed());
    };
    EXPECT_EQ(far.arm(master, 0, 3600'000), 0);  // the others are earlier
    EXPECT_EQ(first.arm(master, 0, 0), 0);
    ASSERT_TRUE(client.tells("early -5, moved 2, late 7"));
    EXPECT_EQ(tq_thread_cancel(&late.record), 0);  // not armed: left alone
    EXPECT_EQ(tq_thread_cancel(&far.record), 0);
}

// Clients zero their records when they start again; what is armed must still find its handler, and its argument.
TEST_F(Timers, TrustNothingInTheRecord) {
    Timer timer = noting("ran"), first;
    first.then = [&](Timer &) {
        EXPECT_EQ(timer.arm(master, 3, 5), 0);
        std::memset(&timer.record, 0xff, sizeof timer.record);
    };
    EXPECT_EQ(first.arm(master, 0, 0), 0);
    ASSERT_TRUE(client.wait("ran 3"));
    std::memset(&timer.record, 0xff, sizeof timer.record);
    EXPECT_EQ(tq_thread_cancel(&timer.record), 0);  // looks armed, is not
}

// A handler may arm its record again, other threads may cancel it at any moment; drain and close see to armed timers.
TEST_F(Timers, AreSafeFromEveryThread) {
    Timer timer, last = noting("last");
    std::atomic<int> runs = 0;
    timer.then = [&](Timer &self) {
        ++runs;
        self.arm(master, 1, 0);
    };
    for (int i = 0; i < 2000; ++i) {
        EXPECT_EQ(tq_thread_cancel(&timer.record), 0);
        EXPECT_EQ(timer.arm(master, 1, 0), 0);
    }
    EXPECT_EQ(last.arm(master, 1, 0), 0);
    EXPECT_EQ(tq_mom_client_drain(client.handle(), 20000), 0);
    EXPECT_EQ(client.told(), "last 1");
    EXPECT_GT(runs, 0);
    EXPECT_EQ(last.arm(master, 1, 3600'000), 0);
    client.close();
    EXPECT_FALSE(last.armed());
    EXPECT_FALSE(timer.armed());
}

}  // namespace
