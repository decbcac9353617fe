#ifndef TQ_DM_CACHE_STATUS_H
#define TQ_DM_CACHE_STATUS_H

/*
 * Waiting for the cache, and counters that show a row which holds it back.
 *
 * Unless a function says otherwise: any thread may call it except the store client's own (a wait there would wait for
 * itself); it takes a lock of its own for a moment, never the cache lock.
 */

#include "dm_cache.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Waits until the first full application is done. timeout_ms 0 only asks. -1: not done in time, and unless it only asked the
 * reason is logged. */
DM_API int32_t dm_cache_wait_synced(int32_t timeout_ms);

/* How many full applications have been done: 1 after the first synchronisation, one more after each later one. */
DM_API uint32_t dm_cache_applied(void);

/* Waits until more than `than` full applications are done: ask dm_cache_applied() before what causes the next. */
DM_API int32_t dm_cache_wait_applied(uint32_t than, int32_t timeout_ms);

/*
 * What does the first application, or the one after a lost connection, wait for? One sentence without a line break, such as
 * "row 17 p_dev.card_info is subscribed, its scan has not ended for 3.2 s", in up to `len` bytes, its end included; empty when
 * the cache is live. Its whole length, whatever fits; `buf` may be null with `len` 0. The store client's thread may call it too.
 */
DM_API int32_t dm_cache_reason(char *buf, int32_t len);

/*
 * How old is a row's picture? The row was equal to the store at most this many milliseconds ago, but for objects that
 * the cache has refused and what the client itself has put into the row. The age grows while the connection is lost or
 * the cache gathers. -1: no promise, because the row is out of range, not enabled, not filled yet, held or refused by
 * the store, the cache is stopped, or the platform does not tell (the bundled one does: tq_mom_client_heard_ms(), on a
 * Redis server from a fifth of the probe time on). A row with DM_CACHE_NO_STORE has none. The store client's thread may
 * call it too.
 */
DM_API int64_t dm_cache_age_ms(int32_t type);

/*
 * A line of the log, whole and without line break, of up to 1023 bytes: its level (2 failures, 1 notable events, 0 tracing), the
 * module and function that it names, the line of the source. The texts are good during the call.
 */
typedef void (*dm_cache_log_cb)(int32_t level, const char *module, const char *function, int32_t line, const char *text,
                                void *word);

/*
 * Hands the log's lines to a function instead of standard output; null: standard output again. Which lines there are is
 * decided by g_dm_cache_level and g_ndm_lib_dbg_lvl, at any time. One call a line, one at a time, on the thread that
 * has something to say, which may hold the cache lock: the function must not wait for another thread that uses the
 * library, and lines that it causes itself are dropped. When this returns, the function that was set before does not
 * run any more. Any thread may call it.
 */
DM_API void dm_cache_set_log(dm_cache_log_cb callback, void *word);

/* One row since the process began. What queries do does not count. The record may grow at its end. */
typedef struct dm_cache_stats {
    uint8_t enabled;
    uint8_t subscribed; /* its subscription is confirmed */
    uint8_t scanned;    /* its scan has ended since the last resynchronisation or reconnect */
    uint8_t held;       /* the store refuses its subscription or scan for now; the other rows go on without it */
    uint32_t objects;   /* cached now */
    uint32_t sets;      /* sets applied, replaced objects included */
    uint32_t deletes;   /* deletes applied */
    uint32_t swept;     /* objects removed because a scan no longer returned them */
    uint32_t refused; /* sets and deletes that did not change the cache: damaged, of another kind, no key, list full, no
                         memory, never stored, not cached; what queries have read and could not cache; and keys of
                         cached objects that got no memory: a look-up by such a key does not find its object */
    uint32_t last_scan_ms; /* from the request of its last finished scan to the scan's end */
    uint32_t queued;       /* sets and deletes that wait for the next application */
    uint32_t callbacks;    /* change callbacks and followers that have run */
    uint32_t longest_callback_us;
    uint32_t last_change_ms; /* since a set, a delete or a sweep was last applied; UINT32_MAX: never */
} dm_cache_stats;

/* Writes the first `size` bytes of a row's counters: give sizeof(dm_cache_stats). -1 also for a type out of range. */
DM_API int32_t dm_cache_get_stats(int32_t type, dm_cache_stats *stats, uint32_t size);

#ifdef __cplusplus
}
#endif

#endif
