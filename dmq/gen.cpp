// Writes a plan down as the objects that a device manager would store: identity, roles, devices, cards.
#include "dmq/gen.h"

#include <algorithm>

#include "dmq/gen_objects.h"
#include "dmq/topology.h"

namespace dmq {

namespace {

int tipc_node(const GenPlan &plan, int dev, int slot) {
    return plan.options.box ? 640 + dev * 5 : 640 + (dev - 1) * 160 + slot * 5;
}

std::string hex_of(std::string text) {
    return to_hex({text.size(), reinterpret_cast<uint8_t *>(text.data())});
}

std::string serial(const GenCard &card) {
    char text[32];
    std::snprintf(text, sizeof text, "SN%02d%02d%d", card.dev, card.slot, card.subslot);
    return text;
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
    Json made = {{"index", {{"type", device_type(plan)}}},
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
    if (options.box) made["box_user_slot_index"] = {0};
    return made;
}

void put_device(std::vector<Json> &out, const GenPlan &plan, int dev) {
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

void put_card(std::vector<Json> &out, const GenPlan &plan, const GenCard &card) {
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
    if (card.dev == plan.local->dev) {
        put(out, "local_card_info",
            {{"index", {{"slotid", card.slot}, {"sslotid", card.subslot}}},
             {"ldp_online", true},
             {"card_type", card.type->type},
             {"card_nodeid", node}});
    }
}

Json card_key(int dev, int slot) {
    return {{"devid", dev}, {"slotid", slot}, {"sslotid", 0}};
}

// The first board of the first device leads. Its deputy is that of the second device, else the second board.
void put_roles(std::vector<Json> &out, const GenPlan &plan) {
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
    Json made = {{"dev_num", options.devices},
                 {"my_grole", mine},
                 {"global_master", card_key(1, slot_m1)},
                 {"sysmac", mac(2, 0, 0, 1)},
                 {"l2_mac", mac(2, 0, 0, 2)},
                 {"l3_mac", mac(3, 0, 0, 2)},
                 {"card_role", roles},
                 {"global_master_node", node_number(1, slot_m1, 0)},
                 {"global_slave_node", deputy_dev ? node_number(deputy_dev, deputy_slot, 0) : -1}};
    if (deputy_dev) made["global_slave"] = card_key(deputy_dev, deputy_slot);
    put(out, "dp_lib_grole", made);
}

void put_identity(std::vector<Json> &out, const GenPlan &plan) {
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

void put_types(std::vector<Json> &out, const GenPlan &plan) {
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

void put(std::vector<Json> &out, const std::string &kind, const Json &object, uint32_t db) {
    const auto *type = dm_schema_find_message(("p_dev." + kind).c_str());
    out.push_back(entry_json(db, *from_json(object, *type, type->name)));
}

int enum_number(const char *type, const char *name) {
    return protobuf_c_enum_descriptor_get_value_by_name(dm_schema_find_enum(type), name)->value;
}

int node_number(int dev, int slot, int subslot) {
    return 0x0C000000 | dev << 18 | subslot << 15 | slot << 8;
}

std::string mac(int use, int dev, int slot, int port) {
    char text[18];
    std::snprintf(text, sizeof text, "02:00:%02x:%02x:%02x:%02x", use & 255, dev & 255, slot & 255, port & 255);
    return text;
}

Json card_static(const GenCardType &type) {
    return {{"index", {{"type", type.type}}},
            {"node_type", enum_number("p_dev.dm_node_type_e", type.node_type)},
            {"sub_slot_num", type.subslots},
            {"name", type.name}};
}

std::vector<Json> make_topology(const GenOptions &options) {
    GenPlan plan;
    make_plan(options, plan);
    std::vector<Json> out;
    put_identity(out, plan);
    put_roles(out, plan);
    for (int dev = 1; dev <= plan.options.devices; ++dev) put_device(out, plan, dev);
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
