// What a generated topology consists of, before it is written down as objects: card types with their chips and ports, and
// the cards that sit in the slots. gen_plan.cpp decides, gen.cpp writes down.
#pragma once

#include "dmq/gen.h"

namespace dmq {

// Slot numbers that are the same on every device.
enum { slot_fe1 = 22, slot_m1 = 30, slot_count = 32 };

// Type codes of devices, cards and chips.
enum {
    type_chassis = 10,
    type_box = 20,
    type_board = 100,
    type_line = 200,
    type_carrier = 201,
    type_subcard = 300,
    type_fabric = 400,
    type_box_card = 500,
    type_switch_chip = 1,
    type_fabric_chip = 2
};

enum { port_limit = 10000, subcard_ports = 4, ports_per_chip = 32, vsl_ports = 2 };

// One port as a card type has it; every card of the type has the same.
struct GenPort {
    int lport;      // unique within the card, sub-cards included
    int user_port;  // as printed on the panel, but for members of a panel port that is broken out
    int subslot;    // which sub-card provides it; 0: the card itself
    int unit;       // chip of the card
    int cport;      // port of the chip
    int lanes;
    int mbps;
    bool combo;  // fibre or copper
    bool poe;
    bool vsl;  // can carry a virtual switching link
    int panel_port = 0;
    int member = 0;  // of a panel port that is broken out; 0: the port is whole
};

// Cards of a type share chips, sub-slots and ports, as in a real catalogue.
struct GenCardType {
    int type;
    const char *name;
    const char *node_type;  // as in p_dev.dm_node_type_e
    int chips;
    int subslots;
    std::vector<GenPort> ports;
};

// A card in its slot.
struct GenCard {
    int dev;
    int slot;  // physical
    int subslot;
    int user_slot;
    const GenCardType *type;
};

// All that is to be written down.
struct GenPlan {
    GenOptions options;
    std::vector<GenCardType> types;
    std::vector<GenCard> cards;  // device by device
    const GenCard *local;        // the card whose process reads the store
};

// The i-th port of a sub-card, wired behind another port of its carrier.
GenPort subcard_port(const GenPort &before, int subslot, int i);

// The cards point into the types: a plan is not copied.
void make_plan(const GenOptions &options, GenPlan &plan);

}  // namespace dmq
