// The one place where a row changes: list, trees and key records together, and the ports that depend on a static port
// with it. The caller holds the cache lock.
#pragma once

#include "base/list.h"
#include "base/lock.h"

namespace dm {

// Stores a copy: 0 added, 1 replaced; -1 when the row holds no kind, is full, has no memory, or the object lacks its key;
// or the code of the copy. On failure the row is as it was. What is equal to the cached object is not copied.
int32_t store_object(int32_t type, const ProtobufCMessage *obj) DM_REQUIRES_LOCK;

// The same with a message that the cache can keep as it is.
int32_t store_shared(int32_t type, StoredMessage message) DM_REQUIRES_LOCK;

// What has changed so far, to be noted before an object is read from the store.
uint64_t change_mark() DM_REQUIRES_SHARED;

// An element that is cached now was cached at that mark too, and has the place in the list that it had. No for some that have.
bool is_where_it_was(int32_t type, const dm_cache_list_node *node, uint64_t mark) DM_REQUIRES_SHARED;

// Stores an object whose read began at a mark, as store_object() does; kept_out when the row stores nothing, or the object
// is overtaken: its key has been set since, or may have been deleted, so that storing it would undo a newer change. What the
// client hands in itself is read nowhere: never_overtaken, and kept as the client's.
constexpr int32_t kept_out = 2;
constexpr uint64_t never_overtaken = UINT64_MAX;
int32_t offer_object(int32_t type, const ProtobufCMessage *obj, uint64_t since) DM_REQUIRES_LOCK;

// The cached object that is equal to this one, as another owner of it; empty when there is none.
StoredMessage cached_equal(int32_t type, const ProtobufCMessage *obj) DM_REQUIRES_SHARED;

// What has been taken out of a row. The element itself, or, when it has become an event, a share of its message.
struct Removed {
    ProtobufCMessage *message = nullptr;  // null: there was none
    OwnedNode node;
    StoredMessage kept;
};

// Takes out the object that matches.
Removed remove_object(int32_t type, const ProtobufCMessage *probe) DM_REQUIRES_LOCK;

// Marks what a row holds before it is scanned again, and removes what the scan did not bring: the number removed.
void mark_dirty(int32_t type) DM_REQUIRES_LOCK;
uint32_t sweep(int32_t type) DM_REQUIRES_LOCK;

// Frees all that an earlier start left in a row.
void discard_row(int32_t type) DM_REQUIRES_LOCK;

}  // namespace dm
