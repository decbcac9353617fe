// The pieces of a row. Where a piece ended is found again by its objects: an element keeps its place in the list as long as it
// is not taken out, and no change but that of the element itself moves it. Elements are found by key, never by a pointer that
// was kept while the lock was free. Takes the cache lock, its shared side, for a piece.
#include "inspect/row_walk.h"

#include "base/row_table.h"
#include "cache/row_update.h"

namespace dm {
namespace {

void let_go_piece(RowWalk &walk) {
    for (uint32_t i = 0; i < walk.count; ++i) ReleaseStored{}(walk.objects[i]);
    walk.count = 0;
}

// The element behind the piece at hand; null when none of its objects is where it was. A row without a table is searched for the
// last object alone, as each search walks.
const dm_list_head *behind_piece(const RowWalk &walk, const obj_sub_entry &row) DM_REQUIRES_SHARED {
    const uint32_t tries = table_for(row.obj_list, row.cmp_func) ? walk.count : 1;
    for (uint32_t i = 0; i < tries; ++i) {
        const dm_cache_list_node *node =
            dm_cache_list_find(row.obj_list, row.cmp_func, walk.objects[walk.count - 1 - i]);
        if (node && is_where_it_was(walk.type, node, walk.mark)) return node->link.next;
    }
    return nullptr;
}

void tell_index(const obj_sub_entry &row, const dm_cache_list_node *node, dm_inspect_object &about) DM_REQUIRES_SHARED {
    ndm_cache_tree *const set = row.port_tree;
    if (!set) return;
    about.trees = static_cast<uint8_t>(set->tree_num);
    about.indexed = node->key != nullptr;
    for (int32_t i = 0; node->key && i < set->tree_num; ++i) {
        about.key[i] = node->key->key[i];
        const void *const found = dm_rbtree_find_node(&set->root[i], about.key[i]);
        about.found[i] = found == node ? DM_INSPECT_FINDS_OBJECT
                         : found       ? DM_INSPECT_FINDS_ANOTHER
                                       : DM_INSPECT_FINDS_NOTHING;
    }
}

// A share of the element's message, or a copy of one that a client has put there; without memory for that it is left out.
void take(RowWalk &walk, const obj_sub_entry &row, const dm_cache_list_node *node) DM_REQUIRES_SHARED {
    StoredMessage message;
    if (node->stored)
        message = share(node->obj);
    else if (node->obj)
        store_copy(node->obj, node->obj->descriptor, message);
    if (!message) return;
    dm_inspect_object &about = walk.about[walk.count];
    about = {};
    about.type = walk.type;
    about.by_client = node->stored == of_store    ? DM_INSPECT_BY_STORE
                      : node->stored == of_client ? DM_INSPECT_BY_SET_OBJ
                                                  : DM_INSPECT_BY_HAND;
    tell_index(row, node, about);
    walk.objects[walk.count++] = message.release();
}

}  // namespace

void begin_walk(RowWalk &walk, int32_t type) {
    walk.type = type;
    walk.count = 0;
    walk.is_last = walk.is_again = false;
}

void take_piece(RowWalk &walk) {
    const obj_sub_entry &row = obj_sub_list[walk.type];
    const SharedCacheLock lock;
    const dm_list_head *at = walk.count > 0 ? behind_piece(walk, row) : nullptr;
    walk.is_again = walk.count > 0 && !at;
    let_go_piece(walk);
    walk.is_last = true;
    if (!row.obj_list) return;
    const dm_list_head *const head = &row.obj_list->head;
    if (!at) at = head->next;
    for (; at != head && walk.count < piece_objects; at = at->next)
        take(walk, row, reinterpret_cast<const dm_cache_list_node *>(at));
    walk.is_last = at == head;
    walk.mark = change_mark();
}

void end_walk(RowWalk &walk) {
    let_go_piece(walk);
}

}  // namespace dm
