#ifndef TQ_NDM_ROLES_H
#define TQ_NDM_ROLES_H

/*
 * Who am I, who leads, and what is there: local identity, master and slave, devices and cards that are online.
 *
 * Unless a function says otherwise:
 *   - it answers from the cache and takes the cache lock for the time of the call; any thread may call it, also from a
 *     change callback;
 *   - devid is 1..16, slot is a physical slot 0..31, sslot is 0 for the card itself and 1..7 for its sub-cards;
 *   - yes is 1, no is 0, and an object that is not cached is a no;
 *   - other answers are the value itself, or -1 when the object is not cached.
 */

#include "../dm_api.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Which physical slot does this process run in? */
DM_API int32_t ndm_get_my_lslotid(void);

/* Which device does this process run on? */
DM_API int32_t ndm_get_my_devid(void);

/* What is the role of this card in the whole unit (p_dev.dm_role_e)? */
DM_API int32_t ndm_get_my_dev_grole(void);

/* What is the role of this card within its device (p_dev.dm_role_e)? */
DM_API int32_t ndm_get_my_dev_lrole(void);

/* What is the role of this card in the whole unit (p_dev.dm_role_e)? 0 (none) when it is not cached. */
DM_API int32_t ndm_get_my_role(void);

/* Which device and slot does the store say that this process runs in? Always -1: nothing is read from it. */
DM_API int32_t ndm_get_my_devid_rt(void);
DM_API int32_t ndm_get_my_lslotid_rt(void);

/* Which card is the master of the whole unit? 0, or -1 and nothing written. */
DM_API int32_t ndm_get_master_slotid(int32_t *devid, int32_t *slot);

/* Which card is the slave of the whole unit? 0, or -1 and nothing written. */
DM_API int32_t ndm_get_slaver_id(int32_t *devid, int32_t *slot);

/* Which node is the master of the whole unit? The sub-slot is assumed to be 0. 0xFFFFFFFF when it is not known. */
DM_API uint32_t ndm_get_master_node(void);

/* Which node is the slave of the whole unit? The sub-slot is assumed to be 0. 0, or -1 and nothing written. */
DM_API int32_t ndm_get_slaver_node(uint32_t *node);

/* What is the role of a node's card (p_dev.dm_role_e)? Its sub-slot is not compared. */
DM_API int32_t ndm_get_role_by_node(uint32_t node);

/* Is a main board the master of its device? slot is 30, 31, or 0 on a box; any other is a no. */
DM_API int32_t ndm_mb_is_local_master(int32_t devid, int32_t slot);

/* Is a device online? */
DM_API int32_t ndm_device_is_online(int32_t devid);

/* Is a card online? */
DM_API int32_t ndm_card_is_online(int32_t devid, int32_t slot, int32_t sslot);

/* Is the card of a node online? */
DM_API int32_t ndm_card_is_online_by_node(uint32_t node);

/* Is a card of this chassis online? A slot outside 0..31 is a no. */
DM_API int32_t ndm_local_is_online(int32_t slot, int32_t sslot);

/* Is the card of a node a main board? */
DM_API int32_t ndm_is_mboard(uint32_t node);

/* Is a device a box? */
DM_API int32_t ndm_dev_is_box_switch(int32_t devid);

/* What type of node is a card (p_dev.dm_node_type_e)? 0 when it is not known, and for a number whose type bits are not a
 * node's. */
DM_API int32_t ndm_get_node_type(uint32_t node);

/* Which cards are online? 0 with a new array of their node numbers, which the caller frees with free(), and their
 * number; or -1 and nothing written. */
DM_API int32_t ndm_get_online_node_bmp_gms(uint32_t **nodes, int32_t *count);

/* How many line cards of a device are online? */
DM_API int32_t ndm_get_online_lc_num(int32_t devid);

/* How many devices are known, online or not? */
DM_API int32_t ndm_get_device_num(void);

/* What is the smallest device id known? */
DM_API int32_t ndm_get_min_devid(void);

/* What is the largest device id known? */
DM_API int32_t ndm_get_max_devid(void);

#ifdef __cplusplus
}
#endif

#endif
