// Writes a plan down as the objects that a device manager would store. Every object goes through the strict reader once,
// so a name that the schema does not know cannot leave here.
#include "dmq/gen.h"

#include <algorithm>

#include "dmq/gen_plan.h"
#include "dmq/topology.h"

namespace dmq {

namespace {

using Entries = std::vector<Json>;

void put(Entries &out, const std::string &kind, const Json &object, uint32_t db = 1) {
    const auto *type = dm_schema_find_message(("p_dev." + kind).c_str());
    out.push_back(entry_json(db, *from_json(object, *type, type->name)));
}

int enum_number(const char *type, const char *name) {
    return protobuf_c_enum_descriptor_get_value_by_name(dm_schema_find_enum(type), name)->value;
}

int node_number(int dev, int slot, int subslot) {
    return 0x0C000000 | dev << 18 | subslot << 15 | slot << 8;
}

int tipc_node(const GenPlan &plan, int dev, int slot) {
    return plan.options.box ? 640 + dev * 5 : 640 + (dev - 1) * 160 + slot * 5;
}

// Locally administered addresses: what it is for (layer 2, layer 3, a card: 4), then the place.
std::string mac(int use, int dev, int slot, int port) {
    char text[18];
    std::snprintf(text, sizeof text, "02:00:%02x:%02x:%02x:%02x", use & 255, dev & 255, slot & 255, port & 255);
    return text;
}

std::string hex_of(const std::string &text) {
    std::string hex;
    for (const char c : text) {
        char digits[3];
        std::snprintf(digits, sizeof digits, "%02x", c & 255);
        hex += digits;
    }
    return hex;
}

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

std::string serial(const GenCard &card) {
    char text[32];
    std::snprintf(text, sizeof text, "SN%02d%02d%d", card.dev, card.slot, card.subslot);
    return text;
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
    Json attr = port_place(port);
    attr.update({{"switchport", true},
                 {"poe_support", port.poe},
                 {"vsl_support", port.vsl},
                 {"medium_type", port.combo ? "AUTO_PRE_FIBER"
                                 : port.poe ? "COPPER"
                                            : "FIBER"},
                 {"pd_medium_type", port.combo ? "FIBER_COPPER"
                                    : port.poe ? "COPPER"
                                               : "FIBER"},
                 {"speed_cap", port.mbps},
                 {"supp_speed", {port.mbps}},
                 {"hardware_name", name},
                 {"def_mtu", 1500},
                 {"min_mtu", 64},
                 {"max_mtu", 9216},
                 {"bandwidth", port.mbps * 1000},
                 {"lane_num", port.lanes}});
    return attr;
}

// A carrier says of a sub-card's port only where it is; the sub-card itself describes it (see extended_ports).
Json chip_attr(const GenCardType &type, int unit) {
    Json ports = Json::array();
    for (const GenPort &port : type.ports) {
        if (port.unit == unit) ports.push_back(port.subslot ? port_place(port) : port_attr(port, ""));
    }
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
    for (int i = 1; i <= subcard_ports; i++) {
        const GenPort port{.lport = 0,
                           .user_port = i,
                           .subslot = 1,
                           .unit = 0,
                           .cport = 0,
                           .lanes = 1,
                           .mbps = 1000,
                           .combo = false,
                           .poe = true,
                           .vsl = false};
        Json attr = port_attr(port, "");
        attr["owner_subcard"] = 0;
        ports.push_back(attr);
    }
    return ports;
}

Json card_static(const GenCardType &type) {
    return {{"index", {{"type", type.type}}},
            {"node_type", enum_number("p_dev.dm_node_type_e", type.node_type)},
            {"sub_slot_num", type.subslots},
            {"name", type.name}};
}

void put_card_type(Entries &out, const GenCardType &type) {
    const bool fabric = type.type == type_fabric;
    const bool board = type.type == type_board;
    const auto vsl = std::count_if(type.ports.begin(), type.ports.end(), [](const GenPort &port) { return port.vsl; });
    Json object = {{"index", {{"type", type.type}}},
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
    for (int unit = 0; unit < type.chips; unit++) object["chip_attr_array"].push_back(chip_attr(type, unit));
    if (type.type == type_subcard) {
        object["extended_port_num"] = static_cast<int>(subcard_ports);
        object["extended_port_array"] = extended_ports();
    }
    put(out, "card_static_info", card_static(type));
    put(out, "dm_card_stattr_t", object);
}

void put_chip_types(Entries &out, const GenPlan &plan) {
    const auto chip = [&out](int type, const char *name, int family) {
        put(out, "dm_chip_stattr_t",
            {{"index", {{"type", type}}}, {"type", type}, {"name", name}, {"family", family}, {"invalid_cport", -1}});
    };
    chip(type_switch_chip, "switch", 1);
    if (!plan.options.box && plan.options.fabrics > 0) chip(type_fabric_chip, "fabric", 2);
}

int device_type(const GenPlan &plan) {
    return plan.options.box ? type_box : type_chassis;
}

// Entry i of the tables tells of user slot i: its physical slot, or -1 for none.
Json device_static(const GenPlan &plan) {
    std::vector<int> slots(slot_count, -1), user_slots(slot_count, -1);
    std::vector<std::string> types(slot_count, "SLOT_INVALID");
    for (const GenCard &card : plan.cards) {
        const auto user = static_cast<size_t>(card.user_slot);
        slots[user] = card.slot;
        user_slots[user] = card.user_slot;
        types[user] = card.slot >= slot_m1 ? "SLOT_ENGINE" : card.slot >= slot_fe1 ? "SLOT_FE" : "SLOT_CARD";
    }
    const auto &options = plan.options;
    const bool fabric = !options.box && options.fabrics > 0;
    Json object = {{"index", {{"type", device_type(plan)}}},
                   {"min_slot", options.box ? 0 : 1},
                   {"max_slot", options.box ? 0 : options.cards},
                   {"fan_num", 4},
                   {"power_num", 2},
                   {"name", options.box ? "Box" : "Chassis"},
                   {"slot_index", slots},
                   {"slot_type", types},
                   {"user_slot_index", user_slots},
                   {"lc_min_slot", options.box ? 0 : 1},
                   {"lc_max_slot", options.box ? 0 : options.cards},
                   {"fe_min_slot", fabric ? static_cast<int>(slot_fe1) : 0},
                   {"fe_max_slot", fabric ? slot_fe1 + options.fabrics - 1 : 0},
                   {"is_box", options.box}};
    if (options.box) object["box_user_slot_index"] = {0};
    return object;
}

void put_device(Entries &out, const GenPlan &plan, int dev) {
    const std::string serial_no = "DEV" + std::to_string(dev);
    const int first = tipc_node(plan, dev, 0);
    put(out, "device_info",
        {{"index", {{"devid", dev}}},
         {"devid", dev},
         {"static_info", device_static(plan)},
         {"config_dev_type", device_type(plan)},
         {"is_online", 1},
         {"devname", "switch-" + std::to_string(dev)},
         {"serial", hex_of(serial_no)},
         {"mac_addr", mac(2, dev, 255, 0)},
         {"card_tipc_nodeid_min", first},
         {"card_tipc_nodeid_max", first + (plan.options.box ? 4 : 159)}});
    put(out, "device_sync_info",
        {{"index", {{"devid", dev}}}, {"serial_no", serial_no}, {"mac", mac(2, dev, 255, 0)}, {"hw_ver", "1.0"}});
}

bool leads(const GenCard &card) {
    return card.type->type == type_board || card.type->type == type_box_card;
}

void put_card(Entries &out, const GenPlan &plan, const GenCard &card) {
    const auto carrier = std::find_if(plan.cards.begin(), plan.cards.end(), [&](const GenCard &other) {
        return other.dev == card.dev && other.slot == card.slot && other.subslot == 0;
    });
    const auto &ports = carrier->type->ports;
    const int node = node_number(card.dev, card.slot, card.subslot);
    put(out, "card_info",
        {{"index", {{"devid", card.dev}, {"slotid", card.slot}, {"sslotid", card.subslot}}},
         {"config_dev_type", card.type->type},
         {"is_online", true},
         {"cpu_num", 1},
         {"is_mboard", leads(card)},
         {"name", card.type->name},
         {"static_info", card_static(*card.type)},
         {"user_slot", card.user_slot},
         {"user_sslot", card.subslot},
         {"card_nodeid", node},
         {"port_num",
          std::count_if(ports.begin(), ports.end(), [&](const GenPort &port) { return port.subslot == card.subslot; })},
         {"serial", hex_of(serial(card))},
         {"mac_addr", mac(4, card.dev, card.slot, card.subslot)},
         {"card_tipc_nodeid", card.subslot ? 0 : tipc_node(plan, card.dev, card.slot)}});
    if (card.dev == plan.local->dev)
        put(out, "local_card_info",
            {{"index", {{"slotid", card.slot}, {"sslotid", card.subslot}}},
             {"ldp_online", true},
             {"card_type", card.type->type},
             {"card_nodeid", node}});
}

// One port: what it is, and what it is called in VSD 0 and as a port of that VSD.
void put_port(Entries &out, const GenPlan &plan, const GenCard &card, const GenPort &port, int ifx) {
    const std::string name = port_name(plan, card, port);
    const Json key = {{"t_dev", card.dev},
                      {"t_slot", card.user_slot},
                      {"t_port", port.user_port},
                      {"t_type", type_number(port)},
                      {"t_sslot", port.subslot}};
    put(out, "port_static", {{"index", key}, {"static_info", port_attr(port, name)}});

    Json object = {{"index", key},
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
    put(out, "vsd_port_attr", object);
    object["index"]["t_vsdid"] = 0;
    put(out, "vsd_port", object);
}

void put_local_port(Entries &out, const GenPlan &plan, const GenPort &port) {
    put(out, "unit_cport_info",
        {{"index", {{"unit", port.unit}, {"cport", port.cport}}},
         {"static_info", port_attr(port, port_name(plan, *plan.local, port))},
         {"owner_card_type", port.subslot ? static_cast<int>(type_subcard) : plan.local->type->type}});
    put(out, "lport_info", {{"index", {{"lport", port.lport}}}, {"unit", port.unit}, {"cport", port.cport}});
}

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
    put(out, "local_port_info", {{"lport_num", lports.size()}, {"online_lport", lports}});
}

Json card_key(int dev, int slot) {
    return {{"devid", dev}, {"slotid", slot}, {"sslotid", 0}};
}

// The first board of the first device leads. Its deputy is that of the second device, else the second board.
void put_roles(Entries &out, const GenPlan &plan) {
    const auto &options = plan.options;
    const bool second_board = !options.box && options.boards > 1;
    const int deputy_dev = options.devices > 1 ? 2 : second_board ? 1 : 0;
    const int deputy_slot = options.devices > 1 ? slot_m1 : slot_m1 + 1;
    const char *mine = options.box ? "DM_ROLE_MASTER" : "DM_ROLE_NONE";
    put(out, "dp_lib_lrole",
        {{"my_lrole", mine},
         {"local_master_slotid", static_cast<int>(slot_m1)},
         {"local_slave_slotid", second_board ? slot_m1 + 1 : -1},
         {"local_master_node", node_number(1, slot_m1, 0)},
         {"local_slave_node", second_board ? node_number(1, slot_m1 + 1, 0) : -1}});
    Json roles = Json::array();
    for (const GenCard &card : plan.cards) {
        if (!leads(card)) continue;
        const bool master = card.dev == 1 && card.slot == slot_m1;
        const bool deputy = card.dev == deputy_dev && card.slot == deputy_slot;
        roles.push_back({{"devid", card.dev},
                         {"slotid", card.slot},
                         {"is_local_master", card.slot == slot_m1},
                         {"globe_role", master   ? "DM_ROLE_MASTER"
                                        : deputy ? "DM_ROLE_SLAVE"
                                                 : "DM_ROLE_CANDIDATE"},
                         {"valid", true},
                         {"card_nodeid", node_number(card.dev, card.slot, 0)},
                         {"tipc_addr", tipc_node(plan, card.dev, card.slot)}});
    }
    Json object = {{"dev_num", options.devices},
                   {"my_grole", mine},
                   {"global_master", card_key(1, slot_m1)},
                   {"sysmac", mac(2, 0, 0, 1)},
                   {"l2_mac", mac(2, 0, 0, 2)},
                   {"l3_mac", mac(3, 0, 0, 2)},
                   {"card_role", roles},
                   {"global_master_node", node_number(1, slot_m1, 0)},
                   {"global_slave_node", deputy_dev ? node_number(deputy_dev, deputy_slot, 0) : -1}};
    if (deputy_dev) object["global_slave"] = card_key(deputy_dev, deputy_slot);
    put(out, "dp_lib_grole", object);
}

void put_identity(Entries &out, const GenPlan &plan) {
    const GenCard &card = *plan.local;
    const bool unit = plan.options.devices > 1;
    put(out, "dp_lib_my_info",
        {{"dm_my_node_type", card.type->node_type},
         {"slotid", card.slot},
         {"cpu_num", 1},
         {"local_peer_slotid", -1},
         {"card_type", card.type->type},
         {"prod_serial", hex_of(serial(card))},
         {"my_card_mac_addr", mac(4, card.dev, card.slot, card.subslot)},
         {"card_nodeid", node_number(card.dev, card.slot, 0)},
         {"actual_card_type", card.type->type}});
    put(out, "dp_lib_my_chss_info",
        {{"device_mode", unit ? "SWITCH_MODE_VIRTUAL" : "SWITCH_MODE_STANDALONE"},
         {"devid", card.dev},
         {"domain_id", 1},
         {"dev_type", device_type(plan)},
         {"dev_desc", plan.options.box ? "a box" : "a chassis"},
         {"local_chassis_mac_addr", mac(2, card.dev, 255, 0)},
         {"user_slotid", card.user_slot},
         {"my_card_uslot_name",
          "Slot " + (unit ? std::to_string(card.dev) + "/" : std::string()) + std::to_string(card.user_slot)}});
}

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
    return {{"devid", end.card->dev}, {"slotid", end.card->slot}, {"subslot", 0}, {"lport", end.port->lport}};
}

void put_vsl_port(Entries &out, const LinkEnd &mine, const LinkEnd &peer, int ap) {
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

void put_types(Entries &out, const GenPlan &plan) {
    put(out, "device_static_info", device_static(plan));
    put(out, "dm_device_stattr_t",
        {{"index", {{"type", device_type(plan)}}},
         {"type", device_type(plan)},
         {"name", plan.options.box ? "Box" : "Chassis"},
         {"power_num", 2},
         {"no_fe_card_sup", plan.options.box || plan.options.fabrics == 0}});
    for (const GenCardType &type : plan.types) put_card_type(out, type);
    put_chip_types(out, plan);
}

}  // namespace

std::vector<Json> make_topology(const GenOptions &options) {
    GenPlan plan;
    make_plan(options, plan);
    Entries out;
    put_identity(out, plan);
    put_roles(out, plan);
    for (int dev = 1; dev <= plan.options.devices; dev++) put_device(out, plan, dev);
    for (const GenCard &card : plan.cards) put_card(out, plan, card);
    put_types(out, plan);
    put_links(out, plan);
    put_ports(out, plan);
    put(out, "vsd_info",
        {{"index", {{"t_vsdid", 0}}},
         {"id", 0},
         {"name", "vsd0"},
         {"status", "STA_STARTED"},
         {"l2mac", mac(2, 0, 0, 2)},
         {"l3mac", mac(3, 0, 0, 2)}});
    put(out, "dp_lib_complete",
        {{"all_is_complete", true},
         {"local_mb_is_complete", true},
         {"local_lc_is_complete", true},
         {"global_mb_is_complete", true},
         {"local_card_is_complete", true},
         {"dp_is_complete", true}});
    return out;
}

}  // namespace dmq
