// Ports and static attributes by their index keys: one tree search and a copy. Logs nothing. Takes the cache lock, from
// the search until the copy is made.
#include "port_index/lookups.h"

#include "base/list.h"
#include "base/trace.h"
#include "tq_dm_cache/ndm/port_lookup.h"

namespace dm {

dm_cache_list_node *find_indexed(int32_t row, int32_t tree, int64_t key) {
    ndm_cache_tree *set = obj_sub_list[row].port_tree;
    auto *node = set ? static_cast<dm_cache_list_node *>(dm_rbtree_find_node(&set->root[tree], key)) : nullptr;
    if (is_to_be_told(node)) tell_tree_read(row, tree, key, node ? node->obj : nullptr);
    return node;
}

namespace {

constexpr int32_t chip_ports = 256;

int32_t copy_out(const ProtobufCMessage *message, void *out) {
    return message ? dm_cache_copy_obj(message, message->descriptor, out) : -1;
}

int32_t copy_object(int32_t row, int32_t tree, int64_t key, void *out) {
    if (!out) return -1;
    SharedCacheLock lock;
    const dm_cache_list_node *node = find_indexed(row, tree, key);
    return copy_out(node ? node->obj : nullptr, out);
}

// The static port of the port with this key; null when the row has no such port.
const ProtobufCMessage *static_port_in(int32_t row, PortTree tree, int64_t key) DM_REQUIRES_SHARED {
    const dm_cache_list_node *node = find_indexed(row, tree, key);
    return node && node->key ? node->key->static_port : nullptr;
}

int32_t copy_static_port(int32_t row, PortTree tree, int64_t key, void *out) {
    if (!out) return -1;
    SharedCacheLock lock;
    return copy_out(static_port_in(row, tree, key), out);
}

// Of a global port, else of a port of this VSD.
int32_t copy_any_static_port(PortTree tree, int64_t key, void *out) {
    if (!out) return -1;
    SharedCacheLock lock;
    const ProtobufCMessage *port = static_port_in(DM_ROW_VSD_PORT, tree, key);
    return copy_out(port ? port : static_port_in(DM_ROW_VSD_PORT_ATTR, tree, key), out);
}

// Asks for each port of a chip and packs what is found.
template <class Find> int32_t ports_in_chip(void *out, int32_t *count, const Find &find) {
    if (!out || !count) return -1;
    auto **ports = static_cast<ProtobufCMessage **>(out);
    int32_t found = 0;
    SharedCacheLock lock;
    for (int32_t port = 0; port < chip_ports; ++port)
        if (find(port, &ports[found]) == 0) ++found;
    *count = found;
    return 0;
}

}  // namespace
}  // namespace dm

using namespace dm;

int32_t ndm_get_local_port_by_unit_cport(int32_t unit, int32_t cport, void *out) {
    return copy_object(DM_ROW_UNIT_CPORT_INFO, by_unit_cport, unit_cport_key(unit, cport), out);
}

int32_t ndm_get_local_port_by_lport(int32_t lport, void *out) {
    return copy_object(DM_ROW_UNIT_CPORT_INFO, by_lport, lport, out);
}

int32_t ndm_get_global_port_by_ifx(int32_t vsdid, int32_t ifx, void *out) {
    return copy_object(DM_ROW_VSD_PORT, by_ifx, ifx_key(vsdid, ifx), out);
}

int32_t ndm_get_global_port_by_dm_phyid(int32_t dev, int32_t physlot, int32_t unit, int32_t port, void *out) {
    return copy_object(DM_ROW_VSD_PORT, by_dm_phyid, dm_phyid_key(dev, physlot, unit, port), out);
}

int32_t ndm_get_global_port_by_ss_phyid(int32_t dev, int32_t physlot, int32_t lport, void *out) {
    return copy_object(DM_ROW_VSD_PORT, by_ss_phyid, ss_phyid_key(dev, physlot, lport), out);
}

int32_t ndm_get_global_port_by_lsm_key_with_subslot(int32_t dev, int32_t slot, int32_t sslot, int32_t port,
                                                    int32_t type, void *out) {
    return copy_object(DM_ROW_VSD_PORT, by_lsm, lsm_key(sslot, type, dev, slot, port), out);
}

int32_t ndm_get_global_port_by_lsm_key(int32_t dev, int32_t slot, int32_t port, int32_t type, void *out) {
    return ndm_get_global_port_by_lsm_key_with_subslot(dev, slot, /*sslot=*/0, port, type, out);
}

int32_t ndm_get_vsd_port_by_ifx(int32_t ifx, void *out) {
    return copy_object(DM_ROW_VSD_PORT_ATTR, by_ifx, ifx, out);
}

int32_t ndm_get_vsd_port_by_dm_phyid(int32_t dev, int32_t physlot, int32_t unit, int32_t port, void *out) {
    return copy_object(DM_ROW_VSD_PORT_ATTR, by_dm_phyid, dm_phyid_key(dev, physlot, unit, port), out);
}

int32_t ndm_get_vsd_port_by_ss_phyid(int32_t dev, int32_t physlot, int32_t lport, void *out) {
    return copy_object(DM_ROW_VSD_PORT_ATTR, by_ss_phyid, ss_phyid_key(dev, physlot, lport), out);
}

int32_t ndm_get_vsd_port_by_lsm_key_with_subslot(int32_t dev, int32_t slot, int32_t sslot, int32_t port, int32_t type,
                                                 void *out) {
    return copy_object(DM_ROW_VSD_PORT_ATTR, by_lsm, lsm_key(sslot, type, dev, slot, port), out);
}

int32_t ndm_get_vsd_port_by_lsm_key(int32_t dev, int32_t slot, int32_t port, int32_t type, void *out) {
    return ndm_get_vsd_port_by_lsm_key_with_subslot(dev, slot, /*sslot=*/0, port, type, out);
}

int32_t ndm_get_static_port_by_ifx(int32_t vsdid, int32_t ifx, void *out) {
    return copy_static_port(DM_ROW_VSD_PORT, by_ifx, ifx_key(vsdid, ifx), out);
}

int32_t ndm_get_static_port_by_ifx_in_vsd(int32_t ifx, void *out) {
    return copy_static_port(DM_ROW_VSD_PORT_ATTR, by_ifx, ifx, out);
}

int32_t ndm_get_static_port_by_dm_phyid(int32_t dev, int32_t physlot, int32_t unit, int32_t port, void *out) {
    return copy_any_static_port(by_dm_phyid, dm_phyid_key(dev, physlot, unit, port), out);
}

int32_t ndm_get_static_port_by_ss_phyid(int32_t dev, int32_t physlot, int32_t lport, void *out) {
    return copy_any_static_port(by_ss_phyid, ss_phyid_key(dev, physlot, lport), out);
}

int32_t ndm_get_static_port_by_lsm_key_with_subslot(int32_t dev, int32_t slot, int32_t sslot, int32_t port,
                                                    int32_t type, void *out) {
    return copy_any_static_port(by_lsm, lsm_key(sslot, type, dev, slot, port), out);
}

int32_t ndm_get_static_port_by_lsm_key(int32_t dev, int32_t slot, int32_t port, int32_t type, void *out) {
    return ndm_get_static_port_by_lsm_key_with_subslot(dev, slot, /*sslot=*/0, port, type, out);
}

int32_t ndm_get_card_static_by_type(int32_t card_type, void *out) {
    return copy_object(DM_ROW_DM_CARD_STATTR, by_type, card_type, out);
}

int32_t ndm_get_chip_stattr_by_type(int32_t chip_type, void *out) {
    return copy_object(DM_ROW_DM_CHIP_STATTR, by_type, chip_type, out);
}

int32_t ndm_get_global_port_in_chip(int32_t dev, int32_t physlot, int32_t unit, void *out, int32_t *count) {
    return ports_in_chip(out, count, [=](int32_t port, void *to) {
        return ndm_get_global_port_by_dm_phyid(dev, physlot, unit, port, to);
    });
}

int32_t ndm_get_static_port_in_chip(int32_t dev, int32_t physlot, int32_t unit, void *out, int32_t *count) {
    return ports_in_chip(out, count, [=](int32_t port, void *to) {
        return ndm_get_static_port_by_dm_phyid(dev, physlot, unit, port, to);
    });
}

void ndm_port_obj_free(void *message) {
    if (message) protobuf_c_message_free_unpacked(static_cast<ProtobufCMessage *>(message), nullptr);
}
