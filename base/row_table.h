// Finding by key: each row's own list has a hash table of its elements beside it, one open-addressed array of key words and
// elements, so that a look-up does not walk. What the table answers is what a walk would: the first match in order of
// insertion. A row with few elements, one whose links a client has changed by hand, or one that gets no memory has no table,
// and walks.
//
// The caller holds the cache lock, for a look-up its shared side; the table is made where elements are appended.
#pragma once

#include "base/list.h"
#include "base/rows.h"

namespace dm {

struct RowTable;

// The table that answers for a list and a match function; null when that has to walk.
const RowTable *table_for(const dm_cache_list *list, dm_cache_cmp_func cmp);

// The element with this key, or of the object with this one's key; null for none, and for an object without a key.
dm_cache_list_node *find_in(const RowTable &table, const ProtobufCMessage *key);
dm_cache_list_node *find_same(const RowTable &table, const ProtobufCMessage *object);

// Calls `visit(node, word)` for every element of a row whose key names this place, in order of insertion. The place is
// what follows the owner in a key: a global port's key begins with its VSD, and several VSDs have a port at one place.
// The elements must stay in the row meanwhile.
using VisitElement = void (*)(dm_cache_list_node *node, void *word);
void for_elements_at(int32_t row, const int32_t *place, VisitElement visit, void *word);

// An element has been appended to a list, or is about to leave it or to be freed.
void table_take_in(dm_cache_list *list, dm_cache_list_node *node);
void table_let_go(dm_cache_list_node *node);

// Links have been changed that are counted here: if it is a row's own list, the row walks until the next append.
void links_changed(const int32_t *count);

// An empty list for a row; what it held before is forgotten.
dm_cache_list *emptied_list(int32_t row);

}  // namespace dm
