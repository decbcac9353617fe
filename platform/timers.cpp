// Timers: the table of what is armed, process-wide because a timer is cancelled by its record alone. Its lock is never
// held while a handler runs; event_add() of libevent is called under it, which keeps wake-ups in step with the table.
#include "platform/timers.h"

#include <algorithm>
#include <compare>
#include <map>
#include <unordered_map>

#include "platform/guard.h"
#include "platform/process.h"

namespace tq {

namespace {

// Where an armed timer stands: by loop, then by time.
struct Slot {
    Loop *loop;
    Clock::time_point when;
    uint64_t number;  // timers of the same moment fire in the order in which they were armed
    auto operator<=>(const Slot &) const = default;
};

// What the table knows of a timer, whatever its record says by now.
struct Armed {
    Due due;
    int32_t arg;
};

// Both maps hold the same timers. The caller holds the mutex.
struct Timers {
    std::mutex mutex;
    uint64_t armed_so_far = 0;
    std::map<Slot, Armed> by_time;
    std::unordered_map<tq_thread_timer *, Slot> by_record;

    std::map<Slot, Armed>::iterator first(Loop &loop) {
        const auto found = by_time.lower_bound({&loop, Clock::time_point::min(), 0});
        return found != by_time.end() && found->first.loop == &loop ? found : by_time.end();
    }

    void disarm(tq_thread_timer *timer) {
        const auto found = by_record.find(timer);
        if (found == by_record.end()) return;
        by_time.erase(found->second);
        by_record.erase(found);
        timer->state = static_cast<uint8_t>(timer->state & ~TQ_THREAD_TIMER_ARMED);
    }

    void arm(const Slot &slot, const Armed &armed) {
        by_time.emplace(slot, armed);
        try {
            by_record.emplace(armed.due.timer, slot);
        } catch (...) {
            by_time.erase(slot);
            throw;
        }
        armed.due.timer->arg = armed.arg;
        armed.due.timer->state |= TQ_THREAD_TIMER_ARMED;
    }
};

// Never destroyed: a loop may still run while the process ends. A child has no loop yet, and another table.
std::atomic<Timers *> current = nullptr;

Timers &all_timers() {
    static const bool made = [] {
        run_in_child([] { current = new Timers; });
        current = new Timers;
        return true;
    }();
    static_cast<void>(made);
    return *current;
}

}  // namespace

bool take_due(Loop &loop, Clock::time_point now, Due &due) {
    const std::lock_guard lock(all_timers().mutex);
    const auto first = all_timers().first(loop);
    if (first == all_timers().by_time.end() || first->first.when > now) return false;
    due = first->second.due;
    due.timer->arg = first->second.arg;
    all_timers().disarm(due.timer);
    return true;
}

void wake_for_next(Loop &loop) {
    const std::lock_guard lock(all_timers().mutex);
    const auto first = all_timers().first(loop);
    if (first != all_timers().by_time.end()) loop.wake_at(first->first.when);
}

void disarm_all(Loop &loop) {
    const std::lock_guard lock(all_timers().mutex);
    for (auto it = all_timers().first(loop); it != all_timers().by_time.end(); it = all_timers().first(loop))
        all_timers().disarm(it->second.due.timer);
}

}  // namespace tq

using namespace tq;

// Arming a record that is armed already moves it. A delay below 0 is due at once.
int32_t tq_thread_insert_timer(tq_thread_master *master, tq_thread_timer *timer, int32_t (*handler)(tq_thread_timer *),
                               int32_t arg, int32_t delay_ms, const char *) {
    if (!master || !timer || !handler || !master->is_of_this_process()) return TQ_MOM_E_ARGUMENT;
    return guarded([&] {
        Timers &timers = all_timers();
        const std::lock_guard lock(timers.mutex);
        const auto when = Clock::now() + std::chrono::milliseconds(std::max(delay_ms, 0));
        timers.disarm(timer);
        timers.arm({master, when, timers.armed_so_far++}, {{timer, handler}, arg});
        if (timers.first(*master)->second.due.timer == timer) master->wake_at(when);
        return 0;
    });
}

int32_t tq_thread_cancel(tq_thread_timer *timer) {
    if (!timer) return TQ_MOM_E_ARGUMENT;
    return guarded([&] {
        const std::lock_guard lock(all_timers().mutex);
        all_timers().disarm(timer);
        return 0;
    });
}
