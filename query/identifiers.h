// The numbers that name cards and ports, built and taken apart, and the keys made of their components. Pure arithmetic: no
// object is read. Takes no lock.
#pragma once

#include <cstdint>

#include "tq_dm_cache/p_dev.pb-c.h"

namespace dm {

// Bits 31..26 of a node number or a port's identifier say which of the two it is.
enum PhyType : uint32_t { phy_card = 3, phy_port = 5, phy_other_port = 8 };
constexpr uint32_t phy_type(uint32_t id) {
    return id >> 26;
}
constexpr uint32_t phy_fields(uint32_t id) {
    return id & 0x3FFFFFF;
}

constexpr uint32_t no_node = 0xFFFFFFFF;
constexpr int32_t main_board_slot = 30;

// What the number of a card names. `sslot` 0 is the card itself.
struct Card {
    int32_t devid;
    int32_t slot;
    int32_t sslot;
};

// What the number of a port names.
struct Port {
    int32_t devid;
    int32_t slot;
    int32_t sslot;
    int32_t lport;
};

// Nothing is masked: a component that is too wide spills into its neighbours.
constexpr uint32_t node_of(const Card &card) {
    return static_cast<uint32_t>(card.devid) << 18 | phy_card << 26 | static_cast<uint32_t>(card.sslot) << 15 |
           static_cast<uint32_t>(card.slot) << 8;
}

constexpr Card card_of(uint32_t node) {
    const uint32_t fields = phy_fields(node);
    return {static_cast<int32_t>(fields >> 18), static_cast<int32_t>(fields >> 8 & 0x7F),
            static_cast<int32_t>(fields >> 15 & 7)};
}

// A logical port has ten bits, of which the upper two lie beside the slot.
constexpr Port port_of(uint32_t objid) {
    const uint32_t fields = phy_fields(objid);
    return {static_cast<int32_t>(fields >> 18), static_cast<int32_t>(fields >> 8 & 31),
            static_cast<int32_t>(fields >> 15 & 7), static_cast<int32_t>((fields >> 13 & 3) << 8 | (objid & 0xFF))};
}

constexpr uint32_t objid_of(const Port &port) {
    const auto lport = static_cast<uint32_t>(port.lport);
    return phy_port << 26 | (static_cast<uint32_t>(port.devid) & 0xFF) << 18 |
           (static_cast<uint32_t>(port.sslot) & 7) << 15 | (lport >> 8 & 3) << 13 |
           (static_cast<uint32_t>(port.slot) & 31) << 8 | (lport & 0xFF);
}

constexpr bool valid_devid(int32_t devid) {
    return devid >= 1 && devid <= 16;
}
constexpr bool valid_slot(int32_t slot) {
    return slot >= 0 && slot <= 31;
}

// Keys of the kinds that queries read.

inline PDev__CardInfoIndex card_key(int32_t devid, int32_t slot, int32_t sslot) {
    PDev__CardInfoIndex key = P_DEV__CARD_INFO_INDEX__INIT;
    key.devid = devid;
    key.slotid = slot;
    key.sslotid = sslot;
    return key;
}
inline PDev__CardInfoIndex card_key(const Card &card) {
    return card_key(card.devid, card.slot, card.sslot);
}

inline PDev__LocalCardInfoIndex local_card_key(int32_t slot, int32_t sslot) {
    PDev__LocalCardInfoIndex key = P_DEV__LOCAL_CARD_INFO_INDEX__INIT;
    key.slotid = slot;
    key.sslotid = sslot;
    return key;
}

inline PDev__DeviceInfoIndex device_key(int32_t devid) {
    PDev__DeviceInfoIndex key = P_DEV__DEVICE_INFO_INDEX__INIT;
    key.devid = devid;
    return key;
}

inline PDev__DeviceStaticInfoIndex device_type_key(int32_t type) {
    PDev__DeviceStaticInfoIndex key = P_DEV__DEVICE_STATIC_INFO_INDEX__INIT;
    key.type = type;
    return key;
}

inline PDev__CardStaticInfoIndex card_type_key(int32_t type) {
    PDev__CardStaticInfoIndex key = P_DEV__CARD_STATIC_INFO_INDEX__INIT;
    key.type = type;
    return key;
}

inline PDev__DmCardStattrIndex card_attributes_key(int32_t type) {
    PDev__DmCardStattrIndex key = P_DEV__DM_CARD_STATTR_INDEX__INIT;
    key.type = type;
    return key;
}

inline PDev__DmTypeIndex chip_type_key(int32_t type) {
    PDev__DmTypeIndex key = P_DEV__DM_TYPE_INDEX__INIT;
    key.type = type;
    return key;
}

}  // namespace dm
