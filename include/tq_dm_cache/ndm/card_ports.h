#ifndef TQ_NDM_CARD_PORTS_H
#define TQ_NDM_CARD_PORTS_H

/*
 * Cards and their ports: what sits in a slot, which ports it has, what their identifiers are.
 *
 * Unless a function says otherwise:
 *   - it answers from the cache and takes the cache lock for the time of the call; any thread may call it, also from a
 *     change callback;
 *   - devid is 1..16, slot is a physical slot 0..31, sslot is 0 for the card itself and 1..7 for its sub-cards;
 *   - objid is a port's identifier. A card's logical ports are one number space: those of its sub-cards are listed by
 *     the card itself;
 *   - it returns 0, or -1 when an object is not cached or an argument is refused; out-values are written on success
 *     only.
 */

#include "../dm_api.h"

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Which type of card sits in a slot? devid 0 asks the local chassis, by its own view of its slots.
 * rt 1: a card that is not cached is read from the store. That blocks for a round trip, so do not hold the cache
 * lock; the card read is not added to the cache. Any other rt: the cache only.
 */
DM_API int32_t ndm_get_card_type_by_slot(int32_t devid, int32_t slot, int32_t sslot, int32_t *card_type, uint8_t rt);

/*
 * What is the identifier of a port? A pure conversion: looks at no card, takes no lock. lport is 0..288; -1 also for a
 * null objid.
 */
DM_API int32_t ndm_get_objid_by_slot_lport(int32_t devid, int32_t slot, int32_t lport, uint32_t *objid);

/* What is the type of a port (p_intf.intftype_e)? A port of a sub-card answers from the sub-card's own description. */
DM_API int32_t ndm_get_port_type(uint32_t objid, int32_t *port_type);

/* Which sub-slot owns a logical port? The sub-slot itself, 0 for the card's own port, or -1. */
DM_API int32_t ndm_get_sslot_by_lport(int32_t devid, int32_t slot, int32_t lport);

/* What is the highest logical port of a card's sub-slot? -1 is left in *max_lport when it has none. */
DM_API int32_t ndm_get_max_lport_by_slot(int32_t devid, int32_t slot, int32_t sslot, int32_t *max_lport);

/* What is the lowest logical port of a card's sub-slot? -1 is left in *min_lport when it has none. */
DM_API int32_t ndm_get_min_lport_by_slot(int32_t devid, int32_t slot, int32_t sslot, int32_t *min_lport);

/* What is the highest of a card's own ports? */
DM_API int32_t ndm_get_max_port_num(int32_t devid, int32_t slot, int32_t *max_lport);

/* What is the lowest of a card's own ports? */
DM_API int32_t ndm_get_min_port_num(int32_t devid, int32_t slot, int32_t *min_lport);

/* Which VSD does a port belong to? */
DM_API int32_t ndm_get_vsdid_by_objid(uint32_t objid, int32_t *vsdid);

/*
 * Which VSD does a port belong to, asking the store if need be? When the port is not cached the store is scanned for
 * it, and the ports of its card that the scan finds are cached with their static ports, except where the cache has
 * changed since: -1 can mean that, too. Blocks: do not hold the cache lock.
 */
DM_API int32_t ndm_get_vsdid_by_objid_rt(uint32_t objid, int32_t *vsdid);

#ifdef __cplusplus
}
#endif

#endif
