// Store, replace, remove and sweep. The live path, the application of a scan, dm_cache_set_obj and the reads that cache
// what they find all come through here. Under the cache lock.
#include "cache/row_update.h"

#include "base/rows.h"
#include "cache/status.h"
#include "port_index/trees.h"

namespace dm {
namespace {

// Where a static port sits; null for objects of other rows. Ports at that place take their keys from it, so they leave
// their trees before it changes and come back after.
const PDev__PortIndex *static_port_place(int32_t type, const ProtobufCMessage *obj) {
    return type == DM_ROW_PORT_STATIC ? as<PDev__PortStatic>(obj)->index : nullptr;
}

int32_t put_message(obj_sub_entry &row, OwnedMessage message) DM_REQUIRES_LOCK {
    dm_cache_list_node *node = dm_cache_list_find(row.obj_list, row.cmp_func, message.get());
    const bool replaced = node;
    if (replaced) {
        unindex_element(row, node);
        list_replace(node, std::move(message));
    } else {
        node = list_append(row.obj_list, std::move(message));
        if (!node) return -1;
    }
    index_element(row, node);
    return replaced ? 1 : 0;
}

OwnedNode take_out(int32_t type, dm_cache_list_node *node) DM_REQUIRES_LOCK {
    obj_sub_entry &row = obj_sub_list[type];
    unindex_element(row, node);
    if (const PDev__PortIndex *place = static_port_place(type, node->obj)) unindex_ports_at(*place);
    dm_list_del_with_limit(&node->link, &row.obj_list->count);
    status_objects(type, row.obj_list->count);
    return OwnedNode(node);
}

}  // namespace

int32_t store_object(int32_t type, const ProtobufCMessage *obj) {
    obj_sub_entry &row = obj_sub_list[type];
    if (!row.obj_list || key_missing(row, obj)) return -1;
    ProtobufCMessage *copy = nullptr;
    if (const int32_t code = dm_cache_copy_obj(obj, obj->descriptor, &copy); code != 0) return code;

    const PDev__PortIndex *place = static_port_place(type, obj);
    if (place) unindex_ports_at(*place);
    const int32_t result = put_message(row, OwnedMessage(copy));
    if (place) index_ports_at(*place);
    status_objects(type, row.obj_list->count);
    return result;
}

OwnedNode remove_object(int32_t type, const ProtobufCMessage *probe) {
    obj_sub_entry &row = obj_sub_list[type];
    dm_cache_list_node *node = dm_cache_list_find(row.obj_list, row.cmp_func, probe);
    return node ? take_out(type, node) : nullptr;
}

void mark_dirty(int32_t type) {
    for (dm_cache_list_node &node : Elements(obj_sub_list[type].obj_list)) node.dirty = 1;
}

uint32_t sweep(int32_t type) {
    uint32_t removed = 0;
    for (dm_cache_list_node &node : Elements(obj_sub_list[type].obj_list)) {
        if (!node.dirty) continue;
        take_out(type, &node);
        ++removed;
    }
    return removed;
}

void discard_row(int32_t type) {
    obj_sub_entry &row = obj_sub_list[type];
    if (!row.obj_list) return;
    free_index_set(&row);
    for (dm_cache_list_node &node : Elements(row.obj_list)) dm_cache_list_free(&node);
    list_init(&row.obj_list->head);
    row.obj_list->count = 0;
    status_objects(type, 0);
}

}  // namespace dm
