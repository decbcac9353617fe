// Answers ndm/card_ports.h: card types of slots, port identifiers, the ports of a card and which sub-card owns them, the
// VSD of a port. Takes the cache lock for each read of the cache, and holds it for none of the store.
#include "query/ndm_port.h"

#include "base/store_message.h"
#include "cache/events.h"
#include "cache/status.h"
#include "tq_dm_cache/dm_port_index.h"
#include "tq_dm_cache/ndm/card_ports.h"
#include "tq_dm_cache/ndm/port_lookup.h"

static constexpr dm::LogTag log_tag{"ndm_port"};

namespace dm {
namespace {

constexpr int32_t highest_lport = 288;

// The first port of a card that has a logical port number; null when there is none.
const PDev__DmPortAttrT *find_port(const PDev__DmCardStattrT &card, int32_t lport) {
    const PDev__DmPortAttrT *found = nullptr;
    for_ports_of(card, [&](const PDev__DmPortAttrT &port) {
        if (port.lport == lport) found = &port;
        return found != nullptr;
    });
    return found;
}

// The attributes of the type of card that sits in a slot itself, which lists the ports of its sub-cards too.
const PDev__DmCardStattrT *carrier_card(int32_t devid, int32_t slot) DM_REQUIRES_SHARED {
    int32_t card_type;
    if (ndm_get_card_type_by_slot(devid, slot, 0, &card_type, /*rt=*/0) != 0) return nullptr;
    return indexed<PDev__DmCardStattrT>(by_type, card_type);
}

int32_t put_facts(const PDev__DmPortAttrT &port, PortFacts *out) {
    *out = {number(port.type), port.poe_support != 0, port.hpoe_support != 0};
    return 0;
}

int32_t ndm_get_subcard_port_attr(const PDev__DmPortAttrT &carrier_port, uint32_t objid, PortFacts *out) {
    const Port port = port_of(objid);
    int32_t sub_type;
    if (ndm_get_card_type_by_slot(port.devid, port.slot, carrier_port.owner_subcard, &sub_type, /*rt=*/0) != 0)
        return -1;
    SharedCacheLock lock;
    const auto *sub_card = indexed<PDev__DmCardStattrT>(by_type, sub_type);
    if (!sub_card) return -1;
    for (const PDev__DmPortAttrT *attr : entries(sub_card->extended_port_array, sub_card->n_extended_port_array))
        if (attr->logic_id == carrier_port.logic_id) return put_facts(*attr, out);
    return -1;
}

int32_t ndm_find_port_attr_in_card(const PDev__DmCardStattrT &card, uint32_t objid, PortFacts *out,
                                   uint8_t follow_subcard) {
    const PDev__DmPortAttrT *port = find_port(card, port_of(objid).lport);
    if (!port) return -1;
    if (follow_subcard != 1 || port->owner_subcard == 0) return put_facts(*port, out);
    return ndm_get_subcard_port_attr(*port, objid, out);
}

// Lets `better` choose among the logical ports of a card's sub-slot.
template <class Better>
int32_t put_lport_bound(int32_t devid, int32_t slot, int32_t sslot, int32_t *out, const Better &better) {
    if (!out) return -1;
    SharedCacheLock lock;
    const PDev__DmCardStattrT *card = carrier_card(devid, slot);
    if (!card) return -1;
    *out = -1;
    for_ports_of(*card, [&](const PDev__DmPortAttrT &port) {
        if (port.owner_subcard == sslot && better(port.lport, *out)) *out = port.lport;
        return false;
    });
    return *out >= 0 ? 0 : -1;
}

int32_t put_cached_vsdid(uint32_t objid, int32_t *vsdid) {
    const Port port = port_of(objid);
    SharedCacheLock lock;
    const auto *found = indexed<PDev__VsdPort>(by_ss_phyid, ss_phyid_key(port.devid, port.slot, port.lport));
    if (!found) return -1;
    *vsdid = found->index->t_vsdid;
    return 0;
}

// A scan of the global ports for one port. The callback's private word points at its objid, which comes first.
struct PortScan {
    uint32_t objid;
    uint64_t since;
};

// Adds a scanned object unless the cache knows better: true when it was added.
bool add_scanned(int32_t type, const ProtobufCMessage *obj, uint64_t since) {
    int32_t result;
    {
        CacheLock lock;
        result = offer_object(type, obj, since);
    }
    deliver_soon();
    if (result < 0) status_refused(type, obj);
    return result == DM_CACHE_ADDED;
}

bool static_port_cached(const PDev__PortIndex &place) {
    SharedCacheLock lock;
    return cached<PDev__PortStatic>(place) != nullptr;
}

// Makes sure that a port's static port is cached: without it the port could not be indexed.
bool need_static_port(const PDev__PortIndex &place, Caller caller = Caller{}) {
    if (static_port_cached(place)) return true;
    const StoreRead<PDev__PortStatic> read(ReadBy::object, place, caller, obj_sub_list[DM_ROW_PORT_STATIC].db_id);
    return read && (add_scanned(DM_ROW_PORT_STATIC, read.obj(), read.since()) || static_port_cached(place));
}

int32_t ndm_scan_globalport_by_objid_cb(tq_mom_handle *, store_msg *msg, void *priv) {
    if (!msg || !priv || !carries_object(*msg)) return -1;
    const auto &scan = *static_cast<const PortScan *>(priv);
    const ProtobufCMessage *obj = scanned_object(*msg, DM_ROW_VSD_PORT);
    if (!obj) return -1;

    const Port wanted = port_of(scan.objid);
    const auto &port = *as<PDev__VsdPort>(obj);
    if (!port.index || port.dev != static_cast<uint32_t>(wanted.devid) || port.physlot != wanted.slot ||
        port.index->t_sslot != wanted.sslot)
        return 0;
    PDev__PortIndex place = P_DEV__PORT_INDEX__INIT;
    place.t_dev = wanted.devid;
    place.t_slot = port.index->t_slot;
    place.t_port = port.index->t_port;
    place.t_type = port.index->t_type;
    place.t_sslot = port.index->t_sslot;
    if (!need_static_port(place)) return -1;
    return add_scanned(DM_ROW_VSD_PORT, obj, scan.since) ? 0 : -1;
}

int32_t _ndm_get_vsdid_by_objid(uint32_t objid, int32_t *vsdid, uint8_t rt) {
    if (!vsdid) return -1;
    if (put_cached_vsdid(objid, vsdid) == 0) return 0;
    if (rt != 1) return -1;
    PortScan scan = {objid, change_mark_now()};
    if (scan_store(DM_ROW_VSD_PORT, ndm_scan_globalport_by_objid_cb, &scan) != 0) return -1;
    return put_cached_vsdid(objid, vsdid);
}

}  // namespace

const ProtobufCMessage *scanned_object(const store_msg &msg, int32_t row, Caller caller) {
    const ProtobufCMessage *obj = carried_object(msg, msg.cmd != TQ_MOM_CMD_SET, log_tag, caller);
    if (obj && is_kind(obj, kind_of_row(row)->descriptor)) return obj;
    if (brings_change(msg)) status_refused(row, named_object(msg));
    return nullptr;
}

int32_t ndm_get_card_obj_by_type(int32_t card_type, PDev__DmCardStattrT **card, uint8_t rt) {
    return copy_or_read(ndm_get_card_static_by_type, card_type, card_attributes_key(card_type), card, rt);
}

int32_t ndm_get_port_static_by_objid(uint32_t objid, PortFacts *port, uint8_t rt, uint8_t follow_subcard) {
    const Port place = port_of(objid);
    int32_t card_type;
    if (ndm_get_card_type_by_slot(place.devid, place.slot, place.sslot, &card_type, rt) != 0) return -1;
    {
        SharedCacheLock lock;
        if (const auto *card = indexed<PDev__DmCardStattrT>(by_type, card_type))
            return ndm_find_port_attr_in_card(*card, objid, port, follow_subcard);
    }
    if (rt != 1) return -1;
    const StoreRead<PDev__DmCardStattrT> read(ReadBy::object, card_attributes_key(card_type));
    return read ? ndm_find_port_attr_in_card(*read, objid, port, follow_subcard) : -1;
}

}  // namespace dm

using namespace dm;

int32_t ndm_get_card_type_by_slot(int32_t devid, int32_t slot, int32_t sslot, int32_t *card_type, uint8_t rt) {
    if (devid == 0) return read_field(local_card_key(slot, sslot), &PDev__LocalCardInfo::card_type, card_type, rt);
    return read_field(card_key(devid, slot, sslot), &PDev__CardInfo::config_dev_type, card_type, rt);
}

int32_t ndm_get_objid_by_slot_lport(int32_t devid, int32_t slot, int32_t lport, uint32_t *objid) {
    if (!objid) {
        DM_LOG(notice, "param error!\n");
        return -1;
    }
    DM_LOG(trace, "devid:%d, slot:%d, lport:%d\n", devid, slot, lport);
    if (!valid_devid(devid) || !valid_slot(slot) || lport < 0 || lport > highest_lport) {
        DM_LOG(notice, "Invalid parameter\n");
        return -1;
    }
    *objid = objid_of({devid, slot, 0, lport});
    DM_LOG(trace, "objid = 0x%x!\n", *objid);
    return 0;
}

int32_t ndm_get_port_type(uint32_t objid, int32_t *port_type) {
    if (!port_type) {
        DM_LOG(notice, "param error!\n");
        return -1;
    }
    SharedCacheLock lock;
    DM_LOG(trace, "param objid = %x!\n", objid);
    if (phy_type(objid) != phy_port && phy_type(objid) != phy_other_port) {
        DM_LOG(notice, "objid is invalid!\n");
        return -1;
    }
    PortFacts port;
    if (ndm_get_port_static_by_objid(objid, &port, /*rt=*/0, /*follow_subcard=*/1) != 0) return -1;
    *port_type = port.type;
    return 0;
}

int32_t ndm_get_sslot_by_lport(int32_t devid, int32_t slot, int32_t lport) {
    SharedCacheLock lock;
    const PDev__DmCardStattrT *card = carrier_card(devid, slot);
    const PDev__DmPortAttrT *port = card ? find_port(*card, lport) : nullptr;
    return port ? port->owner_subcard : -1;
}

int32_t ndm_get_max_lport_by_slot(int32_t devid, int32_t slot, int32_t sslot, int32_t *max_lport) {
    return put_lport_bound(devid, slot, sslot, max_lport, [](int32_t lport, int32_t best) { return lport > best; });
}

int32_t ndm_get_min_lport_by_slot(int32_t devid, int32_t slot, int32_t sslot, int32_t *min_lport) {
    return put_lport_bound(devid, slot, sslot, min_lport,
                           [](int32_t lport, int32_t best) { return best == -1 || lport < best; });
}

int32_t ndm_get_max_port_num(int32_t devid, int32_t slot, int32_t *max_lport) {
    return ndm_get_max_lport_by_slot(devid, slot, /*sslot=*/0, max_lport);
}

int32_t ndm_get_min_port_num(int32_t devid, int32_t slot, int32_t *min_lport) {
    return ndm_get_min_lport_by_slot(devid, slot, /*sslot=*/0, min_lport);
}

int32_t ndm_get_vsdid_by_objid(uint32_t objid, int32_t *vsdid) {
    SharedCacheLock lock;
    return _ndm_get_vsdid_by_objid(objid, vsdid, /*rt=*/0);
}

int32_t ndm_get_vsdid_by_objid_rt(uint32_t objid, int32_t *vsdid) {
    return _ndm_get_vsdid_by_objid(objid, vsdid, /*rt=*/1);
}
