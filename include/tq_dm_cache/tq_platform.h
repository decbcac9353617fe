#ifndef TQ_PLATFORM_H
#define TQ_PLATFORM_H

/*
 * The platform interface: store client, timers and capability file. These declarations are all that the cache library
 * expects of the platform library that its process loads; libtq_platform is the bundled one.
 *
 * Unless a function says otherwise:
 *   - it returns 0 when the request was accepted, else a non-zero code;
 *   - callbacks run on the handle's event-loop thread, in the store's own order, and never within the call that asked for
 *     them: a caller on another thread may be told a little before its call has returned; what a callback returns is
 *     ignored;
 *   - a message in a callback is valid during that call only;
 *   - `tmpl` names a kind by its descriptor; `obj_with_key` names one object by the key in its field `index`.
 */

#include "dm_api.h"

#include <protobuf-c/protobuf-c.h>

#ifdef __cplusplus
extern "C" {
#endif

/* One event loop. */
typedef struct tq_thread_master tq_thread_master;

/* One client of the store. On 32-bit machines `timer_master` lies at byte 4. */
typedef struct tq_mom_handle {
    void *impl;
    tq_thread_master *timer_master;
} tq_mom_handle;

/* What `cmd` of a store_msg says. Any other command is the store's own business. */
enum {
    TQ_MOM_CMD_SET = 1,        /* value: the object that was set */
    TQ_MOM_CMD_DELETE = 3,     /* value: a message of the kind that carries the deleted object's key */
    TQ_MOM_CMD_REPLY = 4,      /* value: a result_rec; the replies of a scan, its end mark included */
    TQ_MOM_CMD_REPLY_HASH = 6, /* value: a result_rec */
    TQ_MOM_CMD_REPLY_GET = 9,  /* value: a result_rec */
    TQ_MOM_CMD_SUBSCRIBED = 29 /* the subscription is in force; value unused */
};

/*
 * `result` of a store_msg: the store refuses what was asked for, but the platform goes on asking. With TQ_MOM_CMD_SUBSCRIBED
 * a subscription, with TQ_MOM_CMD_REPLY a scan. Its confirmation, its objects and its end mark come when it is granted. A
 * platform that does not know such a state never says so.
 */
enum { TQ_MOM_RESULT_HELD = -9 };

/* One message of the store. Offsets are those of 32-bit machines, where it has 672 bytes. */
typedef struct store_msg {
    uint32_t db;            /*   0  database number */
    uint8_t reserved0[640]; /*   4 */
    int32_t cmd;            /* 644 */
    void *value;            /* 648  a message, or a result_rec for cmd 4, 6 and 9 */
    uint32_t reserved1;     /* 652 */
    int32_t flag;           /* 656  1: last reply of a scan */
    uint32_t reserved2[2];  /* 660 */
    int32_t result;         /* 668  non-zero: the message is not usable */
} store_msg;

/* A reply that carries one object. `error` lies at byte 20 on 32-bit machines; non-zero: `obj` is not usable. */
typedef struct result_rec {
    ProtobufCMessage *obj;
    uint32_t reserved[4];
    int32_t error;
} result_rec;

/*
 * A timer: 64 bytes everywhere, owned by the caller, zeroed before it is first armed, filled by the timer library while
 * it is armed. Do not move or free an armed record.
 */
typedef struct tq_thread_timer {
    uint8_t reserved0[20];
    int32_t arg; /* the argument given when it was armed */
    uint8_t reserved1[3];
    uint8_t state; /* the bit TQ_THREAD_TIMER_ARMED while it is armed */
    uint8_t reserved2[36];
} tq_thread_timer;

enum { TQ_THREAD_TIMER_ARMED = 2 };

/* The connection to a database is ready. */
typedef int32_t (*tq_mom_ready_cb)(void *reserved, uintptr_t privdata);
/* A lost connection is back. reason 1: the same server; 2: another server instance, whose content may differ. */
typedef int32_t (*tq_mom_reconnect_cb)(void *reserved, uint32_t db, int32_t reason, void *reserved2);
typedef int32_t (*tq_mom_msg_cb)(tq_mom_handle *handle, store_msg *msg, void *privdata);

/* Connects a database. `ready` is called once the database can be used. */
DM_API int32_t tq_mom_client_connect(tq_mom_handle *handle, uint32_t db, tq_mom_ready_cb ready, uintptr_t privdata);

/* Sets what is called after a lost connection to a database has come back and its subscriptions are restored. */
DM_API int32_t tq_mom_client_set_reconnect_cb(tq_mom_handle *handle, uint32_t db, tq_mom_reconnect_cb reconnect,
                                              int32_t reserved);

/* Waits, 5 s at most, until every connection asked for stands. Ready callbacks may still be pending when it returns. */
DM_API int32_t tq_mom_client_connect_sync(tq_mom_handle *handle, int32_t reserved);

/*
 * Follows a kind: one TQ_MOM_CMD_SUBSCRIBED, then every set and delete. Kept per database, kind, callback and privdata:
 * a repeated subscription is confirmed again and doubles nothing. A lost connection restores it without a second
 * confirmation, but one that was still owed is given.
 */
DM_API int32_t tq_mom_subscribe(tq_mom_handle *handle, uint32_t db, const ProtobufCMessage *tmpl, int32_t reserved,
                                tq_mom_msg_cb callback, void *privdata);

/*
 * Follows some fields of one object: for each of the n field numbers its callback and word. One confirmation a call, one
 * push for a change of any listed field.
 */
DM_API int32_t tq_mom_subscribe_field(tq_mom_handle *handle, uint32_t db, const ProtobufCMessage *key, int32_t reserved,
                                      const uint32_t *field_numbers, tq_mom_msg_cb *callbacks, void **privdata,
                                      int32_t n);

/*
 * Asks for all objects of a kind: each arrives as TQ_MOM_CMD_REPLY with `flag` 0, then comes an end mark, a
 * TQ_MOM_CMD_REPLY with `flag` 1 and a null `value`. A scan cut off by a lost connection ends by the reconnect.
 */
DM_API int32_t tq_mom_scan(tq_mom_handle *handle, uint32_t db, const ProtobufCMessage *tmpl, int32_t reserved,
                           tq_mom_msg_cb callback, void *privdata);

/*
 * The same on the caller's own thread: returns after the last object. No end mark. Any thread may call it, the loop's
 * own included, without a connect before it.
 */
DM_API int32_t tq_mom_scan_sync(tq_mom_handle *handle, uint32_t db, const ProtobufCMessage *tmpl, int32_t reserved,
                                tq_mom_msg_cb callback, void *privdata);

/* How long, in milliseconds, a client should wait after a reconnect before it scans again. */
DM_API int32_t tq_mom_get_reconnect_scan_time(tq_mom_handle *handle, uint32_t db);

/*
 * Reads one object and waits for it. Null: no reply. A record with a null `obj` or a non-zero `error`: no such object,
 * or not readable. Release with tq_mom_hash_res_free(). Any thread may call it.
 */
DM_API result_rec *tq_mom_hgetall_sync(tq_mom_handle *handle, uint32_t db, const ProtobufCMessage *obj_with_key);

/* The same as a bare message, with the error code beside it. Release with tq_mom_tq_obj_free(). */
DM_API ProtobufCMessage *tq_mom_get_sync(tq_mom_handle *handle, uint32_t db, const ProtobufCMessage *obj_with_key,
                                         int32_t *error);

/* Releases a record of tq_mom_hgetall_sync(), its object included. Null is accepted. */
DM_API int32_t tq_mom_hash_res_free(result_rec *record);

/* Releases a message of tq_mom_get_sync(). Null is accepted. */
DM_API int32_t tq_mom_tq_obj_free(ProtobufCMessage *message);

/* Writes one object and tells its subscribers. Waits until the store has it. Any thread may call it. */
DM_API int32_t tq_mom_set(tq_mom_handle *handle, uint32_t db, const ProtobufCMessage *obj, int32_t reserved,
                          int32_t reserved2);

/*
 * Arms a timer that runs `handler` once, delay_ms from now, on the loop's thread. The record is disarmed before the
 * handler runs. `name` is kept: give a literal.
 */
DM_API int32_t tq_thread_insert_timer(tq_thread_master *master, tq_thread_timer *timer,
                                      int32_t (*handler)(tq_thread_timer *), int32_t arg, int32_t delay_ms,
                                      const char *name);

/* Disarms a timer. A record that is not armed is left alone. */
DM_API int32_t tq_thread_cancel(tq_thread_timer *timer);

/* Opens a capability file (XML). Null: not there or not readable. Close with libtq_cap_get_g_cap_finish(). */
DM_API void *libtq_cap_get_g_cap_init(const char *path);

/*
 * Reads one capability. `key` is a path of element names below the root, separated by slashes. type 2: `value` is an
 * int32_t, the element's text read as a decimal number. Nothing else is answered, nothing is written on failure.
 */
DM_API int32_t libtq_cap_get_g_cap(void *cap, const char *key, int32_t type, void *value, int32_t reserved);

DM_API void libtq_cap_get_g_cap_finish(void *cap);

#ifdef __cplusplus
}
#endif

#endif
