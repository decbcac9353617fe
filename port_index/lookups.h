// Borrowed look-ups over the trees, for queries that read an object where it lies.
// The caller holds the cache lock.
#pragma once

#include "port_index/keys.h"

namespace dm {

// The element with a key in one tree of a row; null when there is none.
dm_cache_list_node *find_indexed(int32_t row, int32_t tree, int64_t key) DM_REQUIRES_SHARED;

template <class T> const T *indexed(int32_t tree, int64_t key) DM_REQUIRES_SHARED;
template <class T> const T *indexed(int32_t tree, int64_t key) {
    const dm_cache_list_node *node = find_indexed(row_of<T>, tree, key);
    return node ? as<T>(node->obj) : nullptr;
}

}  // namespace dm
