// Makes topologies of any size in which everything agrees: identifiers, slots, ports, chips, roles and links.
#pragma once

#include "dmq/json.h"

namespace dmq {

// What is asked for; make_topology() refuses what the identifiers cannot carry.
struct GenOptions {
    int devices = 2;
    int boards = 2;    // main boards of a chassis
    int cards = 4;     // line cards of a chassis
    int ports = 48;    // of a line card, or of a box
    int subcards = 2;  // on the first line card of each chassis, four ports each
    int fabrics = 2;
    bool box = false;         // boxes instead of chassis
    std::string layout = {};  // a box's ports from a file: lanes, panel port, speed
};

// The entries in the order in which they read best; throws a Failure for a size that the identifiers cannot carry.
std::vector<Json> make_topology(const GenOptions &options);

}  // namespace dmq
