#ifndef TQ_DM_CACHE_FOLLOW_H
#define TQ_DM_CACHE_FOLLOW_H

/*
 * Followers: what happens to the objects of a row, with the object before and after, in the order in which it happens.
 * Followers are told more than the change callbacks of dm_cache_sub_obj(): what is there already, what a
 * resynchronisation sweeps, what the client itself and its queries put into the cache.
 *
 * Unless a function says otherwise: any thread may call it, from within a callback too, and before or after dm_cache_init();
 * it takes the cache lock for a moment.
 */

#include "dm_cache.h"

#ifdef __cplusplus
extern "C" {
#endif

enum {
    DM_CACHE_EVENT_ADDED,    /* the numbers of the change callback */
    DM_CACHE_EVENT_REPLACED, /* set again with other content */
    DM_CACHE_EVENT_DELETED,
    DM_CACHE_EVENT_SWEPT,     /* gone: a scan did not return it any more */
    DM_CACHE_EVENT_UNCHANGED, /* set again as it was; only for who asked for it, and not without memory */
    DM_CACHE_EVENT_APPLIED    /* a full application has ended: type -1, no object */
};

enum {
    DM_CACHE_PHASE_FIRST, /* the row's first picture: what is there, and what comes until its first scan is applied */
    DM_CACHE_PHASE_LIVE,  /* a change */
    DM_CACHE_PHASE_RESYNC /* what a later application finds different */
};

enum {
    DM_CACHE_FOLLOW_UNCHANGED = 1, /* tell of objects that are set again as they were */
    DM_CACHE_FOLLOW_FROM_NOW = 2   /* do not begin with what is there */
};

/* May grow at its end. The messages are good during the call, and not the callback's to change. */
typedef struct dm_cache_event {
    int32_t type;                   /* row number; -1 for DM_CACHE_EVENT_APPLIED */
    int32_t what;                   /* DM_CACHE_EVENT_.. */
    int32_t phase;                  /* DM_CACHE_PHASE_.. */
    const ProtobufCMessage *before; /* null when added */
    const ProtobufCMessage *after;  /* null when deleted or swept */
} dm_cache_event;

/*
 * Runs on the store client's thread or, when the platform's timers have a thread of their own, on that thread; never on
 * both at the same time. Runs without the cache lock and after the change callbacks. The cache may have changed again
 * meanwhile: the events to come say so. A follower holds up all callbacks of the process until it returns.
 */
typedef void (*dm_cache_follow_cb)(const dm_cache_event *event, void *word);

/*
 * Follows a row, or the ends of full applications (type -1). This enables a row that nobody has enabled. After the
 * start, the row is subscribed and scanned at once, and the other rows do not wait for it; it is filled as its objects
 * arrive when the cache is live, else with the next application. The follower is first told of every object that is
 * there, as added, unless FROM_NOW (what a late row's first scan brings comes after that, and is told); then of every
 * change of every object: in order, none left out, none twice. A pair of callback and word that follows the row already
 * goes on with the new flags. `flags`: any of DM_CACHE_FOLLOW_.. -1: a null callback, a row that holds no kind; -2: no
 * memory, and nothing has changed. A subscription that the store refuses is no failure: it is logged, and asked for
 * again when the connection has been lost and is back. A row with DM_CACHE_NO_STORE holds nothing, so its followers
 * hear nothing.
 * Not told: a start that begins again (what was cached is dropped, and comes again as added), and what a client changes
 * in a row's list by dm_list.h.
 */
DM_API int32_t dm_cache_follow(int32_t type, dm_cache_follow_cb callback, void *word, uint32_t flags);

/*
 * Ends a following. When it returns the callback does not run any more; called from within that very callback, it has
 * run for the last time. Never call it with the cache lock held, or holding what the callback waits for. The row stays
 * enabled. -1: the pair does not follow the row.
 */
DM_API int32_t dm_cache_unfollow(int32_t type, dm_cache_follow_cb callback, void *word);

/*
 * Enables the rows that a query of ndm.h reads, by its name, such as "ndm_get_master_node", and no others: as dm_cache_sub_obj()
 * with no function before the start, else as dm_cache_follow() does, and the query answers when they are filled
 * (dm_cache_get_stats()). Rows that are followed already stay as they are; but before the start
 * DM_CACHE_NO_STORE is taken from them, since the query could not answer. Which rows a query reads stands in docs/queries.md.
 * -1: a null pointer, or there is no query of that name.
 */
DM_API int32_t dm_cache_follow_for(const char *query);

/*
 * Ends what dm_cache_init() has begun: waits until no callback of the store client runs, empties the rows, forgets the
 * handle. Registrations and followers stay, and are not told of the stop; the next dm_cache_init(), with another
 * handle or the same, begins with an empty picture, as after a start that has failed. Close the handle after this,
 * since until then its callbacks may come, which do nothing any more. Meanwhile reads of the store answer as if nothing
 * was found. Not under the cache lock, and not while another thread uses what it has borrowed from the cache. 0 also
 * when nothing has begun; -1 from within a callback.
 */
DM_API int32_t dm_cache_stop(void);

#ifdef __cplusplus
}
#endif

#endif
