// One event loop: a thread that runs what is posted to it, in order, and the timers armed on it.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "platform/process.h"

struct event;
struct event_base;
struct tq_thread_master;

namespace tq {

using Clock = std::chrono::steady_clock;
using Loop = tq_thread_master;
using Task = std::function<void()>;

struct FreeEvent {
    void operator()(event *e) const;
    void operator()(event_base *base) const;
};

}  // namespace tq

// The loop is what the public headers hand around as a timer master. Any thread may post, ask for a wake-up, or drain; the
// rest is the owner's. What is posted runs in that order, and no task or timer runs beside another.
struct tq_thread_master {
public:
    tq_thread_master();
    ~tq_thread_master();
    tq_thread_master(const tq_thread_master &) = delete;
    tq_thread_master &operator=(const tq_thread_master &) = delete;

    void post(tq::Task task);
    event_base *base() const { return base_.get(); }  // for events of one's own
    bool is_of_this_process() const { return process_ == tq::this_process(); }
    bool on_own_thread() const { return std::this_thread::get_id() == thread_.get_id(); }

    // Sees to it that the loop looks at its timers at that time, instead of what it was told before.
    void wake_at(tq::Clock::time_point when);

    // Waits until everything posted and every timer due by now has run. Not from the loop's own thread.
    bool drain(std::chrono::milliseconds timeout);

    // Waits for a running task and drops the rest. Not from the loop's own thread.
    void stop();

private:
    void run();
    void run_tasks();
    void run_due_timers(tq::Clock::time_point now);

    std::unique_ptr<event_base, tq::FreeEvent> base_;
    std::unique_ptr<event, tq::FreeEvent> tasks_event_;
    std::unique_ptr<event, tq::FreeEvent> timers_event_;
    std::mutex mutex_;  // guards tasks_
    std::vector<tq::Task> tasks_;
    std::atomic<bool> stopping_ = false;
    const uint32_t process_ = tq::this_process();
    std::thread thread_;
};
