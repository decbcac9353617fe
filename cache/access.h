// Caching of what a query has read from the store. Takes the cache lock.
#pragma once

#include "tq_dm_cache/dm_cache.h"

namespace dm {

// dm_cache_set_obj for an object whose read began at a mark of change_mark(): one that has been overtaken is not stored,
// which is no failure. Takes the cache lock.
int32_t cache_object(int32_t type, const ProtobufCMessage *obj, uint64_t since);

}  // namespace dm
