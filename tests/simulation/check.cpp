// What must hold.
#include "tests/simulation/check.h"

#include <algorithm>

#include "cache/pending.h"
#include "tq_dm_cache/dm_cache_status.h"
#include "tq_dm_cache/dm_cache_sync.h"
#include "tq_dm_cache/dm_port_index.h"

namespace {

const ProtobufCMessage *cached(int32_t row, const ProtobufCMessage *object) {
    ProtobufCMessage *found = nullptr;
    dm_cache_get_obj(row, key_of(object), &found);
    return found;
}

Message object_in_store(const Place &place, const Object &object) {
    return Message::unpack(obj_sub_list[place.row].obj_tmpl->descriptor, object.bytes);
}

std::vector<dm_cache_list_node *> elements(int32_t row) {
    std::vector<dm_cache_list_node *> found;
    const dm_list_head &head = obj_sub_list[row].obj_list->head;
    for (dm_list_head *link = head.next; link != &head; link = link->next) {
        if (link->next->prev != link) fail("row %d: broken links", row);
        found.push_back(reinterpret_cast<dm_cache_list_node *>(link));
    }
    return found;
}

void check_list(int32_t row) {
    const auto nodes = elements(row);
    if (dm_cache_get_obj_index_list_len(row) != static_cast<int32_t>(nodes.size()))
        fail("row %d: counts %d objects, holds %zu", row, obj_sub_list[row].obj_list->count, nodes.size());
    for (const auto *a : nodes)
        for (const auto *b : nodes)
            if (a != b && obj_sub_list[row].cmp_func(a->obj, b->obj) == 0) fail("row %d: a key is cached twice", row);
}

// The black height; keys ascend from `above` to `below`.
int32_t check_subtree(int32_t row, const rbtree_node *node, const rbtree_node *parent, const int64_t *above,
                      const int64_t *below) {
    if (!node) return 1;
    if (node->parent != parent) fail("row %d: a tree node with a wrong parent", row);
    if ((above && node->key <= *above) || (below && node->key >= *below)) fail("row %d: tree keys out of order", row);
    if (node->color == RBTREE_RED && (!parent || parent->color == RBTREE_RED)) fail("row %d: red below red", row);
    const int32_t left = check_subtree(row, node->left, node, above, &node->key);
    if (left != check_subtree(row, node->right, node, &node->key, below)) fail("row %d: black heights differ", row);
    return left + (node->color == RBTREE_BLACK);
}

void collect_nodes(rbtree_node *node, std::vector<dm_rbtree_node *> &nodes) {
    if (!node) return;
    collect_nodes(node->left, nodes);
    nodes.push_back(reinterpret_cast<dm_rbtree_node *>(node));
    collect_nodes(node->right, nodes);
}

// A key finds an indexed element that has it. Objects that claim each other's keys may leave one of them without.
void check_tree(int32_t row, int32_t tree, const std::vector<dm_cache_list_node *> &indexed, bool own_keys) {
    const rbtree_root *root = obj_sub_list[row].port_tree->root[tree];
    check_subtree(row, root->node, nullptr, nullptr, nullptr);
    std::vector<dm_rbtree_node *> nodes;
    collect_nodes(root->node, nodes);
    for (const dm_rbtree_node *node : nodes) {
        const auto element = std::find(indexed.begin(), indexed.end(), node->value);
        if (element == indexed.end()) fail("row %d: tree %d finds an object that is not indexed", row, tree);
        if ((*element)->key->key[tree] != node->node.key) fail("row %d: tree %d holds an old key", row, tree);
    }
    if (own_keys && nodes.size() != indexed.size())
        fail("row %d: tree %d finds %zu of %zu objects", row, tree, nodes.size(), indexed.size());
}

// Key records say what they would say if they were made now.
void check_index(int32_t row, bool own_keys) {
    const ndm_cache_tree *set = obj_sub_list[row].port_tree;
    if (!set) return;
    std::vector<dm_cache_list_node *> indexed;
    for (dm_cache_list_node *element : elements(row)) {
        dm_cache_list_node fresh{};
        fresh.obj = element->obj;
        const bool can_be_indexed = set->gen_key(&fresh) == 0;
        if (can_be_indexed != (element->key != nullptr)) fail("row %d: indexed when it should not be, or not", row);
        if (!can_be_indexed) continue;
        indexed.push_back(element);
        const bool same = std::equal(fresh.key->key, fresh.key->key + set->tree_num, element->key->key);
        if (!same || fresh.key->static_port != element->key->static_port) fail("row %d: a key record is stale", row);
        std::free(fresh.key);
    }
    for (int32_t tree = 0; tree < set->tree_num; ++tree) check_tree(row, tree, indexed, own_keys);
}

void check_row_equals_store(const World &world, int32_t row) {
    Picture cache = cached_picture(row), store;
    for (const auto &[place, object] : world.content) {
        if (place.row != row || !world.follows(row)) continue;
        const Message wanted = object_in_store(place, object);
        object.damaged ? void(cache.erase(key_bytes(wanted.get()))) : add(store, wanted.get());
    }
    if (const std::string found = difference(row, cache, store); !found.empty()) fail("%s", found.c_str());
}

}  // namespace

void check_complete(const World &world) {
    for (const auto &[place, object] : world.content) {
        if (object.damaged || !world.follows(place.row) || !world.settled(object)) continue;
        const Message wanted = object_in_store(place, object);
        const ProtobufCMessage *found = cached(place.row, wanted.get());
        if (!found || !equal(found, wanted.get()))
            fail("row %d key %d: applied, but not what the store has", place.row, place.key);
    }
}

void check_equal(World &world) {
    if (!g_cache_proc_done || dm_cache_wait_synced(0) != 0) fail("not live");
    if (dm::g_cache_pending_num != 0) fail("%u items are left in the queue", dm::g_cache_pending_num);
    for (int32_t row = 0; row < obj_sub_list_max; ++row) {
        if (!obj_sub_list[row].obj_tmpl) continue;
        check_list(row);
        check_index(row, world.random.own_index_keys);
        if (!obj_sub_list[row].enable) continue;
        check_row_equals_store(world, row);
        if (const std::string found = world.listener.difference(row); !found.empty()) fail("%s", found.c_str());
    }
}
