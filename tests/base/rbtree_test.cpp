// The tree under every port index. A fault here loses ports for ever, or walks freed memory.
#include "tests/support/log_capture.h"

#include "tq_dm_cache/dm_rbtree.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <map>
#include <random>

namespace {

using Nodes = std::vector<std::pair<int64_t, const rbtree_node *>>;

// Appends a subtree in order. Its black height; -1 when it is no red-black tree.
int walk(const rbtree_node *node, const rbtree_node *parent, Nodes *out) {
    if (!node) return 1;
    const bool red = node->color == RBTREE_RED;
    const int left = walk(node->left, node, out);
    out->emplace_back(node->key, node);
    const int right = walk(node->right, node, out);
    if (node->parent != parent || (red && (!parent || parent->color == RBTREE_RED)) || left != right) return -1;
    return left < 0 ? -1 : left + !red;
}

Nodes nodes_of(const rbtree_root *root) {
    Nodes nodes;
    EXPECT_GT(walk(root->node, nullptr, &nodes), 0);
    return nodes;
}

std::string printed(rbtree_root *root) {
    LogCapture output;
    print_rbtree(root);
    return output.take();
}

class RandomTree : public testing::TestWithParam<unsigned> {};

}  // namespace

// After any changes each key must lead to its own node and value: an index holds on to elements by them.
TEST_P(RandomTree, IsAnOrderedMapWhoseNodesNeverMove) {
    std::mt19937_64 random(GetParam());
    std::vector<int64_t> pool = {INT64_MIN, INT64_MIN + 1, INT64_MAX, INT64_MAX - 1, INT32_MIN, -1, 0, 1, UINT32_MAX};
    while (pool.size() < 300) pool.push_back(static_cast<int64_t>(random()) >> (random() % 64));
    std::map<int64_t, const rbtree_node *> expected;
    rbtree_root *root = nullptr;
    ASSERT_EQ(dm_rbtree_init_root(&root), 0);

    for (unsigned step = 0; step < 6000; ++step) {
        int64_t &key = pool[static_cast<size_t>(random()) % pool.size()];  // its own address is the value
        const bool known = expected.count(key) == 1, growing = step / 1000 % 2 == 0;
        if (random() % 10 < (growing ? 7U : 3U)) {
            ASSERT_EQ(dm_rbtree_insert_node(&root, key, &key), known ? 1 : 0);
            if (!known) expected[key] = iterative_rbtree_search(root, key);
        } else {
            ASSERT_EQ(dm_rbtree_delete_node(&root, key), 0);
            expected.erase(key);
        }
        ASSERT_EQ(nodes_of(root), Nodes(expected.begin(), expected.end())) << "step " << step;
        ASSERT_EQ(rbtree_search(root, key), expected.count(key) ? 0 : -1);
        const auto *value = static_cast<int64_t *>(dm_rbtree_find_node(&root, key));
        ASSERT_EQ(value ? *value : ~key, expected.count(key) ? key : ~key);
    }
    destroy_rbtree(root);
}

INSTANTIATE_TEST_SUITE_P(Seeds, RandomTree, testing::Range(1U, 5U));

// The first under a key must stay the one that is found; the printed tree is what a person in the field sees of it.
TEST(Tree, KeepsEqualKeysBehindTheFirstAndPrintsParentsBeforeChildren) {
    rbtree_root *root = create_rbtree();
    EXPECT_EQ(printed(root), "");
    for (const int64_t key : {int64_t{10}, int64_t{5}, int64_t{15}, INT64_MIN, int64_t{20}})
        EXPECT_EQ(insert_rbtree(root, key), 0);
    EXPECT_EQ(insert_rbtree(root, 5), -1);
    delete_rbtree(root, 10);
    delete_rbtree(root, 10);
    EXPECT_EQ(printed(root),
              "15(B) is root\n"
              "5(B) is 15's   left child\n"
              "-9223372036854775808(R) is 5's   left child\n"
              "20(B) is 15's  right child\n");

    const rbtree_node *first = iterative_rbtree_search(root, 20);
    for (int i = 0; i < 60; ++i) {
        auto *loose = static_cast<rbtree_node *>(std::malloc(sizeof(rbtree_node)));
        EXPECT_EQ(rbtree_node_init(loose, 20 + i % 2, nullptr, nullptr, nullptr)->color, RBTREE_BLACK);
        rbtree_insert(root, loose);
        EXPECT_TRUE(i > 0 || first->right == loose);
    }
    EXPECT_EQ(nodes_of(root).size(), 64U);
    for (int i = 0; i < 31; ++i) delete_rbtree(root, 20);
    EXPECT_EQ(rbtree_search(root, 20), -1);
    EXPECT_EQ(nodes_of(root).size(), 33U);
    rbtree_delete(root, root->node);
    EXPECT_EQ(nodes_of(root).size(), 32U);
    destroy_rbtree(root);
}

// A second insertion must not take a key over, and a tree that got no memory must not be a trap.
TEST(Tree, RefusesDuplicatesAndNull) {
    int first = 0, second = 0;
    rbtree_root *root = nullptr, *none = nullptr;
    ASSERT_EQ(dm_rbtree_init_root(&root), 0);
    EXPECT_EQ(dm_rbtree_insert_node(&root, -7, &first), 0);
    EXPECT_EQ(dm_rbtree_insert_node(&root, -7, &second), 1);
    EXPECT_EQ(dm_rbtree_find_node(&root, -7), &first);
    EXPECT_EQ(dm_rbtree_insert_node(&root, 9, nullptr), -1);
    EXPECT_EQ(nodes_of(root).size(), 1U);
    destroy_rbtree(root);

    for (rbtree_root **handle : {static_cast<rbtree_root **>(nullptr), &none}) {
        EXPECT_EQ(dm_rbtree_insert_node(handle, 1, &first), -1);
        EXPECT_EQ(dm_rbtree_find_node(handle, 1), nullptr);
        dm_rbtree_delete_node(handle, 1);
    }
    for (const int32_t answer : {dm_rbtree_delete_node(nullptr, 1), dm_rbtree_init_root(nullptr),
                                 insert_rbtree(nullptr, 1), rbtree_search(nullptr, 1)})
        EXPECT_EQ(answer, -1);
    EXPECT_TRUE(!iterative_search(nullptr, 1) && !iterative_rbtree_search(nullptr, 1));
    rbtree_insert(nullptr, nullptr);
    rbtree_delete(nullptr, nullptr);
    delete_rbtree(nullptr, 1);
    destroy_rbtree(nullptr);
    print_rbtree(nullptr);
}
