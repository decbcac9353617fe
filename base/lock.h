// The cache lock as guards, and the annotations by which clang's thread-safety analysis knows it. The lock is recursive,
// which the analysis does not know: so internal functions are annotated and public ones are not.
//
// The lock has two sides. The exclusive one is what dm_cache_lock() takes; the library itself takes it to change the cache.
// Look-ups take the shared side, which is nothing for a thread that holds the exclusive one already. No thread asks for the
// exclusive side while it holds the shared one, so nothing of a client's runs under the shared side.
//
// Takes the cache lock: each guard for its scope.
#pragma once

#include "tq_dm_cache/dm_cache.h"

#if defined(__clang__)
#define DM_LOCKS(x) __attribute__((x))
#else
#define DM_LOCKS(x)
#endif

namespace dm {

class DM_LOCKS(capability("cache lock")) CacheMutex {};

// What the annotations name; the lock itself is lock.cpp's own.
extern CacheMutex cache_mutex;

// For what changes the cache, and for what reads it.
#define DM_REQUIRES_LOCK DM_LOCKS(requires_capability(::dm::cache_mutex))
#define DM_REQUIRES_SHARED DM_LOCKS(requires_shared_capability(::dm::cache_mutex))

// Says to the analysis what an exported function's header asks of its caller: that it holds the lock.
inline void caller_holds_lock() DM_LOCKS(assert_capability(cache_mutex)) {}

// Take the exclusive side before the threads that only queue for it, and give it back.
void lock_for_change();
void unlock_after_change();

// Around fork(): the child finds nobody else reading or in a queue. Whoever holds the exclusive side holds it there, too.
void hold_lock_for_fork();
void release_lock_after_fork(bool in_child);

// True when the shared side has been taken, which is then to be given back.
bool lock_shared();
void unlock_shared();

// Each holds its side for its scope; nothing while there is no lock.
class DM_LOCKS(scoped_lockable) CacheLock {
public:
    CacheLock() DM_LOCKS(acquire_capability(cache_mutex)) { lock_for_change(); }
    ~CacheLock() DM_LOCKS(release_capability()) { unlock_after_change(); }
    CacheLock(const CacheLock &) = delete;
    CacheLock &operator=(const CacheLock &) = delete;
};

class DM_LOCKS(scoped_lockable) SharedCacheLock {
public:
    SharedCacheLock() DM_LOCKS(acquire_shared_capability(cache_mutex)) : taken_(lock_shared()) {}
    ~SharedCacheLock() DM_LOCKS(release_capability()) {
        if (taken_) unlock_shared();
    }
    SharedCacheLock(const SharedCacheLock &) = delete;
    SharedCacheLock &operator=(const SharedCacheLock &) = delete;

private:
    bool taken_;
};

}  // namespace dm
