#ifndef TQ_NDM_STATICS_H
#define TQ_NDM_STATICS_H

/*
 * Fixed facts of this card, of a device and of a card: types, names, counts, serial number, MAC address.
 *
 * A card type and a device type are the numbers by which the static descriptions are keyed.
 *
 * Unless a function says otherwise:
 *   - it answers from the cache and takes the cache lock for the time of the call; any thread may call it, also from a
 *     change callback;
 *   - devid is 1..16, slot is a physical slot 0..31, sslot is 0 for the card itself and 1..7 for its sub-cards;
 *   - it returns the value itself, or 0 where it has an out-value; -1 when the object is not cached or an argument is
 *     refused; out-values are written on success only;
 *   - a text is cut to len - 1 characters and always terminated.
 */

#include "../dm_api.h"

#ifdef __cplusplus
extern "C" {
#endif

/* What is the type of this card? */
DM_API int32_t ndm_get_my_card_type(int32_t *type);

/* What type of node is this card (p_dev.dm_node_type_e)? 0 when it is not known. */
DM_API int32_t ndm_get_my_node_type(void);

/* What is the node number of this card? 0xFFFFFFFF when it is not known. */
DM_API uint32_t ndm_get_my_node(void);

/* What is the type of this device? */
DM_API int32_t ndm_get_my_device_type(int32_t *type);

/* What is the type of a device? */
DM_API int32_t ndm_get_device_type(int32_t devid, int32_t *type);

/* What is the type of a card? */
DM_API int32_t ndm_get_dev_phy_type(int32_t devid, int32_t slot, int32_t sslot);

/* How many CPUs does the card of a node have? */
DM_API int32_t ndm_get_cpu_num(uint32_t node);

/* How many switching chips does a card of a type have? */
DM_API int32_t ndm_get_card_switch_chip_num(int32_t card_type);

/* How many chips does a card of a type have? */
DM_API int32_t ndm_get_total_chip_num_by_card_type(int32_t card_type);

/* What is the type of the card in a slot of this chassis? -1 also while it is not online. */
DM_API int32_t ndm_get_card_type_by_lslotid(int32_t slot);

/* Does a card take sub-cards? 1 yes, 0 no or not known. */
DM_API int32_t ndm_card_sup_subslot(int32_t devid, int32_t slot);

/* What is the serial number of a device? */
DM_API int32_t ndm_get_device_sn(int32_t devid, char *serial, int32_t len);

/* What is the name of a device? len is 32 or more. */
DM_API int32_t ndm_get_dev_name_by_id(int32_t devid, char *name, int32_t len);

/* What is the name of a device type? */
DM_API int32_t ndm_get_dev_name_by_type(int32_t device_type, char *name, int32_t len);

/*
 * What is the layer-3 MAC address of the system? Writes the first len bytes of it, len 6 or more; -1 also when fewer
 * are known.
 */
DM_API int32_t ndm_get_system_l3_mac(uint8_t *mac, int32_t len);

#ifdef __cplusplus
}
#endif

#endif
