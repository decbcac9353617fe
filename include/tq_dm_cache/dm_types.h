#ifndef TQ_DM_TYPES_H
#define TQ_DM_TYPES_H

/*
 * Row numbers of the object type table, and the record of a row. A row number is the `type` that every cache operation
 * takes: it stands for one kind of object. Rows 0 to 38 that have no name here hold no kind.
 */

#include "dm_list.h"

#ifdef __cplusplus
extern "C" {
#endif

enum {
    DM_ROW_DP_LIB_COMPLETE = 1,    /* the store's content is complete */
    DM_ROW_DP_LIB_MY_INFO = 2,     /* this card: slot, node, type */
    DM_ROW_DEVICE_STATIC_INFO = 3, /* a device type's slots */
    DM_ROW_DM_DEVICE_STATTR = 4,   /* a device type's attributes */
    DM_ROW_DM_PORT_ATTR = 5,
    DM_ROW_CARD_STATIC_INFO = 6, /* a card type's name and sub-slots */
    DM_ROW_PORT_STATIC = 7,      /* static ports */
    DM_ROW_UNIT_CPORT_INFO = 8,  /* local ports, by unit and core port */
    DM_ROW_LPORT_INFO = 9,       /* local ports, by logical port */
    DM_ROW_LOCAL_PORT_INFO = 10,
    DM_ROW_DM_CARD_STATTR = 11,      /* a card type's attributes: chips, ports */
    DM_ROW_DP_LIB_LROLE = 12,        /* roles within this chassis */
    DM_ROW_DP_LIB_MY_CHSS_INFO = 13, /* this chassis */
    DM_ROW_LOCAL_CARD_INFO = 14,     /* the cards of this chassis */
    DM_ROW_DP_LIB_GROLE = 15,        /* roles within the whole unit */
    DM_ROW_DEVICE_INFO = 16,         /* devices */
    DM_ROW_CARD_INFO = 17,           /* cards and sub-cards of all devices */
    DM_ROW_DM_CHIP_STATTR = 20,      /* a chip type's attributes */
    DM_ROW_VSL_PORT_INFO = 21,       /* ports of virtual switching links */
    DM_ROW_VSD_PORT = 30,            /* global ports */
    DM_ROW_VSD_PORT_ATTR = 31,       /* ports of this VSD */
    DM_ROW_VSD_INFO = 32,            /* VSDs */
    DM_ROW_DEVICE_SYNC_INFO = 38,    /* serial number, MAC and hardware version of a device */
    DM_ROW_COUNT = 39
};

/* What a change callback is told: added, replaced or deleted. */
enum { DM_CACHE_ADDED = 0, DM_CACHE_REPLACED = 1, DM_CACHE_DELETED = 2 };

/* A kind registered with this flag is followed but never stored. */
enum { DM_CACHE_NO_STORE = 2 };

enum { DM_CACHE_CALLBACKS = 10 };

/*
 * A change of a row: `type` its number, `operation` one of the three above. The message is valid during the call only
 * and not the callback's to free or to change: the cache may hold the very same one. Runs on the store client's thread,
 * without the cache lock; the change is visible already. What it returns is ignored.
 */
typedef int32_t (*dm_cache_change_cb)(tq_mom_handle *handle, int32_t type, int32_t operation,
                                      ProtobufCMessage *message);

struct ndm_cache_tree;

/* One row of the object type table. Clients read it; only the library writes it. */
typedef struct obj_sub_entry {
    uint8_t enable;             /* 1: a client asked for the kind */
    uint8_t mark;               /* not used by the library */
    ProtobufCMessage *obj_tmpl; /* an empty message of the kind, its key included; null: the row holds no kind */
    dm_cache_list *obj_list;
    dm_cache_cmp_func cmp_func;
    uint32_t obj_size;     /* bytes of the kind's message */
    uint32_t index_offset; /* where the pointer to the key lies in it; 0: a kind without key, one object at most */
    int32_t flag;          /* as given to dm_cache_sub_obj() */
    uint32_t func_num;     /* callbacks registered */
    dm_cache_change_cb func[DM_CACHE_CALLBACKS]; /* from the front, without gaps */
    uint32_t db_id;                              /* database of the store that holds the kind */
    struct ndm_cache_tree *port_tree;            /* secondary index set, or null */
    int32_t proc_order; /* class by which scanned objects are applied: 1, 2, 3, then the others */
    uint8_t spare;
} obj_sub_entry;

#ifdef __cplusplus
}
#endif

#endif
