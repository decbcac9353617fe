// The objects of a generated topology: what gen.cpp (identity, roles, devices, cards) and gen_ports.cpp (ports, chips, card
// types, links) share.
#pragma once

#include "dmq/gen_plan.h"

namespace dmq {

// Adds an object of p_dev. It goes through the strict reader once, so a name that the schema does not know cannot leave.
void put(std::vector<Json> &out, const std::string &kind, const Json &object, uint32_t db = 1);

int enum_number(const char *type, const char *name);
int node_number(int dev, int slot, int subslot);

// Locally administered addresses: what it is for (layer 2, layer 3, a card: 4), then the place.
std::string mac(int use, int dev, int slot, int port);

Json card_static(const GenCardType &type);

void put_card_type(std::vector<Json> &out, const GenCardType &type);
void put_chip_types(std::vector<Json> &out, const GenPlan &plan);
void put_ports(std::vector<Json> &out, const GenPlan &plan);
void put_links(std::vector<Json> &out, const GenPlan &plan);

}  // namespace dmq
