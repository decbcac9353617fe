// Store, replace, remove and sweep. The live path, the application of a scan, dm_cache_set_obj and the reads that cache
// what they find all come through here. The caller holds the cache lock.
#include "cache/row_update.h"

#include "base/row_table.h"
#include "cache/events.h"
#include "cache/status.h"
#include "port_index/trees.h"

namespace dm {
namespace {

// Changes of all rows, counted; and the count at which an object of a row last went, or may have gone. An element carries
// the low half of the count at its own last change.
uint64_t changes = 0;
uint64_t last_removal[DM_ROW_COUNT];

void note_change(dm_cache_list_node *node) DM_REQUIRES_LOCK {
    node->changed = static_cast<uint32_t>(++changes);
}

dm_cache_list_node *find(int32_t type, const ProtobufCMessage *obj) DM_REQUIRES_SHARED {
    const obj_sub_entry &row = obj_sub_list[type];
    return dm_cache_list_find(row.obj_list, row.cmp_func, obj);
}

// What a scan brings again as it was changes nothing but the element's marks.
int32_t come_again(int32_t type, dm_cache_list_node *node, uint8_t by) DM_REQUIRES_LOCK {
    node->dirty = 0;
    if (node->stored && by == of_store) node->stored = of_store;
    note_change(node);
    refresh_element(obj_sub_list[type], node);
    note_unchanged(type, node);
    return 1;
}

int32_t replace(int32_t type, dm_cache_list_node *node, StoredMessage message, uint8_t by) DM_REQUIRES_LOCK {
    list_replace(node, std::move(message));
    node->stored = by;
    note_change(node);
    move_element(obj_sub_list[type], node);
    if (type == DM_ROW_PORT_STATIC) move_ports_at(*as<PDev__PortStatic>(node->obj)->index);
    return 1;
}

int32_t append(int32_t type, StoredMessage message, uint8_t by) DM_REQUIRES_LOCK {
    const obj_sub_entry &row = obj_sub_list[type];
    dm_cache_list_node *node = list_append(row.obj_list, std::move(message));
    if (!node) return -1;
    node->stored = by;
    note_change(node);
    index_element(row, node);
    if (type == DM_ROW_PORT_STATIC) index_ports_at(*as<PDev__PortStatic>(node->obj)->index);
    status_objects(type, row.obj_list->count);
    return 0;
}

int32_t put_message(int32_t type, dm_cache_list_node *node, StoredMessage message, uint8_t by) DM_REQUIRES_LOCK {
    OwnedEvent event;
    if (const int32_t code = begin_event(type, node, message.get(), event); code != 0) return code;
    const int32_t result = node ? replace(type, node, std::move(message), by) : append(type, std::move(message), by);
    if (result >= 0) note_event(std::move(event));
    return result;
}

// The ports at a static port's place take their keys from it.
Removed take_out(int32_t type, dm_cache_list_node *node, int32_t what) DM_REQUIRES_LOCK {
    obj_sub_entry &row = obj_sub_list[type];
    unindex_element(row, node);
    if (type == DM_ROW_PORT_STATIC && !key_missing(row, node->obj))
        unindex_ports_at(*as<PDev__PortStatic>(node->obj)->index);
    OwnedNode taken = list_take(row.obj_list, node);
    last_removal[type] = ++changes;
    status_objects(type, row.obj_list->count);
    ProtobufCMessage *const message = note_removed(type, what, taken);
    return {message, std::move(taken), taken ? nullptr : share(message)};
}

// Of the row's kind and with its key: only such an object is looked into.
bool can_hold(int32_t type, const ProtobufCMessage *obj) {
    const obj_sub_entry &row = obj_sub_list[type];
    return row.obj_list && is_kind(obj, row.obj_tmpl->descriptor) && !key_missing(row, obj);
}

// Told before an object that is not there yet is copied, so that a flood of what has no room costs a look-up each.
bool has_room(int32_t type) DM_REQUIRES_LOCK {
    if (obj_sub_list[type].obj_list->count < DM_CACHE_LIST_LIMIT) return true;
    status_no_room(type);
    return false;
}

// Of an object that the row can hold.
int32_t store_held(int32_t type, const ProtobufCMessage *obj, uint8_t by) DM_REQUIRES_LOCK {
    dm_cache_list_node *node = find(type, obj);
    if (node && same_content(node->obj, obj)) return come_again(type, node, by);
    if (!node && !has_room(type)) return -1;
    StoredMessage message;
    if (const int32_t code = store_copy(obj, obj->descriptor, message); code != 0) return code;
    return put_message(type, node, std::move(message), by);
}

bool changed_since(const dm_cache_list_node *node, uint64_t mark) DM_REQUIRES_SHARED {
    return static_cast<uint32_t>(changes) - node->changed < changes - mark;
}

bool overtaken(int32_t type, const ProtobufCMessage *obj, uint64_t since) DM_REQUIRES_LOCK {
    if (since == never_overtaken) return false;
    if (last_removal[type] > since) return true;
    const dm_cache_list_node *node = find(type, obj);
    return node && changed_since(node, since);
}

}  // namespace

int32_t store_object(int32_t type, const ProtobufCMessage *obj) {
    return can_hold(type, obj) ? store_held(type, obj, of_store) : -1;
}

int32_t store_shared(int32_t type, StoredMessage message) {
    if (!can_hold(type, message.get())) return -1;
    dm_cache_list_node *node = find(type, message.get());
    if (node && same_content(node->obj, message.get())) return come_again(type, node, of_store);
    if (!node && !has_room(type)) return -1;
    return put_message(type, node, std::move(message), of_store);
}

StoredMessage cached_equal(int32_t type, const ProtobufCMessage *obj) {
    if (!can_hold(type, obj)) return nullptr;
    const dm_cache_list_node *node = find(type, obj);
    return node && node->stored && same_content(node->obj, obj) ? share(node->obj) : nullptr;
}

uint64_t change_mark() {
    return changes;
}

bool is_where_it_was(int32_t type, const dm_cache_list_node *node, uint64_t mark) {
    return last_removal[type] <= mark || !changed_since(node, mark);
}

int32_t offer_object(int32_t type, const ProtobufCMessage *obj, uint64_t since) {
    if (obj_sub_list[type].flag & DM_CACHE_NO_STORE) return kept_out;
    if (!can_hold(type, obj)) return -1;
    if (overtaken(type, obj, since)) return kept_out;
    const int32_t result = store_held(type, obj, since == never_overtaken ? of_client : of_store);
    // The object is as old as its read: what the same read brings after it is not overtaken by it.
    if (result >= 0 && since != never_overtaken) find(type, obj)->changed = static_cast<uint32_t>(since);
    return result;
}

// A delete that finds nothing counts too: a read that began before it may be about to bring the object.
Removed remove_object(int32_t type, const ProtobufCMessage *probe) {
    last_removal[type] = ++changes;
    dm_cache_list_node *node = can_hold(type, probe) ? find(type, probe) : nullptr;
    return node ? take_out(type, node, DM_CACHE_EVENT_DELETED) : Removed{};
}

void mark_dirty(int32_t type) {
    for (dm_cache_list_node &node : Elements(obj_sub_list[type].obj_list)) node.dirty = 1;
    last_removal[type] = ++changes;
}

uint32_t sweep(int32_t type) {
    uint32_t removed = 0;
    for (dm_cache_list_node &node : Elements(obj_sub_list[type].obj_list)) {
        if (!node.dirty) continue;
        take_out(type, &node, DM_CACHE_EVENT_SWEPT);
        ++removed;
    }
    return removed;
}

void discard_row(int32_t type) {
    obj_sub_entry &row = obj_sub_list[type];
    if (!row.obj_list) return;
    last_removal[type] = ++changes;
    free_index_set(&row);
    links_changed(&row.obj_list->count);  // no table follows what goes now
    for (dm_cache_list_node &node : Elements(row.obj_list)) dm_cache_list_free(&node);
    list_init(&row.obj_list->head);
    row.obj_list->count = 0;
    status_objects(type, 0);
}

}  // namespace dm
