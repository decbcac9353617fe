// The listener of each thread, and the line about a row that nobody follows. The lines that are due are atomic words. Takes no
// lock.
#include "base/trace.h"

#include "base/log.h"
#include "base/rows.h"

static constexpr dm::LogTag log_tag{"dm_cache"};

namespace dm {

__attribute__((tls_model("initial-exec"))) constinit thread_local Tracer tracer = {};

namespace {

uint8_t unfollowed_due[DM_ROW_COUNT];

void tell_if_unfollowed(int32_t row) {
    if (!log_tag.admits(failure)) return;  // the line stays due
    if (row_followed(obj_sub_list[row]) || __atomic_load_n(&unfollowed_due[row], __ATOMIC_RELAXED) == 0) return;
    if (__atomic_exchange_n(&unfollowed_due[row], uint8_t{0}, __ATOMIC_RELAXED) == 0) return;
    DM_LOG_AS(Caller{"dm_cache_unfollowed"}, failure,
              "row %d %s is asked, and nobody follows it: nothing is found there.\r\n", row,
              kind_of_row(row)->descriptor->name);
}

void tell(const dm_cache_read &read) {
    if (!tracer.callback || tracer.inside) return;
    tracer.inside = true;
    tracer.callback(&read, tracer.word);
    tracer.inside = false;
}

}  // namespace

void tell_read(int32_t row, const ProtobufCMessage *key, const ProtobufCMessage *found) {
    if (!found) tell_if_unfollowed(row);
    tell({row, DM_CACHE_READ_KEY, key, found, 0, 0, 0});
}

void tell_tree_read(int32_t row, int32_t tree, int64_t key, const ProtobufCMessage *found) {
    if (!found) tell_if_unfollowed(row);
    tell({row, DM_CACHE_READ_TREE, nullptr, found, key, tree, 0});
}

void tell_walk(int32_t row, int32_t objects) {
    if (objects == 0) tell_if_unfollowed(row);
    tell({row, DM_CACHE_READ_WALK, nullptr, nullptr, 0, 0, objects});
}

void tell_store_read(int32_t row, int32_t how, const ProtobufCMessage *key, const ProtobufCMessage *found,
                     int32_t code) {
    tell({row, how, key, found, 0, 0, code});
}

void expect_unfollowed(bool expected) {
    for (uint8_t &due : unfollowed_due) __atomic_store_n(&due, static_cast<uint8_t>(expected), __ATOMIC_RELAXED);
}

}  // namespace dm

void dm_cache_trace(dm_cache_trace_cb callback, void *word) {
    dm::tracer.callback = callback;
    dm::tracer.word = word;
}
