// The objects of a generated topology: what gen.cpp (identity, roles, devices, cards) and gen_ports.cpp (ports, chips, card
// types, links) share.
#pragma once

#include "dmq/gen_plan.h"

namespace dmq {

struct Field {
    const char *name;
    Json value;
};

inline Field field(const char *name, Json value) {
    return {name, std::move(value)};
}

template <class... Fields> Json object(const Fields &...fields) {
    Json made = Json::object();
    ((made[fields.name] = fields.value), ...);
    return made;
}

using Entries = std::vector<Json>;

// Adds an object of p_dev. It goes through the strict reader once, so a name that the schema does not know cannot leave.
void put(Entries &out, const std::string &kind, const Json &object, uint32_t db = 1);

int enum_number(const char *type, const char *name);
int node_number(int dev, int slot, int subslot);

// Locally administered addresses: what it is for (layer 2, layer 3, a card: 4), then the place.
std::string mac(int use, int dev, int slot, int port);

Json card_static(const GenCardType &type);

void put_card_type(Entries &out, const GenCardType &type);
void put_chip_types(Entries &out, const GenPlan &plan);
void put_ports(Entries &out, const GenPlan &plan);
void put_links(Entries &out, const GenPlan &plan);

}  // namespace dmq
