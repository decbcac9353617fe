// Answers ndm/roles.h, slots.h and statics.h: physical slots of user slots, names of cards and devices, master and slave,
// local identity. Takes the cache lock.
#include "query/shapes.h"
#include "tq_dm_cache/ndm/identifiers.h"
#include "tq_dm_cache/ndm/roles.h"
#include "tq_dm_cache/ndm/slots.h"
#include "tq_dm_cache/ndm/statics.h"

static constexpr dm::LogTag log_tag{"dp_lib", dm::Threshold::library};

namespace dm {
namespace {

// Where a device's user slot lies on a chassis; -1 when it lies nowhere.
int32_t chassis_slot(const PDev__DeviceStaticInfo &type, int32_t user_slot, Caller caller = Caller{}) {
    if (user_slot > 21 && user_slot < 32) return user_slot;
    if (type.min_slot <= user_slot && user_slot <= type.max_slot)
        return entry_or_none(numbers(type.slot_index, type.n_slot_index), user_slot);
    DM_LOG_AS(caller, failure, "invalid userslot: %d. min %d, max %d\n", user_slot, type.min_slot, type.max_slot);
    return -1;
}

// The sub-slot that a user slot means, which the card must have.
int32_t put_sub_slot(int32_t devid, int32_t slot, int32_t wanted, int32_t *psslot,
                     Caller caller = Caller{}) DM_REQUIRES_SHARED {
    if (wanted == 0) {
        *psslot = 0;
        return 0;
    }
    const auto *card = cached<PDev__CardInfo>(card_key(devid, slot, 0));
    if (!card) {
        DM_LOG_AS(caller, failure, "fail to get card info!\n");
        return -1;
    }
    if (!card->static_info) {
        DM_LOG_AS(caller, failure, "fail to get card static info!\n");
        return -1;
    }
    const int32_t sub_num = card->static_info->sub_slot_num;
    if (wanted > sub_num) {
        DM_LOG_AS(caller, failure, "sslot is inexistent! usslot[%d] sub_num[%d].\n", wanted, sub_num);
        return -1;
    }
    *psslot = wanted;
    return 0;
}

int32_t ndm_get_dev_type_by_devno(int32_t devid, int32_t *device_type) {
    DM_LOG(trace, "devno = %d\n", devid);
    const int32_t ret = devid == 0 ? ndm_get_my_device_type(device_type) : ndm_get_device_type(devid, device_type);
    if (ret == 0) DM_LOG(trace, "dev_type = %d\n", *device_type);
    return ret;
}

// Of the entries that are slots; min 32 and max 0 when none is.
int32_t ndm_get_slot_range_from_device_type(int32_t device_type, int32_t *min, int32_t *max) {
    SharedCacheLock lock;
    const auto *type = cached<PDev__DeviceStaticInfo>(device_type_key(device_type));
    if (!type) return -1;
    if (!type->slot_index) {
        DM_LOG(failure, "device stasic info is not in cache.\r\n");
        return -1;
    }
    *min = 32;
    *max = 0;
    const auto slots = numbers(type->slot_index, type->n_slot_index);
    for (const int32_t slot : slots.first(slots.size() < 32 ? slots.size() : 32)) {
        if (slot >= 0 && slot < *min) *min = slot;
        if (slot > *max) *max = slot;
    }
    return 0;
}

// The lowest and highest physical slot of a device, 0 for the local one.
int32_t slot_range(int32_t devid, int32_t *min, int32_t *max, Caller caller = Caller{}) {
    SharedCacheLock lock;
    int32_t device_type;
    if (ndm_get_dev_type_by_devno(devid, &device_type) != 0) {
        DM_LOG_AS(caller, failure, "fail to get device type\n");
        return -1;
    }
    if (ndm_get_slot_range_from_device_type(device_type, min, max) != 0) {
        DM_LOG_AS(caller, failure, "fail to get slot range\n");
        return -1;
    }
    return 0;
}

int32_t put_slot_bound(int32_t devid, int32_t *out, bool highest, Caller caller = Caller{}) {
    if (!out) {
        DM_LOG_AS(caller, failure, "invalid parameter\n");
        return -1;
    }
    int32_t min;
    int32_t max;
    if (slot_range(devid, &min, &max, caller) != 0) return -1;
    *out = highest ? max : min;
    return 0;
}

int32_t ndm_get_card_name_by_slot_prefunc(int32_t devid, int32_t user_slot, int32_t *slot, int32_t *sslot) {
    DM_LOG(trace, "dev:%d user_slot:%d \n", devid, user_slot);
    uint32_t node;
    if (ndm_get_node_from_userslot(devid, user_slot, &node) != 0) {
        DM_LOG(notice, "get node fail.!\n");
        return -1;
    }
    if (phy_type(node) != phy_card) {
        DM_LOG(notice, "cannot startup attribute is not phy card type phy id!\n");
        return -1;
    }
    int32_t node_devid;
    int32_t reserved;
    return ndm_get_id_from_phy_card_type(static_cast<int32_t>(node), &node_devid, slot, sslot, &reserved);
}

// The device and slot of a card that leads the unit.
int32_t put_leader(PDev__CardInfoIndex *PDev__DpLibGrole::*leader, int32_t *devid, int32_t *slot,
                   Caller caller = Caller{}) {
    if (!devid || !slot) {
        DM_LOG_AS(caller, failure, "param error!\n");
        return -1;
    }
    SharedCacheLock lock;
    const auto *role = cached<PDev__DpLibGrole>();
    const PDev__CardInfoIndex *card = role ? role->*leader : nullptr;
    if (!card) return -1;
    *devid = card->devid;
    *slot = card->slotid;
    return 0;
}

// The role of the first card that sits in a slot; null when there is none.
const PDev__LibCardRole *role_of_slot(int32_t devid, int32_t slot) DM_REQUIRES_SHARED {
    const auto *role = cached<PDev__DpLibGrole>();
    if (!role) return nullptr;
    for (const PDev__LibCardRole *card : entries(role->card_role, role->n_card_role))
        if (card->devid == devid && card->slotid == slot) return card;
    return nullptr;
}

}  // namespace
}  // namespace dm

using namespace dm;

int32_t ndm_get_physlot_by_userslot(int32_t devid, int32_t user_slot, int32_t, int32_t *pslot, int32_t *psslot) {
    if (!pslot || !psslot) {
        DM_LOG(failure, "pslot[%p] or psslot[%p] is null!\n", static_cast<void *>(pslot), static_cast<void *>(psslot));
        return -1;
    }
    SharedCacheLock lock;
    const auto *device = cached<PDev__DeviceInfo>(device_key(devid));
    if (!device) {
        DM_LOG(failure, "fail to get phy slot!\n");
        return -1;
    }
    if (!device->static_info) return -1;
    const bool box = device->static_info->is_box;
    *pslot = box ? main_board_slot : chassis_slot(*device->static_info, user_slot);
    if (*pslot < 0) {
        DM_LOG(failure, "invalid physlot = %d!\n", *pslot);
        return -1;
    }
    return put_sub_slot(devid, *pslot, box ? user_slot : 0, psslot);
}

int32_t ndm_get_physlot_by_devid_userslot(int32_t devid, int32_t user_slot, int32_t *pslot) {
    int32_t psslot;
    return ndm_get_physlot_by_userslot(devid, user_slot, /*user_sslot=*/0, pslot, &psslot);
}

int32_t ndm_get_max_slot_num(int32_t devid, int32_t *max) {
    return put_slot_bound(devid, max, /*highest=*/true);
}

int32_t ndm_get_min_slot_num(int32_t devid, int32_t *min) {
    return put_slot_bound(devid, min, /*highest=*/false);
}

int32_t ndm_get_card_name_by_slot(int32_t devid, int32_t user_slot, int32_t, char *buf, int32_t len) {
    if (len < 0 || (len > 0 && !buf)) return -1;
    SharedCacheLock lock;
    int32_t slot;
    int32_t sslot;
    if (ndm_get_card_name_by_slot_prefunc(devid, user_slot, &slot, &sslot) != 0) return -1;
    int32_t length = -1;
    read_cached<PDev__CardInfo>(card_key(devid, slot, sslot),
                                [&](const PDev__CardInfo &card) { length = put_text(buf, len, card.name); });
    return length;
}

int32_t ndm_get_dev_name_by_id(int32_t devid, char *name, int32_t len) {
    if (!name || len < 32) {
        DM_LOG(notice, "invalid param(name: %p, len:%d)\r\n", static_cast<void *>(name), len);
        return -1;
    }
    SharedCacheLock lock;
    const auto *device = cached<PDev__DeviceInfo>(device_key(devid));
    if (!device) return -1;
    fill_text(name, len, device->devname);
    DM_LOG(trace, "succ to get dev name:%s, dev_id:%d\r\n", name, devid);
    return 0;
}

int32_t ndm_get_my_lslotid(void) {
    return cached_field(&PDev__DpLibMyInfo::slotid).value_or(-1);
}

int32_t ndm_get_my_devid(void) {
    return cached_field(&PDev__DpLibMyChssInfo::devid).value_or(-1);
}

int32_t ndm_get_my_devid_rt(void) {
    return -1;
}

int32_t ndm_get_my_lslotid_rt(void) {
    return -1;
}

int32_t ndm_get_my_dev_grole(void) {
    return cached_field(&PDev__DpLibGrole::my_grole).value_or(-1);
}

int32_t ndm_get_my_dev_lrole(void) {
    return cached_field(&PDev__DpLibLrole::my_lrole).value_or(-1);
}

int32_t ndm_get_master_slotid(int32_t *devid, int32_t *slot) {
    return put_leader(&PDev__DpLibGrole::global_master, devid, slot);
}

int32_t ndm_get_slaver_id(int32_t *devid, int32_t *slot) {
    return put_leader(&PDev__DpLibGrole::global_slave, devid, slot);
}

uint32_t ndm_get_master_node(void) {
    int32_t devid;
    int32_t slot;
    return ndm_get_master_slotid(&devid, &slot) == 0 ? node_of({devid, slot, 0}) : no_node;
}

int32_t ndm_get_slaver_node(uint32_t *node) {
    if (!node) {
        DM_LOG(failure, "param error!\n");
        return -1;
    }
    int32_t devid;
    int32_t slot;
    if (ndm_get_slaver_id(&devid, &slot) != 0) return -1;
    *node = node_of({devid, slot, 0});
    return 0;
}

int32_t ndm_get_role_by_node(uint32_t node) {
    SharedCacheLock lock;
    const Card card = card_of(node);
    const PDev__LibCardRole *role = role_of_slot(card.devid, card.slot);
    return role ? number(role->globe_role) : -1;
}

int32_t ndm_mb_is_local_master(int32_t devid, int32_t slot) {
    if (!valid_devid(devid) || (slot != 30 && slot != 31 && slot != 0)) return 0;
    SharedCacheLock lock;
    const PDev__LibCardRole *role = role_of_slot(devid, slot);
    return role && role->is_local_master ? 1 : 0;
}

int32_t ndm_dev_is_box_switch(int32_t devid) {
    SharedCacheLock lock;
    const auto *device = cached<PDev__DeviceInfo>(device_key(devid));
    if (!device) {
        DM_LOG(failure, "get device info fail.\r\n");
        return 0;
    }
    const PDev__DeviceStaticInfo *type = device->static_info;
    if (!type) type = cached<PDev__DeviceStaticInfo>(device_type_key(device->config_dev_type));
    return type && type->is_box ? 1 : 0;
}

int32_t ndm_local_is_online(int32_t slot, int32_t sslot) {
    if (!valid_slot(slot)) {
        DM_LOG(notice, "param error slot = %d!\n", slot);
        return 0;
    }
    return yes(cached_field(&PDev__LocalCardInfo::ldp_online, local_card_key(slot, sslot)));
}

int32_t ndm_get_device_sn(int32_t devid, char *buf, int32_t len) {
    if (!buf || len <= 0) return -1;
    const bool found = read_cached<PDev__DeviceSyncInfo>(
        device_key(devid), [=](const PDev__DeviceSyncInfo &device) { fill_text(buf, len, device.serial_no); });
    return found ? 0 : -1;
}
