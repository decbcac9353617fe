// The ports of a generated topology, the chips and card types that describe them, and the links that join devices.
#include <algorithm>

#include "dmq/gen_objects.h"

namespace dmq {

namespace {

struct Speed {
    int mbps;
    const char *type;
    const char *name;
};

const Speed &speed_of(const GenPort &port) {
    static const Speed speeds[] = {{1000, "ETH_1000M", "GigE"},          {10000, "ETH_10G", "TenGigE"},
                                   {25000, "ETH_25G", "TwentyFiveGigE"}, {40000, "ETH_40G", "FortyGigE"},
                                   {100000, "ETH_100G", "HundredGigE"},  {0, "ETH_TYPE", "Ethernet"}};
    return *std::find_if(std::begin(speeds), std::end(speeds) - 1, [&](const Speed &s) { return s.mbps == port.mbps; });
}

int type_number(const GenPort &port) {
    return enum_number("p_intf.intftype_e", speed_of(port).type);
}

// "TwentyFiveGigE 1/3/7": the device only in a virtual unit, the sub-slot only for a sub-card's port. A member of a panel port has
// its number behind the panel port's: "TwentyFiveGigE 0/1/4".
std::string port_name(const GenPlan &plan, const GenCard &card, const GenPort &port) {
    std::string place = std::to_string(card.user_slot) + "/";
    if (plan.options.devices > 1) place = std::to_string(card.dev) + "/" + place;
    if (port.subslot > 0) place += std::to_string(port.subslot) + "/";
    place += port.member > 0 ? std::to_string(port.panel_port) + "/" + std::to_string(port.member)
                             : std::to_string(port.user_port);
    return speed_of(port).name + (" " + place);
}

// Where a port is: on its chip, on its card, on its panel.
Json port_place(const GenPort &port) {
    return {{"type", speed_of(port).type},
            {"unit", port.unit},
            {"port", port.cport},
            {"lport", port.lport},
            {"user_port", port.user_port},
            {"owner_subcard", port.subslot},
            {"logic_id", port.subslot > 0 ? port.user_port : 0}};
}

Json port_attr(const GenPort &port, const std::string &name) {
    const char *medium = port.poe ? "COPPER" : "FIBER";
    Json attr = port_place(port);
    attr.update({{"switchport", true},
                 {"poe_support", port.poe},
                 {"vsl_support", port.vsl},
                 {"medium_type", port.combo ? "AUTO_PRE_FIBER" : medium},
                 {"pd_medium_type", port.combo ? "FIBER_COPPER" : medium},
                 {"speed_cap", port.mbps},
                 {"supp_speed", Json::array({port.mbps})},
                 {"hardware_name", name},
                 {"def_mtu", 1500},
                 {"min_mtu", 64},
                 {"max_mtu", 9216},
                 {"bandwidth", port.mbps * 1000},
                 {"lane_num", port.lanes}});
    if (port.member > 0) attr["split_major_portnum"] = port.panel_port;
    return attr;
}

// A carrier says of a sub-card's port only where it is; the sub-card itself describes it (see extended_ports).
Json chip_attr(const GenCardType &type, int unit) {
    Json ports = Json::array();
    for (const GenPort &port : type.ports)
        if (port.unit == unit) ports.push_back(port.subslot ? port_place(port) : port_attr(port, ""));
    const bool fabric = type.type == type_fabric;
    return {{"name", fabric ? "fabric" : "switch"},
            {"port_num", ports.size()},
            {"port_attr", ports},
            {"is_switch_chip", !fabric},
            {"chip_type", fabric ? type_fabric_chip : type_switch_chip},
            {"unit_virtual_type", "UNIT_PHYSICAL"}};
}

Json extended_ports() {
    Json ports = Json::array();
    for (int i = 1; i <= subcard_ports; ++i) {
        GenPort port = subcard_port({}, 1, i);
        port.lport = port.cport = 0;  // a carrier gives them
        Json attr = port_attr(port, "");
        attr["owner_subcard"] = 0;
        ports.push_back(attr);
    }
    return ports;
}

// One port: what it is, and what it is called in VSD 0 and as a port of that VSD.
void put_port(std::vector<Json> &out, const GenPlan &plan, const GenCard &card, const GenPort &port, int ifx) {
    const std::string name = port_name(plan, card, port);
    const Json key = {{"t_dev", card.dev},
                      {"t_slot", card.user_slot},
                      {"t_port", port.user_port},
                      {"t_type", type_number(port)},
                      {"t_sslot", port.subslot}};
    put(out, "port_static", {{"index", key}, {"static_info", port_attr(port, name)}});

    Json made = {{"index", key},
                 {"ifx", ifx},
                 {"physlot", card.slot},
                 {"lchip", port.unit},
                 {"node", node_number(card.dev, card.slot, 0)},
                 {"llcbtype", speed_of(port).type},
                 {"dev", card.dev},
                 {"slot", card.user_slot},
                 {"unit", port.unit},
                 {"hardware_name", name},
                 {"def_mtu", 1500},
                 {"min_mtu", 64},
                 {"max_driver_mtu", 9216},
                 {"bandwidth", port.mbps * 1000},
                 {"link_state", port.user_port % 8 ? 1 : 0},
                 {"line_state", port.user_port % 8 ? 1 : 0},
                 {"layer2_mac_addr", mac(2, card.dev, card.slot, port.lport)},
                 {"layer3_mac_addr", mac(3, card.dev, card.slot, port.lport)}};
    put(out, "vsd_port_attr", made);
    made["index"]["t_vsdid"] = 0;
    put(out, "vsd_port", made);
}

void put_local_port(std::vector<Json> &out, const GenPlan &plan, const GenPort &port) {
    put(out, "unit_cport_info",
        {{"index", {{"unit", port.unit}, {"cport", port.cport}}},
         {"static_info", port_attr(port, port_name(plan, *plan.local, port))},
         {"owner_card_type", port.subslot ? static_cast<int>(type_subcard) : plan.local->type->type}});
    put(out, "lport_info", {{"index", {{"lport", port.lport}}}, {"unit", port.unit}, {"cport", port.cport}});
}

// The end of a link: the card that carries links on its device, and its i-th port from the back.
struct LinkEnd {
    const GenCard *card;
    const GenPort *port;
};

LinkEnd link_end(const GenPlan &plan, int dev, int from_back) {
    const GenCard *card = nullptr;
    for (const GenCard &candidate : plan.cards)
        if (candidate.dev == dev && !candidate.subslot && !candidate.type->ports.empty()) card = &candidate;
    std::vector<const GenPort *> own;
    for (const GenPort &port : card->type->ports)
        if (!port.subslot) own.push_back(&port);
    return {card, own[own.size() - static_cast<size_t>(from_back)]};
}

Json vsl_key(const LinkEnd &end) {
    return {{"devid", end.card->dev}, {"slotid", end.card->slot}, {"subslot", 0}, {"lport", end.port->lport}};
}

void put_vsl_port(std::vector<Json> &out, const LinkEnd &mine, const LinkEnd &peer, int ap) {
    put(out, "vsl_port_info",
        {{"index", vsl_key(mine)},
         {"cfg", 1},
         {"vsl_ap", ap},
         {"port_type", type_number(*mine.port)},
         {"status", 1},
         {"peer_index", vsl_key(peer)},
         {"peer_vsl_ap", ap},
         {"mac", mac(2, mine.card->dev, mine.card->slot, mine.port->lport)},
         {"peer_mac", mac(2, peer.card->dev, peer.card->slot, peer.port->lport)},
         {"user_port",
          {{"llcb_type", type_number(*mine.port)},
           {"user_slot", mine.card->user_slot},
           {"user_port", mine.port->user_port}}}},
        /*db=*/3);
}

}  // namespace

void put_card_type(std::vector<Json> &out, const GenCardType &type) {
    const bool fabric = type.type == type_fabric;
    const bool board = type.type == type_board;
    const auto vsl = std::count_if(type.ports.begin(), type.ports.end(), [](const GenPort &port) { return port.vsl; });
    Json made = {{"index", {{"type", type.type}}},
                 {"type", type.type},
                 {"name", type.name},
                 {"chip_num", type.chips},
                 {"fabric_num", fabric ? type.chips : 0},
                 {"switch_num", fabric ? 0 : type.chips},
                 {"mgmt_num", board ? 1 : 0},
                 {"cpu_num", 1},
                 {"sub_slot_num", type.subslots},
                 {"vsl_port_num", vsl},
                 {"node_name", type.node_type + sizeof "DM_TYPE"},
                 {"chip_attr_array", Json::array()},
                 {"def_mtu", 1500},
                 {"min_mtu", 64},
                 {"max_mtu", 9216}};
    for (int unit = 0; unit < type.chips; ++unit) made["chip_attr_array"].push_back(chip_attr(type, unit));
    if (type.type == type_subcard) {
        made["extended_port_num"] = static_cast<int>(subcard_ports);
        made["extended_port_array"] = extended_ports();
    }
    put(out, "card_static_info", card_static(type));
    put(out, "dm_card_stattr_t", made);
}

void put_chip_types(std::vector<Json> &out, const GenPlan &plan) {
    const auto chip = [&out](int type, const char *name, int family) {
        put(out, "dm_chip_stattr_t",
            {{"index", {{"type", type}}}, {"type", type}, {"name", name}, {"family", family}, {"invalid_cport", -1}});
    };
    chip(type_switch_chip, "switch", 1);
    if (!plan.options.box && plan.options.fabrics > 0) chip(type_fabric_chip, "fabric", 2);
}

void put_ports(std::vector<Json> &out, const GenPlan &plan) {
    int ifx = 0;
    for (const GenCard &card : plan.cards) {
        if (card.subslot) continue;
        for (const GenPort &port : card.type->ports) put_port(out, plan, card, port, ++ifx);
    }
    Json lports = Json::array();
    for (const GenPort &port : plan.local->type->ports) {
        put_local_port(out, plan, port);
        lports.push_back(port.lport);
    }
    put(out, "local_port_info", {{"lport_num", lports.size()}, {"online_lport", lports}});
}

// The devices of a unit form a chain: each is joined to the next by its last two ports, which lead to the two before
// those on the next. Links take the aggregate ports 1 and 2 in turn.
void put_links(std::vector<Json> &out, const GenPlan &plan) {
    for (int dev = 1; dev < plan.options.devices; ++dev) {
        for (int i = 1; i <= vsl_ports; ++i) {
            const LinkEnd up = link_end(plan, dev, i), down = link_end(plan, dev + 1, vsl_ports + i);
            const int ap = dev % 2 ? 1 : 2;
            put_vsl_port(out, up, down, ap);
            put_vsl_port(out, down, up, ap);
        }
    }
}

}  // namespace dmq
