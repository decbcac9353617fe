// Which process this is. No lock.
#include "platform/process.h"

#include <pthread.h>
#include <atomic>
#include <new>

namespace tq {

namespace {

std::atomic<uint32_t> forks = 0;

}  // namespace

uint32_t this_process() {
    static const bool counted = (run_in_child([] { ++forks; }), true);
    static_cast<void>(counted);
    return forks;
}

void run_in_child(void (*act)()) {
    if (pthread_atfork(nullptr, nullptr, act) != 0) throw std::bad_alloc();
}

}  // namespace tq
