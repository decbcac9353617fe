#ifndef TQ_DM_RBTREE_H
#define TQ_DM_RBTREE_H

/*
 * A red-black tree with signed 64-bit keys. Most clients never include this.
 *
 * Two layers: rbtree_* knows only keys; dm_rbtree_* adds a value pointer to each node and refuses duplicate keys. The
 * tree owns its nodes and its root handle, never what a value points to. A node keeps its key and value for as long as
 * it exists, whatever else is deleted. A tree that dm_rbtree_find_node() searches must hold dm_rbtree_nodes only.
 *
 * Unless a function says otherwise: it takes no lock, the caller keeps others away; nothing is logged; null handles are
 * answered with -1 or null.
 */

#include "dm_api.h"

#ifdef __cplusplus
extern "C" {
#endif

enum { RBTREE_RED = 0, RBTREE_BLACK = 1 };

typedef struct rbtree_node {
    uint8_t color;
    int64_t key;
    struct rbtree_node *left;
    struct rbtree_node *right;
    struct rbtree_node *parent; /* null at the root */
} rbtree_node;

typedef struct rbtree_root {
    rbtree_node *node; /* null: empty */
} rbtree_root;

typedef struct dm_rbtree_node {
    rbtree_node node;
    void *value;
} dm_rbtree_node;

/* A new empty tree; null without memory. */
DM_API rbtree_root *create_rbtree(void);

/* Fills a node's key and links and paints it black. */
DM_API rbtree_node *rbtree_node_init(rbtree_node *node, int64_t key, rbtree_node *parent, rbtree_node *left,
                                     rbtree_node *right);

/* Links a node in, which the tree then owns: allocate it with malloc. An equal key is kept, behind the first. */
DM_API void rbtree_insert(rbtree_root *root, rbtree_node *node);

/* Adds a key; -1 when it is there already or without memory. */
DM_API int32_t insert_rbtree(rbtree_root *root, int64_t key);

/* 0 when the key is there, else -1. */
DM_API int32_t rbtree_search(rbtree_root *root, int64_t key);

/* The node that holds the key, in the subtree under a node or in the whole tree. */
DM_API rbtree_node *iterative_search(rbtree_node *node, int64_t key);
DM_API rbtree_node *iterative_rbtree_search(rbtree_root *root, int64_t key);

/* Unlinks a node of this tree and frees it. */
DM_API void rbtree_delete(rbtree_root *root, rbtree_node *node);

/* The same for the node that holds the key, if there is one. */
DM_API void delete_rbtree(rbtree_root *root, int64_t key);

/* Frees every node and the handle. Null is accepted. */
DM_API void destroy_rbtree(rbtree_root *root);

/* Prints the tree to standard output, a line a node, parents before children and left before right. */
DM_API void print_rbtree(rbtree_root *root);

/* The map layer takes the address of a root handle, so that handles can be slots of an array. */

/* Puts a new empty tree there; -1 without memory. */
DM_API int32_t dm_rbtree_init_root(rbtree_root **root);

/* 0 added; 1 the key is there already and keeps its value; -1 null value or no memory. */
DM_API int32_t dm_rbtree_insert_node(rbtree_root **root, int64_t key, void *value);

/* The key's value, or null. */
DM_API void *dm_rbtree_find_node(rbtree_root **root, int64_t key);

/* 0 whether or not the key was there. The value is not touched. */
DM_API int32_t dm_rbtree_delete_node(rbtree_root **root, int64_t key);

#ifdef __cplusplus
}
#endif

#endif
