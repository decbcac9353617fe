// What the synchronisation tells the counters of dm_cache_status.h. Takes no lock; has a mutex of its own, which is held for a
// few words. So the caller may hold the cache lock, but for status_refused().
#pragma once

#include <cstdint>
#include <ctime>

#include <protobuf-c/protobuf-c.h>

namespace dm {

enum class Count { sets, deletes, swept };

void status_count(int32_t row, Count what, uint32_t n = 1);

// A change that has arrived does not end in the cache: every way on which one is lost comes here, with the object, if there is
// one. Not under the cache lock: it may write a line.
void status_refused(int32_t row, const ProtobufCMessage *object);

// A row has no room for an object: status_refused() is to tell of it.
void status_no_room(int32_t row);
void status_objects(int32_t row, int32_t cached);

// The machine begins again, after a start that failed.
void status_restarted();

// A full application has been done since the start.
bool status_synced();

// A callback of a row has run, which began then.
void status_callback(int32_t row, timespec begun);

// A full application is done: wakes who waits for it.
void status_applied();

// Around fork(): the child finds the mutex free, and nobody who waits.
void hold_status_for_fork();
void release_status_after_fork(bool in_child);

}  // namespace dm
