#ifndef TQ_NDM_REQUESTS_H
#define TQ_NDM_REQUESTS_H

/*
 * Requests to the store itself: follow one kind of object or some of its fields, ask for the reset of a card.
 *
 * Unless a function says otherwise: it uses the store handle given to dm_cache_init(), takes no cache lock of its own,
 * and any thread may call it that does not hold the cache lock.
 */

#include "../tq_platform.h"

#ifdef __cplusplus
extern "C" {
#endif

enum { NDM_LIB_SUB_FIELDS = 10 };

/* A subscription of one's own. It must live as long as the process: the store keeps a pointer to it. */
typedef struct ndm_lib_sub_info {
    uint32_t db;           /* store database of the objects */
    ProtobufCMessage *key; /* what selects them: a template of the kind, or one object's key */
    /* Called on the store client's thread; origin is "subscribe" for a push, "scan" for what was there already. */
    int32_t (*cb)(tq_mom_handle *handle, store_msg *msg, const char *origin);
    uint8_t scan_done;  /* set to 1 by a push that ends a scan; the end of the scan itself reaches cb alone */
    uint8_t subscribed; /* set to 1 by ndm_lib_subcribe() */
    int32_t field_num;  /* 0: whole objects; else how many of `fields` count */
    uint32_t fields[NDM_LIB_SUB_FIELDS]; /* field numbers */
} ndm_lib_sub_info;

/* Subscribes a request. 1 when it stands, now or from an earlier call; 0 when it is null, the store refused it
 * or field_num is not 0..10. Its objects are scanned once the subscription is confirmed. */
DM_API int32_t ndm_lib_subcribe(ndm_lib_sub_info *req);

/*
 * What the store calls for a subscribed request, on its own thread; a client does not need to. -1 for a null request;
 * the answer of the scan for a confirmation; else 0.
 */
DM_API int32_t ndm_lib_subcribe_com(tq_mom_handle *handle, store_msg *msg, void *req);

/*
 * Asks the device manager to reset a card, by writing a request into the store. The card must be online or be this one.
 * Neither text may be empty. -1 when refused here, else the store's answer. Blocks for a round trip.
 */
DM_API int32_t ndm_reset_module_by_node_causelly(uint32_t node, const char *cause, const char *mod_name);

#ifdef __cplusplus
}
#endif

#endif
