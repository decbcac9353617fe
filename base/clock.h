// The clock that measures how long things take, which nobody sets. Any thread. Takes no lock.
#pragma once

#include <cstdint>
#include <ctime>

namespace dm {

inline timespec monotonic_now() {
    timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return time;
}

inline int64_t now_ms() {
    const timespec time = monotonic_now();
    return int64_t{time.tv_sec} * 1000 + time.tv_nsec / 1000000;
}

}  // namespace dm
