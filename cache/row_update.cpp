// Store, replace, remove and sweep. The live path, the application of a scan, dm_cache_set_obj and the reads that cache
// what they find all come through here. Under the cache lock.
#include "cache/row_update.h"

#include "base/rows.h"
#include "cache/status.h"
#include "port_index/trees.h"

namespace dm {
namespace {

int32_t put_message(int32_t type, OwnedMessage message) DM_REQUIRES_LOCK {
    obj_sub_entry &row = obj_sub_list[type];
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

// The ports at a static port's place take their keys from it: they leave their trees before it changes and come back
// after. One that comes again as it was, as all do when the store is scanned again, leaves them alone.
int32_t put_static_port(OwnedMessage message) DM_REQUIRES_LOCK {
    const obj_sub_entry &row = obj_sub_list[DM_ROW_PORT_STATIC];
    dm_cache_list_node *node = dm_cache_list_find(row.obj_list, row.cmp_func, message.get());
    if (node && same_content(node->obj, message.get())) {
        node->dirty = 0;
        return 1;
    }
    const PDev__PortIndex place = *as<PDev__PortStatic>(message.get())->index;
    if (node) unindex_ports_at(place);
    const int32_t result = put_message(DM_ROW_PORT_STATIC, std::move(message));
    index_ports_at(place);
    return result;
}

OwnedNode take_out(int32_t type, dm_cache_list_node *node) DM_REQUIRES_LOCK {
    obj_sub_entry &row = obj_sub_list[type];
    unindex_element(row, node);
    if (type == DM_ROW_PORT_STATIC) unindex_ports_at(*as<PDev__PortStatic>(node->obj)->index);
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

    OwnedMessage message(copy);
    const int32_t result =
        type == DM_ROW_PORT_STATIC ? put_static_port(std::move(message)) : put_message(type, std::move(message));
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
