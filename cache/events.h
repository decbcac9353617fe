// What has happened to objects of followed rows, from the change to the followers. A change notes its event under the cache
// lock, so events stand in the order of the changes; they are delivered without it. Who delivers: the store client's thread
// after the change callbacks, and a timer for what other threads have changed. Has a mutex of its own, under which nothing
// else is locked.
//   changes of a row, add_follower()   The caller holds the cache lock.
//   all else                           Takes no lock. What delivers is called without the cache lock: followers may take it.
#pragma once

#include "base/list.h"
#include "base/lock.h"
#include "tq_dm_cache/dm_cache_follow.h"

namespace dm {

// One thing that happened, with a share of the messages. In the queue it is under the mutex; whoever has taken it out owns it.
struct Event {
    Event *next;
    ProtobufCMessage *before, *after;
    int16_t type;
    uint8_t what, phase;
};
struct FreeEvent {
    void operator()(Event *event) const;
};
using OwnedEvent = std::unique_ptr<Event, FreeEvent>;

// Changes of a row

// Before a set: what is to be noted when it has succeeded; empty when nobody follows the row. `node` is null for a new object.
// A code of dm_cache_copy_obj() when there is no memory: the set is then refused, so no event is lost.
int32_t begin_event(int32_t type, const dm_cache_list_node *node, ProtobufCMessage *after,
                    OwnedEvent &event) DM_REQUIRES_LOCK;
void note_event(OwnedEvent event) DM_REQUIRES_LOCK;
void note_unchanged(int32_t type, const dm_cache_list_node *node) DM_REQUIRES_LOCK;

// An element that has been taken out; the answer is its message. When somebody follows the row, the element's memory becomes the
// event, so that none gets lost, and the message lives until the event is delivered. Else the element stays the caller's, also
// when a client has put a message of its own there and there is no memory for a copy.
ProtobufCMessage *note_removed(int32_t type, int32_t what, OwnedNode &node) DM_REQUIRES_LOCK;

// A full application has ended, the first since the start or a later one.
void note_applied(bool first);

// Delivery

// Tells the followers all that is noted, unless it is being told already or a change callback is still to run.
void deliver_events();

// The same on a thread of the store client's, soon. For whoever has changed the cache on another thread, or under the lock.
void deliver_soon();

// From a change until its callbacks have run: its followers are told after them. On the store client's thread; one may lie
// within another.
class ChangeCallbacks {
public:
    ChangeCallbacks();
    ~ChangeCallbacks();
    ChangeCallbacks(const ChangeCallbacks &) = delete;
    ChangeCallbacks &operator=(const ChangeCallbacks &) = delete;

private:
    bool counted_;
};

// How many events are noted and not told yet, and how many follow a row. Any thread, no lock.
uint32_t events_noted();
uint32_t followers_of(int32_t type);

// What is noted is forgotten, because the rows are emptied; the followers stay. No callback of the store client is inside.
void forget_events();

// Followers of a row, or of applications

constexpr int32_t applications = -1, no_memory = -2;

int32_t add_follower(int32_t type, dm_cache_follow_cb callback, void *word, uint32_t flags) DM_REQUIRES_LOCK;
int32_t remove_follower(int32_t type, dm_cache_follow_cb callback, void *word);

// Around fork(): the child finds the mutex free, and nobody who waits.
void hold_events_for_fork();
void release_events_after_fork(bool in_child);

}  // namespace dm
