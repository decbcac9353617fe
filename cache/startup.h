// Start-up, as the rest of the cache sees it.
//   enable_row()   Takes the cache lock.
//   all else       Takes no lock.
#pragma once

#include <cstdint>

#include "tq_dm_cache/tq_platform.h"

namespace dm {

// dm_cache_init has finished. Any thread.
bool started();

// Enables a row that holds a kind, if nobody has. After the start it is subscribed at once. Any thread, not under the cache
// lock: that is a call of the store.
void enable_row(int32_t row);

// What inspect/ does, above the cache: when a start has set the rows up and is about to connect, with the handle that it was given,
// and before a stop empties the rows. On the caller's thread, not under the cache lock.
void start_begins(tq_mom_handle *handle);
void stop_begins();

}  // namespace dm
