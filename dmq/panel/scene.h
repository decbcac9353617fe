// What there is to see of a switch: devices, the cards in their slots and the ports of the cards, as plain records. They are
// collected from the cache under one hold of its lock, and nothing of them points into it afterwards.
#pragma once

#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "dmq/facts.h"

namespace dmq {

enum class PortState { up, down, absent, no_static };

// Absent: the card has it, and no global port is cached for it. Without its static port no query finds a port.
struct ScenePort {
    int32_t number, type;
    int32_t vsd = unknown;
    PortState state = PortState::absent;
    bool vsl = false;  // carries a virtual switching link
    std::string name{};

    auto place() const { return std::tuple(number, type, vsd); }
};

// A card, or a slot without one.
struct SceneCard {
    int32_t dev, slot, sub;  // slot: the physical one
    uint32_t node;
    int32_t user_slot = unknown;
    std::string place;  // "1/M1"
    std::string name, role;
    bool there = false, online = false;
    int32_t type = unknown;
    std::vector<ScenePort> ports;  // by number
};

struct SceneDevice {
    int32_t dev;
    std::string name, type;
    bool known = false, online = false;
    std::vector<SceneCard> cards;  // by user slot, sub-cards behind their card
};

using Scene = std::vector<SceneDevice>;

Scene collect_scene();

// A name and its value; a heading has no value.
using SceneFacts = std::vector<std::pair<std::string, std::string>>;

// All that is known of a card or of a port of it. Takes the cache lock.
SceneFacts facts_of_card(const SceneCard &card);
SceneFacts facts_of_port(const SceneCard &card, const ScenePort &port);

struct FoundPort {
    const SceneCard *card;
    const ScenePort *port;
};

// The ports that a person means by a name or number of theirs, by a part of their name, and by column=value, in the order of the
// scene. Throws a Failure for a column that is not there. Takes the cache lock.
std::vector<FoundPort> find_ports(const Scene &scene, const std::string &words);

}  // namespace dmq
