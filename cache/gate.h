// Who is inside: callbacks of the store client that run in the cache, and calls that use the client's handle, which
// dm_cache_stop() waits for and then keeps out. Any thread. Takes no lock; has a mutex of its own, under which nothing else is
// locked.
#pragma once

#include "tq_dm_cache/dm_cache.h"

namespace dm {

// The handle that is in use; null before the start and after a stop.
inline tq_mom_handle *store_handle() {
    return __atomic_load_n(&g_dm_global, __ATOMIC_ACQUIRE);
}

// One callback, or one call that uses the handle, from its begin to its end; those within others are one each.
class StoreCallback {
public:
    // Of this handle, or, null, of whichever is in use.
    explicit StoreCallback(const tq_mom_handle *handle = nullptr);
    ~StoreCallback();
    StoreCallback(const StoreCallback &) = delete;
    StoreCallback &operator=(const StoreCallback &) = delete;

    // False: the cache has been stopped, or the handle is one that it had before; nothing is to be done.
    bool may_run() const { return may_run_; }

private:
    bool may_run_;
};

// Keeps all callbacks out and waits until none is inside. False, and nothing is done: this thread is inside itself.
bool close_gate();

// In a child of fork(): the other threads are not there.
void nobody_else_is_inside();

// Lets those of the handle in use in.
void open_gate();

}  // namespace dm
