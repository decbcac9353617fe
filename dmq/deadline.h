// How long a command may wait for its store: one deadline for all of its waits together. A call that has no time-out of
// its own runs on another thread, which is left behind when the time is over; what it uses must belong to the call.
#pragma once

#include <signal.h>

#include <atomic>
#include <chrono>
#include <future>
#include <thread>

#include "dmq/failure.h"

namespace dmq {

// Constant once made: any thread may ask.
class Deadline {
public:
    explicit Deadline(double seconds);
    std::chrono::steady_clock::time_point end() const { return end_; }
    int32_t left() const;  // milliseconds; 0: it has passed
    // "WHAT after 10 s: WHY".
    [[noreturn]] void passed(const std::string &what, const std::string &why) const;

private:
    double seconds_;
    std::chrono::steady_clock::time_point end_;
};

// A thread was left behind: its clients cannot be closed any more, and the process must end without cleaning up.
inline std::atomic<bool> left_behind = false;

sigset_t ending_signals();

// Threads that are made meanwhile do not take the signals that end dmq, so the main thread does, whatever it waits for.
class SignalsHeld {
public:
    explicit SignalsHeld(const sigset_t &held = ending_signals());
    SignalsHeld(const SignalsHeld &) = delete;
    ~SignalsHeld();

private:
    sigset_t before_;
};

// What `call` answers, in time; else throws what passed() does, and the thread is left behind in `call`.
template <class Call> auto within(const Deadline &deadline, const std::string &awaited, Call call) {
    std::packaged_task<decltype(call())()> task(std::move(call));
    auto answer = task.get_future();
    std::thread thread;
    {
        const SignalsHeld held;
        thread = std::thread(std::move(task));
    }
    if (answer.wait_until(deadline.end()) == std::future_status::timeout) {
        thread.detach();
        left_behind = true;
        deadline.passed("the store did not answer", awaited);
    }
    thread.join();
    return answer.get();
}

}  // namespace dmq
