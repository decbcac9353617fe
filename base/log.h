// The log: one printf call a line, so that lines of two threads never mix. A file names its tag once, at its top
// (`static constexpr char log_tag[] = "dm_cache";`), and writes through DM_LOG. Takes no lock.
#pragma once

#include <cstdint>
#include <cstdio>

namespace dm {

// A message is written when the threshold is not above its level.
enum Level : int32_t { trace = 0, notice = 1, failure = 2 };

// Whose line it is. As a default argument it names the caller of the function that declares it, so that a helper's
// messages carry the name of the query that called it.
struct Caller {
    const char *function = __builtin_FUNCTION();
    int line = __builtin_LINE();
};

// Other threads write the thresholds while this one reads them.
bool cache_logs(Level level);

}  // namespace dm

#define DM_LOG_AS(caller, enabled, format, ...)                                     \
    do {                                                                            \
        const ::dm::Caller dm_log_caller = (caller);                                \
        if (enabled)                                                                \
            std::printf("[DM-CACHE]<%s:%d:%s>" format, log_tag, dm_log_caller.line, \
                        dm_log_caller.function __VA_OPT__(, ) __VA_ARGS__);         \
    } while (0)

// A message of the cache core or the port indexes.
#define DM_LOG(level, format, ...) DM_LOG_AS(::dm::Caller{}, ::dm::cache_logs(level), format __VA_OPT__(, ) __VA_ARGS__)
