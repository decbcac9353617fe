// A writer that changes a store by chance, the cache that follows the store, and clients that keep a picture of their own:
// at rest all of them are equal. One seed is one run. A road leads from the writer to the cache: it says how a write gets out,
// what can go wrong on the way, and how all comes to rest. simulation/ has one in virtual time, faults/ one over a server.
#pragma once

#include <list>
#include <random>
#include <set>
#include <vector>

#include "tests/support/listener.h"
#include "tests/support/seeds.h"
#include "tq_dm_cache/dm_cache.h"

struct Random {
    std::mt19937_64 engine;

    int32_t below(size_t n) { return static_cast<int32_t>(engine() % n); }
    bool percent(int32_t p) { return below(100) < p; }
};

inline constexpr int32_t keys_of_a_row = 8;
inline constexpr int32_t ghost_keys = 100;  // from here on: keys that no writer uses

const ProtobufCMessageDescriptor *kind_of(int32_t row);

class World {
public:
    World(const World &) = delete;

protected:
    World(uint64_t seed, bool trace, bool own_index_keys);
    virtual ~World() = default;

    // The road

    virtual void set(int32_t row, const Message &object) = 0;
    virtual void remove(int32_t row, const Message &object) = 0;  // by its key
    // What the store holds of a row. False: it cannot be read now. Of what nobody can know neither picture tells.
    virtual bool read_store(int32_t row, Picture &store, Picture &cache) = 0;
    virtual void told(int32_t row, int32_t operation, const ProtobufCMessage *message);

    // The writer

    void write(Random &chance);  // one change of any row
    // Values come from small ranges, so that objects often claim each other's index keys, unless each is to keep to its own.
    // Global ports, ports of the VSD and static ports with the same `key` (twice it, for global ports) share their place.
    Message random_object(Random &chance, int32_t row, int32_t key) const;

    // The clients

    void follow(int32_t row, int32_t flag = 0);
    static bool follows(int32_t row);  // enabled, and stored
    // A follower of any row, one that nobody has enabled too, comes or goes.
    void follower_comes_or_goes(Random &chance);

    // At rest: what differs between the store, the cache and what clients were told; empty: nothing. Ends the run as failed
    // when lists and indexes do not fit together, which must never be.
    std::string difference();

    void say(const char *format, ...) const __attribute__((format(printf, 2, 3)));  // in a trace

    Random random;
    std::vector<int32_t> rows;  // that hold a kind
    Listener listener;          // told of every change, compared with the cache at rest
    std::list<Follower> followers;
    std::set<int32_t> late_rows;  // enabled after the start
    int64_t now = 0;              // in a trace

private:
    std::string difference_of(int32_t row);

    const bool trace_, own_index_keys_;
};
