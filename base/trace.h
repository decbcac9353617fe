// What queries read: told to the thread that asked for it (dm_cache_trace.h), and a line of the log when a row that nobody
// follows is asked, which finds nothing there. Called by the few functions through which every query reads. Takes no lock: the
// caller may hold the cache lock.
#pragma once

#include "tq_dm_cache/dm_cache_trace.h"

namespace dm {

// One a thread, set and read by that thread alone.
struct Tracer {
    dm_cache_trace_cb callback;  // null: nobody listens
    void *word;
    bool inside;  // it is being told
};

// Initial-exec, as the lock's own: a look-up makes no call for it, and a library that is loaded late takes these words from the
// room that the loader keeps for that.
extern __attribute__((tls_model("initial-exec"))) constinit thread_local Tracer tracer;

// A read of the cache that has found nothing, or that somebody listens to. Most are neither.
inline bool is_to_be_told(bool found) {
    return __builtin_expect(!found || tracer.callback, 0);
}

// Of the cache: an object by its key or by its key in a tree, a walk over so many objects.
void tell_read(int32_t row, const ProtobufCMessage *key, const ProtobufCMessage *found);
void tell_tree_read(int32_t row, int32_t tree, int64_t key, const ProtobufCMessage *found);
void tell_walk(int32_t row, int32_t objects);

// Of the store.
void tell_store_read(int32_t row, int32_t how, const ProtobufCMessage *key, const ProtobufCMessage *found,
                     int32_t code);

// Each row that nobody follows has its line once from now on, or none.
void expect_unfollowed(bool expected);

}  // namespace dm
