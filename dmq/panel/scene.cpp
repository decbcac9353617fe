// The walk over the cache: devices and their slots, then cards, then ports, each put where it sits.
#include "dmq/panel/scene.h"

#include <algorithm>
#include <map>
#include <set>
#include <span>

#include "dmq/output.h"
#include "dmq/session.h"
#include "tq_dm_cache/p_dev.pb-c.h"

namespace dmq {

namespace {

using PortPlace = std::tuple<int32_t, int32_t, int32_t, int32_t, int32_t>;  // device, user slot, sub-slot, number, type

struct Stage {
    std::map<int32_t, SceneDevice> devices;
    std::map<uint32_t, SceneCard> cards;                        // by node
    std::map<PortPlace, int32_t> static_ports;                  // their logical ports
    std::set<PortPlace> made;                                   // those with a global port
    std::set<std::tuple<int32_t, int32_t, int32_t>> vsl_ports;  // device, physical slot, logical port
};

template <class T> const T &as(const ProtobufCMessage &object) {
    return reinterpret_cast<const T &>(object);
}

std::string shown_text(const Json &text) {
    return text.is_null() ? "" : cell_text(text);
}

// "1/M1": the word Slot is in every name.
std::string short_place(uint32_t node, int32_t user_slot) {
    const std::string name = shown_text(slot_name(node, user_slot));
    return name.starts_with("Slot ") ? name.substr(5) : name;
}

std::string role_text(uint32_t node) {
    switch (ndm_get_role_by_node(node)) {
        case P_DEV__DM_ROLE_E__DM_ROLE_MASTER:
            return "master";
        case P_DEV__DM_ROLE_E__DM_ROLE_SLAVE:
            return "slave";
        case P_DEV__DM_ROLE_E__DM_ROLE_CANDIDATE:
            return "candidate";
        default:
            return "";
    }
}

SceneDevice &device_at(Stage &stage, int32_t dev) {
    SceneDevice &device = stage.devices[dev];
    device.dev = dev;
    return device;
}

SceneCard &card_at(Stage &stage, uint32_t node, int32_t user_slot = unknown) {
    const auto [at, is_new] = stage.cards.try_emplace(node);
    SceneCard &card = at->second;
    if (!is_new) return card;
    ndm_get_dev_slot_cpuid_from_node(node, &card.dev, &card.slot, &card.sub);
    card.node = node;
    card.user_slot = user_slot < 0 ? written(ndm_get_userslot_from_node, node) : user_slot;
    card.place = short_place(node, card.user_slot);
    return card;
}

void add_device(Stage &stage, const ProtobufCMessage &object) {
    const int32_t dev = as<PDev__DeviceInfo>(object).devid;
    SceneDevice &device = device_at(stage, dev);
    device.known = true;
    device.online = ndm_device_is_online(dev) == 1;
    device.name = shown_text(text(ndm_get_dev_name_by_id, dev));
    device.type = shown_text(text(ndm_get_dev_name_by_type, written(ndm_get_device_type, dev)));
    if (ndm_get_slot_num(dev) < 0) return;
    for (int32_t user_slot = 0; user_slot < 32; ++user_slot) {
        const auto node = written<uint32_t>(ndm_get_node_from_userslot, dev, user_slot);
        if (node != no_id) card_at(stage, node, user_slot);
    }
}

void add_card(Stage &stage, const ProtobufCMessage &object) {
    const auto &info = as<PDev__CardInfo>(object);
    const uint32_t node = node_of(info.index->devid, info.index->slotid, info.index->sslotid);
    SceneCard &card = card_at(stage, node);
    card.there = true;
    card.online = ndm_card_is_online_by_node(node) == 1;
    card.name = shown_text(info.name);
    card.role = card.sub ? "" : role_text(node);
    card.type = ndm_get_dev_phy_type(card.dev, card.slot, card.sub);
}

void add_vsl_port(Stage &stage, const ProtobufCMessage &object) {
    const auto &key = *as<PDev__VslPortInfo>(object).index;
    stage.vsl_ports.emplace(key.devid, key.slotid, key.lport);
}

void add_static_port(Stage &stage, const ProtobufCMessage &object) {
    const auto &port = as<PDev__PortStatic>(object);
    const auto &key = *port.index;
    stage.static_ports[{key.t_dev, key.t_slot, key.t_sslot, key.t_port, key.t_type}] =
        port.static_info ? port.static_info->lport : unknown;
}

void add_port(Stage &stage, const ProtobufCMessage &object) {
    const auto &port = as<PDev__VsdPort>(object);
    const auto &key = *port.index;
    const PortPlace place{key.t_dev, key.t_slot, key.t_sslot, key.t_port, key.t_type};
    stage.made.insert(place);
    SceneCard &card = card_at(stage, node_of(key.t_dev, port.physlot, key.t_sslot));
    ScenePort &added = card.ports.emplace_back(ScenePort{key.t_port, key.t_type, key.t_vsdid});
    added.name = shown_text(port.hardware_name);
    const auto fixed = stage.static_ports.find(place);
    added.state = fixed == stage.static_ports.end() ? PortState::no_static
                  : port.link_state                 ? PortState::up
                                                    : PortState::down;
    added.vsl = fixed != stage.static_ports.end() && stage.vsl_ports.contains({key.t_dev, port.physlot, fixed->second});
}

// A static port without a global one sits where its user slot is.
void add_absent(Stage &stage, const PortPlace &place) {
    const auto &[dev, user_slot, sub, number, type] = place;
    int32_t slot = unknown, sub_of_box = 0;
    if (ndm_get_physlot_by_userslot(dev, user_slot, sub, &slot, &sub_of_box) != 0) return;
    card_at(stage, node_of(dev, slot, sub_of_box ? sub_of_box : sub)).ports.push_back({number, type});
}

// Ports that the type of a card has, its own or those of its sub-card, and nobody has made.
void add_described(Stage &stage, SceneCard &card, int32_t sub) {
    PDev__DmCardStattrIndex key = P_DEV__DM_CARD_STATTR_INDEX__INIT;
    key.type = card.type;
    const auto *type = cached<PDev__DmCardStattrT>(DM_ROW_DM_CARD_STATTR, key);
    if (!type) return;
    const auto owner = sub ? stage.cards.find(node_of(card.dev, card.slot, sub)) : stage.cards.find(card.node);
    if (owner == stage.cards.end() || !owner->second.there) return;
    auto &ports = owner->second.ports;
    std::set<std::pair<int32_t, int32_t>> there;
    for (const ScenePort &port : ports) there.emplace(port.number, port.type);
    for (const PDev__DmChipAttrT *chip : std::span(type->chip_attr_array, type->n_chip_attr_array)) {
        for (const PDev__DmPortAttrT *port : std::span(chip->port_attr, chip->n_port_attr)) {
            if (port->owner_subcard != sub || port->user_port <= 0 || port->backplane_port || port->internal_port)
                continue;
            if (there.emplace(port->user_port, port->type).second) ports.push_back({port->user_port, port->type});
        }
    }
}

Scene assembled(Stage &stage) {
    for (auto &[node, card] : stage.cards) {
        std::sort(card.ports.begin(), card.ports.end(),
                  [](const auto &a, const auto &b) { return a.place() < b.place(); });
        device_at(stage, card.dev).cards.push_back(std::move(card));
    }
    Scene scene;
    for (auto &[dev, device] : stage.devices) {
        const auto order = [](const SceneCard &card) {
            return std::tuple(card.user_slot < 0, card.user_slot, card.slot, card.sub);
        };
        std::sort(device.cards.begin(), device.cards.end(),
                  [&](const auto &a, const auto &b) { return order(a) < order(b); });
        scene.push_back(std::move(device));
    }
    return scene;
}

}  // namespace

Scene collect_scene() {
    const CacheLock lock;
    Stage stage;
    const auto walk = [&stage](int32_t row, void (*add)(Stage &, const ProtobufCMessage &)) {
        each_cached(row, [&](const ProtobufCMessage &object) { add(stage, object); });
    };
    walk(DM_ROW_DEVICE_INFO, add_device);
    walk(DM_ROW_CARD_INFO, add_card);
    walk(DM_ROW_VSL_PORT_INFO, add_vsl_port);
    walk(DM_ROW_PORT_STATIC, add_static_port);
    walk(DM_ROW_VSD_PORT, add_port);
    for (const auto &[place, lport] : stage.static_ports)
        if (!stage.made.contains(place)) add_absent(stage, place);
    constexpr int32_t most_sub_slots = 7;
    for (auto &[node, card] : stage.cards) {
        for (int32_t sub = 0; card.there && card.sub == 0 && sub <= most_sub_slots; ++sub)
            add_described(stage, card, sub);
    }
    return assembled(stage);
}

}  // namespace dmq
