// The process's armed timers. The table is what counts: nothing in a record is believed.
#pragma once

#include "platform/loop.h"
#include "tq_dm_cache/tq_platform.h"

namespace tq {

// A timer that has been disarmed and is to run.
struct Due {
    tq_thread_timer *timer;
    int32_t (*handler)(tq_thread_timer *);
};

// Disarms the loop's earliest timer when it is due by then.
bool take_due(Loop &loop, Clock::time_point now, Due &due);
// Has the loop woken for the timer that is next.
void wake_for_next(Loop &loop);
void disarm_all(Loop &loop);

}  // namespace tq
