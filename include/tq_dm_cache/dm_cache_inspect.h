#ifndef TQ_DM_CACHE_INSPECT_H
#define TQ_DM_CACHE_INSPECT_H

/*
 * What a running process answers about its cache. With DM_CACHE_INSPECT=DIR in its environment, dm_cache_init() opens the unix
 * stream socket DIR/NAME.PID: NAME is the one given to dm_cache_init(), with _ for whatever is no letter, digit, dot, minus or
 * underscore. docs/inspect.md tells who may connect and what it costs. Reading these records needs nothing of the library.
 *
 * Every record begins with a dm_inspect_record. Numbers are the machine's own. A row's record may grow at its end, and there may
 * be more kinds of records: read as many bytes as you know, and pass over the rest. Records with data behind them do not grow.
 *
 * The first record is a hello, or busy, after which the connection ends. Then the client asks one line after the other, and
 * each answer ends with an end record:
 *   process        the process, then each row that holds a kind
 *   objects ROW    the objects of a row, in the order of its list
 * Anything else ends the connection, and so does a client that takes longer than DM_INSPECT_PATIENCE_MS to ask, or to read on.
 */

#include "dm_cache_status.h"
#include "dm_port_index.h"

#ifdef __cplusplus
extern "C" {
#endif

enum { DM_INSPECT_VERSION = 1, DM_INSPECT_CLIENTS = 4, DM_INSPECT_PATIENCE_MS = 10000 };

enum {
    DM_INSPECT_HELLO = 1,
    DM_INSPECT_BUSY = 2, /* as many clients as may be are connected */
    DM_INSPECT_PROCESS = 3,
    DM_INSPECT_ROW = 4,
    DM_INSPECT_OBJECT = 5,
    DM_INSPECT_AGAIN = 6, /* the row has changed so much that its objects come anew: forget those that have come */
    DM_INSPECT_END = 7
};

typedef struct dm_inspect_record {
    uint32_t length; /* of what follows, in bytes */
    uint32_t what;
} dm_inspect_record;

/* The name as it was given follows, without a null byte. */
typedef struct dm_inspect_hello {
    uint32_t version;
    int32_t pid;
} dm_inspect_hello;

/* Two texts follow, each with its null byte: the sentence of dm_cache_reason(), and the store's URL without its secret, empty
 * where the platform does not tell it. */
typedef struct dm_inspect_process {
    uint8_t started; /* dm_cache_init() has finished */
    uint8_t live;
    uint8_t reserved[2];
    uint32_t applied;  /* full applications so far */
    uint32_t gathered; /* objects with which the application at hand, or the last one, began */
    uint32_t events;   /* noted for followers, and not told yet */
} dm_inspect_process;

typedef struct dm_inspect_row {
    int32_t type;
    int32_t flag; /* as given to dm_cache_sub_obj() */
    uint32_t db;
    uint32_t callbacks; /* registered */
    uint32_t followers;
    uint32_t reserved;
    int64_t age_ms; /* the row was equal to the store at most this long ago; -1: not known */
    dm_cache_stats stats;
} dm_inspect_row;

/* What a tree of the row finds by the object's key in it. */
enum { DM_INSPECT_FINDS_NOTHING = 0, DM_INSPECT_FINDS_OBJECT = 1, DM_INSPECT_FINDS_ANOTHER = 2 };

/* Who has put the object there as it is: the store, the client's dm_cache_set_obj(), or the client's own hand in the list. */
enum { DM_INSPECT_BY_STORE = 0, DM_INSPECT_BY_HAND = 1, DM_INSPECT_BY_SET_OBJ = 2 };

/* An object, and how it is indexed. Its packed bytes follow. */
typedef struct dm_inspect_object {
    int32_t type;
    uint8_t trees;   /* of its row */
    uint8_t indexed; /* it has keys */
    uint8_t found[NDM_CACHE_TREES];
    uint8_t by_client; /* DM_INSPECT_BY_.. */
    uint8_t reserved[5];
    int64_t key[NDM_CACHE_TREES];
} dm_inspect_object;

#ifdef __cplusplus
}
#endif

#endif
