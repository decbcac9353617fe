#ifndef TQ_NDM_SLOTS_H
#define TQ_NDM_SLOTS_H

/*
 * Slots: the user slot that an operator sees and types, the physical slot and sub-slot of a card, and their names.
 *
 * On a chassis the device type's table maps user slots to physical slots, and the sub-slot is 0; user slots 22..29 are
 * for fabric cards, 30 and 31 for main boards. On a box every user slot is the main board, physical slot 30, and the
 * user slot is the sub-slot.
 *
 * Unless a function says otherwise:
 *   - it answers from the cache and takes the cache lock for the time of the call; any thread may call it, also from a
 *     change callback;
 *   - devid is 1..16, user_slot 0..31;
 *   - it returns 0, or -1 when an object is not cached, a table is shorter than asked or an argument is refused;
 *     out-values are written on success only.
 */

#include "../dm_api.h"

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Which physical slot and sub-slot is a user slot? On a chassis user slots 22..31 are physical slots of the same number,
 * without the table. user_sslot is not used. *pslot may be written on failure: -1 when the user slot is out of range.
 */
DM_API int32_t ndm_get_physlot_by_userslot(int32_t devid, int32_t user_slot, int32_t user_sslot, int32_t *pslot,
                                           int32_t *psslot);

/* Which physical slot is a user slot? The same without the sub-slot. */
DM_API int32_t ndm_get_physlot_by_devid_userslot(int32_t devid, int32_t user_slot, int32_t *pslot);

/* What is the node number of the card in a user slot? The table is asked for 22..31 too. */
DM_API int32_t ndm_get_node_from_userslot(int32_t devid, int32_t user_slot, uint32_t *node);

/* Which user slot is a node in? */
DM_API int32_t ndm_get_userslot_from_node(uint32_t node, int32_t *user_slot);

/* Which user slot does a board name mean? "M1", "M2", "FE1".."FE8", "0"; the slot itself, or -1. Takes no lock. */
DM_API int32_t ndm_get_userslot_from_boardname(const char *name);

/* Which user slot does a board name mean? The same. */
DM_API int32_t ndm_indep_get_userslot_from_boardname(const char *name);

/* Which user slot does this process run in? The slot itself, or -1. */
DM_API int32_t ndm_get_my_user_slot(void);

/* Which physical slot does this process run in? */
DM_API int32_t ndm_get_my_phy_slot(int32_t *slot);

/*
 * Which user slot do a card's ports count as part of? 0 when this card is of type 1, else user_slot itself; -1 when
 * this card's type is not known.
 */
DM_API int32_t ndm_get_port_host_userslot_from_userslot(int32_t user_slot);

/* Which user slots does a device type have? 0..6 on a box. */
DM_API int32_t ndm_get_user_slot_range_from_device_type(int32_t device_type, int32_t *min, int32_t *max);

/* Which slots of a device type are for line cards? */
DM_API int32_t ndm_get_lc_slot_range_from_device_type(int32_t device_type, int32_t *min, int32_t *max);

/* Which slots of a device type are for fabric cards? */
DM_API int32_t ndm_get_fe_slot_range_from_device_type(int32_t device_type, int32_t *min, int32_t *max);

/* Which slots of a device are for fabric cards? Outside a virtual unit the local device answers, whatever devid is. */
DM_API int32_t ndm_get_fe_slot_range_by_dev_id(int32_t devid, int32_t *min, int32_t *max);

/* What is the highest physical slot of a device? devid 0: the local device. Answers 0 when its table marks every slot
 * unused; a short table is read to its end. */
DM_API int32_t ndm_get_max_slot_num(int32_t devid, int32_t *max);

/* What is the lowest physical slot of a device? 32 when its table marks every slot unused. */
DM_API int32_t ndm_get_min_slot_num(int32_t devid, int32_t *min);

/* What is an operator's name for a slot? "Slot 3", "Slot M1", "Slot FE2"; "Slot 1/3" in a virtual unit. Cut to len - 1
 * characters and always terminated. sub_slot is only logged. */
DM_API int32_t ndm_get_user_slot_name(int32_t devid, int32_t user_slot, int32_t sub_slot, char *name, int32_t len);

/*
 * What is the name of the card in a user slot? Answers the length of the whole name, of which len - 1 characters are
 * written; with len 0 nothing is written. -1 as above, and for a negative len.
 */
DM_API int32_t ndm_get_card_name_by_slot(int32_t devid, int32_t user_slot, int32_t reserved, char *name, int32_t len);

#ifdef __cplusplus
}
#endif

#endif
