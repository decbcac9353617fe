// How far the synchronisation of each row has come. cache/sync.cpp writes it, on the store client's callback thread and on a
// timer's; `late`, `followed` and `subscribed_ms` also on the thread that enables a row after the start; `equal` and `rescan`
// also on that of a start after one that failed, and all of it on that of a stop. cache/pending.cpp writes what is queued;
// status, reason and events read it for whoever asks. So the words are atomic, and each is right by itself. Takes no lock.
#pragma once

#include "base/rows.h"
#include "tq_dm_cache/tq_platform.h"

namespace dm {

// One row's progress. It is right at any moment word by word, not as a whole.
struct RowSync {
    uint8_t followed;   // the store has taken the subscription that brings pushes
    uint8_t confirmed;  // and said so
    uint8_t scanned;    // since it was last due
    uint8_t held;       // the store refuses its subscription or scan for now
    uint8_t late;       // enabled after the start, and not yet scanned
    uint8_t filled;     // its first scan since the start has been applied
    uint8_t equal;  // to the store when it was last live: all that was pushed and scanned has been applied, none held

    // Scans are numbered as they are asked for, and end in that order. What one up to `stale` brings is older than what the
    // row gathers now: its end does not count.
    uint32_t asked, ended, stale;
    uint32_t subscribed_ms;  // when the subscription was last asked for
    uint32_t asked_ms;       // when the last scan was
    uint32_t last_scan_ms;   // how long the last one took that has ended
    uint32_t queued;         // gathered, and not yet applied

    tq_thread_timer rescan;  // the timer's own
};

extern RowSync row_sync[DM_ROW_COUNT];
extern uint8_t machine_is_live;
extern uint32_t gathered_objects;  // that the application at hand began with, or the last one

template <class Word> Word load(const Word &word) {
    return __atomic_load_n(&word, __ATOMIC_ACQUIRE);
}
template <class Word> void store(Word &word, Word value) {
    __atomic_store_n(&word, value, __ATOMIC_RELEASE);
}

// Nobody waits for it: the store refuses it for now, or it has been enabled after the start and is not scanned yet.
inline bool is_apart(const RowSync &row) {
    return load(row.held) != 0 || load(row.late) != 0;
}

}  // namespace dm
