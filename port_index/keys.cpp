// Key records: one builder for each index, and the list of static ports that the builders of global and VSD ports need.
// The caller holds the cache lock.
#include "port_index/keys.h"

#include "base/list.h"
#include "base/log.h"
#include "base/row_table.h"

static constexpr dm::LogTag log_tag{"dm_cache_port_obj"};

namespace dm {

uint32_t key_records_missing = 0;

namespace {

using Keys = int64_t[NDM_CACHE_TREES];

// Fills the element's key record, which is made if it has none. A refusal is logged for the builder that asked.
int32_t set_keys(dm_cache_list_node *node, const Keys &keys, ProtobufCMessage *static_port, Caller caller = Caller{}) {
    if (!node->key) node->key = static_cast<ndm_cache_key *>(calloc(1, sizeof(ndm_cache_key)));
    if (!node->key) {
        DM_LOG_AS(caller, failure, "malloc fail.\n");
        ++key_records_missing;
        return -1;
    }
    std::memcpy(node->key->key, keys, sizeof keys);
    node->key->static_port = static_port;
    return 0;
}

// The element's message with its key; null, logged, when either is missing.
template <class T> const T *keyed_message(const dm_cache_list_node *node, Caller caller = Caller{}) {
    const T *obj = node ? as<T>(node->obj) : nullptr;
    if (obj && obj->index) return obj;
    DM_LOG_AS(caller, failure, "param invalid.\n");
    return nullptr;
}

PDev__PortIndex place(int32_t dev, int32_t slot, int32_t sslot, int32_t port, int32_t type) {
    return {.base = {}, .t_dev = dev, .t_slot = slot, .t_port = port, .t_type = type, .t_sslot = sslot};
}

// The static port of a port, with its attributes; null, logged, when it is not cached or has none.
template <class T> PDev__PortStatic *static_port_of(const T *port, Caller caller = Caller{}) DM_REQUIRES_SHARED {
    const auto &idx = *port->index;
    PDev__PortStatic *found = find_static_port(place(idx.t_dev, idx.t_slot, idx.t_sslot, idx.t_port, idx.t_type));
    if (found && found->static_info) return found;
    DM_LOG_AS(caller, failure, "get static port fail, or static info invalid.\n");
    return nullptr;
}

int32_t ndm_local_port_gen_key(dm_cache_list_node *node) {
    const auto *obj = node ? as<PDev__UnitCportInfo>(node->obj) : nullptr;
    if (!obj || !obj->index || !obj->static_info) {
        DM_LOG(failure, "param invalid.\n");
        return -1;
    }
    Keys keys{};
    keys[by_unit_cport] = unit_cport_key(obj->index->unit, obj->index->cport);
    keys[by_lport] = obj->static_info->lport;
    return set_keys(node, keys, nullptr);
}

int32_t ndm_global_port_gen_key(dm_cache_list_node *node) DM_REQUIRES_LOCK {
    const auto *obj = keyed_message<PDev__VsdPort>(node);
    if (!obj) return -1;
    PDev__PortStatic *static_port = static_port_of(obj);
    if (!static_port) return -1;

    const PDev__VsdPortIndex &idx = *obj->index;
    const PDev__DmPortAttrT &attr = *static_port->static_info;
    Keys keys{};
    keys[by_ifx] = ifx_key(idx.t_vsdid, obj->ifx);
    keys[by_dm_phyid] = dm_phyid_key(obj->dev, obj->physlot, attr.unit, attr.port);
    keys[by_ss_phyid] = ss_phyid_key(obj->dev, obj->physlot, attr.lport);
    keys[by_lsm] = lsm_key(idx.t_sslot, idx.t_type, obj->dev, obj->slot, idx.t_port);
    return set_keys(node, keys, &static_port->base);
}

int32_t ndm_vsd_port_gen_key(dm_cache_list_node *node) DM_REQUIRES_LOCK {
    const auto *obj = keyed_message<PDev__VsdPortAttr>(node);
    if (!obj) return -1;
    PDev__PortStatic *static_port = static_port_of(obj);
    if (!static_port) return -1;

    const PDev__DmPortAttrT &attr = *static_port->static_info;
    Keys keys{};
    keys[by_ifx] = obj->ifx;
    keys[by_dm_phyid] = dm_phyid_key(obj->dev, obj->physlot, attr.unit, attr.port);
    keys[by_ss_phyid] = ss_phyid_key(obj->dev, obj->physlot, attr.lport);
    keys[by_lsm] = lsm_key(obj->index->t_sslot, number(attr.type), obj->dev, obj->slot, attr.user_port);
    return set_keys(node, keys, &static_port->base);
}

int32_t ndm_card_static_gen_key(dm_cache_list_node *node) {
    const auto *obj = keyed_message<PDev__DmCardStattrT>(node);
    return obj ? set_keys(node, {obj->index->type}, nullptr) : -1;
}

int32_t ndm_chip_static_gen_key(dm_cache_list_node *node) {
    const auto *obj = keyed_message<PDev__DmChipStattrT>(node);
    return obj ? set_keys(node, {obj->index->type}, nullptr) : -1;
}

}  // namespace

IndexPlan plan_of(Index index) {
    switch (index) {
        case Index::local_port:
            return {local_trees, ndm_local_port_gen_key};
        case Index::global_port:
            return {port_trees, ndm_global_port_gen_key};
        case Index::vsd_port:
            return {port_trees, ndm_vsd_port_gen_key};
        case Index::card_type:
            return {type_trees, ndm_card_static_gen_key};
        case Index::chip_type:
            return {type_trees, ndm_chip_static_gen_key};
        default:
            return {0, nullptr};
    }
}

PDev__PortStatic *find_static_port(const PDev__PortIndex &place) {
    const obj_sub_entry &row = obj_sub_list[DM_ROW_PORT_STATIC];
    if (const RowTable *table = table_for(row.obj_list, row.cmp_func)) {
        const dm_cache_list_node *node = find_in(*table, &place.base);
        return node ? reinterpret_cast<PDev__PortStatic *>(node->obj) : nullptr;
    }
    for (const dm_cache_list_node &node : Elements(row.obj_list)) {
        auto *port = reinterpret_cast<PDev__PortStatic *>(node.obj);
        if (port && port->index && same_place(*port->index, place)) return port;
    }
    return nullptr;
}

}  // namespace dm

int32_t ndm_get_static_port_by_index_with_subslot(int32_t t_dev, int32_t t_slot, int32_t t_sslot, int32_t t_port,
                                                  int32_t t_type, void *out) {
    if (!out) return -1;
    dm::caller_holds_lock();
    PDev__PortStatic *found = dm::find_static_port(dm::place(t_dev, t_slot, t_sslot, t_port, t_type));
    dm::put(out, found);
    return found ? 0 : -1;
}

int32_t ndm_get_static_port_by_index(int32_t t_dev, int32_t t_slot, int32_t t_port, int32_t t_type, void *out) {
    return ndm_get_static_port_by_index_with_subslot(t_dev, t_slot, /*t_sslot=*/0, t_port, t_type, out);
}
