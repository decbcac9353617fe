// The trees of a row, kept in step with its list element by element. Under the cache lock.
#pragma once

#include "port_index/keys.h"

namespace dm {

// Builds the element's keys and enters it; -1 when they cannot be built: it stays cached, in no tree. 0 for a row without
// an index.
int32_t index_element(const obj_sub_entry &row, dm_cache_list_node *node) DM_REQUIRES_LOCK;

// Takes the element out of the trees and frees its key record.
void unindex_element(const obj_sub_entry &row, dm_cache_list_node *node) DM_REQUIRES_LOCK;

// The same for every global and VSD port that sits at a place: their keys come from the static port there, which is about
// to change, or has just changed.
void unindex_ports_at(const PDev__PortIndex &place) DM_REQUIRES_LOCK;
void index_ports_at(const PDev__PortIndex &place) DM_REQUIRES_LOCK;

// Frees a row's index set with all its nodes; the elements stay.
void free_index_set(obj_sub_entry *row) DM_REQUIRES_LOCK;

}  // namespace dm
