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

// "TwentyFiveGigE 1/3/7": the device only in a virtual unit, the sub-slot only for a sub-card's port.
std::string port_name(const GenPlan &plan, const GenCard &card, const GenPort &port) {
    std::string place = std::to_string(card.user_slot) + "/";
    if (plan.options.devices > 1) place = std::to_string(card.dev) + "/" + place;
    if (port.subslot > 0) place += std::to_string(port.subslot) + "/";
    return speed_of(port).name + (" " + place) + std::to_string(port.user_port);
}

// Where a port is: on its chip, on its card, on its panel.
Json port_place(const GenPort &port) {
    return object(field("type", speed_of(port).type), field("unit", port.unit), field("port", port.cport),
                  field("lport", port.lport), field("user_port", port.user_port), field("owner_subcard", port.subslot),
                  field("logic_id", port.subslot > 0 ? port.user_port : 0));
}

Json port_attr(const GenPort &port, const std::string &name) {
    const char *medium = port.poe ? "COPPER" : "FIBER";
    Json attr = port_place(port);
    attr.update(object(field("switchport", true), field("poe_support", port.poe), field("vsl_support", port.vsl),
                       field("medium_type", port.combo ? "AUTO_PRE_FIBER" : medium),
                       field("pd_medium_type", port.combo ? "FIBER_COPPER" : medium), field("speed_cap", port.mbps),
                       field("supp_speed", Json::array({port.mbps})), field("hardware_name", name),
                       field("def_mtu", 1500), field("min_mtu", 64), field("max_mtu", 9216),
                       field("bandwidth", port.mbps * 1000), field("lane_num", port.lanes)));
    return attr;
}

// A carrier says of a sub-card's port only where it is; the sub-card itself describes it (see extended_ports).
Json chip_attr(const GenCardType &type, int unit) {
    Json ports = Json::array();
    for (const GenPort &port : type.ports) {
        if (port.unit == unit) ports.push_back(port.subslot ? port_place(port) : port_attr(port, ""));
    }
    const bool fabric = type.type == type_fabric;
    return object(field("name", fabric ? "fabric" : "switch"), field("port_num", ports.size()),
                  field("port_attr", ports), field("is_switch_chip", !fabric),
                  field("chip_type", fabric ? type_fabric_chip : type_switch_chip),
                  field("unit_virtual_type", "UNIT_PHYSICAL"));
}

Json extended_ports() {
    Json ports = Json::array();
    for (int i = 1; i <= subcard_ports; i++) {
        GenPort port = subcard_port({}, 1, i);
        port.lport = port.cport = 0;  // a carrier gives them
        Json attr = port_attr(port, "");
        attr["owner_subcard"] = 0;
        ports.push_back(attr);
    }
    return ports;
}

}  // namespace

void put_card_type(Entries &out, const GenCardType &type) {
    const bool fabric = type.type == type_fabric;
    const bool board = type.type == type_board;
    const auto vsl = std::count_if(type.ports.begin(), type.ports.end(), [](const GenPort &port) { return port.vsl; });
    Json made =
        object(field("index", object(field("type", type.type))), field("type", type.type), field("name", type.name),
               field("chip_num", type.chips), field("fabric_num", fabric ? type.chips : 0),
               field("switch_num", fabric ? 0 : type.chips), field("mgmt_num", board ? 1 : 0), field("cpu_num", 1),
               field("sub_slot_num", type.subslots), field("vsl_port_num", vsl),
               field("node_name", type.node_type + sizeof "DM_TYPE"), field("chip_attr_array", Json::array()),
               field("def_mtu", 1500), field("min_mtu", 64), field("max_mtu", 9216));
    for (int unit = 0; unit < type.chips; unit++) made["chip_attr_array"].push_back(chip_attr(type, unit));
    if (type.type == type_subcard) {
        made["extended_port_num"] = static_cast<int>(subcard_ports);
        made["extended_port_array"] = extended_ports();
    }
    put(out, "card_static_info", card_static(type));
    put(out, "dm_card_stattr_t", made);
}

void put_chip_types(Entries &out, const GenPlan &plan) {
    const auto chip = [&out](int type, const char *name, int family) {
        put(out, "dm_chip_stattr_t",
            object(field("index", object(field("type", type))), field("type", type), field("name", name),
                   field("family", family), field("invalid_cport", -1)));
    };
    chip(type_switch_chip, "switch", 1);
    if (!plan.options.box && plan.options.fabrics > 0) chip(type_fabric_chip, "fabric", 2);
}

namespace {

// One port: what it is, and what it is called in VSD 0 and as a port of that VSD.
void put_port(Entries &out, const GenPlan &plan, const GenCard &card, const GenPort &port, int ifx) {
    const std::string name = port_name(plan, card, port);
    const Json key = object(field("t_dev", card.dev), field("t_slot", card.user_slot), field("t_port", port.user_port),
                            field("t_type", type_number(port)), field("t_sslot", port.subslot));
    put(out, "port_static", object(field("index", key), field("static_info", port_attr(port, name))));

    Json made = object(field("index", key), field("ifx", ifx), field("physlot", card.slot), field("lchip", port.unit),
                       field("node", node_number(card.dev, card.slot, 0)), field("llcbtype", speed_of(port).type),
                       field("dev", card.dev), field("slot", card.user_slot), field("unit", port.unit),
                       field("hardware_name", name), field("def_mtu", 1500), field("min_mtu", 64),
                       field("max_driver_mtu", 9216), field("bandwidth", port.mbps * 1000),
                       field("link_state", port.user_port % 8 ? 1 : 0), field("line_state", port.user_port % 8 ? 1 : 0),
                       field("layer2_mac_addr", mac(2, card.dev, card.slot, port.lport)),
                       field("layer3_mac_addr", mac(3, card.dev, card.slot, port.lport)));
    put(out, "vsd_port_attr", made);
    made["index"]["t_vsdid"] = 0;
    put(out, "vsd_port", made);
}

void put_local_port(Entries &out, const GenPlan &plan, const GenPort &port) {
    put(out, "unit_cport_info",
        object(field("index", object(field("unit", port.unit), field("cport", port.cport))),
               field("static_info", port_attr(port, port_name(plan, *plan.local, port))),
               field("owner_card_type", port.subslot ? static_cast<int>(type_subcard) : plan.local->type->type)));
    put(out, "lport_info",
        object(field("index", object(field("lport", port.lport))), field("unit", port.unit),
               field("cport", port.cport)));
}

}  // namespace

void put_ports(Entries &out, const GenPlan &plan) {
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
    put(out, "local_port_info", object(field("lport_num", lports.size()), field("online_lport", lports)));
}

namespace {

// The end of a link: the card that carries links on its device, and its i-th port from the back.
struct LinkEnd {
    const GenCard *card;
    const GenPort *port;
};

LinkEnd link_end(const GenPlan &plan, int dev, int from_back) {
    const GenCard *card = nullptr;
    for (const GenCard &candidate : plan.cards) {
        if (candidate.dev == dev && !candidate.subslot && !candidate.type->ports.empty()) card = &candidate;
    }
    std::vector<const GenPort *> own;
    for (const GenPort &port : card->type->ports) {
        if (!port.subslot) own.push_back(&port);
    }
    return {card, own[own.size() - static_cast<size_t>(from_back)]};
}

Json vsl_key(const LinkEnd &end) {
    return object(field("devid", end.card->dev), field("slotid", end.card->slot), field("subslot", 0),
                  field("lport", end.port->lport));
}

void put_vsl_port(Entries &out, const LinkEnd &mine, const LinkEnd &peer, int ap) {
    put(out, "vsl_port_info",
        object(field("index", vsl_key(mine)), field("cfg", 1), field("vsl_ap", ap),
               field("port_type", type_number(*mine.port)), field("status", 1), field("peer_index", vsl_key(peer)),
               field("peer_vsl_ap", ap), field("mac", mac(2, mine.card->dev, mine.card->slot, mine.port->lport)),
               field("peer_mac", mac(2, peer.card->dev, peer.card->slot, peer.port->lport)),
               field("user_port",
                     object(field("llcb_type", type_number(*mine.port)), field("user_slot", mine.card->user_slot),
                            field("user_port", mine.port->user_port)))),
        /*db=*/3);
}

}  // namespace

// The devices of a unit form a chain: each is joined to the next by its last two ports, which lead to the two before
// those on the next. Links take the aggregate ports 1 and 2 in turn.
void put_links(Entries &out, const GenPlan &plan) {
    for (int dev = 1; dev < plan.options.devices; dev++) {
        for (int i = 1; i <= vsl_ports; i++) {
            const LinkEnd up = link_end(plan, dev, i), down = link_end(plan, dev + 1, vsl_ports + i);
            const int ap = dev % 2 ? 1 : 2;
            put_vsl_port(out, up, down, ap);
            put_vsl_port(out, down, up, ap);
        }
    }
}

}  // namespace dmq
