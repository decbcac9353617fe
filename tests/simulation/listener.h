#ifndef TQ_DM_SIMULATION_LISTENER_H
#define TQ_DM_SIMULATION_LISTENER_H

// Pictures of what a store and a cache hold, and a client that keeps one of its own from what it is told. In virtual time and
// over a real server alike.

#include <array>
#include <map>

#include "tests/support/messages.h"
#include "tq_dm_cache/dm_types.h"

// Packed objects by packed keys.
using Picture = std::map<std::string, std::string>;

std::string key_bytes(const ProtobufCMessage *object);
void add(Picture &picture, const ProtobufCMessage *object);
Picture cached_picture(int32_t row);

// What is wrong with a row's picture; empty: nothing.
std::string difference(int32_t row, const Picture &cache, const Picture &wanted);

class Listener {
public:
    // A change callback: ends the run as failed when the change does not fit what was told before, or the cache does not show it.
    void told(int32_t row, int32_t operation, const ProtobufCMessage *message);

    // The client is about to put an object into the cache itself.
    void sets_own(int32_t row, const ProtobufCMessage *object);

    // At rest: what was told, less what was swept, is what is cached, and the counters say so.
    std::string difference(int32_t row) const;

private:
    struct Heard {
        Picture objects;
        uint32_t sets = 0, deletes = 0, swept = 0;
    };
    std::array<Heard, DM_ROW_COUNT> rows_;
};

#endif
