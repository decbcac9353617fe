// Counters of each row and the number of full applications, for clients that wait or watch. The counters are atomic words
// that order nothing: each is right by itself. A mutex of its own guards what is waited for, and is held for a few words at
// a time; nothing else is locked under it.
#include "cache/status.h"

#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "base/rows.h"
#include "port_index/trees.h"
#include "tq_dm_cache/dm_cache_status.h"

namespace dm {
namespace {

struct RowStatus {
    dm_cache_stats stats;
    int64_t scan_asked_ms;
    uint32_t no_room;       // objects refused because the row was full
    uint32_t no_room_told;  // how many of them a line has told of
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

void count(uint32_t &word, uint32_t n) {
    __atomic_fetch_add(&word, n, __ATOMIC_RELAXED);
}

// One line when a row begins to refuse what it has no room for, and one at each doubling. On standard error: with the
// threshold that a process starts with the log is silent, and objects are being lost.
void tell_of_no_room(int32_t row) {
    RowStatus &status = rows[row];
    const uint32_t now_refused = read(status.no_room);
    uint32_t told = read(status.no_room_told);
    if (now_refused < (told == 0 ? 1 : 2 * told)) return;
    if (!__atomic_compare_exchange_n(&status.no_room_told, &told, now_refused, false, __ATOMIC_RELAXED,
                                     __ATOMIC_RELAXED))
        return;
    dprintf(STDERR_FILENO, "dm_cache: row %d %s is full: %d objects cached, %u refused\n", row,
            obj_sub_list[row].obj_tmpl->descriptor->name, DM_CACHE_LIST_LIMIT, now_refused);
}

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
    count(rows[row].stats.*counters[static_cast<size_t>(what)], n);
}

void status_refused(int32_t row) {
    count(rows[row].stats.refused, 1);
    if (read(rows[row].no_room) != read(rows[row].no_room_told)) tell_of_no_room(row);
}

void status_no_room(int32_t row) {
    count(rows[row].no_room, 1);
}

void status_objects(int32_t row, int32_t cached) {
    __atomic_store_n(&rows[row].stats.objects, static_cast<uint32_t>(cached), __ATOMIC_RELAXED);
}

void status_subscribed(int32_t row) {
    StatusLock lock;
    rows[row].stats.subscribed = 1;
}

void status_held(int32_t row, bool held) {
    StatusLock lock;
    rows[row].stats.held = held;
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
    now_stats.held = row.held;
    now_stats.objects = read(row.objects);
    for (const auto counter : counters) now_stats.*counter = read(row.*counter);
    now_stats.refused += keys_without_memory(type);
    now_stats.last_scan_ms = row.last_scan_ms;
    std::memcpy(stats, &now_stats, size < sizeof now_stats ? size : sizeof now_stats);
    return 0;
}
