// The trees of a row, kept in step with its list element by element. The caller holds the cache lock.
#pragma once

#include "port_index/keys.h"

namespace dm {

// Builds the element's keys and enters it; -1 when they cannot be built: it stays cached, in no tree. 0 for a row without
// an index.
int32_t index_element(const obj_sub_entry &row, dm_cache_list_node *node) DM_REQUIRES_LOCK;

// Takes the element out of the trees and frees its key record.
void unindex_element(const obj_sub_entry &row, dm_cache_list_node *node) DM_REQUIRES_LOCK;

// Brings the element's keys up to date after its message, or its static port, has changed: what taking it out before the
// change and entering it after gives. A key that is the same and its own is left where it is. The code of index_element().
int32_t move_element(const obj_sub_entry &row, dm_cache_list_node *node) DM_REQUIRES_LOCK;

// The same for an element whose message has come again as it was.
void refresh_element(const obj_sub_entry &row, dm_cache_list_node *node) DM_REQUIRES_LOCK;

// Every global and VSD port that sits at a place takes its keys from the static port there. They enter the trees when one
// has come, leave when it goes, and move when it has changed.
void index_ports_at(const PDev__PortIndex &place) DM_REQUIRES_LOCK;
void unindex_ports_at(const PDev__PortIndex &place) DM_REQUIRES_LOCK;
void move_ports_at(const PDev__PortIndex &place) DM_REQUIRES_LOCK;

// How many keys of a row's elements have got no memory: those elements are cached, and not found by those keys. Any thread,
// no lock.
uint32_t keys_without_memory(int32_t row);

// Frees a row's index set with all its nodes; the elements stay.
void free_index_set(obj_sub_entry *row) DM_REQUIRES_LOCK;

}  // namespace dm
