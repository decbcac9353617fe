// Tables for people, made from cached objects. Each takes the cache lock while it reads.
#include <algorithm>

#include "dmq/command.h"
#include "tq_dm_cache/p_dev.pb-c.h"

namespace dmq {

namespace {

template <class T, class Visit> void each(int32_t row, Visit visit) {
    each_cached(row, [&](const ProtobufCMessage &object) { visit(reinterpret_cast<const T &>(object)); });
}

// The cached object with this key (null: a kind without key), or null. The caller holds the cache lock.
template <class T> const T *cached(int32_t row, const void *key) {
    const T *object = nullptr;
    dm_cache_get_obj(row, key, &object);
    return object;
}

Json enum_name(const ProtobufCEnumDescriptor &type, int value) {
    const auto *found = protobuf_c_enum_descriptor_get_value(&type, value);
    return found ? Json(found->name) : Json(value);
}

std::string node_text(int32_t node) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%08x", static_cast<unsigned>(node));
    return text;
}

// As it is printed on the chassis: the fixed numbers are names.
std::string slot_name(int32_t user_slot) {
    if (user_slot == 30 || user_slot == 31) return "M" + std::to_string(user_slot - 29);
    if (user_slot >= 22 && user_slot <= 29) return "FE" + std::to_string(user_slot - 21);
    return std::to_string(user_slot);
}

Json where(const PDev__CardInfoIndex *card) {
    return card ? Json("device " + std::to_string(card->devid) + ", physical slot " + std::to_string(card->slotid))
                : Json();
}

Table system_table() {
    Table table{{"what", "value"}, {}};
    const auto add = [&](const char *what, const Json &value) { table.rows.push_back({what, value}); };
    const CacheLock lock;
    if (const auto *chassis = cached<PDev__DpLibMyChssInfo>(DM_ROW_DP_LIB_MY_CHSS_INFO, nullptr)) {
        add("mode", enum_name(p_dev__vsu_cfg_mode_e__descriptor, chassis->device_mode));
        add("this device", chassis->devid);
        add("device type", chassis->dev_type);
        add("this slot", chassis->my_card_uslot_name);
    }
    if (const auto *card = cached<PDev__DpLibMyInfo>(DM_ROW_DP_LIB_MY_INFO, nullptr)) {
        add("physical slot", card->slotid);
        add("card type", card->card_type);
        add("node type", enum_name(p_dev__dm_node_type_e__descriptor, card->dm_my_node_type));
        add("node", node_text(card->card_nodeid));
        add("card mac", to_hex(card->my_card_mac_addr));
    }
    if (const auto *roles = cached<PDev__DpLibGrole>(DM_ROW_DP_LIB_GROLE, nullptr)) {
        add("devices", roles->dev_num);
        add("this card's role", enum_name(p_dev__dm_role_e__descriptor, roles->my_grole));
        add("master", where(roles->global_master));
        add("slave", where(roles->global_slave));
        add("system mac", to_hex(roles->sysmac));
    }
    if (const auto *ports = cached<PDev__LocalPortInfo>(DM_ROW_LOCAL_PORT_INFO, nullptr))
        add("ports of this card", ports->lport_num);
    const auto *complete = cached<PDev__DpLibComplete>(DM_ROW_DP_LIB_COMPLETE, nullptr);
    add("store is complete", complete && complete->all_is_complete);
    return table;
}

Table devices_table() {
    Table table{{"dev", "name", "type", "type_name", "online", "serial", "mac", "hw"}, {}};
    each<PDev__DeviceInfo>(DM_ROW_DEVICE_INFO, [&](const PDev__DeviceInfo &device) {
        const auto *sync = cached<PDev__DeviceSyncInfo>(DM_ROW_DEVICE_SYNC_INFO, device.index);
        table.rows.push_back({device.devid, device.devname, device.config_dev_type,
                              device.static_info ? Json(device.static_info->name) : Json(), device.is_online != 0,
                              sync ? Json(sync->serial_no) : Json(), to_hex(device.mac_addr),
                              sync ? Json(sync->hw_ver) : Json()});
    });
    return table;
}

Table slots_table() {
    Table table{{"dev", "user_slot", "name", "slot", "type", "card", "online"}, {}};
    each<PDev__DeviceInfo>(DM_ROW_DEVICE_INFO, [&](const PDev__DeviceInfo &device) {
        const auto *type = device.static_info;
        for (size_t i = 0; type && i < std::min(type->n_slot_index, type->n_slot_type); i++) {
            if (type->slot_type[i] == P_DEV__DM_SLOT_TYPE_E__SLOT_INVALID) continue;
            PDev__CardInfoIndex key = P_DEV__CARD_INFO_INDEX__INIT;
            key.devid = device.devid;
            key.slotid = type->slot_index[i];
            const auto *card = cached<PDev__CardInfo>(DM_ROW_CARD_INFO, &key);
            table.rows.push_back({device.devid, i, slot_name(static_cast<int32_t>(i)), type->slot_index[i],
                                  enum_name(p_dev__dm_slot_type_e__descriptor, type->slot_type[i]),
                                  card ? Json(card->name) : Json(), card ? Json(card->is_online != 0) : Json()});
        }
    });
    return table;
}

Table cards_table() {
    Table table{{"dev", "slot", "sub", "user_slot", "card", "type", "node_type", "online", "ports", "node", "mac"}, {}};
    each<PDev__CardInfo>(DM_ROW_CARD_INFO, [&](const PDev__CardInfo &card) {
        if (!card.index) return;
        const Json node_type =
            card.static_info ? enum_name(p_dev__dm_node_type_e__descriptor, card.static_info->node_type) : Json();
        table.rows.push_back({card.index->devid, card.index->slotid, card.index->sslotid, slot_name(card.user_slot),
                              card.name, card.config_dev_type, node_type, card.is_online != 0, card.port_num,
                              node_text(card.card_nodeid), to_hex(card.mac_addr)});
    });
    return table;
}

Table ports_table() {
    Table table{{"ifx", "name", "vsd", "dev", "slot", "user_slot", "sub", "port", "type", "chip", "mbps", "link"}, {}};
    each<PDev__VsdPort>(DM_ROW_VSD_PORT, [&](const PDev__VsdPort &port) {
        if (!port.index) return;
        table.rows.push_back({port.ifx, port.hardware_name, port.index->t_vsdid, port.dev, port.physlot, port.slot,
                              port.index->t_sslot, port.index->t_port,
                              enum_name(p_intf__intftype_e__descriptor, port.llcbtype), port.unit,
                              port.bandwidth / 1000, port.link_state ? "up" : "down"});
    });
    return table;
}

Table roles_table() {
    Table table{{"dev", "slot", "name", "role", "local_master", "node", "tipc"}, {}};
    each<PDev__DpLibGrole>(DM_ROW_DP_LIB_GROLE, [&](const PDev__DpLibGrole &roles) {
        for (size_t i = 0; i < roles.n_card_role; i++) {
            const PDev__LibCardRole &card = *roles.card_role[i];
            table.rows.push_back({card.devid, card.slotid, slot_name(card.slotid),
                                  enum_name(p_dev__dm_role_e__descriptor, card.globe_role), card.is_local_master != 0,
                                  node_text(card.card_nodeid), card.tipc_addr});
        }
    });
    return table;
}

Table chips_table() {
    Table table{{"card_type", "card", "chip", "chip_type", "name", "family", "ports", "switching"}, {}};
    each<PDev__DmCardStattrT>(DM_ROW_DM_CARD_STATTR, [&](const PDev__DmCardStattrT &card) {
        for (size_t i = 0; i < card.n_chip_attr_array; i++) {
            const PDev__DmChipAttrT &chip = *card.chip_attr_array[i];
            PDev__DmTypeIndex key = P_DEV__DM_TYPE_INDEX__INIT;
            key.type = chip.chip_type;
            const auto *type = cached<PDev__DmChipStattrT>(DM_ROW_DM_CHIP_STATTR, &key);
            table.rows.push_back({card.type, card.name, i, chip.chip_type, type ? Json(type->name) : Json(),
                                  type ? Json(type->family) : Json(), chip.port_num, chip.is_switch_chip != 0});
        }
    });
    return table;
}

constexpr struct {
    const char *name;
    Table (*make)();
    bool sorted;
} tables[] = {{"system", system_table, false}, {"devices", devices_table, true}, {"slots", slots_table, true},
              {"cards", cards_table, true},    {"ports", ports_table, true},     {"roles", roles_table, true},
              {"chips", chips_table, true}};

// Keeps the records whose columns show these values: "dev=1".
void filter(Table &table, const std::vector<std::string> &wanted) {
    for (const auto &word : wanted) {
        const size_t equals = word.find('=');
        const std::string column = word.substr(0, equals);
        const auto found = std::find(table.columns.begin(), table.columns.end(), column);
        if (equals == std::string::npos || found == table.columns.end())
            throw Failure(exit_usage, "show: " + word + " names no column" + did_you_mean(column, table.columns));
        const auto index = static_cast<size_t>(found - table.columns.begin());
        std::erase_if(table.rows, [&](const auto &row) { return cell_text(row[index]) != word.substr(equals + 1); });
    }
}

}  // namespace

Exit run_show(Context &context, const Command &command) {
    const std::string wanted = command.words.empty() ? "system" : command.words[0];
    std::vector<std::string> names;
    for (const auto &table : tables) names.emplace_back(table.name);
    const auto found = std::find(names.begin(), names.end(), wanted);
    if (found == names.end()) throw Failure(exit_usage, "show has no table " + wanted + did_you_mean(wanted, names));

    context.synchronised({}, command.settings);
    const auto &entry = tables[found - names.begin()];
    Table table = entry.make();
    if (!command.words.empty()) filter(table, {command.words.begin() + 1, command.words.end()});
    if (entry.sorted) std::sort(table.rows.begin(), table.rows.end());
    print_table(table, command.settings.json);
    return table.rows.empty() ? exit_no : exit_yes;
}

}  // namespace dmq
