#ifndef TQ_DM_CACHE_TRACE_H
#define TQ_DM_CACHE_TRACE_H

/*
 * Why does a query answer as it does? What it reads, of the cache and of the store, told read by read to the thread that asks
 * it: what was asked for and what was found. `dmq explain` prints it.
 */

#include "dm_cache.h"

#ifdef __cplusplus
extern "C" {
#endif

enum {
    DM_CACHE_READ_KEY,    /* the cached object that has a key */
    DM_CACHE_READ_TREE,   /* the cached object that is found by its key in one of the row's trees */
    DM_CACHE_READ_WALK,   /* every cached object of a row, or how many there are */
    DM_CACHE_READ_RECORD, /* the store's object that has a key, as a record */
    DM_CACHE_READ_OBJECT, /* the same, as a bare object */
    DM_CACHE_READ_SCAN /* every object of the store; reported when the scan ends, after the reads that its replies caused */
};

/* May grow at its end. The messages are good during the call, and not the callback's to change. */
typedef struct dm_cache_read {
    int32_t type;                  /* row number */
    int32_t how;                   /* DM_CACHE_READ_.. */
    const ProtobufCMessage *key;   /* KEY, RECORD, OBJECT; null for a kind without key */
    const ProtobufCMessage *found; /* what one object was asked for; null when there is none */
    int64_t tree_key;              /* TREE */
    int32_t tree;                  /* TREE: which root of the row's index set (dm_port_index.h) */
    /* RECORD, OBJECT, SCAN: the store's code, 0 or an error, and -1 when nothing usable came; WALK: how many objects are cached;
     * else 0. */
    int32_t code;
} dm_cache_read;

/*
 * Runs within the query, which may hold the shared side of the cache lock: it must neither take the lock nor change the cache.
 * Reads of queries that the callback itself asks are not told.
 */
typedef void (*dm_cache_trace_cb)(const dm_cache_read *read, void *word);

/* From now on `callback` is told of each read that a query of this thread makes; null ends that. Each thread has its own
 * callback. Takes no lock. */
DM_API void dm_cache_trace(dm_cache_trace_cb callback, void *word);

#ifdef __cplusplus
}
#endif

#endif
