// A cache over the scripted platform: started with a few rows, and fed message by message as the store client would.
#pragma once

#include "tests/support/log_capture.h"
#include "tests/support/scripted_platform.h"

#include "tq_dm_cache/dm_cache.h"
#include "tq_dm_cache/dm_cache_follow.h"
#include "tq_dm_cache/dm_cache_status.h"
#include "tq_dm_cache/dm_cache_sync.h"
#include "tq_dm_cache/dm_port_index.h"
#include "tq_dm_cache/p_dev.pb-c.h"

#include <gtest/gtest.h>

#include <future>

using Strings = std::vector<std::string>;

// What note_change() was told: row, added / replaced / deleted, key fields in the order of their numbers.
extern Strings changes;
int32_t note_change(tq_mom_handle *handle, int32_t type, int32_t operation, ProtobufCMessage *message);
inline Strings drained(Strings *all) {
    return std::exchange(*all, {});
}

// Registers note_change() for the rows and starts the cache: nothing is subscribed yet, or all gather what their scans bring.
void start(std::initializer_list<int32_t> rows);
void start_gathering(std::initializer_list<int32_t> rows);

// One message to the main callback: its object is wrapped in a record where the command wants one.
enum { SET = 1, DELETE = 3, REPLY = 4, REPLY_HASH = 6, REPLY_GET = 9, OTHER = 28, SUBSCRIBED = 29 };
int32_t receive(int32_t row, int32_t cmd, const Message &object, int32_t flag = 0);
int32_t receive_value(int32_t row, int32_t cmd, void *value, int32_t flag = 0, int32_t result = 0);
inline int32_t receive_end(int32_t row) {  // of a scan
    return receive_value(row, REPLY, nullptr, /*flag=*/1);
}

// The element of a row that is the same object; null when there is none. How many a row holds.
dm_cache_list_node *element(int32_t row, const Message &object);
inline int32_t cached(int32_t row) {
    return obj_sub_list[row].obj_list->count;
}
dm_cache_stats counters(int32_t row);

bool another_thread_can_lock();
