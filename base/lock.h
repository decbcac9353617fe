// The cache lock as a guard, and the annotations by which clang's thread-safety analysis knows it. The lock is recursive,
// which the analysis does not know: so internal functions are annotated and public ones are not.
#pragma once

#include "tq_dm_cache/dm_cache.h"

#if defined(__clang__)
#define DM_LOCKS(x) __attribute__((x))
#else
#define DM_LOCKS(x)
#endif

namespace dm {

class DM_LOCKS(capability("cache lock")) CacheMutex {};

// What the annotations name; the mutex itself is lock.cpp's own.
extern CacheMutex cache_mutex;

#define DM_REQUIRES_LOCK DM_LOCKS(requires_capability(::dm::cache_mutex))
#define DM_REQUIRES_SHARED DM_LOCKS(requires_shared_capability(::dm::cache_mutex))

// Says to the analysis what an exported function's header asks of its caller: that it holds the lock.
inline void caller_holds_lock() DM_LOCKS(assert_capability(cache_mutex)) {}

// Holds the cache lock for its scope; nothing while there is no lock.
class DM_LOCKS(scoped_lockable) CacheLock {
public:
    CacheLock() DM_LOCKS(acquire_capability(cache_mutex)) { dm_cache_lock(); }
    ~CacheLock() DM_LOCKS(release_capability()) { dm_cache_unlock(); }
    CacheLock(const CacheLock &) = delete;
    CacheLock &operator=(const CacheLock &) = delete;
};

using SharedCacheLock = CacheLock;

}  // namespace dm
