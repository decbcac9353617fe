// Following changes: one line for each object that was added, changed or deleted, for each lost and restored connection,
// and for each resynchronisation. Lines are printed on the store client's thread as changes arrive. A watch keeps its own
// packed copy of every object it follows, so it can tell old from new, hide what did not change, and tell after an
// application what is gone without a callback. Its state has a lock of its own, taken before the cache lock.
#pragma once

#include "dmq/names.h"

namespace dmq {

// Starts following these kinds (all enabled ones when none is named), in place of an earlier watch.
void start_watch(const std::vector<Kind> &kinds, bool json);
void stop_watch();

// Prints what an application has done that no callback tells. Waits for nothing.
void catch_up_watch();

// Returns after so many seconds (never, when negative), or when SIGINT or SIGTERM asks to end.
void wait_for_end(double seconds);

// The callbacks of the session's reader.
int32_t watch_change(tq_mom_handle *handle, int32_t row, int32_t operation, ProtobufCMessage *object);
void watch_connection(tq_mom_handle *handle, int32_t connected, int32_t reason, void *privdata);

}  // namespace dmq
