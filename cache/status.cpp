// Counters of each row and the number of full applications, for clients that wait or watch. The counters are atomic words
// that order nothing: each is right by itself. A mutex of its own guards what is waited for, and is held for a few words at
// a time; nothing else is locked under it.
#include "cache/status.h"

#include <pthread.h>

#include <cerrno>
#include <cstring>
#include <ctime>

#include "base/rows.h"
#include "tq_dm_cache/dm_cache_status.h"

namespace dm {
namespace {

struct RowStatus {
    dm_cache_stats stats;
    int64_t scan_asked_ms;
};

pthread_mutex_t status_mutex = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t status_changed = PTHREAD_COND_INITIALIZER;
RowStatus rows[DM_ROW_COUNT];
uint32_t applied = 0;
bool synced = false;  // since the last start

class StatusLock {
public:
    StatusLock() { pthread_mutex_lock(&status_mutex); }
    ~StatusLock() { pthread_mutex_unlock(&status_mutex); }
    StatusLock(const StatusLock &) = delete;
    StatusLock &operator=(const StatusLock &) = delete;
};

timespec now() {
    timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return time;
}

int64_t now_ms() {
    const timespec time = now();
    return int64_t{time.tv_sec} * 1000 + time.tv_nsec / 1000000;
}

timespec deadline_in(int32_t timeout_ms) {
    timespec time = now();
    time.tv_sec += timeout_ms / 1000;
    time.tv_nsec += (timeout_ms % 1000) * 1000000L;
    if (time.tv_nsec >= 1000000000L) {
        ++time.tv_sec;
        time.tv_nsec -= 1000000000L;
    }
    return time;
}

// A counter is read while others count.
uint32_t read(const uint32_t &word) {
    return __atomic_load_n(&word, __ATOMIC_RELAXED);
}

constexpr uint32_t dm_cache_stats::*counters[] = {&dm_cache_stats::sets, &dm_cache_stats::deletes,
                                                  &dm_cache_stats::swept, &dm_cache_stats::refused};

// Waits for a change of the status that makes `holds` true; -1 when the time is up.
template <class Holds> int32_t wait_until(const Holds &holds, int32_t timeout_ms) {
    const timespec deadline = deadline_in(timeout_ms > 0 ? timeout_ms : 0);
    StatusLock lock;
    while (!holds())
        if (pthread_cond_clockwait(&status_changed, &status_mutex, CLOCK_MONOTONIC, &deadline) == ETIMEDOUT)
            return holds() ? 0 : -1;
    return 0;
}

}  // namespace

void status_count(int32_t row, Count what, uint32_t n) {
    __atomic_fetch_add(&(rows[row].stats.*counters[static_cast<size_t>(what)]), n, __ATOMIC_RELAXED);
}

void status_objects(int32_t row, int32_t cached) {
    __atomic_store_n(&rows[row].stats.objects, static_cast<uint32_t>(cached), __ATOMIC_RELAXED);
}

void status_subscribed(int32_t row) {
    StatusLock lock;
    rows[row].stats.subscribed = 1;
}

void status_scan_asked(int32_t row) {
    StatusLock lock;
    rows[row].scan_asked_ms = now_ms();
}

void status_scanned(int32_t row, bool done) {
    StatusLock lock;
    RowStatus &status = rows[row];
    status.stats.scanned = done ? 1 : 0;
    if (done && status.scan_asked_ms != 0)
        status.stats.last_scan_ms = static_cast<uint32_t>(now_ms() - status.scan_asked_ms);
}

void status_restarted() {
    StatusLock lock;
    synced = false;
    for (RowStatus &row : rows) row.stats.subscribed = row.stats.scanned = 0;
}

void status_applied() {
    StatusLock lock;
    ++applied;
    synced = true;
    pthread_cond_broadcast(&status_changed);
}

}  // namespace dm

using namespace dm;

int32_t dm_cache_wait_synced(int32_t timeout_ms) {
    return wait_until([] { return synced; }, timeout_ms);
}

uint32_t dm_cache_applied(void) {
    StatusLock lock;
    return applied;
}

int32_t dm_cache_wait_applied(uint32_t than, int32_t timeout_ms) {
    return wait_until([=] { return applied > than; }, timeout_ms);
}

int32_t dm_cache_get_stats(int32_t type, dm_cache_stats *stats, uint32_t size) {
    if (!row_in_range(type) || !stats) return -1;
    std::memset(stats, 0, size);
    StatusLock lock;
    const dm_cache_stats &row = rows[type].stats;
    dm_cache_stats now_stats{};
    now_stats.enabled = obj_sub_list[type].enable;
    now_stats.subscribed = row.subscribed;
    now_stats.scanned = row.scanned;
    now_stats.objects = read(row.objects);
    for (const auto counter : counters) now_stats.*counter = read(row.*counter);
    now_stats.last_scan_ms = row.last_scan_ms;
    std::memcpy(stats, &now_stats, size < sizeof now_stats ? size : sizeof now_stats);
    return 0;
}
