#ifndef TQ_NDM_CHIPS_H
#define TQ_NDM_CHIPS_H

/*
 * This card: its ports and chips, and what a chip or port can do.
 *
 * Unless a function says otherwise:
 *   - it answers from the cache and takes the cache lock for the time of the call; any thread may call it, also from a
 *     change callback;
 *   - a form with a leading underscore takes a flag rt. rt 1: an object that is not cached is read from the store and
 *     then cached, unless the cache has changed it since. That blocks for a round trip, so do not hold the cache lock.
 *     Any other rt: the cache only;
 *   - it returns the value itself, or 0 where it has an out-value; -1 when an object is not there or an argument is
 *     refused; out-values are written on success only;
 *   - an array of chip types is the caller's own, to be released with free(); null is left there on failure. It has
 *     room for 8 entries or as many as the card has chips, whichever is more; entries without a chip are 0.
 */

#include "../dm_out.h"

#ifdef __cplusplus
extern "C" {
#endif

/* What is the type of this card? Any rt but 0 counts as 1. -1 also when the store's reply could not be released;
 * *card_type is then written all the same. */
DM_API int32_t _ndm_get_my_card_type_rt(int32_t *card_type, uint8_t rt);

/*
 * What are the static attributes of this card? `card` receives a copy of the p_dev.dm_card_stattr_t, to be released
 * with ndm_port_obj_free(), or null. The card's own type is read from the store for any rt but 0.
 */
DM_API int32_t _ndm_get_my_card_obj_rt(DM_OUT(PDev__DmCardStattrT) card, uint8_t rt);

/* How many logical ports does this card have? */
DM_API int32_t _ndm_get_my_lport_num(uint8_t rt);
DM_API int32_t ndm_get_my_lport_num(void);

/*
 * How many logical ports does a sub-slot of this card have? Only sub-slot 0 is known. 0 also when the number is not
 * cached: *lport_num is then -1.
 */
DM_API int32_t ndm_get_my_lport_num_by_sub_slot(int32_t sub_slot, int32_t *lport_num);

/*
 * Which ports of this card are combo ports, fibre and copper in one? *num is the room in `lports` and becomes the
 * number found. -1 also when there are more than that: `lports` is then filled and *num left alone.
 */
DM_API int32_t ndm_get_my_card_multi_lport(int32_t *lports, int32_t *num);

/* Which chips are on this card? Answers how many it has and an array of their types. */
DM_API int32_t _ndm_get_my_lchips(int32_t **chips, uint8_t rt);
DM_API int32_t ndm_get_my_lchips(int32_t **chips);

/* Which chips are on a card of a type? An array of their types, and their number. */
DM_API int32_t _ndm_get_chip_type_by_card_type(int32_t card_type, int32_t **chip_types, int32_t *num, uint8_t rt);
DM_API int32_t ndm_get_chip_type_by_card_type(int32_t card_type, int32_t **chip_types, int32_t *num);

/* Which family does a chip type belong to? */
DM_API int32_t _ndm_get_chip_family(int32_t chip_type, uint8_t rt);
DM_API int32_t ndm_get_chip_family(int32_t chip_type);

/* Does a port supply power over Ethernet? 1 or 0 in *support. A sub-card's port answers from the sub-card's
 * description. */
DM_API int32_t ndm_get_poe_support_by_objid(uint32_t objid, uint8_t *support);

/* Does a port supply high power over Ethernet? The same; refuses an objid that is no port's. */
DM_API int32_t ndm_get_hpoe_support_by_objid(uint32_t objid, uint8_t *support);

#ifdef __cplusplus
}
#endif

#endif
