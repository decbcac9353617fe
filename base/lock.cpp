// The cache lock: one recursive mutex that exists only when the client asks for it.
#include "base/lock.h"

#include <pthread.h>

namespace dm {

CacheMutex cache_mutex;

namespace {

pthread_mutex_t g_dm_cache_mutex;
uint8_t g_dm_cache_mutex_ready = 0;

bool lock_exists() {
    return __atomic_load_n(&g_dm_cache_mutex_ready, __ATOMIC_ACQUIRE) == 1;
}

bool make_recursive(pthread_mutexattr_t *attribute) {
    return pthread_mutexattr_settype(attribute, PTHREAD_MUTEX_RECURSIVE) == 0 &&
           pthread_mutex_init(&g_dm_cache_mutex, attribute) == 0;
}

}  // namespace
}  // namespace dm

int32_t dm_cache_multi_thread_init(void) {
    using namespace dm;
    if (lock_exists()) return 0;

    pthread_mutexattr_t attribute;
    if (pthread_mutexattr_init(&attribute) != 0) return -1;
    const bool made = make_recursive(&attribute);
    if (pthread_mutexattr_destroy(&attribute) != 0 || !made) return -1;
    __atomic_store_n(&g_dm_cache_mutex_ready, uint8_t{1}, __ATOMIC_RELEASE);
    return 0;
}

int32_t dm_cache_lock(void) {
    return dm::lock_exists() ? pthread_mutex_lock(&dm::g_dm_cache_mutex) : 0;
}

int32_t dm_cache_unlock(void) {
    return dm::lock_exists() ? pthread_mutex_unlock(&dm::g_dm_cache_mutex) : 0;
}
