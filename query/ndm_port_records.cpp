// Answers ndm/records.h: single facts of device records. Takes the cache lock: forms in _rt for a read of the cache only.
// No read of the store is cached.
#include "query/store_read.h"
#include "tq_dm_cache/ndm/port_lookup.h"
#include "tq_dm_cache/ndm/records.h"
#include "tq_dm_cache/ndm/roles.h"

static constexpr dm::LogTag log_tag{"ndm_port"};

namespace dm {
namespace {

// The device names its type, and the type's record has the name: the caller holds the lock over both.
int32_t put_device_name(int32_t devid, char *name, int32_t len) {
    const auto type = cached_field(&PDev__DeviceInfo::config_dev_type, device_key(devid));
    if (!type) return -1;
    const bool found = read_cached<PDev__DeviceStaticInfo>(
        device_type_key(*type), [=](const PDev__DeviceStaticInfo &record) { fill_text(name, len, record.name); });
    return found ? 0 : -1;
}

int32_t _ndm_get_my_local_master_node(int32_t *node, uint8_t rt) {
    if (!node) {
        DM_LOG(notice, "invalid parameter\r\n");
        return -1;
    }
    if (read_field(NoKey{}, &PDev__DpLibLrole::local_master_node, node, rt) != 0) return -1;
    DM_LOG(trace, "local master node: 0x%x\r\n", static_cast<uint32_t>(*node));
    return 0;
}

int32_t usable_slots(const PDev__DeviceInfo &device) {
    const PDev__DeviceStaticInfo *type = device.static_info;
    if (!type) return -1;
    int32_t n = 0;
    for (const PDev__DmSlotTypeE &slot : std::span(type->slot_type, type->n_slot_type))
        n += number(slot) != P_DEV__DM_SLOT_TYPE_E__SLOT_INVALID ? 1 : 0;
    return n;
}

int32_t _ndm_get_slot_num(int32_t devid, uint8_t rt) {
    return answer_from<PDev__DeviceInfo>(device_key(devid), rt, usable_slots);
}

// A role that nobody has is stored as a record without a card.
int32_t node_of_card(const PDev__CardInfoIndex *card) {
    return card ? static_cast<int32_t>(node_of({card->devid, card->slotid, card->sslotid})) : -1;
}

int32_t _ndm_indep_get_master_node(uint8_t rt) {
    return answer_from<PDev__DpLibGrole>(NoKey{}, rt,
                                         [](const PDev__DpLibGrole &role) { return node_of_card(role.global_master); });
}

int32_t _ndm_indep_get_slave_node(uint8_t rt) {
    return answer_from<PDev__DpLibGrole>(NoKey{}, rt,
                                         [](const PDev__DpLibGrole &role) { return node_of_card(role.global_slave); });
}

int32_t _ndm_get_node_type_from_card_type(int32_t card_type, uint8_t rt) {
    return answer_from<PDev__CardStaticInfo>(card_type_key(card_type), rt,
                                             [](const PDev__CardStaticInfo &type) { return number(type.node_type); });
}

}  // namespace
}  // namespace dm

using namespace dm;

int32_t ndm_get_my_device_name(char *name, int32_t len) {
    if (!name || len < 32) {
        DM_LOG(notice, "invalid parameter\r\n");
        return -1;
    }
    const int32_t devid = ndm_get_my_devid();
    {
        SharedCacheLock lock;
        if (put_device_name(devid, name, len) != 0) return -1;
    }
    DM_LOG(trace, "my dev name:%s\r\n", name);
    return 0;
}

int32_t ndm_get_my_local_master_node(int32_t *node) {
    SharedCacheLock lock;
    return _ndm_get_my_local_master_node(node, /*rt=*/0);
}

int32_t ndm_get_my_local_master_node_rt(int32_t *node) {
    return _ndm_get_my_local_master_node(node, /*rt=*/1);
}

int32_t ndm_get_slot_num(int32_t devid) {
    SharedCacheLock lock;
    return _ndm_get_slot_num(devid, /*rt=*/0);
}

int32_t ndm_get_slot_num_rt(int32_t devid) {
    return _ndm_get_slot_num(devid, /*rt=*/1);
}

int32_t ndm_indep_get_master_node(void) {
    SharedCacheLock lock;
    return _ndm_indep_get_master_node(/*rt=*/0);
}

int32_t ndm_indep_get_master_node_rt(void) {
    return _ndm_indep_get_master_node(/*rt=*/1);
}

int32_t ndm_indep_get_slave_node(void) {
    SharedCacheLock lock;
    return _ndm_indep_get_slave_node(/*rt=*/0);
}

int32_t ndm_indep_get_slave_node_rt(void) {
    return _ndm_indep_get_slave_node(/*rt=*/1);
}

int32_t ndm_get_node_type_from_card_type(int32_t card_type) {
    SharedCacheLock lock;
    return _ndm_get_node_type_from_card_type(card_type, /*rt=*/0);
}
