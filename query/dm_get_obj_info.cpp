// Answers ndm/statics.h: types of this card, of devices and of cards. Takes the cache lock.
#include "query/shapes.h"
#include "tq_dm_cache/ndm/statics.h"

static constexpr dm::LogTag log_tag{"dm_get_obj_info", dm::Threshold::library};

using namespace dm;

int32_t ndm_get_my_card_type(int32_t *type) {
    return put_cached_field(&PDev__DpLibMyInfo::card_type, type);
}

int32_t ndm_get_my_node_type(void) {
    return cached_field(&PDev__DpLibMyInfo::dm_my_node_type).value_or(P_DEV__DM_NODE_TYPE_E__DM_TYPE_UNKNOWN);
}

uint32_t ndm_get_my_node(void) {
    return static_cast<uint32_t>(cached_field(&PDev__DpLibMyInfo::card_nodeid).value_or(-1));
}

int32_t ndm_get_my_device_type(int32_t *type) {
    return put_cached_field(&PDev__DpLibMyChssInfo::dev_type, type);
}

int32_t ndm_get_device_type(int32_t devid, int32_t *type) {
    if (!type) {
        DM_LOG(failure, "invalid param.\r\n");
        return -1;
    }
    return put_cached_field(&PDev__DeviceInfo::config_dev_type, type, device_key(devid));
}

int32_t ndm_get_dev_phy_type(int32_t devid, int32_t slot, int32_t sslot) {
    return cached_field(&PDev__CardInfo::config_dev_type, card_key(devid, slot, sslot)).value_or(-1);
}

int32_t ndm_get_cpu_num(uint32_t node) {
    return cached_field(&PDev__CardInfo::cpu_num, card_key(card_of(node))).value_or(-1);
}
