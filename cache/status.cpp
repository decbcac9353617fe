// Counters of each row and the number of full applications, for clients that wait or watch. The counters are atomic words
// that order nothing: each is right by itself. Takes no lock. A mutex of its own guards what is waited for and the key that a
// row refused first, and is held for a few words at a time; nothing else is locked under it.
#include "cache/status.h"

#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "base/clock.h"
#include "base/log.h"
#include "base/mutex.h"
#include "cache/row_sync.h"
#include "port_index/trees.h"
#include "tq_dm_cache/dm_cache_status.h"

static constexpr dm::LogTag log_tag{"dm_cache"};

namespace dm {
namespace {

// Counters of one row since the process began: they only grow, but for what is cached now.
struct RowStatus {
    uint32_t objects, sets, deletes, swept, refused;
    uint32_t callbacks, longest_callback_us;
    uint32_t changed_ms;      // when the last object came, changed or went
    uint32_t no_room;         // objects refused because the row was full
    uint32_t no_room_told;    // how many of them a line has told of
    char first_refused[120];  // its key, as a line shows it; the mutex
};

pthread_mutex_t status_mutex = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t status_changed = PTHREAD_COND_INITIALIZER;
RowStatus rows[DM_ROW_COUNT];
uint32_t applied = 0;
bool synced = false;  // since the last start

timespec deadline_in(int32_t timeout_ms) {
    timespec time = monotonic_now();
    time.tv_sec += timeout_ms / 1000;
    time.tv_nsec += (timeout_ms % 1000) * 1000000L;
    if (time.tv_nsec >= 1000000000L) {
        ++time.tv_sec;
        time.tv_nsec -= 1000000000L;
    }
    return time;
}

constexpr uint32_t RowStatus::*counters[] = {&RowStatus::sets, &RowStatus::deletes, &RowStatus::swept};

void count(uint32_t &word, uint32_t n) {
    __atomic_fetch_add(&word, n, __ATOMIC_RELAXED);
}

// One line when a row begins to refuse what it has no room for, and one at each doubling. On standard error: with the
// threshold that a process starts with the log is silent, and objects are being lost.
void tell_of_no_room(int32_t row) {
    RowStatus &status = rows[row];
    const uint32_t now_refused = load(status.no_room);
    uint32_t told = load(status.no_room_told);
    if (now_refused < (told == 0 ? 1 : 2 * told)) return;
    if (!__atomic_compare_exchange_n(&status.no_room_told, &told, now_refused, false, __ATOMIC_RELAXED,
                                     __ATOMIC_RELAXED))
        return;
    dprintf(STDERR_FILENO, "dm_cache: row %d %s is full: %d objects cached, %u refused\n", row,
            obj_sub_list[row].obj_tmpl->descriptor->name, DM_CACHE_LIST_LIMIT, now_refused);
}

// "devid=1 slotid=3 sslotid=0", of an object of the row's kind; else what is the matter.
void write_key(int32_t row, const ProtobufCMessage *object, char *text, size_t size) {
    const Kind *const kind = kind_of_row(row);
    const bool has_key = kind && object && is_kind(object, kind->descriptor) && kind->index_offset > 0;
    const ProtobufCMessage *const key = has_key ? key_of(object, kind->index_offset) : nullptr;
    size_t length = static_cast<size_t>(std::snprintf(text, size, key ? "key" : "no key"));
    for (unsigned i = 0; key && i < key->descriptor->n_fields && length < size; ++i) {
        const ProtobufCFieldDescriptor &field = key->descriptor->fields[i];
        int32_t value;
        std::memcpy(&value, reinterpret_cast<const char *>(key) + field.offset, sizeof value);
        length += static_cast<size_t>(std::snprintf(text + length, size - length, " %s=%d", field.name, value));
    }
}

// A line for the first object that a row refuses, and one at each doubling.
void tell_of_refused(int32_t row, uint32_t now_refused, const ProtobufCMessage *object) {
    if ((now_refused & (now_refused - 1)) != 0) return;
    char first[sizeof rows[row].first_refused];
    {
        Held held(status_mutex);
        RowStatus &status = rows[row];
        if (status.first_refused[0] == '\0') write_key(row, object, status.first_refused, sizeof first);
        std::memcpy(first, status.first_refused, sizeof first);
    }
    const ProtobufCMessage *const kind = obj_sub_list[row].obj_tmpl;
    DM_LOG_AS(Caller{"dm_cache_refused"}, failure, "row %d %s has refused %u, the first with %s.\r\n", row,
              kind ? kind->descriptor->name : "without a kind", now_refused, first);
}

// Waits for a change of the status that makes `holds` true; -1 when the time is up.
template <class Holds> int32_t wait_until(const Holds &holds, int32_t timeout_ms) {
    const timespec deadline = deadline_in(timeout_ms > 0 ? timeout_ms : 0);
    Held held(status_mutex);
    while (!holds())
        if (pthread_cond_clockwait(&status_changed, &status_mutex, CLOCK_MONOTONIC, &deadline) == ETIMEDOUT)
            return holds() ? 0 : -1;
    return 0;
}

}  // namespace

void status_count(int32_t row, Count what, uint32_t n) {
    if (n == 0) return;
    count(rows[row].*counters[static_cast<size_t>(what)], n);
    store(rows[row].changed_ms, static_cast<uint32_t>(now_ms()));
}

void status_callback(int32_t row, timespec begun) {
    const timespec ended = monotonic_now();
    const auto us =
        static_cast<uint32_t>((ended.tv_sec - begun.tv_sec) * 1000000 + (ended.tv_nsec - begun.tv_nsec) / 1000);
    count(rows[row].callbacks, 1);
    if (us > load(rows[row].longest_callback_us)) store(rows[row].longest_callback_us, us);
}

bool status_synced() {
    Held held(status_mutex);
    return synced;
}

void status_refused(int32_t row, const ProtobufCMessage *object) {
    tell_of_refused(row, __atomic_add_fetch(&rows[row].refused, 1u, __ATOMIC_RELAXED), object);
    if (load(rows[row].no_room) != load(rows[row].no_room_told)) tell_of_no_room(row);
}

void status_no_room(int32_t row) {
    count(rows[row].no_room, 1);
}

void status_objects(int32_t row, int32_t cached) {
    store(rows[row].objects, static_cast<uint32_t>(cached));
}

void status_restarted() {
    Held held(status_mutex);
    synced = false;
}

void status_applied() {
    Held held(status_mutex);
    ++applied;
    synced = true;
    pthread_cond_broadcast(&status_changed);
}

void hold_status_for_fork() {
    pthread_mutex_lock(&status_mutex);
}

void release_status_after_fork(bool in_child) {
    if (in_child) status_changed = PTHREAD_COND_INITIALIZER;
    pthread_mutex_unlock(&status_mutex);
}

}  // namespace dm

using namespace dm;

int32_t dm_cache_wait_synced(int32_t timeout_ms) {
    if (wait_until([] { return synced; }, timeout_ms) == 0) return 0;
    if (timeout_ms > 0) {
        char reason[256];
        dm_cache_reason(reason, sizeof reason);
        DM_LOG(failure, "not synchronised: %s.\r\n", reason);
    }
    return -1;
}

uint32_t dm_cache_applied(void) {
    Held held(status_mutex);
    return applied;
}

int32_t dm_cache_wait_applied(uint32_t than, int32_t timeout_ms) {
    return wait_until([=] { return applied > than; }, timeout_ms);
}

int32_t dm_cache_get_stats(int32_t type, dm_cache_stats *stats, uint32_t size) {
    if (!row_in_range(type) || !stats) return -1;
    std::memset(stats, 0, size);
    const RowSync &sync = row_sync[type];
    const RowStatus &row = rows[type];
    dm_cache_stats now_stats{};
    now_stats.enabled = load(obj_sub_list[type].enable);
    now_stats.subscribed = load(sync.confirmed);
    now_stats.scanned = load(sync.scanned);
    now_stats.held = load(sync.held);
    now_stats.objects = load(row.objects);
    now_stats.sets = load(row.sets);
    now_stats.deletes = load(row.deletes);
    now_stats.swept = load(row.swept);
    now_stats.refused = load(row.refused) + keys_without_memory(type);
    now_stats.last_scan_ms = load(sync.last_scan_ms);
    now_stats.queued = load(sync.queued);
    now_stats.callbacks = load(row.callbacks);
    now_stats.longest_callback_us = load(row.longest_callback_us);
    now_stats.last_change_ms = now_stats.sets + now_stats.deletes + now_stats.swept == 0
                                   ? UINT32_MAX
                                   : static_cast<uint32_t>(now_ms()) - load(row.changed_ms);
    std::memcpy(stats, &now_stats, size < sizeof now_stats ? size : sizeof now_stats);
    return 0;
}
