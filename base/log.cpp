// The two log thresholds: exported words that a client or the configuration file writes while others read them.
#include "base/log.h"

#include "tq_dm_cache/dm_cache.h"

int32_t g_dm_cache_level = 3;
int32_t g_ndm_lib_dbg_lvl = 3;

namespace dm {

bool LogTag::admits(Level level) const {
    const int32_t &word = threshold == Threshold::cache ? g_dm_cache_level : g_ndm_lib_dbg_lvl;
    return __atomic_load_n(&word, __ATOMIC_RELAXED) <= level;
}

}  // namespace dm
