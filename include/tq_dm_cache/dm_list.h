#ifndef TQ_DM_LIST_H
#define TQ_DM_LIST_H

/*
 * The bounded lists that hold each kind's cached messages. Most clients never include this.
 *
 * A list is circular and doubly linked around its head, and counted. An empty head, and a link that is in no list, point
 * to themselves. Elements keep their order of insertion; every search runs from the front and the first match wins.
 *
 * Unless a function says otherwise: it takes no lock, the caller holds the cache lock; nothing is logged.
 */

#include "tq_platform.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct dm_list_head {
    struct dm_list_head *next;
    struct dm_list_head *prev;
} dm_list_head;

/* One kind's list. It holds DM_CACHE_LIST_LIMIT elements at most. */
typedef struct dm_cache_list {
    dm_list_head head;
    int32_t count;
} dm_cache_list;

enum { DM_CACHE_LIST_LIMIT = 10000 };

struct ndm_cache_key;

/* One cached object. Only the library allocates it. */
typedef struct dm_cache_list_node {
    dm_list_head link;         /* first: an element and its link share an address */
    ProtobufCMessage *obj;     /* owned; freed with the element only */
    struct ndm_cache_key *key; /* owned; null while the element is in no index */
    uint8_t dirty;             /* 1: not seen again since its row was marked before a rescan */
    uint8_t row;               /* this and what follows: the library's own */
    uint8_t stored;
    uint32_t changed;
} dm_cache_list_node;

/* 0 when both messages are the same object of their kind. */
typedef int32_t (*dm_cache_cmp_func)(const ProtobufCMessage *cached, const ProtobufCMessage *probe);
typedef int32_t (*dm_cache_visit_func)(ProtobufCMessage *obj, void *arg);

/* Links an element in at the tail and counts it; -1 and nothing changed when the count has reached the limit. */
DM_API int32_t dm_list_add_tail_with_limit(dm_list_head *link, dm_list_head *head, int32_t *count, int32_t limit);

/* Unlinks an element and counts it off. It must be in the list whose count this is. */
DM_API void dm_list_del_with_limit(dm_list_head *link, int32_t *count);

/*
 * Stores a copy of a message: 1 when it replaced the one that `cmp` matches, which keeps its place, 0 when it is new.
 * -1 no memory or list full, or the code of dm_cache_copy_obj(); the list is then unchanged.
 */
DM_API int32_t dm_cache_list_add(dm_cache_list *list, const void *message, const ProtobufCMessageDescriptor *descriptor,
                                 dm_cache_cmp_func cmp);

/* The first element that matches, or null. */
DM_API dm_cache_list_node *dm_cache_list_find(dm_cache_list *list, dm_cache_cmp_func cmp, const void *message);

/* The same, unlinked and the caller's own: free it with dm_cache_list_free(). */
DM_API dm_cache_list_node *dm_cache_list_del(dm_cache_list *list, dm_cache_cmp_func cmp, const void *message);

/* Calls `visit` for every object; what it returns is ignored. It must not remove the element that it is given. */
DM_API int32_t dm_cache_list_walk(dm_cache_list *list, dm_cache_visit_func visit, void *arg);

/* Frees an element that is in no list, with its message and key record. Null is accepted. */
DM_API void dm_cache_list_free(dm_cache_list_node *node);

#ifdef __cplusplus
}
#endif

#endif
