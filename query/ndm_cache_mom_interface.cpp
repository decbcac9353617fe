// Answers ndm/identifiers.h, requests.h, roles.h, slots.h and statics.h: identifiers and what they lead to, slot ranges of
// device types, the system's MAC address, the reset request. Takes the cache lock to read the cache, and not to write the
// reset request to the store.
#include "cache/gate.h"
#include "port_index/lookups.h"
#include "query/shapes.h"
#include "tq_dm_cache/ndm/identifiers.h"
#include "tq_dm_cache/ndm/requests.h"
#include "tq_dm_cache/ndm/roles.h"
#include "tq_dm_cache/ndm/slots.h"
#include "tq_dm_cache/ndm/statics.h"
#include "tq_dm_cache/ndm/virtual_switch.h"

static constexpr dm::LogTag log_tag{"ndm_cache_mom_interface", dm::Threshold::library};

namespace dm {
namespace {

int32_t ndm_get_id_from_phy_port_type(int32_t phyid, int32_t *devid, int32_t *slot, int32_t *sslot, int32_t *lport) {
    if (phyid <= 0 || !devid || !slot || !sslot || !lport) {
        DM_LOG(failure, "invalid parameter\n");
        return -1;
    }
    const Port port = port_of(static_cast<uint32_t>(phyid));
    *devid = port.devid;
    *slot = port.slot;
    *sslot = port.sslot;
    *lport = port.lport;
    return 0;
}

// One part of an identifier that is taken apart; one out of range is logged for the caller.
bool part_fits(bool fits, const char *part, int32_t value, const char *from, uint32_t word, Caller caller = Caller{}) {
    if (!fits) DM_LOG_AS(caller, failure, "get %s[%d] from %s[%#08x] error\r\n", part, value, from, word);
    return fits;
}

// The interface index of a port that its logical port finds; the sub-slot plays no part.
template <class T> int32_t ifx_of(uint32_t objid) {
    const Port port = port_of(objid);
    SharedCacheLock lock;
    const T *found = indexed<T>(by_ss_phyid, ss_phyid_key(port.devid, port.slot, port.lport));
    return found ? found->ifx : -1;
}

bool is_local_or_online(uint32_t node) {
    const uint32_t my_node = ndm_get_my_node();
    return ndm_card_is_online_by_node(node) == 1 || (my_node != no_node && node == my_node);
}

// One pair of a device type's slot numbers.
int32_t put_slot_range(int32_t device_type, int32_t PDev__DeviceStaticInfo::*low, int32_t PDev__DeviceStaticInfo::*high,
                       int32_t *min, int32_t *max, Caller caller = Caller{}) {
    if (!min || !max) {
        DM_LOG_AS(caller, notice, "param error!\n");
        return -1;
    }
    const bool found =
        read_cached<PDev__DeviceStaticInfo>(device_type_key(device_type), [=](const PDev__DeviceStaticInfo &type) {
            *min = type.*low;
            *max = type.*high;
        });
    if (found) return 0;
    DM_LOG_AS(caller, failure, "device stastic info is not in cache.\r\n");
    return -1;
}

int32_t ndm_get_sub_slot_range_from_card_type(int32_t card_type, int32_t *min, int32_t *max) {
    if (!min || !max) {
        DM_LOG(notice, "invalid param\r\n");
        return -1;
    }
    const auto sub_slots = cached_field(&PDev__CardStaticInfo::sub_slot_num, card_type_key(card_type));
    if (!sub_slots) return -1;
    if (*sub_slots <= 0) {
        DM_LOG(notice, "card_type:%d, subslot_num:%d\r\n", card_type, *sub_slots);
        return -1;
    }
    *min = 1;
    *max = *sub_slots;
    return 0;
}

// 0 when its main board's type is not known or has none: then the box itself is the only user slot.
int32_t max_box_sub_slot(int32_t devid, Caller caller = Caller{}) {
    int32_t min = 0;
    int32_t max = 0;
    const int32_t card_type = ndm_get_dev_phy_type(devid, main_board_slot, 0);
    if (ndm_get_sub_slot_range_from_card_type(card_type, &min, &max) == 0) return max;
    DM_LOG_AS(caller, failure, "get range fail.\r\n");
    return 0;
}

}  // namespace
}  // namespace dm

using namespace dm;

int32_t ndm_get_node_from_dev_slot_cpuid(int32_t devid, int32_t slot, int32_t cpuid, uint32_t *node) {
    if (!node) {
        DM_LOG(notice, "param error!\n");
        return -1;
    }
    *node = node_of({devid, slot, cpuid});
    return 0;
}

int32_t ndm_get_dev_slot_cpuid_from_node(uint32_t node, int32_t *devid, int32_t *slot, int32_t *cpuid) {
    if (!devid || !slot || !cpuid) return -1;
    const Card card = card_of(node);
    *devid = card.devid;
    *slot = card.slot;
    *cpuid = card.sslot;
    return 0;
}

int32_t ndm_get_dev_slot_from_node(uint32_t node, int32_t *devid, int32_t *slot) {
    int32_t cpuid;
    return ndm_get_dev_slot_cpuid_from_node(node, devid, slot, &cpuid);
}

int32_t ndm_get_id_from_phy_card_type(int32_t phyid, int32_t *devid, int32_t *slot, int32_t *sslot, int32_t *reserved) {
    if (phyid <= 0 || !devid || !slot || !sslot || !reserved) {
        DM_LOG(failure, "invalid parameter\n");
        return -1;
    }
    return ndm_get_dev_slot_cpuid_from_node(static_cast<uint32_t>(phyid), devid, slot, sslot);
}

int32_t ndm_get_dcm_addr_from_node(uint32_t node, uint32_t *dcm_addr) {
    if (!dcm_addr) {
        DM_LOG(failure, "input arguments error.\r\n");
        return -1;
    }
    const Card card = card_of(node);
    if (!part_fits(valid_devid(card.devid), "dev", card.devid, "node", node) ||
        !part_fits(valid_slot(card.slot), "slot", card.slot, "node", node) ||
        !part_fits(card.sslot <= 5, "subslot", card.sslot, "node", node))
        return -1;
    *dcm_addr = static_cast<uint32_t>(card.devid << 8 | card.sslot << 5 | card.slot);
    return 0;
}

int32_t ndm_get_node_from_dcm_addr(uint32_t dcm_addr, uint32_t *node) {
    if (!node) {
        DM_LOG(failure, "input arguments error.\r\n");
        return -1;
    }
    const Card card = {static_cast<int32_t>(dcm_addr >> 8 & 0xFF), static_cast<int32_t>(dcm_addr & 31),
                       static_cast<int32_t>(dcm_addr >> 5 & 7)};
    if (!part_fits(valid_devid(card.devid), "dev", card.devid, "dcm addr", dcm_addr) ||
        !part_fits(card.sslot <= 5, "subslot", card.sslot, "dcm addr", dcm_addr))
        return -1;
    *node = node_of(card);
    return 0;
}

int32_t ndm_get_my_dcm_addr(uint32_t *dcm_addr) {
    if (!dcm_addr) {
        DM_LOG(failure, "input arguments error.\r\n");
        return -1;
    }
    const uint32_t node = ndm_get_my_node();
    if (node == no_node) {
        DM_LOG(failure, "get my node error.\r\n");
        return -1;
    }
    if (ndm_get_dcm_addr_from_node(node, dcm_addr) != 0) {
        DM_LOG(failure, "get dcm addr from node error.\r\n");
        return -1;
    }
    return 0;
}

// Unsigned, since nothing is refused and no sum may overflow.
int32_t ndm_calculate_tipc_node(int32_t devid, int32_t slot, int32_t cpuid) {
    const bool box = ndm_get_my_node_type() == P_DEV__DM_NODE_TYPE_E__DM_TYPE_BOX;
    const auto dev = static_cast<uint32_t>(devid);
    const uint32_t place = box ? dev * 5 : (dev - 1) * 160 + static_cast<uint32_t>(slot) * 5;
    return static_cast<int32_t>(640 + place + static_cast<uint32_t>(cpuid));
}

// Of several ports that list the number the last one answers.
int32_t ndm_get_id_from_phyid(uint32_t phyid, int32_t *devid, int32_t *slot, int32_t *unit, int32_t *port) {
    if (!devid || !slot || !unit || !port) {
        DM_LOG(notice, "param error!\n");
        return -1;
    }
    if (phy_type(phyid) != phy_port) {
        DM_LOG(notice, "phyid is not phy port type phy id!\n");
        return -1;
    }
    int32_t sslot;
    int32_t lport;
    ndm_get_id_from_phy_port_type(static_cast<int32_t>(phyid), devid, slot, &sslot, &lport);

    SharedCacheLock lock;
    const auto *card = cached<PDev__CardInfo>(card_key(*devid, *slot, sslot));
    if (!card) {
        DM_LOG(failure, "card info is not in cache.\r\n");
        return -1;
    }
    const auto *attributes = cached<PDev__DmCardStattrT>(card_attributes_key(card->config_dev_type));
    if (!attributes) {
        DM_LOG(failure, "card static info is not in cache.\r\n");
        return -1;
    }
    for_ports_of(*attributes, [=](const PDev__DmPortAttrT &attr) {
        if (attr.lport != lport) return false;
        *unit = attr.unit;
        *port = attr.port;
        return false;
    });
    DM_LOG(failure, "get unitid from cache successd.\r\n");
    return 0;
}

int32_t ndm_get_ifx_by_objid(uint32_t objid) {
    return ifx_of<PDev__VsdPortAttr>(objid);
}

int32_t ndm_get_global_ifx_by_objid(uint32_t objid) {
    return ifx_of<PDev__VsdPort>(objid);
}

int32_t ndm_get_node_from_userslot(int32_t devid, int32_t user_slot, uint32_t *node) {
    if (!node) {
        DM_LOG(failure, "invalid paramter\n");
        return -1;
    }
    DM_LOG(trace, "switch_id: %d, user_slot: %d\n", devid, user_slot);

    SharedCacheLock lock;
    const auto *device = cached<PDev__DeviceInfo>(device_key(devid));
    if (!device) {
        DM_LOG(failure, "device info is not in cache.\r\n");
        return -1;
    }
    const PDev__DeviceStaticInfo *type = device->static_info;
    if (!type) return -1;

    const int32_t max = type->is_box ? max_box_sub_slot(devid) : 0;
    const auto slots = numbers(type->slot_index, type->n_slot_index);
    if (user_slot < 0 || static_cast<size_t>(user_slot) >= slots.size()) {
        DM_LOG(failure, "user_slot:%d invalid.\r\n", user_slot);
        return -1;
    }
    const Card card = type->is_box ? Card{devid, main_board_slot, user_slot <= max ? user_slot : -1}
                                   : Card{devid, entry_or_none(slots, user_slot), 0};
    if (card.slot < 0 || card.sslot < 0) {
        DM_LOG(failure, "phy_slot:%d, phy_sslot:%d invalid\r\n", card.slot, card.sslot);
        return -1;
    }
    *node = node_of(card);
    DM_LOG(trace, "node: 0x%x\n", *node);
    return 0;
}

int32_t ndm_get_user_slot_range_from_device_type(int32_t device_type, int32_t *min, int32_t *max) {
    if (!min || !max) {
        DM_LOG(failure, "param error!\n");
        return -1;
    }
    SharedCacheLock lock;
    const auto *type = cached<PDev__DeviceStaticInfo>(device_type_key(device_type));
    if (!type) {
        DM_LOG(notice, "device stasic info is not in cache.\r\n");
        return -1;
    }
    if (type->is_box) {
        *min = 0;
        *max = 6;
        return 0;
    }
    const auto slots = numbers(type->user_slot_index, type->n_user_slot_index);
    if (type->min_slot < 0 || static_cast<size_t>(type->min_slot) >= slots.size()) return -1;
    *min = slots[static_cast<size_t>(type->min_slot)];
    *max = 31;
    return 0;
}

int32_t ndm_get_lc_slot_range_from_device_type(int32_t device_type, int32_t *min, int32_t *max) {
    return put_slot_range(device_type, &PDev__DeviceStaticInfo::lc_min_slot, &PDev__DeviceStaticInfo::lc_max_slot, min,
                          max);
}

int32_t ndm_get_fe_slot_range_from_device_type(int32_t device_type, int32_t *min, int32_t *max) {
    return put_slot_range(device_type, &PDev__DeviceStaticInfo::fe_min_slot, &PDev__DeviceStaticInfo::fe_max_slot, min,
                          max);
}

int32_t ndm_get_fe_slot_range_by_dev_id(int32_t devid, int32_t *min, int32_t *max) {
    SharedCacheLock lock;
    int32_t type;
    if ((ndm_is_vsu() ? ndm_get_device_type(devid, &type) : ndm_get_my_device_type(&type)) != 0) {
        DM_LOG(notice, "get device type error!\n");
        return -1;
    }
    if (ndm_get_fe_slot_range_from_device_type(type, min, max) != 0) {
        DM_LOG(notice, "get fe slot range error!\n");
        return -1;
    }
    return 0;
}

int32_t ndm_get_user_slot_name(int32_t devid, int32_t user_slot, int32_t sub_slot, char *buf, int32_t len) {
    if (!buf || len < 1) {
        DM_LOG(notice, "param error!\n");
        return -1;
    }
    DM_LOG(trace, "switch_id:%d user_slot:%d sub_slot:%d\n", devid, user_slot, sub_slot);
    SharedCacheLock lock;
    int32_t fe_min;
    int32_t fe_max;
    if (ndm_get_fe_slot_range_by_dev_id(devid, &fe_min, &fe_max) != 0) {
        DM_LOG(trace, "dm_get_fe_slot_range_by_dev_id fail.");
        return -1;
    }

    char prefix[64] = "Slot ";
    if (ndm_is_vsu()) std::snprintf(prefix, sizeof prefix, "Slot %d/", devid);
    char name[128];
    if (user_slot == 30 || user_slot == 31)
        std::snprintf(name, sizeof name, "%sM%d", prefix, user_slot - 29);
    else if (fe_max != 0 && fe_min <= user_slot && user_slot <= fe_max)
        std::snprintf(name, sizeof name, "%sFE%lld", prefix, static_cast<long long>(user_slot) - fe_min + 1);
    else
        std::snprintf(name, sizeof name, "%s%d", prefix, user_slot);

    if (fill_text(buf, len, name) <= 0) {
        DM_LOG(failure, "copy name error.\r\n");
        return -1;
    }
    DM_LOG(trace, "name: %s\n", name);
    return 0;
}

int32_t ndm_get_node_type(uint32_t phyid) {
    if (phy_type(phyid) != phy_card) {
        DM_LOG(notice, "phyid is not phy card type phy id!\n");
        return 0;
    }
    SharedCacheLock lock;
    const auto *card = cached<PDev__CardInfo>(card_key(card_of(phyid)));
    if (!card) {
        DM_LOG(failure, "card info is not in cache.\r\n");
        return 0;
    }
    return card->static_info ? number(card->static_info->node_type) : 0;
}

int32_t ndm_get_system_l3_mac(uint8_t *mac, int32_t len) {
    if (!mac || len <= 5) return -1;
    SharedCacheLock lock;
    const auto *role = cached<PDev__DpLibGrole>();
    if (!role) {
        DM_LOG(failure, "system 13 mac is not in cache.\r\n");
        return -1;
    }
    const auto size = static_cast<size_t>(len);
    if (role->l3_mac.len < size) {
        DM_LOG(failure, "argument err(l3_mac_len:%d).\n", static_cast<int32_t>(role->l3_mac.len));
        return -1;
    }
    std::memcpy(mac, role->l3_mac.data, size);
    return 0;
}

int32_t ndm_reset_module_by_node_causelly(uint32_t node, const char *cause, const char *mod_name) {
    if (!is_local_or_online(node)) {
        DM_LOG(failure, "node not found.\r\n");
        return -1;
    }
    if (!cause || !mod_name) {
        DM_LOG(failure, "null cause or null mode name pointer\n");
        return -1;
    }
    if (!*cause || !*mod_name) {
        DM_LOG(failure, "no cause or no mode name string\n");
        return -1;
    }
    DM_LOG(trace, "reset node %x cause:%s\n", node, cause);

    // The texts are referred to, not copied: the request lives only for this call.
    PDev__DmLibResetReqIndex key = P_DEV__DM_LIB_RESET_REQ_INDEX__INIT;
    key.mod_name = const_cast<char *>(mod_name);
    key.action = 1;
    key.cause = const_cast<char *>(cause);
    const Card card = card_of(node);
    PDev__DmLibResetReq request = P_DEV__DM_LIB_RESET_REQ__INIT;
    request.index = &key;
    request.devid = card.devid;
    request.slotid = card.slot;
    request.sslotid = card.sslot;
    const StoreCallback inside;
    const int32_t ret = !inside.may_run() ? -1 : tq_mom_set(store_handle(), 1, &request.base, 0, 0);
    if (ret != 0) DM_LOG(failure, "reset the card request failed to send.\r\n");
    return ret;
}
