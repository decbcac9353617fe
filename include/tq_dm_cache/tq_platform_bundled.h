#ifndef TQ_PLATFORM_BUNDLED_H
#define TQ_PLATFORM_BUNDLED_H

/*
 * What only the bundled platform library has, beyond tq_platform.h: opening and closing a client by URL, deleting
 * objects, hearing of the connection, and making the embedded store misbehave on purpose.
 *
 * Store URLs:
 *   mem:        the embedded store of this process
 *   mem:NAME    another one, shared by every handle that gives the same name
 *
 * Unless a function says otherwise: any thread may call it, and it returns 0, or a TQ_MOM_E_* code after one line on
 * standard error that says what was wrong.
 */

#include "tq_platform.h"

#ifdef __cplusplus
extern "C" {
#endif

enum {
    TQ_MOM_E_ARGUMENT = -1, /* a null or unusable argument; says nothing on standard error */
    TQ_MOM_E_MEMORY = -2,
    TQ_MOM_E_URL = -3,         /* the URL names no store */
    TQ_MOM_E_UNREACHABLE = -4, /* the store does not answer */
    TQ_MOM_E_NOT_FOUND = -5,   /* no such object; says nothing on standard error */
    TQ_MOM_E_DAMAGED = -6,     /* bytes that do not unpack as their kind; says nothing on standard error */
    TQ_MOM_E_TIMEOUT = -7
};

/* Opens a client and starts its event-loop thread. */
DM_API int32_t tq_mom_client_open(const char *url, tq_mom_handle **handle);

/*
 * Ends the loop, waits for a callback that is running, disarms its timers and frees the handle. Not from a callback of
 * the handle itself: TQ_MOM_E_ARGUMENT.
 */
DM_API int32_t tq_mom_client_close(tq_mom_handle *handle);

/* Deletes one object and tells its subscribers. TQ_MOM_E_NOT_FOUND when there is none, and nobody is told. */
DM_API int32_t tq_mom_del(tq_mom_handle *handle, uint32_t db, const ProtobufCMessage *obj_with_key);

/*
 * Hears of the connection, on the loop's thread. connected 1: it stands (reason 0 for the first time, then 1 or 2 as in
 * tq_mom_reconnect_cb, before the reconnect callbacks run); 0: it is lost. One callback a handle; null takes it away.
 */
typedef void (*tq_mom_connection_cb)(tq_mom_handle *handle, int32_t connected, int32_t reason, void *privdata);
DM_API int32_t tq_mom_client_set_connection_cb(tq_mom_handle *handle, tq_mom_connection_cb callback, void *privdata);

/* How many values this client has met that did not unpack as their kind. */
DM_API uint64_t tq_mom_client_damaged(tq_mom_handle *handle);

/*
 * Waits until the loop has run everything that was due when this was called, timers that are not due excepted.
 * TQ_MOM_E_TIMEOUT after timeout_ms. Not from the loop's own thread: TQ_MOM_E_ARGUMENT.
 */
DM_API int32_t tq_mom_client_drain(tq_mom_handle *handle, int32_t timeout_ms);

/*
 * Misbehaviour of the embedded store, for tests and demonstrations. Each takes a handle on a mem: store and answers
 * TQ_MOM_E_ARGUMENT for any other.
 */

/* Cuts one client off: it gets no pushes and no replies any more, and scans under way are lost. Its synchronous calls
 * fail with TQ_MOM_E_UNREACHABLE. */
DM_API int32_t tq_mem_disconnect(tq_mom_handle *handle);

/* Lets it back in: reason 1, or 2 when the store has been restarted meanwhile. */
DM_API int32_t tq_mem_reconnect(tq_mom_handle *handle);

/* Restarts the whole store as another instance: every client is cut off. keep 1 keeps the content, 0 empties it. */
DM_API int32_t tq_mem_restart(tq_mom_handle *handle, int32_t keep);

/* The next n subscription confirmations to this client are lost on the way, until a reconnect delivers them. */
DM_API int32_t tq_mem_lose_confirmations(tq_mom_handle *handle, int32_t n);

/* Puts bytes that may not unpack in an object's place and tells subscribers, as a damaged writer would. */
DM_API int32_t tq_mem_put_bytes(tq_mom_handle *handle, uint32_t db, const ProtobufCMessage *obj_with_key,
                                const uint8_t *bytes, uint32_t length);

#ifdef __cplusplus
}
#endif

#endif
