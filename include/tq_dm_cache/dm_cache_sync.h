#ifndef TQ_DM_CACHE_SYNC_H
#define TQ_DM_CACHE_SYNC_H

/*
 * Entry points of store synchronisation. Start-up hands them to the store client; a client has no need to call them.
 *
 * Unless a function says otherwise: it runs on the store client's callback thread and takes the cache lock around its
 * changes of the cache; change callbacks run after the lock is released. docs/synchronisation.md tells the machine state
 * by state.
 */

#include "dm_cache.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Receives every confirmation, scan reply and push; `privdata` is the row number. -1: the message was refused. */
DM_API int32_t dm_cache_mom_callback_func(tq_mom_handle *handle, store_msg *msg, void *privdata);

/* Subscribes every enabled row of a database. Always 0: refusals are logged. */
DM_API int32_t dm_cache_subscribe(uint32_t db);

/* Queues a copy of a message's object for the next application. 0 also for a null value; -1 no memory or an unusable
 * record, -2 the copy failed. */
DM_API int32_t dm_cache_mom_cache(store_msg *msg, int32_t row);

/* Moves what is queued for row 1 behind all else. Always 0. */
DM_API int32_t dm_cache_resort_over(void);

/* Removes every element of every enabled row that is still marked dirty; no callback runs. Always 0. */
DM_API int32_t dm_cache_clear_data_dirty(void);

/* 1 once the cache has held a complete picture of the store. Stays 1 while a later one is gathered, and is 0 while it is
 * applied; when the store delivers a message within the application that has everything gathered again, 0 until that is
 * applied. 0 again after a stop. Use dm_cache_status.h to wait. */
DM_API extern uint8_t g_cache_proc_done;

#ifdef __cplusplus
}
#endif

#endif
