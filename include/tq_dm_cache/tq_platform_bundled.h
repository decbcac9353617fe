#ifndef TQ_PLATFORM_BUNDLED_H
#define TQ_PLATFORM_BUNDLED_H

/*
 * What only the bundled platform library has, beyond tq_platform.h: opening and closing a client by URL, deleting
 * objects, hearing of the connection, and making the embedded store misbehave on purpose.
 *
 * Store URLs:
 *   mem:        the embedded store of this process; it lives as long as the process
 *   mem:NAME    another one, shared by every handle that gives the same name
 *   redis://[LOGIN@]HOST[:PORT]                   a Redis server (7.0 or later), shared by every process that reaches it;
 *   redis+unix://[LOGIN@]/PATH                    the port is 6379 unless given, the path has 107 bytes at most
 *   redis-sentinel://[LOGIN@]HOST[:PORT],../NAME  the server that sentinels call the master NAME; their port is 26379 unless
 *   redis-sentinel+unix://[LOGIN@]/PATH,..?name=NAME   given, a comma in a path is %2C
 *   all with ?probe=MS                            how long the server may be silent, 100 to 600000, else 5000
 *
 * LOGIN is USER:PASSWORD, :PASSWORD, or USER: with the password in the environment; a lone word is refused, because it may
 * be a password. %XX stands for any other character there and in a path. A user or password that the URL does not give is
 * taken from the environment, TQ_STORE_USER and TQ_STORE_PASSWORD: a command line and its URL can be read by other users of
 * the machine. No message of the library shows a password; a URL that does not parse is shown as its scheme, and what is
 * not printable is escaped. HOST is looked up at every attempt to connect, on the loop's thread: an address, or a name of
 * /etc/hosts, costs no wait.
 * LOGIN is for the Redis servers; credentials for sentinels are in TQ_SENTINEL_USER and TQ_SENTINEL_PASSWORD. Sentinels are asked
 * in turn before every attempt to connect, on the loop's thread, which waits for the probe time when all of them are silent.
 *
 * Unless a function says otherwise: any thread may call it, and it returns 0 or a TQ_MOM_E_* code. Only
 * tq_mom_client_open() also says on standard error what was wrong.
 *
 * What tq_platform.h leaves to the platform is decided here, for every store:
 *   - While the connection is lost, tq_mom_client_connect() and the subscriptions are accepted: the ready callback and the
 *     confirmation come after the reconnect. A scan is accepted and lost, like one that was under way. Synchronous calls
 *     fail with TQ_MOM_E_UNREACHABLE; tq_mom_hgetall_sync() gives a record with that error.
 *   - A reconnect runs, in this order: the connection callback, owed confirmations, owed ready callbacks, the reconnect
 *     callback of every database that has one. All databases of a handle share one connection.
 *   - Damaged bytes, which do not unpack as their kind, cannot be packed again or carry another object's key, arrive as a
 *     message that has only the object's key, with TQ_MOM_E_DAMAGED as the push's `result` or the reply's `error`.
 *     Synchronous reads give no message, only the code. Without memory for a message the code is TQ_MOM_E_MEMORY.
 *   - tq_mom_subscribe_field() takes 1 to 10 fields that the kind has. The first field's callback gets the confirmation.
 *     A push goes to the callback and word of each field that changed, once to each different pair, and carries the whole
 *     object; an object that appears or is deleted changes all of its fields.
 *   - A timer that is armed already is moved. tq_thread_cancel() does not wait for a handler that is running.
 *
 * A client of a Redis server considers its connection lost when the server closes it, is silent for the probe time, is no
 * master, sends what means nothing, or has other content than before. docs/platform.md has these rules, and the settings and
 * permissions that a server needs. What a caller sees of them:
 *   - A synchronous call that waits fails with TQ_MOM_E_UNREACHABLE; it may have been carried out, or may still be, until
 *     the client has reconnected. Opening waits for the probe time for each of the client's two connections at most.
 *   - A reconnect has reason 1 for the same content of the same run of the same server, master all the while, and 2 for any
 *     other.
 *   - A subscription or a scan that the server refuses (no permission, a key of another type) holds its own kind only:
 *     TQ_MOM_RESULT_HELD comes in its place, and the client asks again by itself.
 *   - A write or read that the server refuses fails with TQ_MOM_E_REFUSED; after READONLY the connection is also lost. A
 *     change that its readers may not be told of is refused, and not made.
 *   - A lasting trouble is reported on standard error.
 *
 * A handle belongs to the process that opened it. In a child of fork() every call of it answers TQ_MOM_E_ARGUMENT, closing
 * included, and touches neither its sockets nor its locks; a child opens a handle of its own.
 */

#include "tq_platform.h"

#ifdef __cplusplus
extern "C" {
#endif

enum {
    TQ_MOM_E_ARGUMENT = -1, /* a null or unusable argument */
    TQ_MOM_E_MEMORY = -2,
    TQ_MOM_E_URL = -3,         /* the URL names no store */
    TQ_MOM_E_UNREACHABLE = -4, /* the store does not answer */
    TQ_MOM_E_NOT_FOUND = -5,   /* no such object */
    TQ_MOM_E_DAMAGED = -6,     /* bytes that are not what they should be */
    TQ_MOM_E_TIMEOUT = -7,
    TQ_MOM_E_DENIED = -8,  /* the store refuses the credentials */
    TQ_MOM_E_REFUSED = -9, /* the store refuses a request: out of memory, read-only, no permission */
    TQ_MOM_E_CHANGED = -10 /* the store has something else than was expected */
};

/*
 * Opens a client and starts its event-loop thread. A Redis server must answer: TQ_MOM_E_UNREACHABLE, TQ_MOM_E_DENIED when
 * it refuses the credentials, TQ_MOM_E_REFUSED when it is part of a cluster. Without descriptors, threads or memory left:
 * TQ_MOM_E_MEMORY.
 */
DM_API int32_t tq_mom_client_open(const char *url, tq_mom_handle **handle);

/*
 * Writes a store's URL as it may be shown: without its password, and only the scheme of one that names no store. Cut off at
 * `size`, the null byte included.
 */
DM_API int32_t tq_mom_url_without_secret(const char *url, char *text, uint32_t size);

/*
 * Ends the calls that wait, which fail, and waits until no thread is in a call of the handle; ends the loop, waits for a
 * callback that is running, disarms its timers and frees the handle; what was still to be told is dropped. Not from a
 * callback of the handle itself, be it of a synchronous scan: TQ_MOM_E_ARGUMENT.
 */
DM_API int32_t tq_mom_client_close(tq_mom_handle *handle);

/* One object to be set in a database. */
typedef struct tq_mom_write {
    uint32_t db;
    const ProtobufCMessage *obj; /* borrowed for the call */
} tq_mom_write;

/*
 * Sets many objects in order, as tq_mom_set() sets each, but sends them without waiting for every answer; other callers of
 * the handle have their turn in between. 0 when the store has taken all; else the code of the first that it has not.
 * `taken` receives how many it has taken, `refused` the number of that first one, from 0, or `count`; either may be null.
 * After a refusal some hundred more may have been tried, and been taken. After a lost connection those whose answer is
 * missing count as not taken. An entry that is no object with its key: TQ_MOM_E_ARGUMENT, and nothing is sent.
 */
DM_API int32_t tq_mom_set_many(tq_mom_handle *handle, const tq_mom_write *writes, uint32_t count, uint32_t *taken,
                               uint32_t *refused);

/* Deletes one object and tells its subscribers. TQ_MOM_E_NOT_FOUND when there is none, and nobody is told. */
DM_API int32_t tq_mom_del(tq_mom_handle *handle, uint32_t db, const ProtobufCMessage *obj_with_key);

/*
 * Replaces an object if nobody has changed it meanwhile: sets `after` if the store still has `before`, as it was read;
 * null for `before`: if the store has no object of that key; null for `after`: deletes it. Else TQ_MOM_E_CHANGED, and nothing
 * is changed or told. Both borrowed for the call. Not of one kind and key, or both null: TQ_MOM_E_ARGUMENT.
 */
DM_API int32_t tq_mom_replace(tq_mom_handle *handle, uint32_t db, const ProtobufCMessage *before,
                              const ProtobufCMessage *after);

/*
 * Hears of the connection, on the loop's thread: first how it is now, with reason 0, then every change. connected 1: it
 * stands, reason as in tq_mom_reconnect_cb; 0: it is lost. One callback a handle; null takes it away.
 */
typedef void (*tq_mom_connection_cb)(tq_mom_handle *handle, int32_t connected, int32_t reason, void *privdata);
DM_API int32_t tq_mom_client_set_connection_cb(tq_mom_handle *handle, tq_mom_connection_cb callback, void *privdata);

/* Writes the URL of the client's store as it may be shown, like tq_mom_url_without_secret(). */
DM_API int32_t tq_mom_client_store(tq_mom_handle *handle, char *text, uint32_t size);

/*
 * The client's name in the server's list of clients: letters, digits, dots and minuses, 63 at most; anything else becomes
 * an underscore. Until then it has its program's name. When the server forbids names, the client goes on without one.
 * dm_cache_init() gives the client the name that it was given. The subscribing connection gets the name when it next
 * connects.
 */
DM_API int32_t tq_mom_client_set_name(tq_mom_handle *handle, const char *name);

/* A client of the store's server: its connection for requests. Good during the call that tells of it. */
typedef struct tq_mom_store_client {
    const char *name; /* empty: it has none */
    const char *address;
    uint32_t age_s;  /* since it connected */
    uint32_t idle_s; /* since it last asked something */
} tq_mom_store_client;

/*
 * Tells who is connected to the store's server, this client included. TQ_MOM_E_ARGUMENT for a store without a server,
 * TQ_MOM_E_REFUSED when the server does not say. The callback runs on the caller's thread.
 */
typedef void (*tq_mom_store_client_cb)(const tq_mom_store_client *client, void *word);
DM_API int32_t tq_mom_store_clients(tq_mom_handle *handle, tq_mom_store_client_cb callback, void *word);

/* How many damaged values this client has met. */
DM_API uint64_t tq_mom_client_damaged(tq_mom_handle *handle);

/*
 * Everything that the store told up to this many milliseconds ago has been delivered to the callbacks, but for what a reconnect
 * has voided and a scan brings again. -1: nothing is known since the handle was opened. A Redis store is asked five times in a
 * probe time, and not while a long answer comes in. The number grows while the connection is lost, and, when memory was missing
 * for something that the store told, until the next reconnect. Any thread, callbacks included.
 */
DM_API int64_t tq_mom_client_heard_ms(tq_mom_handle *handle);

/*
 * Makes a handle forget its subscriptions with this callback (of fields: with it as the first one) and its scans that
 * are under way: they are not told any more, but for a delivery that runs already. A subscription that is asked for
 * again is confirmed again. dm_cache_stop() does this with the cache's own callbacks. TQ_MOM_E_ARGUMENT: a null
 * callback, or no handle. Any thread, callbacks included.
 */
DM_API int32_t tq_mom_client_forget(tq_mom_handle *handle, tq_mom_msg_cb callback);

/*
 * Waits until the loop has run everything that was due when this was called, timers included. What callbacks asked for
 * meanwhile may still be to come, and what a server has not sent yet. TQ_MOM_E_TIMEOUT after timeout_ms. Not from the
 * loop's own thread: TQ_MOM_E_ARGUMENT.
 */
DM_API int32_t tq_mom_client_drain(tq_mom_handle *handle, int32_t timeout_ms);

/*
 * Misbehaviour of the embedded store, for tests and demonstrations. Each takes a handle on a mem: store and answers
 * TQ_MOM_E_ARGUMENT for any other.
 */

/* Cuts one client off: what has not reached its callbacks is lost, in the middle of a scan too, and nothing more comes. */
DM_API int32_t tq_mem_disconnect(tq_mom_handle *handle);

/* Lets it back in: reason 1, or 2 when the store has been restarted since it last was. */
DM_API int32_t tq_mem_reconnect(tq_mom_handle *handle);

/* Restarts the whole store as another instance: every client is cut off. keep 1 keeps the content, 0 empties it. */
DM_API int32_t tq_mem_restart(tq_mom_handle *handle, int32_t keep);

/*
 * The next n subscription confirmations to this client are lost on the way, until a reconnect delivers them. Pushes come
 * all the same.
 */
DM_API int32_t tq_mem_lose_confirmations(tq_mom_handle *handle, int32_t n);

/* Puts bytes that may be damaged in an object's place and tells subscribers, as a faulty writer would. */
DM_API int32_t tq_mem_put_bytes(tq_mom_handle *handle, uint32_t db, const ProtobufCMessage *obj_with_key,
                                const uint8_t *bytes, uint32_t length);

#ifdef __cplusplus
}
#endif

#endif
