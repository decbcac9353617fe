#ifndef TQ_NDM_VIRTUAL_SWITCH_H
#define TQ_NDM_VIRTUAL_SWITCH_H

/*
 * Virtual switching: does this system consist of several chassis, which cards join them, which MAC address has VSD 0.
 *
 * Unless a function says otherwise: it answers from the cache and takes the cache lock for the time of the call; any
 * thread may call it, also from a change callback; yes is 1, no is 0, and an object that is not cached is a no.
 */

#include "../dm_api.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Does this system run as a virtual unit? */
DM_API int32_t ndm_is_vsu(void);

/* Does a card carry a virtual switching link? slot is a physical one; its sub-cards count. No outside a virtual unit,
 * which is asked first by itself. */
DM_API int32_t ndm_is_vsl_card(int32_t devid, int32_t slot);

/* Does a p_dev.vsl_port_info belong to an aggregate port? 0 yes, -1 no: a match function for searches of one's own.
 * Reads only what it is given, takes no lock. */
DM_API int32_t ndm_vsl_cmp_ap(const void *port, const int32_t *vsl_ap);

/*
 * What is the layer-3 MAC address of a VSD? Only VSD 0 can be asked for. 0 and 6 bytes in `mac`, whose room `len` is 6
 * or more; -1 when it is not cached or an argument is refused.
 */
DM_API int32_t ndm_get_vsd_l3mac(int32_t vsdid, uint8_t *mac, int32_t len);

#ifdef __cplusplus
}
#endif

#endif
