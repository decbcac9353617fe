// Answers ndm/chips.h: this card: its type, its description, its ports and chips; chip families and power over Ethernet.
// Takes the cache lock: public forms for all they do, underscore forms for each read of the cache and for none of the
// store.
#include <algorithm>

#include "query/ndm_port.h"
#include "tq_dm_cache/ndm/chips.h"
#include "tq_dm_cache/ndm/port_lookup.h"
#include "tq_dm_cache/ndm/statics.h"

static constexpr dm::LogTag log_tag{"ndm_port"};

namespace dm {
namespace {

constexpr size_t chip_room = 8;

using ChipArray = OwnedMemory<int32_t>;

// An array of chip types for the caller, zeroed; null, logged for the caller, without memory.
ChipArray make_chip_array(size_t room, Caller caller = Caller{}) {
    ChipArray chips(static_cast<int32_t *>(calloc(room, sizeof(int32_t))));
    if (!chips) DM_LOG_AS(caller, notice, "alloc memory fail!\n");
    return chips;
}

// Makes room for as many chips as a card has, beyond the usual number.
size_t room_for(const PDev__DmCardStattrT &card) {
    return std::max(chip_room, card.n_chip_attr_array);
}

// The chip types of a card, in an array that is made larger when need be. -1, logged for the caller, when the description
// cannot be used; more chips than `most` are one reason.
int32_t put_chip_types(const PDev__DmCardStattrT &card, size_t most, ChipArray &chips, Caller caller = Caller{}) {
    if (card.chip_num < 0 || static_cast<size_t>(card.chip_num) > most || !card.chip_attr_array) {
        DM_LOG_AS(caller, notice, "info->chip_num:%d info->chip_attr_array:%p\n", card.chip_num,
                  static_cast<void *>(card.chip_attr_array));
        return -1;
    }
    if (room_for(card) > chip_room) chips = make_chip_array(room_for(card), caller);
    if (!chips) return -1;
    int32_t *next = chips.get();
    for (const PDev__DmChipAttrT *chip : entries(card.chip_attr_array, card.n_chip_attr_array)) {
        if (!chip) {
            DM_LOG_AS(caller, notice, "chip_attr_array[%d] is NULL\n", static_cast<int32_t>(next - chips.get()));
            return -1;
        }
        *next++ = chip->chip_type;
    }
    return 0;
}

template <class Answer> int32_t answer_from_card(int32_t card_type, uint8_t rt, const Answer &answer) {
    return answer_by_type<PDev__DmCardStattrT>(card_type, card_attributes_key(card_type), rt, answer,
                                               Caller{"ndm_get_card_obj_by_type"});
}

int32_t ndm_get_chip_obj_by_type(int32_t chip_type, int32_t *family, uint8_t rt) {
    const auto put_family = [=](const PDev__DmChipStattrT &chip) {
        *family = chip.family;
        return 0;
    };
    return answer_by_type<PDev__DmChipStattrT>(chip_type, chip_type_key(chip_type), rt, put_family, Caller{});
}

int32_t ndm_scan_local_port_obj_cb(tq_mom_handle *, store_msg *msg, void *priv) {
    if (!msg) {
        DM_LOG(failure, "invalid msg[%p].\n", static_cast<void *>(msg));
        return -1;
    }
    if (!carries_object(*msg)) {
        DM_LOG(trace, "msg->cmd %d\r\n", msg->cmd);
        return -1;
    }
    const ProtobufCMessage *obj = scanned_object(*msg, DM_ROW_UNIT_CPORT_INFO);
    if (!obj) return -1;
    DM_LOG(trace, "add local port info %p\r\n", static_cast<const void *>(obj));
    const uint64_t since = priv ? *static_cast<const uint64_t *>(priv) : never_overtaken;
    return cache_object(DM_ROW_UNIT_CPORT_INFO, obj, since);
}

int32_t local_ports() {
    SharedCacheLock lock;
    return all<PDev__UnitCportInfo>().size();
}

// The mark is older than the scan: what is changed while it runs is not undone by what it brings.
bool scan_local_ports(Caller caller = Caller{}) {
    uint64_t since = change_mark_now();
    const int32_t ret = scan_store(DM_ROW_UNIT_CPORT_INFO, ndm_scan_local_port_obj_cb, &since);
    if (ret != 0)
        DM_LOG_AS(caller, notice, "tq_mom_scan_sync ret %d.\r\n", ret);
    else
        DM_LOG_AS(caller, trace, "tq_mom_scan_sync ret %d.\r\n", ret);
    return ret == 0;
}

// The combo ports among the local ports, `room` of them at most; -1 when there are more.
int32_t put_combo_ports(int32_t *lports, int32_t room, Caller caller = Caller{}) {
    SharedCacheLock lock;
    int32_t n = 0;
    for (const auto &port : all<PDev__UnitCportInfo>()) {
        if (!port.static_info) {
            DM_LOG_AS(caller, notice, "static_info invalid.\r\n");
            continue;
        }
        DM_LOG_AS(caller, trace, "pd_medium_type:%d\n", number(port.static_info->pd_medium_type));
        if (number(port.static_info->pd_medium_type) != P_DEV__PD_MEDIUM_TYPE_E__FIBER_COPPER) continue;
        if (n >= room) return -1;
        lports[n++] = port.static_info->lport;
    }
    return n;
}

int32_t _ndm_get_poe_support_by_objid(uint32_t objid, uint8_t *support, uint8_t rt) {
    if (!support) {
        DM_LOG(notice, "invalid parameter\r\n");
        return -1;
    }
    PortFacts port;
    const int32_t ret = ndm_get_port_static_by_objid(objid, &port, rt, /*follow_subcard=*/1);
    if (ret != 0) {
        DM_LOG(notice, "objid:0x%x ret:%d port_attr:%p\r\n", objid, ret, static_cast<void *>(nullptr));
        return -1;
    }
    *support = port.poe_support ? 1 : 0;
    return 0;
}

int32_t _ndm_get_hpoe_support_by_objid(uint32_t objid, uint8_t *support, uint8_t rt) {
    if (!support) {
        DM_LOG(notice, "invalid parameter\r\n");
        return -1;
    }
    if (phy_type(objid) != phy_port) {
        DM_LOG(notice, "objid is not port type\r\n");
        return -1;
    }
    PortFacts port;
    if (ndm_get_port_static_by_objid(objid, &port, rt, /*follow_subcard=*/1) != 0) return -1;
    *support = port.hpoe_support ? 1 : 0;
    return 0;
}

// The answer that the description of this card's type gives.
template <class Answer> int32_t answer_from_my_card(uint8_t rt, const Answer &answer) {
    const Caller caller{"_ndm_get_my_card_obj_rt"};
    int32_t card_type;
    if (_ndm_get_my_card_type_rt(&card_type, rt) != 0) {
        DM_LOG_AS(caller, notice, "ndm_get_my_card_type fail\n");
        return -1;
    }
    if (answer_from_card(card_type, rt, answer) == 0) return 0;
    DM_LOG_AS(caller, notice, "ndm_get_card_obj_by_type %d fail\n", card_type);
    return -1;
}

}  // namespace

int32_t _ndm_get_my_card_multi_lport(int32_t *lports, int32_t *num, uint8_t rt) {
    if (!lports || !num) {
        DM_LOG(failure, "invalid param.\r\n");
        return -1;
    }
    const int32_t ports = _ndm_get_my_lport_num(rt);
    if (ports <= 0) {
        DM_LOG(notice, "_ndm_get_my_lport_num ret %d.\r\n", ports);
        return -1;
    }
    DM_LOG(trace, "_ndm_get_my_lport_num ret %d.\r\n", ports);
    DM_LOG(trace, "origin node_num:%d, rt:%d.\r\n", local_ports(), rt);
    if (local_ports() == 0 && rt != 0 && !scan_local_ports()) return -1;
    const int32_t cached_ports = local_ports();
    DM_LOG(trace, "after node_num:%d\r\n", cached_ports);
    if (cached_ports == 0) return -1;
    const int32_t n = put_combo_ports(lports, *num);
    if (n < 0) return -1;
    *num = n;
    DM_LOG(trace, "final num %d.\r\n", n);
    return 0;
}

}  // namespace dm

using namespace dm;

int32_t _ndm_get_my_card_type_rt(int32_t *card_type, uint8_t rt) {
    if (!card_type) return -1;
    if (ndm_get_my_card_type(card_type) >= 0) return 0;
    if (rt == 0) return -1;
    StoreRead<PDev__DpLibMyInfo> read(ReadBy::record);
    if (!read) return -1;
    *card_type = (*read).card_type;
    read.cache();
    return read.give_back();
}

int32_t _ndm_get_my_card_obj_rt(void *card, uint8_t rt) {
    if (!card) return -1;
    PDev__DmCardStattrT *found = nullptr;
    put(card, found);
    int32_t card_type;
    if (_ndm_get_my_card_type_rt(&card_type, rt) != 0) {
        DM_LOG(notice, "ndm_get_my_card_type fail\n");
        return -1;
    }
    if (ndm_get_card_obj_by_type(card_type, &found, rt) != 0) {
        DM_LOG(notice, "ndm_get_card_obj_by_type %d fail\n", card_type);
        return -1;
    }
    if (!found) {
        DM_LOG(notice, "ndm_get_card_obj_by_type info NULL\n");
        return -1;
    }
    put(card, found);
    return 0;
}

int32_t _ndm_get_my_lport_num(uint8_t rt) {
    if (const auto ports = cached_field(&PDev__LocalPortInfo::lport_num)) return *ports;
    if (rt != 1) {
        DM_LOG(notice, "cache get LocalPortInfo fail.\r\n");
        return -1;
    }
    StoreRead<PDev__LocalPortInfo> read(ReadBy::record);
    if (!read) {
        DM_LOG(notice, "db get LocalPortInfo fail.\r\n");
        return -1;
    }
    const int32_t ports = (*read).lport_num;
    read.cache();
    if (read.release() != 0) DM_LOG(notice, "free res fail.\r\n");
    return ports;
}

int32_t ndm_get_my_lport_num(void) {
    SharedCacheLock lock;
    return _ndm_get_my_lport_num(/*rt=*/0);
}

int32_t ndm_get_my_lport_num_by_sub_slot(int32_t sub_slot, int32_t *lport_num) {
    if (!lport_num) {
        DM_LOG(notice, "param error!\n");
        return -1;
    }
    if (sub_slot != 0) {
        DM_LOG(notice, "\n");
        return -1;
    }
    *lport_num = ndm_get_my_lport_num();
    return 0;
}

int32_t ndm_get_my_card_multi_lport(int32_t *lports, int32_t *num) {
    SharedCacheLock lock;
    return _ndm_get_my_card_multi_lport(lports, num, /*rt=*/0);
}

// The Caller is taken here: within the lambda it would name the lambda in the log.
int32_t _ndm_get_my_lchips(int32_t **chips, uint8_t rt) {
    if (!chips) {
        DM_LOG(notice, "param error!\n");
        return -1;
    }
    *chips = nullptr;
    ChipArray types = make_chip_array(chip_room);
    if (!types) return -1;
    int32_t chip_num = -1;
    const auto take_chips = [&, caller = Caller{}](const PDev__DmCardStattrT &card) {
        if (put_chip_types(card, room_for(card), types, caller) == 0) chip_num = card.chip_num;
        return 0;
    };
    if (answer_from_my_card(rt, take_chips) != 0) {
        DM_LOG(notice, "__ndm_get_my_card_obj_rt fail\n");
        return -1;
    }
    if (chip_num < 0) return -1;
    *chips = types.release();
    return chip_num;
}

int32_t ndm_get_my_lchips(int32_t **chips) {
    SharedCacheLock lock;
    return _ndm_get_my_lchips(chips, /*rt=*/0);
}

int32_t _ndm_get_chip_type_by_card_type(int32_t card_type, int32_t **chip_types, int32_t *num, uint8_t rt) {
    if (!chip_types || !num) return -1;
    *chip_types = nullptr;
    ChipArray types = make_chip_array(chip_room);
    if (!types) return -1;
    int32_t put = -1;
    const auto take_chips = [&, caller = Caller{}](const PDev__DmCardStattrT &card) {
        if (card.chip_num >= 0 && card.chip_attr_array) *num = static_cast<int32_t>(card.n_chip_attr_array);
        put = put_chip_types(card, INT32_MAX, types, caller);
        return 0;
    };
    if (answer_from_card(card_type, rt, take_chips) != 0) {
        DM_LOG(notice, "ndm_get_card_obj_by_type %d fail\n", card_type);
        return -1;
    }
    if (put != 0) return -1;
    *chip_types = types.release();
    return 0;
}

int32_t ndm_get_chip_type_by_card_type(int32_t card_type, int32_t **chip_types, int32_t *num) {
    SharedCacheLock lock;
    return _ndm_get_chip_type_by_card_type(card_type, chip_types, num, /*rt=*/0);
}

int32_t _ndm_get_chip_family(int32_t chip_type, uint8_t rt) {
    int32_t family;
    const int32_t ret = ndm_get_chip_obj_by_type(chip_type, &family, rt);
    if (ret == 0) return family;
    DM_LOG(notice, "ndm_get_chip_obj_by_type ret:%d, chip_sta:%pl\n", ret, static_cast<void *>(nullptr));
    return -1;
}

int32_t ndm_get_chip_family(int32_t chip_type) {
    SharedCacheLock lock;
    return _ndm_get_chip_family(chip_type, /*rt=*/0);
}

int32_t ndm_get_poe_support_by_objid(uint32_t objid, uint8_t *support) {
    SharedCacheLock lock;
    return _ndm_get_poe_support_by_objid(objid, support, /*rt=*/0);
}

int32_t ndm_get_hpoe_support_by_objid(uint32_t objid, uint8_t *support) {
    SharedCacheLock lock;
    return _ndm_get_hpoe_support_by_objid(objid, support, /*rt=*/0);
}
