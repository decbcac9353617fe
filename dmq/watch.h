// Following changes: one line for each object that was added, changed, deleted or swept out, for each lost and restored
// connection, and for each resynchronisation. A watch is a follower of the cache (dm_cache_follow.h) that prints what it is
// told, on the store client's thread. Its state has a lock of its own, which is held while a line is printed.
#pragma once

#include "dmq/names.h"

namespace dmq {

struct WatchOptions {
    bool json = false;
    bool initial = false;                   // begin with the objects that are there
    bool unchanged = false;                 // tell of objects that are written again as they were
    bool date = false;                      // times with date and zone
    std::vector<std::string> program = {};  // runs for each change of an object, and no line is printed
};

// Starts following these kinds (all enabled ones when none is named), in place of an earlier watch. The cache is live.
void start_watch(const std::vector<ObjectKind> &kinds, const WatchOptions &options);
void stop_watch();

// A line is being written, and nobody reads it: the watch cannot be stopped. Waits for a second to be sure.
bool is_watch_blocked();

// Prints what the cache has refused since it was last asked. Waits for nothing.
void tell_refused();

// Returns after so many seconds (never, when negative), or true when SIGINT or SIGTERM asks to end.
bool wait_for_end(double seconds);

// Ends the program of a watch that runs; for what was seen meanwhile none runs. Else stop_watch() waits until they have run.
void drop_programs();

// The connection callback of the session's reader.
void watch_connection(tq_mom_handle *handle, int32_t connected, int32_t reason, void *privdata);

}  // namespace dmq
