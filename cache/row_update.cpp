// Store, replace, remove and sweep. The live path, the application of a scan, dm_cache_set_obj and the reads that cache
// what they find all come through here. Under the cache lock.
#include "cache/row_update.h"

#include "base/rows.h"
#include "cache/status.h"
#include "port_index/trees.h"

namespace dm {
namespace {

// Changes of all rows, counted; and the count at which an object of a row last went, or may have gone.
uint64_t changes = 0;
uint64_t last_removal[DM_ROW_COUNT];

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
    node->changed = ++changes;
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
        node->changed = ++changes;
        return 1;
    }
    const PDev__PortIndex place = *as<PDev__PortStatic>(message.get())->index;
    if (node) unindex_ports_at(place);
    const int32_t result = put_message(DM_ROW_PORT_STATIC, std::move(message));
    if (result >= 0) index_ports_at(place);
    return result;
}

OwnedNode take_out(int32_t type, dm_cache_list_node *node) DM_REQUIRES_LOCK {
    obj_sub_entry &row = obj_sub_list[type];
    unindex_element(row, node);
    if (type == DM_ROW_PORT_STATIC && !key_missing(row, node->obj))
        unindex_ports_at(*as<PDev__PortStatic>(node->obj)->index);
    dm_list_del_with_limit(&node->link, &row.obj_list->count);
    last_removal[type] = ++changes;
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

uint64_t change_mark() {
    return changes;
}

namespace {

bool overtaken(int32_t type, const ProtobufCMessage *obj, uint64_t since) DM_REQUIRES_LOCK {
    if (since == never_overtaken) return false;
    if (last_removal[type] > since) return true;
    const obj_sub_entry &row = obj_sub_list[type];
    const dm_cache_list_node *node = dm_cache_list_find(row.obj_list, row.cmp_func, obj);
    return node && node->changed > since;
}

}  // namespace

int32_t offer_object(int32_t type, const ProtobufCMessage *obj, uint64_t since) {
    if (obj_sub_list[type].flag & DM_CACHE_NO_STORE || overtaken(type, obj, since)) return kept_out;
    return store_object(type, obj);
}

// A delete that finds nothing counts too: a read that began before it may be about to bring the object.
OwnedNode remove_object(int32_t type, const ProtobufCMessage *probe) {
    last_removal[type] = ++changes;
    obj_sub_entry &row = obj_sub_list[type];
    dm_cache_list_node *node = dm_cache_list_find(row.obj_list, row.cmp_func, probe);
    return node ? take_out(type, node) : nullptr;
}

void mark_dirty(int32_t type) {
    for (dm_cache_list_node &node : Elements(obj_sub_list[type].obj_list)) node.dirty = 1;
    last_removal[type] = ++changes;
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
    last_removal[type] = ++changes;
    free_index_set(&row);
    for (dm_cache_list_node &node : Elements(row.obj_list)) dm_cache_list_free(&node);
    list_init(&row.obj_list->head);
    row.obj_list->count = 0;
    status_objects(type, 0);
}

}  // namespace dm
