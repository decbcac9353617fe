// The two log thresholds, exported words that a client or the configuration file writes while others read them, and the sink.
// Takes no lock; has a mutex of its own for the sink, which is held while the client's function runs.
#include "base/log.h"

#include <cstdarg>
#include <cstring>

#include "base/mutex.h"
#include "tq_dm_cache/dm_cache_status.h"

int32_t g_dm_cache_level = 3;
int32_t g_ndm_lib_dbg_lvl = 3;

namespace dm {
namespace {

pthread_mutex_t sink_mutex = PTHREAD_MUTEX_INITIALIZER;  // guards both; held while the sink runs
dm_cache_log_cb sink = nullptr;
void *sink_word = nullptr;

// What the sink of this thread makes the library say is said to nobody.
__attribute__((tls_model("initial-exec"))) thread_local bool in_sink = false;

void hand_to_sink(Level level, const char *format, va_list args) {
    const char *const module = va_arg(args, const char *);
    const int line = va_arg(args, int);
    const char *const function = va_arg(args, const char *);
    char text[1024];
    std::vsnprintf(text, sizeof text, format + std::strlen(DM_LOG_PREFIX), args);
    text[std::strcspn(text, "\r\n")] = '\0';
    Held held(sink_mutex);
    in_sink = true;
    if (sink) sink(level, module, function, line, text, sink_word);
    in_sink = false;
}

}  // namespace

bool LogTag::admits(Level level) const {
    const int32_t &word = threshold == Threshold::cache ? g_dm_cache_level : g_ndm_lib_dbg_lvl;
    return __atomic_load_n(&word, __ATOMIC_RELAXED) <= level;
}

void write_log(Level level, const char *format, ...) {
    if (in_sink) return;
    va_list args;
    va_start(args, format);
    if (__atomic_load_n(&sink, __ATOMIC_ACQUIRE))
        hand_to_sink(level, format, args);
    else
        std::vprintf(format, args);
    va_end(args);
}

}  // namespace dm

void dm_cache_set_log(dm_cache_log_cb callback, void *word) {
    using namespace dm;
    const auto set = [=] {
        __atomic_store_n(&sink, callback, __ATOMIC_RELEASE);
        sink_word = word;
    };
    if (in_sink) return set();  // this thread holds the mutex
    Held held(sink_mutex);
    set();
}
