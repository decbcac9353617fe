// Tables for people. A walk over cached objects says what there is; what is told of it is asked of the library's queries,
// and read from the object where no query tells it. A table is made under one hold of the cache lock.
#include "dmq/views.h"

#include <algorithm>
#include <iterator>
#include <sstream>

#include "dmq/facts.h"
#include "dmq/names.h"
#include "dmq/session.h"
#include "tq_dm_cache/p_dev.pb-c.h"

namespace dmq {

namespace {

// Adds a record about a card or a part of it. It begins with where that is.
void add(Table &table, uint32_t node, const std::vector<Json> &cells, int32_t user_slot = unknown) {
    int32_t dev = unknown, pslot = unknown, sub = unknown;
    ndm_get_dev_slot_cpuid_from_node(node, &dev, &pslot, &sub);
    if (user_slot < 0) user_slot = written(ndm_get_userslot_from_node, node);
    std::vector<Json> row{dev, number(user_slot), slot_name(node, user_slot), sub, pslot};
    row.insert(row.end(), cells.begin(), cells.end());
    table.rows.push_back(std::move(row));
}

void add_system(Table &table) {
    const int32_t dev = ndm_get_my_devid(), user_slot = ndm_get_my_user_slot();
    const PDev__DpLibGrole *roles = nullptr;
    dm_cache_get_obj(DM_ROW_DP_LIB_GROLE, nullptr, &roles);
    const PDev__DpLibComplete *complete = nullptr;
    dm_cache_get_obj(DM_ROW_DP_LIB_COMPLETE, nullptr, &complete);
    table.rows = {{"virtual unit", dev < 0 ? Json() : Json(ndm_is_vsu() == 1)},
                  {"this device", number(dev)},
                  {"device type", text(ndm_get_my_device_name)},
                  {"this slot", user_slot < 0 ? Json() : text(ndm_get_user_slot_name, dev, user_slot, /*sub_slot=*/0)},
                  {"this card", text(ndm_get_card_name_by_slot, dev, user_slot, /*reserved=*/0)},
                  {"node type", enum_name(p_dev__dm_node_type_e__descriptor, ndm_get_my_node_type())},
                  {"role", enum_name(p_dev__dm_role_e__descriptor, ndm_get_my_dev_grole())},
                  {"role in device", enum_name(p_dev__dm_role_e__descriptor, ndm_get_my_dev_lrole())},
                  {"ports of this card", number(ndm_get_my_lport_num())},
                  {"master", slot_name(ndm_get_master_node())},
                  {"slave", slot_name(written<uint32_t>(ndm_get_slaver_node))},
                  {"master of device", slot_name(static_cast<uint32_t>(written(ndm_get_my_local_master_node)))},
                  {"system mac", roles ? Json(to_hex(roles->sysmac)) : Json()},
                  {"store is complete", complete ? Json(complete->all_is_complete != 0) : Json()},
                  {"node", hex(ndm_get_my_node())}};
}

void add_device(Table &table, const ProtobufCMessage &object) {
    const auto &device = reinterpret_cast<const PDev__DeviceInfo &>(object);
    const int32_t dev = device.devid;
    const auto *sync = cached<PDev__DeviceSyncInfo>(DM_ROW_DEVICE_SYNC_INFO, *device.index);
    const int32_t type = written(ndm_get_device_type, dev);
    table.rows.push_back({dev, text(ndm_get_dev_name_by_id, dev), text(ndm_get_dev_name_by_type, type),
                          ndm_device_is_online(dev) == 1, number(ndm_get_slot_num(dev)), ndm_get_online_lc_num(dev),
                          text(ndm_get_device_sn, dev), to_hex(device.mac_addr), sync ? Json(sync->hw_ver) : Json(),
                          number(type)});
}

// The slots of a device. When they are not known, one record says that.
void add_slots(Table &table, const ProtobufCMessage &object) {
    const auto &device = reinterpret_cast<const PDev__DeviceInfo &>(object);
    if (ndm_get_slot_num(device.devid) < 0) table.rows.emplace_back(table.columns.size())[0] = device.devid;
    for (int32_t user_slot = 0; user_slot < 32; ++user_slot) {
        const auto node = written<uint32_t>(ndm_get_node_from_userslot, device.devid, user_slot);
        if (node == no_id) continue;
        const bool has_type = static_cast<size_t>(user_slot) < device.static_info->n_slot_type;
        const int32_t type = has_type ? device.static_info->slot_type[user_slot] : unknown;
        const Json card = text(ndm_get_card_name_by_slot, device.devid, user_slot, 0);
        const Json online = card.is_null() ? Json() : Json(ndm_card_is_online_by_node(node) == 1);
        add(table, node, {enum_name(p_dev__dm_slot_type_e__descriptor, type), card, online, hex(node)}, user_slot);
    }
}

void add_card(Table &table, const ProtobufCMessage &object) {
    const auto &card = reinterpret_cast<const PDev__CardInfo &>(object);
    const int32_t dev = card.index->devid, pslot = card.index->slotid, sub = card.index->sslotid;
    const int32_t type = ndm_get_dev_phy_type(dev, pslot, sub);
    const uint32_t node = node_of(dev, pslot, sub);
    add(table, node,
        {card.name, enum_name(p_dev__dm_node_type_e__descriptor, ndm_get_node_type_from_card_type(type)),
         ndm_card_is_online_by_node(node) == 1,
         enum_name(p_dev__dm_role_e__descriptor, sub ? unknown : ndm_get_role_by_node(node)), card.port_num,
         number(ndm_get_total_chip_num_by_card_type(type)), ndm_is_vsl_card(dev, pslot) == 1, to_hex(card.mac_addr),
         number(type), hex(node), hex(written<uint32_t>(ndm_get_dcm_addr_from_node, node))});
}

// A port whose static port is not cached has no identifier: no query finds it.
void add_port(Table &table, const ProtobufCMessage &object) {
    const auto &port = reinterpret_cast<const PDev__VsdPort &>(object);
    const auto &key = *port.index;
    const PDev__PortIndex fixed_key = P_DEV__PORT_INDEX__INIT;
    const auto *fixed = cached<PDev__PortStatic>(DM_ROW_PORT_STATIC, at_place_of(key, fixed_key));
    const int32_t lport = fixed ? fixed->static_info->lport : unknown;
    const auto objid = written<uint32_t>(ndm_get_objid_by_slot_lport, key.t_dev, port.physlot, lport);
    int32_t its_dev, its_slot, unit = unknown, cport = unknown;
    ndm_get_id_from_phyid(objid, &its_dev, &its_slot, &unit, &cport);
    add(table, node_of(key.t_dev, port.physlot, key.t_sslot),
        {key.t_port, port.hardware_name, enum_name(p_intf__intftype_e__descriptor, written(ndm_get_port_type, objid)),
         port.bandwidth / 1000, port.link_state ? "up" : "down", number(written(ndm_get_vsdid_by_objid, objid)),
         number(ndm_get_global_ifx_by_objid(objid)), number(lport), hex(objid), number(unit), number(cport)});
}

void add_roles(Table &table, const ProtobufCMessage &object) {
    const auto &roles = reinterpret_cast<const PDev__DpLibGrole &>(object);
    for (const PDev__LibCardRole *card : std::span(roles.card_role, roles.n_card_role)) {
        const uint32_t node = node_of(card->devid, card->slotid, card->sslotid);
        add(table, node,
            {enum_name(p_dev__dm_role_e__descriptor, ndm_get_role_by_node(node)),
             ndm_mb_is_local_master(card->devid, card->slotid) == 1, card->tipc_addr, hex(node)});
    }
}

void add_chips(Table &table, const ProtobufCMessage &object) {
    const auto &card = reinterpret_cast<const PDev__CardInfo &>(object);
    PDev__DmCardStattrIndex card_type = P_DEV__DM_CARD_STATTR_INDEX__INIT;
    PDev__DmTypeIndex chip_type = P_DEV__DM_TYPE_INDEX__INIT;
    card_type.type = card.config_dev_type;
    const auto *fixed = cached<PDev__DmCardStattrT>(DM_ROW_DM_CARD_STATTR, card_type);
    for (size_t i = 0; fixed && i < fixed->n_chip_attr_array; ++i) {
        const PDev__DmChipAttrT &chip = *fixed->chip_attr_array[i];
        chip_type.type = chip.chip_type;
        const auto *type = cached<PDev__DmChipStattrT>(DM_ROW_DM_CHIP_STATTR, chip_type);
        add(table, node_of(card.index->devid, card.index->slotid, card.index->sslotid),
            {i, type ? Json(type->name) : Json(), number(ndm_get_chip_family(chip.chip_type)), chip.port_num,
             chip.is_switch_chip != 0, card.name, chip.chip_type});
    }
}

constexpr int32_t no_row = -1;
constexpr View views[] = {
    {"system", "", false, "what value", no_row, {}},
    {"devices", "device", false, "dev name type online slots line_cards serial mac hw type_number", DM_ROW_DEVICE_INFO,
     add_device},
    {"slots", "", true, "type card online node", DM_ROW_DEVICE_INFO, add_slots},
    {"cards", "card", true, "card node_type online role ports chips vsl mac type_number node dcm", DM_ROW_CARD_INFO,
     add_card},
    {"ports", "port", true, "port name type mbps link vsd ifx lport objid unit cport", DM_ROW_VSD_PORT, add_port},
    {"roles", "", true, "role local_master tipc node", DM_ROW_DP_LIB_GROLE, add_roles},
    {"chips", "", true, "chip name family ports switching card type_number", DM_ROW_CARD_INFO, add_chips}};

// Columns whose cells are names of an enumeration.
constexpr struct {
    std::string_view view, column;
    const ProtobufCEnumDescriptor *type;
} named_columns[] = {{"slots", "type", &p_dev__dm_slot_type_e__descriptor},
                     {"cards", "node_type", &p_dev__dm_node_type_e__descriptor},
                     {"cards", "role", &p_dev__dm_role_e__descriptor},
                     {"ports", "type", &p_intf__intftype_e__descriptor},
                     {"roles", "role", &p_dev__dm_role_e__descriptor}};

}  // namespace

std::vector<std::string> view_names() {
    std::vector<std::string> names;
    for (const View &view : views) names.emplace_back(view.name);
    for (const View &view : views)
        if (!view.one.empty()) names.emplace_back(view.one);
    return names;
}

const View &find_view(const std::string &wanted) {
    for (const View &view : views)
        if (wanted == view.name || (wanted == view.one && !view.one.empty())) return view;
    throw Failure(exit_usage, no_such("show has no table", wanted, view_names()));
}

std::vector<std::string> columns_of(const View &view) {
    std::istringstream columns(std::string(view.has_places ? "dev uslot slot sub pslot " : "") + view.columns);
    return {std::istream_iterator<std::string>(columns), {}};
}

const ProtobufCEnumDescriptor *names_in(const View &view, const std::string &column) {
    for (const auto &one : named_columns)
        if (one.view == view.name && one.column == column) return one.type;
    return nullptr;
}

bool is_raw(const std::string &column) {
    static constexpr std::string_view raw[] = {"uslot", "pslot", "node",  "dcm",        "lport",
                                               "objid", "unit",  "cport", "type_number"};
    return std::find(std::begin(raw), std::end(raw), column) != std::end(raw);
}

Table records_of(const View &view, const ProtobufCMessage &object) {
    Table table{columns_of(view), {}};
    view.add(table, object);
    return table;
}

Table make_table(const View &view) {
    Table table{columns_of(view), {}};
    const CacheLock lock;
    if (view.row == no_row) {
        add_system(table);
    } else {
        each_cached(view.row, [&](const ProtobufCMessage &object) { view.add(table, object); });
        std::sort(table.rows.begin(), table.rows.end());
    }
    return table;
}

}  // namespace dmq
