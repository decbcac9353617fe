// The log: one printf call a line, so that lines of two threads never mix. A file names its tag once, at its top
// (`static constexpr char log_tag[] = "dm_cache";`), and writes through DM_LOG. Takes no lock.
#pragma once

#include <cstdint>
#include <cstdio>

namespace dm {

// A message is written when its threshold is not above its level. The type of the level says which of the two thresholds
// that is: g_dm_cache_level, or g_ndm_lib_dbg_lvl for those that begin with lib_.
enum Level : int32_t { trace = 0, notice = 1, failure = 2 };
enum LibLevel : int32_t { lib_debug = 0, lib_warning = 1, lib_error = 2 };
bool logs(Level level);
bool logs(LibLevel level);

// Whose line it is. As a default argument it names the caller of the function that declares it, so that a helper's
// messages carry the name of the query that called it.
struct Caller {
    const char *function = __builtin_FUNCTION();
    int line = __builtin_LINE();
};

}  // namespace dm

#define DM_LOG_AS(caller, level, format, ...)                                       \
    do {                                                                            \
        const ::dm::Caller dm_log_caller = (caller);                                \
        if (::dm::logs(level))                                                      \
            std::printf("[DM-CACHE]<%s:%d:%s>" format, log_tag, dm_log_caller.line, \
                        dm_log_caller.function __VA_OPT__(, ) __VA_ARGS__);         \
    } while (0)

#define DM_LOG(level, format, ...) DM_LOG_AS(::dm::Caller{}, level, format __VA_OPT__(, ) __VA_ARGS__)
