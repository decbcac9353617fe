// The log: one call of the C library a line, so that lines of two threads never mix, or one call of the client's sink. A file
// has one tag, named once at its top (`static constexpr dm::LogTag log_tag{"dm_cache"};`), and writes through DM_LOG. Takes no
// lock for standard output; a sink is called under a mutex of the log's own.
#pragma once

#include <cstdint>
#include <cstdio>

namespace dm {

enum Level : int32_t { trace = 0, notice = 1, failure = 2 };

// Which of the two thresholds decides: g_dm_cache_level, or g_ndm_lib_dbg_lvl.
enum class Threshold { cache, library };

// The module that a line names, and whether its lines are written: those whose level is not below the threshold.
struct LogTag {
    const char *name;
    Threshold threshold = Threshold::cache;

    bool admits(Level level) const;
};

// Whose line it is. As a default argument it names the caller of the function that declares it, so that a helper's
// messages carry the name of the query that called it.
struct Caller {
    const char *function = __builtin_FUNCTION();
    int line = __builtin_LINE();
};

// What stands before each line on standard output: module, line, function, which are its first arguments.
#define DM_LOG_PREFIX "[DM-CACHE]<%s:%d:%s>"

// Writes a line, or hands it to the sink without its prefix and its line break.
__attribute__((format(printf, 2, 3))) void write_log(Level level, const char *format, ...);

}  // namespace dm

#define DM_LOG_AS(caller, level, format, ...)                                              \
    do {                                                                                   \
        const ::dm::Caller dm_log_caller = (caller);                                       \
        if (log_tag.admits(level))                                                         \
            ::dm::write_log(level, DM_LOG_PREFIX format, log_tag.name, dm_log_caller.line, \
                            dm_log_caller.function __VA_OPT__(, ) __VA_ARGS__);            \
    } while (0)

#define DM_LOG(level, format, ...) DM_LOG_AS(::dm::Caller{}, level, format __VA_OPT__(, ) __VA_ARGS__)
