// The set-up of the seven rows of ports and static attributes, and their trees. Under the cache lock, but for set-up.
#include "port_index/trees.h"

#include "base/list.h"
#include "base/log.h"

static constexpr char log_tag[] = "dm_cache_port_obj";

namespace dm {
namespace {

// An index set with its empty trees; a tree that gets no memory stays null.
ndm_cache_tree *make_index_set(const IndexPlan &plan) {
    auto *set = static_cast<ndm_cache_tree *>(calloc(1, sizeof(ndm_cache_tree)));
    if (!set) return nullptr;
    set->tree_num = plan.trees;
    set->gen_key = plan.gen_key;
    for (int32_t i = 0; i < plan.trees; ++i) dm_rbtree_init_root(&set->root[i]);
    return set;
}

int32_t set_up(obj_sub_entry *row, int32_t number) {
    if (!row) return -1;
    const Kind &kind = *kind_of_row(number);
    fill_row(row, kind);
    if (kind.index == Index::static_port) row->port_tree = nullptr;
    if (const IndexPlan plan = plan_of(kind.index); plan.trees > 0) {
        ndm_cache_tree *set = make_index_set(plan);
        if (!set) return -1;
        row->port_tree = set;
    }
    row->proc_order = kind.proc_order;
    return 0;
}

// Calls `change` for every element of a row of ports that sits at a place.
template <class T, class Change> void for_ports_at(const PDev__PortIndex &place, const Change &change) {
    const obj_sub_entry &row = obj_sub_list[row_of<T>];
    for (dm_cache_list_node &node : Elements(row.obj_list)) {
        const T *port = as<T>(node.obj);
        if (port->index && same_place(*port->index, place)) change(row, &node);
    }
}

template <class Change> void for_all_ports_at(const PDev__PortIndex &place, const Change &change) {
    for_ports_at<PDev__VsdPort>(place, change);
    for_ports_at<PDev__VsdPortAttr>(place, change);
}

}  // namespace

namespace {

// An element that is indexed already gives up its key record and what it holds in the trees, but not what another element
// holds under the same keys.
void leave_own_places(ndm_cache_tree *set, dm_cache_list_node *node) DM_REQUIRES_LOCK {
    if (!node->key) return;
    for (int32_t i = 0; i < set->tree_num; ++i)
        if (dm_rbtree_find_node(&set->root[i], node->key->key[i]) == node)
            dm_rbtree_delete_node(&set->root[i], node->key->key[i]);
    free(node->key);
    node->key = nullptr;
}

}  // namespace

int32_t index_element(const obj_sub_entry &row, dm_cache_list_node *node) {
    ndm_cache_tree *set = row.port_tree;
    if (!set) return 0;
    leave_own_places(set, node);
    if (set->gen_key(node) != 0 || !node->key) return -1;
    for (int32_t i = 0; i < set->tree_num; ++i) {
        if (dm_rbtree_insert_node(&set->root[i], node->key->key[i], node) == 0) continue;
        DM_LOG_AS((Caller{"ndm_cache_tree_add_node"}), failure, "add cache tree node fail.\n");
    }
    return 0;
}

void unindex_element(const obj_sub_entry &row, dm_cache_list_node *node) {
    ndm_cache_tree *set = row.port_tree;
    if (!set || !node->key) return;
    for (int32_t i = 0; i < set->tree_num; ++i) {
        if (dm_rbtree_delete_node(&set->root[i], node->key->key[i]) == 0) continue;
        DM_LOG_AS((Caller{"ndm_cache_tree_del_node"}), failure, "del cache tree node fail.\n");
    }
    free(node->key);
    node->key = nullptr;
}

void unindex_ports_at(const PDev__PortIndex &place) {
    for_all_ports_at(place, unindex_element);
}

void index_ports_at(const PDev__PortIndex &place) {
    for_all_ports_at(place, index_element);
}

void free_index_set(obj_sub_entry *row) {
    ndm_cache_tree *set = row->port_tree;
    if (!set) return;
    for (rbtree_root *root : set->root) destroy_rbtree(root);
    free(set);
    row->port_tree = nullptr;
}

}  // namespace dm

using namespace dm;

int32_t ndm_cache_init_port_obj(obj_sub_entry *table) {
    if (!table) return -1;
    ndm_init_cache_staticport(&table[DM_ROW_PORT_STATIC]);
    ndm_init_cache_localport(&table[DM_ROW_UNIT_CPORT_INFO]);
    ndm_init_cache_globalport(&table[DM_ROW_VSD_PORT]);
    ndm_init_cache_vsdport(&table[DM_ROW_VSD_PORT_ATTR]);
    ndm_init_cache_cardsta(&table[DM_ROW_DM_CARD_STATTR]);
    ndm_init_cache_lportinfo(&table[DM_ROW_LPORT_INFO]);
    ndm_init_cache_chipsta(&table[DM_ROW_DM_CHIP_STATTR]);
    return 0;
}

int32_t ndm_init_cache_staticport(obj_sub_entry *row) {
    return set_up(row, DM_ROW_PORT_STATIC);
}
int32_t ndm_init_cache_localport(obj_sub_entry *row) {
    return set_up(row, DM_ROW_UNIT_CPORT_INFO);
}
int32_t ndm_init_cache_globalport(obj_sub_entry *row) {
    return set_up(row, DM_ROW_VSD_PORT);
}
int32_t ndm_init_cache_vsdport(obj_sub_entry *row) {
    return set_up(row, DM_ROW_VSD_PORT_ATTR);
}
int32_t ndm_init_cache_cardsta(obj_sub_entry *row) {
    return set_up(row, DM_ROW_DM_CARD_STATTR);
}
int32_t ndm_init_cache_lportinfo(obj_sub_entry *row) {
    return set_up(row, DM_ROW_LPORT_INFO);
}
int32_t ndm_init_cache_chipsta(obj_sub_entry *row) {
    return set_up(row, DM_ROW_DM_CHIP_STATTR);
}

int32_t ndm_cache_tree_add_node(obj_sub_entry *row, const void *message) {
    if (!row) return -1;
    if (!row->port_tree) return 0;
    caller_holds_lock();
    dm_cache_list_node *node = dm_cache_list_find(row->obj_list, row->cmp_func, message);
    return node ? index_element(*row, node) : 0;
}

int32_t ndm_cache_tree_del_node(obj_sub_entry *row, const void *message) {
    if (!row || !row->port_tree) return 0;
    caller_holds_lock();
    if (dm_cache_list_node *node = dm_cache_list_find(row->obj_list, row->cmp_func, message))
        unindex_element(*row, node);
    return 0;
}
