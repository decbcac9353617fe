#ifndef TQ_DM_CACHE_H
#define TQ_DM_CACHE_H

/*
 * The cache: start it, lock it, follow kinds of objects, read and store objects.
 *
 * A client's order of calls: dm_cache_multi_thread_init(), dm_cache_sub_obj() for each kind, dm_cache_init() once. From
 * then on the store client's thread keeps the rows equal to the store. A follower (dm_cache_follow.h) may come at any time,
 * and enables its row. dm_cache_stop() ends it all.
 *
 * Unless a function says otherwise:
 *   - `type` is a row number, 0..38 (dm_types.h);
 *   - it takes no lock. Reads hand out the cached messages themselves: hold the cache lock from the call until the
 *     message is no longer used, and copy what must live longer with dm_cache_copy_obj();
 *   - it returns 0, or -1 for an argument that it refuses.
 */

#include "dm_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Start-up */

/*
 * Brings the cache to life: reads the number of chassis and this process's log threshold, sets up the table, connects
 * the store. 0 also when it runs already; a code of the store is handed back, and the next call starts afresh. `handle`
 * is kept until dm_cache_stop(): a different handle given before that is ignored, and a line of the log says so. Of `name`
 * 31 characters are kept. Call it from one thread, not under the cache lock, and before any other thread uses the cache: it
 * sets the table up without the lock.
 */
DM_API int32_t dm_cache_init(tq_mom_handle *handle, const char *name);

/* How many chassis can a virtual unit have? 1..16, from the capability file; else 2. */
DM_API int32_t dm_get_vsu_switch_num_limit(void);

/* Lock */

/* Makes the cache lock. Call it before dm_cache_init() when more than one thread uses the cache. -1: not created. */
DM_API int32_t dm_cache_multi_thread_init(void);

/*
 * Lock and unlock. Each lock needs one unlock. The holder alone reads and changes the cache. 0; EPERM when a thread
 * unlocks what it does not hold. Queries need not be locked: they take the lock's shared side, which several threads
 * hold at a time. Threads that wait are served in turn, a change that the store has pushed before them. Without a lock
 * (dm_cache_multi_thread_init()) both do nothing.
 */
DM_API int32_t dm_cache_lock(void);
DM_API int32_t dm_cache_unlock(void);

/* Registration: before dm_cache_init(). A row that dm_cache_sub_obj() enables later is subscribed only when its database
 * reconnects; one that dm_cache_follow() enables, at once. */

/*
 * Follows a kind. `func` (may be null) is called after each of its changes, up to ten functions in order of
 * registration. `flag`: 0, or DM_CACHE_NO_STORE; it replaces an earlier one. -1 also for an eleventh function, -2 for one
 * that is registered already; the row is then as it was. Never call it while a callback of the row may run.
 */
DM_API int32_t dm_cache_sub_obj(int32_t type, dm_cache_change_cb func, int32_t flag);

/* Access */

/*
 * Which cached object has this key? `key` is a key message of the kind, null for a kind without key; `out` receives the
 * message, borrowed, or null when there is none (-1). Never write to the message: the queue, followers and whoever inspects the
 * process may have a share of it. A look-up allocates nothing.
 */
DM_API int32_t dm_cache_get_obj(int32_t type, const void *key, void *out);

/*
 * Stores a copy of an object in the cache, not in the store; no callback runs. Takes the cache lock. 0 also, and nothing
 * stored, for a kind with DM_CACHE_NO_STORE. -1 also when the row holds no kind or is full (10000 objects), or the object
 * is of another kind or lacks its key; the codes of dm_cache_copy_obj().
 */
DM_API int32_t dm_cache_set_obj(int32_t type, const void *obj);

/* Calls `func` for every object of a kind with the address of a word that holds `arg`; what it returns is ignored. It
 * must not remove the object that it is given. */
DM_API int32_t dm_cache_foreach_obj(int32_t type, int32_t (*func)(ProtobufCMessage *obj, uintptr_t *word),
                                    uintptr_t arg);

/* How many objects of a kind are cached? -2 before dm_cache_init() has finished, -1 also for a row without a kind. */
DM_API int32_t dm_cache_get_obj_index_list_len(int32_t type);

/*
 * The keys of a kind: writes up to `capacity` pointers to borrowed key messages into `buf` and their number into `count`.
 * A kind without key: 0, and nothing is written.
 */
DM_API int32_t dm_cache_get_obj_index_list(int32_t type, void *buf, int32_t capacity, int32_t *count);

/*
 * A deep copy, as packing and unpacking give it; `descriptor` is the message's own. Free it with
 * protobuf_c_message_free_unpacked(). Needs no lock for a message of one's own. On failure null in `out`: -2 size, -3
 * memory, -4 packing, -5 unpacking (memory included).
 */
DM_API int32_t dm_cache_copy_obj(const void *src, const ProtobufCMessageDescriptor *descriptor, void *out);

/* The object type table */

/* Sets up the rows of devices, cards, roles and virtual switching in a table. For start-up: what their lists hold is
 * dropped without being freed. */
DM_API int32_t dm_cache_init_obj(obj_sub_entry *table);

/* The same for row 38 alone. */
DM_API int32_t dm_init_cache_device_sync_info(obj_sub_entry *row);

DM_API extern obj_sub_entry obj_sub_list[DM_ROW_COUNT];
DM_API extern const int32_t obj_sub_list_max;

/* Words of the process. Read them; the two thresholds may be written at any time. */

/* A message is written to standard output when the threshold is not above its level: 2 failures, 1 notable events, 0
 * tracing. 3, the initial value, writes nothing. */
DM_API extern int32_t g_dm_cache_level;  /* cache, indexes, most queries; the configuration file sets it at start-up */
DM_API extern int32_t g_ndm_lib_dbg_lvl; /* identity, slot and static queries, store reads, virtual switching */

DM_API extern int32_t self_thread;             /* kernel thread id of the first dm_cache_init(); -1 before it */
DM_API extern int32_t dm_vsu_switch_num_limit; /* see dm_get_vsu_switch_num_limit() */
DM_API extern char dm_cache_my_name[32];
DM_API extern tq_mom_handle *g_dm_global;     /* the handle given to dm_cache_init() */
DM_API extern int32_t g_dm_db_connect_reason; /* last reconnect: 2 the same server, 3 another; 0 none so far */

/* Kept for clients that link them; the library does not use them. */
DM_API extern int32_t dm_indep_logfile;
DM_API extern int32_t ndm_logfile_info;
DM_API extern char dp_lib_client_name[32];

#ifdef __cplusplus
}
#endif

#endif
