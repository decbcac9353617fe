// The red-black tree. Left and right are the same code: a side is a pointer to one of a node's two links, and each
// procedure that has a mirror image is told its near and its far side. Takes no lock, logs nothing.
//
// Always true between two calls: the root is black, a red node has no red child, and every way from a node down to an empty
// place meets as many black nodes. So the longest way is at most twice the shortest, and recursion stays shallow. The tree owns
// its nodes; a node keeps its place in memory, its key and its value for as long as it lives. An empty place counts as black.
#include "tq_dm_cache/dm_rbtree.h"

#include <cassert>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>

namespace {

using Node = rbtree_node;
using Side = Node *Node::*;

Side opposite(Side side) {
    return side == &Node::left ? &Node::right : &Node::left;
}
bool is_red(const Node *node) {
    return node && node->color == RBTREE_RED;
}

// Hangs `node` (may be null) under `parent` in the place of `old`, or makes it the root.
void take_place(rbtree_root *root, Node *parent, const Node *old, Node *node) {
    if (!parent)
        root->node = node;
    else if (parent->left == old)
        parent->left = node;
    else
        parent->right = node;
    if (node) node->parent = parent;
}

// Turns x down towards `side`: its child of the other side takes its place.
void rotate(rbtree_root *root, Node *x, Side side) {
    const Side far = opposite(side);
    Node *y = x->*far;
    x->*far = y->*side;
    if (y->*side) (y->*side)->parent = x;
    take_place(root, x->parent, x, y);
    y->*side = x;
    x->parent = y;
}

// `node` is red, and so may be its parent: nothing else is wrong. A red uncle takes the fault two levels up; else one or two
// turns end it.
void fix_insertion(rbtree_root *root, Node *node) {
    while (is_red(node->parent)) {
        Node *parent = node->parent;
        Node *grandparent = parent->parent;
        const Side near = parent == grandparent->left ? &Node::left : &Node::right;
        const Side far = opposite(near);
        if (Node *uncle = grandparent->*far; is_red(uncle)) {
            uncle->color = parent->color = RBTREE_BLACK;
            grandparent->color = RBTREE_RED;
            node = grandparent;
            continue;
        }
        if (node == parent->*far) {
            rotate(root, parent, near);
            node = parent;
            parent = node->parent;
        }
        parent->color = RBTREE_BLACK;
        grandparent->color = RBTREE_RED;
        rotate(root, grandparent, far);
    }
    root->node->color = RBTREE_BLACK;
}

// One path below p is short of a black node: the one that begins with x, which may be null.
void fix_deletion(rbtree_root *root, Node *x, Node *p) {
    while (!is_red(x) && x != root->node) {
        const Side near = p->left == x ? &Node::left : &Node::right;
        const Side far = opposite(near);
        Node *s = p->*far;
        if (is_red(s)) {
            s->color = RBTREE_BLACK;
            p->color = RBTREE_RED;
            rotate(root, p, near);
            s = p->*far;
        }
        assert(s);  // the other side has the black node that this one lacks
        if (!is_red(s->left) && !is_red(s->right)) {
            s->color = RBTREE_RED;
            x = p;
            p = x->parent;
            continue;
        }
        if (!is_red(s->*far)) {
            (s->*near)->color = RBTREE_BLACK;
            s->color = RBTREE_RED;
            rotate(root, s, far);
            s = p->*far;
        }
        assert(s && s->*far);  // red, or the cases above had applied
        s->color = p->color;
        p->color = (s->*far)->color = RBTREE_BLACK;
        rotate(root, p, near);
        x = root->node;
    }
    if (x) x->color = RBTREE_BLACK;
}

// Links a node in below the place where a search for its key has ended: `link` is that place, null in the tree.
void hang(rbtree_root *root, Node *parent, Node **link, Node *node) {
    node->parent = parent;
    node->color = RBTREE_RED;
    *link = node;
    fix_insertion(root, node);
}

Node *find_recursive(Node *node, int64_t key) {
    if (!node || node->key == key) return node;
    return find_recursive(key < node->key ? node->left : node->right, key);
}

void free_subtree(Node *node) {
    if (!node) return;
    free_subtree(node->left);
    free_subtree(node->right);
    free(node);
}

void print_subtree(const Node *node) {
    if (!node) return;
    if (const Node *parent = node->parent)
        std::printf("%" PRId64 "(%s) is %" PRId64 "'s %6s child\n", node->key, is_red(node) ? "R" : "B", parent->key,
                    parent->left == node ? "left" : "right");
    else
        std::printf("%" PRId64 "(B) is root\n", node->key);
    print_subtree(node->left);
    print_subtree(node->right);
}

}  // namespace

rbtree_root *create_rbtree(void) {
    return static_cast<rbtree_root *>(calloc(1, sizeof(rbtree_root)));
}

rbtree_node *rbtree_node_init(rbtree_node *node, int64_t key, rbtree_node *parent, rbtree_node *left,
                              rbtree_node *right) {
    if (!node) return nullptr;
    *node = {.color = RBTREE_BLACK, .key = key, .left = left, .right = right, .parent = parent};
    return node;
}

void rbtree_insert(rbtree_root *root, rbtree_node *node) {
    if (!root || !node) return;
    Node *parent = nullptr;
    Node **link = &root->node;
    while (*link) {
        parent = *link;
        link = node->key < parent->key ? &parent->left : &parent->right;
    }
    hang(root, parent, link, node);
}

int32_t insert_rbtree(rbtree_root *root, int64_t key) {
    if (!root || rbtree_search(root, key) == 0) return -1;
    auto *node = static_cast<Node *>(malloc(sizeof(Node)));
    if (!node) return -1;
    rbtree_insert(root, rbtree_node_init(node, key, nullptr, nullptr, nullptr));
    return 0;
}

int32_t rbtree_search(rbtree_root *root, int64_t key) {
    return root && find_recursive(root->node, key) ? 0 : -1;
}

rbtree_node *iterative_search(rbtree_node *node, int64_t key) {
    while (node && node->key != key) node = key < node->key ? node->left : node->right;
    return node;
}

rbtree_node *iterative_rbtree_search(rbtree_root *root, int64_t key) {
    return root ? iterative_search(root->node, key) : nullptr;
}

void rbtree_delete(rbtree_root *root, rbtree_node *node) {
    if (!root || !node) return;
    Node *child;
    Node *parent;
    uint8_t lost_color = node->color;
    if (node->left && node->right) {
        // The successor itself moves into the node's place: keys and values never move between nodes.
        Node *successor = node->right;
        while (successor->left) successor = successor->left;
        lost_color = successor->color;
        child = successor->right;
        parent = successor;
        if (successor != node->right) {
            parent = successor->parent;
            take_place(root, parent, successor, child);
            successor->right = node->right;
            successor->right->parent = successor;
        }
        take_place(root, node->parent, node, successor);
        successor->left = node->left;
        successor->left->parent = successor;
        successor->color = node->color;
    } else {
        child = node->left ? node->left : node->right;
        parent = node->parent;
        take_place(root, parent, node, child);
    }
    if (lost_color == RBTREE_BLACK) fix_deletion(root, child, parent);
    free(node);
}

void delete_rbtree(rbtree_root *root, int64_t key) {
    if (root) rbtree_delete(root, find_recursive(root->node, key));
}

void destroy_rbtree(rbtree_root *root) {
    if (!root) return;
    free_subtree(root->node);
    free(root);
}

void print_rbtree(rbtree_root *root) {
    if (root) print_subtree(root->node);
}

int32_t dm_rbtree_init_root(rbtree_root **root) {
    if (!root) return -1;
    rbtree_root *made = create_rbtree();
    if (!made) return -1;
    *root = made;
    return 0;
}

int32_t dm_rbtree_insert_node(rbtree_root **root, int64_t key, void *value) {
    if (!root || !*root || !value) return -1;
    Node *parent = nullptr;
    Node **link = &(*root)->node;
    while (*link) {
        parent = *link;
        if (parent->key == key) return 1;
        link = key < parent->key ? &parent->left : &parent->right;
    }
    auto *node = static_cast<dm_rbtree_node *>(calloc(1, sizeof(dm_rbtree_node)));
    if (!node) return -1;
    node->value = value;
    hang(*root, parent, link, rbtree_node_init(&node->node, key, nullptr, nullptr, nullptr));
    return 0;
}

void *dm_rbtree_find_node(rbtree_root **root, int64_t key) {
    rbtree_node *node = root ? iterative_rbtree_search(*root, key) : nullptr;
    return node ? reinterpret_cast<dm_rbtree_node *>(node)->value : nullptr;
}

int32_t dm_rbtree_delete_node(rbtree_root **root, int64_t key) {
    if (!root) return -1;
    delete_rbtree(*root, key);
    return 0;
}
