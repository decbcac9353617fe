#ifndef TQ_NDM_RECORDS_H
#define TQ_NDM_RECORDS_H

/*
 * Single facts of the device records: name, number of slots, master and slave nodes, node type of a card type.
 *
 * Unless a function says otherwise:
 *   - it answers from the cache and takes the cache lock for the time of the call; any thread may call it, also from a
 *     change callback;
 *   - a form that ends in _rt reads an object that is not cached from the store, and does not cache it. That blocks for
 *     a round trip, so do not hold the cache lock;
 *   - it returns the value itself, or 0 where it has an out-value; -1 when an object is not there or an argument is
 *     refused; out-values are written on success only.
 */

#include "../dm_api.h"

#ifdef __cplusplus
extern "C" {
#endif

/* What is the name of this device's type? len is 32 or more; cut to len - 1 characters, always terminated. Asks for the
 * type and for its name one after the other. */
DM_API int32_t ndm_get_my_device_name(char *name, int32_t len);

/* Which node is the master of this device? */
DM_API int32_t ndm_get_my_local_master_node(int32_t *node);
DM_API int32_t ndm_get_my_local_master_node_rt(int32_t *node);

/* How many usable slots does a device have? */
DM_API int32_t ndm_get_slot_num(int32_t devid);
DM_API int32_t ndm_get_slot_num_rt(int32_t devid);

/* Which node is the master of the whole unit, its sub-slot included? */
DM_API int32_t ndm_indep_get_master_node(void);
DM_API int32_t ndm_indep_get_master_node_rt(void);

/* Which node is the slave of the whole unit, its sub-slot included? */
DM_API int32_t ndm_indep_get_slave_node(void);
DM_API int32_t ndm_indep_get_slave_node_rt(void);

/* What type of node is a card of a type (p_dev.dm_node_type_e)? */
DM_API int32_t ndm_get_node_type_from_card_type(int32_t card_type);

#ifdef __cplusplus
}
#endif

#endif
