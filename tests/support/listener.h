// Pictures of what a store and a cache hold, and a client that keeps one of its own from what it is told.
#pragma once

#include <array>
#include <map>
#include <mutex>

#include "tests/support/messages.h"
#include "tq_dm_cache/dm_cache_follow.h"
#include "tq_dm_cache/dm_cache_status.h"
#include "tq_dm_cache/dm_types.h"

// The objects of one row: packed objects by packed keys.
using Picture = std::map<std::string, std::string>;

void add(Picture &picture, const ProtobufCMessage *object);
Picture cached_picture(int32_t row);
dm_cache_stats counters(int32_t row);

// Whether the cache holds this very object, or, when it is null, none with the key.
bool cache_shows(int32_t row, const ProtobufCMessage *key, const ProtobufCMessage *object);

// What is wrong with a picture of the cache; empty: nothing.
std::string difference(const Picture &cache, const Picture &wanted);

// Any thread.
class Listener {
public:
    // A change callback: a change that does not fit what was told before, or that the cache does not show, fails the run.
    void told(int32_t row, int32_t operation, const ProtobufCMessage *message);

    // The client is about to put an object into the cache itself.
    void sets_own(int32_t row, const ProtobufCMessage *object);

    // The row is followed from now on, and holds what the client has put there.
    void begins_with(int32_t row, Picture cached);

    // At rest: what was told, less what was swept, is what is cached, and the counters say so.
    std::string difference(int32_t row, const Picture &cache) const;

private:
    struct Heard {
        Picture objects;
        uint32_t sets = 0, deletes = 0, swept = 0;
    };
    mutable std::mutex mutex_;
    std::array<Heard, DM_ROW_COUNT> rows_;
};

// A follower's picture of a row, from what it is told alone. It stays where it is while it follows. Any thread.
class Follower {
public:
    // Begins with what is there now, when it is not to be told of it.
    Follower(int32_t row, uint32_t flags);
    ~Follower();
    Follower(const Follower &) = delete;

    int32_t row() const { return row_; }
    std::string difference(const Picture &cache) const;

private:
    static void hear(const dm_cache_event *event, void *self);
    // Ends the run as failed when the event does not fit what was told before.
    void told(const dm_cache_event &event);

    const int32_t row_;
    const uint32_t flags_;
    mutable std::mutex mutex_;
    Picture objects_;
    bool is_filled_ = false;  // told of something behind the first phase
};
