// The set-up of the seven rows of ports and static attributes, and their trees. The caller
// holds the cache lock, but for set-up.
#include "port_index/trees.h"

#include "base/list.h"
#include "base/log.h"
#include "base/row_table.h"

static constexpr dm::LogTag log_tag{"dm_cache_port_obj"};

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

// What a row's trees could not take.
struct Refused {
    bool some;           // since the trees were empty. While nothing was, every element is the one that its keys find
    uint32_t no_memory;  // since the process began
} refused[DM_ROW_COUNT];

// Null for a row of a client's own table.
Refused *refused_in(const obj_sub_entry &row) {
    const auto at = reinterpret_cast<uintptr_t>(&row) - reinterpret_cast<uintptr_t>(obj_sub_list);
    return at < sizeof obj_sub_list ? &refused[at / sizeof row] : nullptr;
}

void note_no_memory(const obj_sub_entry &row) {
    if (Refused *by_row = refused_in(row)) __atomic_fetch_add(&by_row->no_memory, 1, __ATOMIC_RELAXED);
}

bool some_refused(const obj_sub_entry &row) {
    const Refused *by_row = refused_in(row);
    return !by_row || by_row->some;
}

bool finds(const obj_sub_entry &row, int32_t tree, int64_t key, const dm_cache_list_node *node) DM_REQUIRES_LOCK {
    return !some_refused(row) || dm_rbtree_find_node(&row.port_tree->root[tree], key) == node;
}

void forget_keys(dm_cache_list_node *node) {
    free(node->key);
    node->key = nullptr;
}

// An element that is indexed already gives up its key record and what it holds in the trees, but not what another element
// holds under the same keys.
void leave_own_places(ndm_cache_tree *set, dm_cache_list_node *node) DM_REQUIRES_LOCK {
    if (!node->key) return;
    for (int32_t i = 0; i < set->tree_num; ++i)
        if (dm_rbtree_find_node(&set->root[i], node->key->key[i]) == node)
            dm_rbtree_delete_node(&set->root[i], node->key->key[i]);
    forget_keys(node);
}

bool make_keys(const obj_sub_entry &row, dm_cache_list_node *node) DM_REQUIRES_LOCK {
    const uint32_t missing = key_records_missing;
    const int32_t result = row.port_tree->gen_key(node);
    if (key_records_missing != missing) note_no_memory(row);
    return result == 0 && node->key;
}

void enter_tree(const obj_sub_entry &row, int32_t tree, dm_cache_list_node *node) DM_REQUIRES_LOCK {
    const int32_t result = dm_rbtree_insert_node(&row.port_tree->root[tree], node->key->key[tree], node);
    if (result == 0) return;
    if (Refused *by_row = refused_in(row)) by_row->some = true;
    if (result < 0) note_no_memory(row);
    DM_LOG_AS((Caller{"ndm_cache_tree_add_node"}), failure, "add cache tree node fail.\n");
}

// The key goes with whichever of its elements goes.
void leave_tree(const obj_sub_entry &row, int32_t tree, int64_t key) DM_REQUIRES_LOCK {
    if (dm_rbtree_delete_node(&row.port_tree->root[tree], key) == 0) return;
    DM_LOG_AS((Caller{"ndm_cache_tree_del_node"}), failure, "del cache tree node fail.\n");
}

// Calls `change(row, element)` for every element of a row of ports that sits at a place.
template <class Change> void for_ports_at(int32_t type, const PDev__PortIndex &place, Change change) {
    const int32_t words[] = {place.t_dev, place.t_slot, place.t_sslot, place.t_port,
                             static_cast<int32_t>(place.t_type)};
    struct Each {
        const obj_sub_entry &row;
        Change &change;
    } each{obj_sub_list[type], change};
    for_elements_at(
        type, words,
        [](dm_cache_list_node *node, void *word) {
            const Each &with = *static_cast<Each *>(word);
            with.change(with.row, node);
        },
        &each);
}

constexpr int32_t rows_of_ports[] = {DM_ROW_VSD_PORT, DM_ROW_VSD_PORT_ATTR};

}  // namespace

int32_t index_element(const obj_sub_entry &row, dm_cache_list_node *node) {
    ndm_cache_tree *set = row.port_tree;
    if (!set) return 0;
    leave_own_places(set, node);
    if (!make_keys(row, node)) return -1;
    for (int32_t i = 0; i < set->tree_num; ++i) enter_tree(row, i, node);
    return 0;
}

void unindex_element(const obj_sub_entry &row, dm_cache_list_node *node) {
    const ndm_cache_tree *set = row.port_tree;
    if (!set || !node->key) return;
    for (int32_t i = 0; i < set->tree_num; ++i) leave_tree(row, i, node->key->key[i]);
    forget_keys(node);
}

int32_t move_element(const obj_sub_entry &row, dm_cache_list_node *node) {
    const ndm_cache_tree *set = row.port_tree;
    if (!set || !node->key) return index_element(row, node);
    int64_t old[NDM_CACHE_TREES];
    std::memcpy(old, node->key->key, sizeof old);
    const bool made = make_keys(row, node);
    bool stays[NDM_CACHE_TREES] = {};
    for (int32_t i = 0; i < set->tree_num; ++i) {
        stays[i] = made && node->key->key[i] == old[i] && finds(row, i, old[i], node);
        if (!stays[i]) leave_tree(row, i, old[i]);
    }
    if (!made) {
        forget_keys(node);
        return -1;
    }
    for (int32_t i = 0; i < set->tree_num; ++i)
        if (!stays[i]) enter_tree(row, i, node);
    return 0;
}

void refresh_element(const obj_sub_entry &row, dm_cache_list_node *node) {
    if (row.port_tree && (!node->key || some_refused(row))) move_element(row, node);
}

uint32_t keys_without_memory(int32_t row) {
    return __atomic_load_n(&refused[row].no_memory, __ATOMIC_RELAXED);
}

void index_ports_at(const PDev__PortIndex &place) {
    for (const int32_t type : rows_of_ports) for_ports_at(type, place, index_element);
}

void unindex_ports_at(const PDev__PortIndex &place) {
    for (const int32_t type : rows_of_ports) for_ports_at(type, place, unindex_element);
}

// Several ports at one place share keys: which of them is found depends on all having left before the first one enters.
void move_ports_at(const PDev__PortIndex &place) {
    for (const int32_t type : rows_of_ports) {
        int32_t ports = 0;
        for_ports_at(type, place, [&](const obj_sub_entry &, dm_cache_list_node *) { ++ports; });
        if (ports == 1) {
            for_ports_at(type, place, move_element);
        } else {
            for_ports_at(type, place, unindex_element);
            for_ports_at(type, place, index_element);
        }
    }
}

void free_index_set(obj_sub_entry *row) {
    ndm_cache_tree *set = row->port_tree;
    if (!set) return;
    for (rbtree_root *root : set->root) destroy_rbtree(root);
    if (Refused *by_row = refused_in(*row)) by_row->some = false;
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
