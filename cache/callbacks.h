// Change callbacks, as the synchronisation runs them, on the store client's thread. Takes no lock, and is called without the
// cache lock: a callback may take it, and may wait for a thread that does.
#pragma once

#include "tq_dm_cache/dm_cache.h"

namespace dm {

// Runs a row's callbacks in order of registration. Always 0.
int32_t call_callbacks(tq_mom_handle *handle, int32_t type, int32_t operation, ProtobufCMessage *message);

}  // namespace dm
