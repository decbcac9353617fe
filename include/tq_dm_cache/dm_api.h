#ifndef TQ_DM_API_H
#define TQ_DM_API_H

/*
 * What every header of this library relies on.
 *
 * Conventions that hold in every header here:
 *   - Functions are C functions over plain records and fixed-width integers. A header compiles alone (C11, C++20).
 *   - A result is a signed 32-bit code: 0 is success, negative is a failure. A failed call changes nothing and leaves
 *     its out-values alone, unless the function says otherwise. Codes of store calls are handed back unchanged.
 *   - A null pointer is refused with -1 where it has no stated meaning.
 *   - "The cache lock" is the one recursive lock of dm_cache_lock(). It exists only after dm_cache_multi_thread_init().
 *   - "Borrowed" means: owned by the cache, valid only while the caller holds the cache lock. "Copy" means: the caller's
 *     own, to be released as the function says.
 *   - A name, a callback or a template given to a function is only read during the call, unless it says "kept".
 *   - A word handed through a callback (privdata, arg) is one pointer wide; the library never looks into it.
 */

#include <stdint.h>

/* Marks what the shared object exports. Everything else in it is hidden. */
#define DM_API __attribute__((visibility("default")))

#endif
