// Answers ndm/roles.h, slots.h and statics.h: what is there and online, this card's slots and role, names by type. Takes
// the cache lock.
#include <algorithm>

#include "query/shapes.h"
#include "tq_dm_cache/ndm/roles.h"
#include "tq_dm_cache/ndm/slots.h"
#include "tq_dm_cache/ndm/statics.h"

static constexpr dm::LogTag log_tag{"ndm_dp", dm::Threshold::library};

namespace dm {
namespace {

// A yes or no of an object; a missing one is a no, and logged for the caller.
template <class T, class Field, class Key>
int32_t logged_yes(Field T::*field, const Key &key, Caller caller = Caller{}) {
    const auto value = cached_field(field, key);
    if (!value) DM_LOG_AS(caller, notice, "get cache fail.\r\n");
    return yes(value);
}

// One field through an out-value; a null pointer and a missing object are logged for the caller.
template <class T, class Key = NoKey>
int32_t logged_field(int32_t T::*field, int32_t *out, Level null_level, const Key &key = {}, Caller caller = Caller{}) {
    if (!out) {
        DM_LOG_AS(caller, null_level, "invalid param.\r\n");
        return -1;
    }
    if (put_cached_field(field, out, key) == 0) return 0;
    DM_LOG_AS(caller, notice, "get cache fail.\r\n");
    return -1;
}

// Of any chassis: no device is asked for its ranges.
struct BoardName {
    const char *name;
    int32_t user_slot;
};
constexpr BoardName board_names[] = {{"M1", 30},  {"M2", 31},  {"FE1", 22}, {"FE2", 23}, {"FE3", 24}, {"FE4", 25},
                                     {"FE5", 26}, {"FE6", 27}, {"FE7", 28}, {"FE8", 29}, {"0", 0}};

int32_t online_cards() DM_REQUIRES_SHARED {
    int32_t n = 0;
    for (const auto &card : all<PDev__CardInfo>()) n += card.is_online ? 1 : 0;
    return n;
}

}  // namespace
}  // namespace dm

using namespace dm;

int32_t ndm_get_userslot_from_node(uint32_t node, int32_t *user_slot) {
    return logged_field(&PDev__CardInfo::user_slot, user_slot, failure, card_key(card_of(node)));
}

int32_t ndm_get_userslot_from_boardname(const char *name) {
    if (!name) return -1;
    for (const BoardName &board : board_names)
        if (std::strcmp(name, board.name) == 0) return board.user_slot;
    return -1;
}

int32_t ndm_indep_get_userslot_from_boardname(const char *name) {
    return ndm_get_userslot_from_boardname(name);
}

int32_t ndm_get_my_user_slot(void) {
    const auto slot = cached_field(&PDev__DpLibMyChssInfo::user_slotid);
    if (!slot) DM_LOG(notice, "get cache fail.\r\n");
    return slot.value_or(-1);
}

int32_t ndm_get_my_phy_slot(int32_t *slot) {
    return logged_field(&PDev__DpLibMyInfo::slotid, slot, notice);
}

int32_t ndm_get_port_host_userslot_from_userslot(int32_t user_slot) {
    int32_t card_type;
    if (ndm_get_my_card_type(&card_type) != 0) {
        DM_LOG(failure, "get card type fail.\r\n");
        return -1;
    }
    return card_type == 1 ? 0 : user_slot;
}

int32_t ndm_get_my_role(void) {
    const auto role = cached_field(&PDev__DpLibGrole::my_grole);
    if (!role) DM_LOG(notice, "get cache fail.\r\n");
    return role.value_or(P_DEV__DM_ROLE_E__DM_ROLE_NONE);
}

int32_t ndm_device_is_online(int32_t devid) {
    return logged_yes(&PDev__DeviceInfo::is_online, device_key(devid));
}

int32_t ndm_card_is_online(int32_t devid, int32_t slot, int32_t sslot) {
    return logged_yes(&PDev__CardInfo::is_online, card_key(devid, slot, sslot));
}

int32_t ndm_card_is_online_by_node(uint32_t node) {
    const Card card = card_of(node);
    return ndm_card_is_online(card.devid, card.slot, card.sslot);
}

int32_t ndm_is_mboard(uint32_t node) {
    return yes(cached_field(&PDev__CardInfo::is_mboard, card_key(card_of(node))));
}

int32_t ndm_get_online_node_bmp_gms(uint32_t **nodes, int32_t *count) {
    if (!nodes || !count) {
        DM_LOG(failure, "invalid param.\r\n");
        return -1;
    }
    SharedCacheLock lock;
    const int32_t n = online_cards();
    // Not every malloc answers 0 bytes with a pointer, and no card online is no failure.
    auto *made = static_cast<uint32_t *>(malloc(static_cast<size_t>(std::max(n, 1)) * sizeof(uint32_t)));
    if (!made) {
        DM_LOG(failure, "malloc fail.\r\n");
        return -1;
    }
    *nodes = made;
    *count = n;
    for (const auto &card : all<PDev__CardInfo>())
        if (card.is_online) *made++ = static_cast<uint32_t>(card.card_nodeid);
    return 0;
}

int32_t ndm_get_online_lc_num(int32_t devid) {
    SharedCacheLock lock;
    int32_t n = 0;
    for (const auto &card : all<PDev__CardInfo>())
        if (card.static_info && card.index && card.index->devid == devid && card.is_online &&
            number(card.static_info->node_type) == P_DEV__DM_NODE_TYPE_E__DM_TYPE_LC)
            ++n;
    return n;
}

int32_t ndm_get_device_num(void) {
    SharedCacheLock lock;
    return all<PDev__DeviceInfo>().size();
}

int32_t ndm_get_min_devid(void) {
    SharedCacheLock lock;
    std::optional<int32_t> min;
    for (const auto &device : all<PDev__DeviceInfo>()) min = std::min(min.value_or(device.devid), device.devid);
    return min.value_or(-1);
}

int32_t ndm_get_max_devid(void) {
    SharedCacheLock lock;
    int32_t max = -1;
    for (const auto &device : all<PDev__DeviceInfo>()) max = std::max(max, device.devid);
    return max;
}

int32_t ndm_get_card_type_by_lslotid(int32_t slot) {
    SharedCacheLock lock;
    const auto *card = cached<PDev__LocalCardInfo>(local_card_key(slot, 0));
    if (!card) {
        DM_LOG(notice, "get cache fail. slot[%d].\r\n", slot);
        return -1;
    }
    return card->ldp_online ? card->card_type : -1;
}

int32_t ndm_card_sup_subslot(int32_t devid, int32_t slot) {
    SharedCacheLock lock;
    const auto *card = cached<PDev__CardInfo>(card_key(devid, slot, 0));
    if (!card) {
        DM_LOG(notice, "get cache fail. devid[%d] slot[%d].\r\n", devid, slot);
        return 0;
    }
    return card->static_info && card->static_info->sub_slot_num >= 1 ? 1 : 0;
}

int32_t ndm_get_dev_name_by_type(int32_t device_type, char *buf, int32_t len) {
    if (!buf) {
        DM_LOG(failure, "invalid param.\r\n");
        return -1;
    }
    if (len < 1) return -1;
    const bool found = read_cached<PDev__DeviceStaticInfo>(
        device_type_key(device_type), [=](const PDev__DeviceStaticInfo &type) { put_text(buf, len, type.name); });
    if (found) return 0;
    DM_LOG(notice, "get cache fail.\r\n");
    return -1;
}
