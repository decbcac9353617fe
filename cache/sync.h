// The synchronisation machine, as start-up uses it. On the store client's callback thread, unless a function says otherwise.
// Takes no lock. What calls the store (subscribe_again(), subscribe_late()) is called without the cache lock.
#pragma once

#include "tq_dm_cache/dm_cache_sync.h"

namespace dm {

// Subscribes the rows of a database again after it was lost; each is scanned again some time after its confirmation. The
// last answer of the store, -1 when no row belongs to the database.
int32_t subscribe_again(uint32_t db);

// A row that is enabled after the start: the others do not wait for it. It is expected before it is enabled, and subscribed
// after. Any thread.
void expect_late(int32_t row);
void subscribe_late(int32_t row);

// Enabled, but too late for the subscription of its database, and nobody has asked for it since. Any thread.
bool is_left_out(int32_t row);

// The rows of a database have been subscribed: one that is enabled from now on has to be by itself. Any thread.
bool subscribes_at_once(uint32_t db);

// After a start that failed, on the starting thread: no database counts as subscribed.
void subscribe_nothing_at_once();

// For another start after one that failed: disarms what waits for its timer, and has the machine begin again with the next
// database that is ready. On the starting thread.
void begin_again();

// For a stop, over a handle that is still open: what was asked for is not told any more, where the platform can promise that.
// On the stopping thread.
void forget_requests();

// For a stop: nothing waits for a timer or in the queue, and the machine is where it was before the first start. On the
// stopping thread: no callback of the store client is inside, so what is the callback thread's own is this thread's.
void end_sync();

}  // namespace dm
