// The event loop. libevent wakes it; what it runs is kept here (tasks) and in timers.cpp. mutex_ guards the task queue and
// is never held while a task runs.
#include "platform/loop.h"

#include <event2/event.h>
#include <event2/thread.h>
#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>
#include <array>
#include <csignal>
#include <cstdio>
#include <future>
#include <new>
#include <system_error>

#include "platform/timers.h"

namespace tq {

void FreeEvent::operator()(event *e) const {
    event_free(e);
}
void FreeEvent::operator()(event_base *base) const {
    event_base_free(base);
}

namespace {

constexpr size_t descriptors_of_a_base = 8;

// A task that runs out of memory loses its message, not the process.
void run_guarded(const Task &task) {
    try {
        task();
    } catch (const std::exception &error) {
        std::fprintf(stderr, "tq_platform: an event is lost: %s\n", error.what());
    }
}

// libevent ends the process when a descriptor is missing for what it needs itself. Another thread may still take the last
// one between the question and the answer.
void want_descriptors() {
    std::array<int, descriptors_of_a_base> taken;
    size_t n = 0;
    while (n < taken.size() && (taken[n] = ::open("/dev/null", O_RDONLY | O_CLOEXEC)) >= 0) ++n;
    for (size_t i = 0; i < n; ++i) ::close(taken[i]);
    if (n < taken.size()) throw std::system_error(EMFILE, std::generic_category());
}

event_base *new_base() {
    static const int threads = evthread_use_pthreads();
    want_descriptors();
    event_base *base = threads == 0 ? event_base_new() : nullptr;
    if (!base) throw std::bad_alloc();
    return base;
}

event *new_event(event_base *base, short what, event_callback_fn callback, void *arg) {
    event *e = event_new(base, -1, what, callback, arg);
    if (!e) throw std::bad_alloc();
    return e;
}

}  // namespace

}  // namespace tq

using namespace tq;

tq_thread_master::tq_thread_master() {
    base_.reset(new_base());
    tasks_event_.reset(new_event(
        base_.get(), EV_PERSIST, [](int, short, void *self) { static_cast<Loop *>(self)->run_tasks(); }, this));
    timers_event_.reset(new_event(
        base_.get(), 0, [](int, short, void *self) { static_cast<Loop *>(self)->run_due_timers(Clock::now()); }, this));
    thread_ = std::thread([this] { run(); });
}

tq_thread_master::~tq_thread_master() {
    stop();
    disarm_all(*this);
}

void tq_thread_master::run() {
    sigset_t all;  // signals are the client's threads' business
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, nullptr);
    event_base_loop(base_.get(), EVLOOP_NO_EXIT_ON_EMPTY);
}

// Only a post that finds the queue empty wakes the loop: it takes the whole queue at once.
void tq_thread_master::post(Task task) {
    const std::lock_guard lock(mutex_);
    tasks_.push_back(std::move(task));
    if (tasks_.size() == 1) event_active(tasks_event_.get(), EV_READ, 0);
}

void tq_thread_master::run_tasks() {
    std::vector<Task> batch;
    {
        const std::lock_guard lock(mutex_);
        batch.swap(tasks_);
    }
    for (Task &slot : batch) {
        if (stopping_) break;
        const Task task = std::move(slot);  // what it holds is freed when it has run
        run_guarded(task);
    }
    if (stopping_) event_base_loopbreak(base_.get());
}

void tq_thread_master::run_due_timers(Clock::time_point now) {
    Due due;
    while (!stopping_ && take_due(*this, now, due)) due.handler(due.timer);
    wake_for_next(*this);
}

void tq_thread_master::wake_at(Clock::time_point when) {
    const auto wait = std::chrono::ceil<std::chrono::microseconds>(when - Clock::now()).count();
    const auto micros = wait > 0 ? wait : 0;
    const timeval delay = {static_cast<time_t>(micros / 1'000'000), static_cast<suseconds_t>(micros % 1'000'000)};
    event_add(timers_event_.get(), &delay);
}

bool tq_thread_master::drain(std::chrono::milliseconds timeout) {
    const auto reached = std::make_shared<std::promise<void>>();
    post([this, reached, now = Clock::now()] {
        run_due_timers(now);
        reached->set_value();
    });
    return reached->get_future().wait_for(timeout) == std::future_status::ready;
}

void tq_thread_master::stop() {
    if (!thread_.joinable()) return;
    stopping_ = true;
    event_active(tasks_event_.get(), EV_READ, 0);
    thread_.join();
}
