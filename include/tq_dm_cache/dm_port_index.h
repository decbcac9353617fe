#ifndef TQ_DM_PORT_INDEX_H
#define TQ_DM_PORT_INDEX_H

/*
 * The secondary indexes over ports and static attributes, and the list of static ports. Most clients never include this.
 *
 * Five rows have an index set: a few trees, one a key, whose values are the row's list elements. Two objects with the
 * same key in one tree: the first one indexed is found, and when either goes the key goes with it.
 *
 * Unless a function says otherwise: it takes no lock, the caller holds the cache lock.
 */

#include "dm_list.h"
#include "dm_out.h"
#include "dm_rbtree.h"
#include "dm_types.h"

#ifdef __cplusplus
extern "C" {
#endif

enum { NDM_CACHE_TREES = 4 };

/* The index set of one row. `root` 0 to tree_num - 1 are trees, the others null. */
typedef struct ndm_cache_tree {
    int32_t (*gen_key)(dm_cache_list_node *node); /* builds the element's key record: 0, or -1 */
    int32_t tree_num;
    rbtree_root *root[NDM_CACHE_TREES];
} ndm_cache_tree;

/* The keys of one indexed element: key i is its key in tree i. */
typedef struct ndm_cache_key {
    int64_t key[NDM_CACHE_TREES];
    ProtobufCMessage *static_port; /* global and VSD ports: their cached static port, borrowed; else null */
} ndm_cache_key;

/* Sets up the rows of ports and of card and chip attributes in a table. For start-up: what their lists hold is dropped
 * without being freed. Takes no lock. */
DM_API int32_t ndm_cache_init_port_obj(obj_sub_entry *table);

/* The set-up of one such row; -1 without memory for its index set. */
DM_API int32_t ndm_init_cache_staticport(obj_sub_entry *row);
DM_API int32_t ndm_init_cache_localport(obj_sub_entry *row);
DM_API int32_t ndm_init_cache_globalport(obj_sub_entry *row);
DM_API int32_t ndm_init_cache_vsdport(obj_sub_entry *row);
DM_API int32_t ndm_init_cache_cardsta(obj_sub_entry *row);
DM_API int32_t ndm_init_cache_lportinfo(obj_sub_entry *row);
DM_API int32_t ndm_init_cache_chipsta(obj_sub_entry *row);

/* Indexes the cached element that matches the message; -1 when its keys cannot be built, it then stays unindexed. 0 also
 * when the row has no index or no such element. */
DM_API int32_t ndm_cache_tree_add_node(obj_sub_entry *row, const void *message);

/* Takes the cached element that matches the message out of the row's trees. Always 0. */
DM_API int32_t ndm_cache_tree_del_node(obj_sub_entry *row, const void *message);

/* Which static port sits at this place? `out` is the cached p_dev.port_static itself, borrowed; null when not cached. */
DM_API int32_t ndm_get_static_port_by_index_with_subslot(int32_t t_dev, int32_t t_slot, int32_t t_sslot, int32_t t_port,
                                                         int32_t t_type, DM_OUT(PDev__PortStatic) out);

/* The same with sub-slot 0. */
DM_API int32_t ndm_get_static_port_by_index(int32_t t_dev, int32_t t_slot, int32_t t_port, int32_t t_type,
                                            DM_OUT(PDev__PortStatic) out);

#ifdef __cplusplus
}
#endif

#endif
