#ifndef TQ_NDM_IDENTIFIERS_H
#define TQ_NDM_IDENTIFIERS_H

/*
 * Identifiers: the numbers that name a card, a port or a CPU, and how they are built and taken apart.
 * docs/identifiers.md shows their bits.
 *
 * Unless a function says otherwise:
 *   - it is a pure conversion: it reads no object, takes no lock, any thread may call it;
 *   - devid is 1..16, slot is a physical slot 0..31, sslot (also called cpuid) is 0 for the card itself and 1..7 for
 *     its sub-cards. Values out of range are not masked: they spill into the neighbouring bits;
 *   - no decoder looks at the type bits of what it is given, unless it says so;
 *   - it returns 0, or -1 for a null pointer or a value that it refuses; out-values are written on success only.
 */

#include "../dm_api.h"

#ifdef __cplusplus
extern "C" {
#endif

/* What is the node number of a card? Bits: 3 << 26 | devid << 18 | cpuid << 15 | slot << 8. */
DM_API int32_t ndm_get_node_from_dev_slot_cpuid(int32_t devid, int32_t slot, int32_t cpuid, uint32_t *node);

/* Which card does a node number name? */
DM_API int32_t ndm_get_dev_slot_cpuid_from_node(uint32_t node, int32_t *devid, int32_t *slot, int32_t *cpuid);

/* Which device and slot is a node in? The same without the sub-slot. */
DM_API int32_t ndm_get_dev_slot_from_node(uint32_t node, int32_t *devid, int32_t *slot);

/* Which card does a node number in a signed word name? Refused: a number that is not above 0. `reserved` must not be
 * null; it is left alone. */
DM_API int32_t ndm_get_id_from_phy_card_type(int32_t node, int32_t *devid, int32_t *slot, int32_t *sslot,
                                             int32_t *reserved);

/* What is the dcm address of a node? Refused: a devid outside 1..16, a slot above 31, a sub-slot above 5. */
DM_API int32_t ndm_get_dcm_addr_from_node(uint32_t node, uint32_t *dcm_addr);

/*
 * Which node does a dcm address belong to? Bits 31..16 are ignored. Refused: a devid outside 1..16, a sub-slot above 5.
 */
DM_API int32_t ndm_get_node_from_dcm_addr(uint32_t dcm_addr, uint32_t *node);

/* What is the dcm address of this card? Asks the cache for its node number, under the cache lock. */
DM_API int32_t ndm_get_my_dcm_addr(uint32_t *dcm_addr);

/*
 * What is the TIPC node number of a CPU? A box counts 5 a device, a chassis 160 a device and 5 a slot; which of the two
 * this is, the cache knows (unknown: a chassis). Always answers. Takes the cache lock for the node type.
 */
DM_API int32_t ndm_calculate_tipc_node(int32_t devid, int32_t slot, int32_t cpuid);

/*
 * Which chip and chip port is a port on? `phyid` is a port's identifier, and any other is refused. devid and slot are
 * written even when the card is not cached; unit and port only when the card's type lists the logical port, and the
 * answer is 0 even when it does not. Answers from the cache, under the cache lock.
 */
DM_API int32_t ndm_get_id_from_phyid(uint32_t phyid, int32_t *devid, int32_t *slot, int32_t *unit, int32_t *port);

/*
 * What is the interface index of a port of this VSD? The index itself, or -1. Answers from the cache, under its lock.
 */
DM_API int32_t ndm_get_ifx_by_objid(uint32_t objid);

/* What is the interface index of a global port? The same. */
DM_API int32_t ndm_get_global_ifx_by_objid(uint32_t objid);

#ifdef __cplusplus
}
#endif

#endif
