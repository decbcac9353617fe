#ifndef TQ_DM_SIMULATION_OBJECTS_H
#define TQ_DM_SIMULATION_OBJECTS_H

// Chance, and the objects that a simulated writer sets. Values come from small ranges, so that objects often claim each
// other's index keys, unless each is to keep to its own. The table must be set up: a row's kind is taken from it.

#include <random>

#include "tests/support/messages.h"

struct Random {
    std::mt19937_64 engine;
    bool own_index_keys = false;

    int32_t below(size_t n) { return static_cast<int32_t>(engine() % n); }
    bool percent(int32_t p) { return below(100) < p; }
};

inline constexpr int32_t keys_of_a_row = 8;
inline constexpr int32_t ghost_keys = 100;  // from here on: keys that no writer uses

// Global ports, ports of the VSD and static ports with the same `key` (twice it, for global ports) share their place.
Message random_object(Random &random, int32_t row, int32_t key);

#endif
