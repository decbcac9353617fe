#ifndef TQ_NDM_PORT_LOOKUP_H
#define TQ_NDM_PORT_LOOKUP_H

/*
 * Look-ups: find a port, or a card's or chip's static attributes, by what is known of it, such as interface index,
 * position on a chip, logical port, type and number.
 *
 * Unless a function says otherwise:
 *   - it answers from the cache by one or two tree searches and takes the cache lock for the time of the call; any
 *     thread may call it, also from a change callback;
 *   - `out` is the address of a pointer to the message. It receives a private copy: release it with
 *     ndm_port_obj_free();
 *   - it returns 0; -1 when nothing is found, and `out` is then left alone; or the code of dm_cache_copy_obj() when the
 *     copy fails, with null in `out`;
 *   - numbers are combined into a key without masks: dev is 1..16, slots 0..31, units and chip ports 0..255, lport
 *     0..288. A global port, or a port of this VSD, is found only while its static port is cached.
 *
 * Local ports are p_dev.unit_cport_info, global ports p_dev.vsd_port, ports of this VSD p_dev.vsd_port_attr, static
 * ports p_dev.port_static.
 */

#include "../dm_out.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Which local port sits on a unit's core port? */
DM_API int32_t ndm_get_local_port_by_unit_cport(int32_t unit, int32_t cport, DM_OUT(PDev__UnitCportInfo) out);

/* Which local port is a logical port? */
DM_API int32_t ndm_get_local_port_by_lport(int32_t lport, DM_OUT(PDev__UnitCportInfo) out);

/* Which global port has an interface index in a VSD? */
DM_API int32_t ndm_get_global_port_by_ifx(int32_t vsdid, int32_t ifx, DM_OUT(PDev__VsdPort) out);

/* Which global port sits on a port of a chip? */
DM_API int32_t ndm_get_global_port_by_dm_phyid(int32_t dev, int32_t physlot, int32_t unit, int32_t port,
                                               DM_OUT(PDev__VsdPort) out);

/* Which global port is a card's logical port? */
DM_API int32_t ndm_get_global_port_by_ss_phyid(int32_t dev, int32_t physlot, int32_t lport, DM_OUT(PDev__VsdPort) out);

/* Which global port has a type (p_intf.intftype_e) and number in a slot and sub-slot? */
DM_API int32_t ndm_get_global_port_by_lsm_key_with_subslot(int32_t dev, int32_t slot, int32_t sslot, int32_t port,
                                                           int32_t type, DM_OUT(PDev__VsdPort) out);

/* Which global port has a type (p_intf.intftype_e) and number in a slot? The same with sub-slot 0. */
DM_API int32_t ndm_get_global_port_by_lsm_key(int32_t dev, int32_t slot, int32_t port, int32_t type,
                                              DM_OUT(PDev__VsdPort) out);

/* Which port of this VSD has an interface index? */
DM_API int32_t ndm_get_vsd_port_by_ifx(int32_t ifx, DM_OUT(PDev__VsdPortAttr) out);

/* Which port of this VSD sits on a port of a chip? */
DM_API int32_t ndm_get_vsd_port_by_dm_phyid(int32_t dev, int32_t physlot, int32_t unit, int32_t port,
                                            DM_OUT(PDev__VsdPortAttr) out);

/* Which port of this VSD is a card's logical port? */
DM_API int32_t ndm_get_vsd_port_by_ss_phyid(int32_t dev, int32_t physlot, int32_t lport, DM_OUT(PDev__VsdPortAttr) out);

/* Which port of this VSD has a type (p_intf.intftype_e) and user port in a slot and sub-slot? */
DM_API int32_t ndm_get_vsd_port_by_lsm_key_with_subslot(int32_t dev, int32_t slot, int32_t sslot, int32_t port,
                                                        int32_t type, DM_OUT(PDev__VsdPortAttr) out);

/* Which port of this VSD has a type (p_intf.intftype_e) and user port in a slot? The same with sub-slot 0. */
DM_API int32_t ndm_get_vsd_port_by_lsm_key(int32_t dev, int32_t slot, int32_t port, int32_t type,
                                           DM_OUT(PDev__VsdPortAttr) out);

/* What is the static port of the global port with an interface index in a VSD? */
DM_API int32_t ndm_get_static_port_by_ifx(int32_t vsdid, int32_t ifx, DM_OUT(PDev__PortStatic) out);

/* What is the static port of the port of this VSD with an interface index? */
DM_API int32_t ndm_get_static_port_by_ifx_in_vsd(int32_t ifx, DM_OUT(PDev__PortStatic) out);

/* Which static port sits on a port of a chip? Asks the global ports, then those of this VSD. */
DM_API int32_t ndm_get_static_port_by_dm_phyid(int32_t dev, int32_t physlot, int32_t unit, int32_t port,
                                               DM_OUT(PDev__PortStatic) out);

/* Which static port is a card's logical port? Asks the global ports, then those of this VSD. */
DM_API int32_t ndm_get_static_port_by_ss_phyid(int32_t dev, int32_t physlot, int32_t lport,
                                               DM_OUT(PDev__PortStatic) out);

/* Which static port has a type (p_intf.intftype_e) and number in a slot and sub-slot? Asks the global ports, then those
 * of this VSD. */
DM_API int32_t ndm_get_static_port_by_lsm_key_with_subslot(int32_t dev, int32_t slot, int32_t sslot, int32_t port,
                                                           int32_t type, DM_OUT(PDev__PortStatic) out);

/* Which static port has a type (p_intf.intftype_e) and number in a slot? The same with sub-slot 0. */
DM_API int32_t ndm_get_static_port_by_lsm_key(int32_t dev, int32_t slot, int32_t port, int32_t type,
                                              DM_OUT(PDev__PortStatic) out);

/* What are the static attributes of a card type (p_dev.dm_card_stattr_t)? */
DM_API int32_t ndm_get_card_static_by_type(int32_t card_type, DM_OUT(PDev__DmCardStattrT) out);

/* What are the static attributes of a chip type (p_dev.dm_chip_stattr_t)? */
DM_API int32_t ndm_get_chip_stattr_by_type(int32_t chip_type, DM_OUT(PDev__DmChipStattrT) out);

/*
 * Which global ports are on a chip? Fills `ports`, an array with room for 256 pointers, with copies of those of its
 * ports 0..255 that are there, and `count` with their number; 0 also when there are none. One lock hold for all.
 */
DM_API int32_t ndm_get_global_port_in_chip(int32_t dev, int32_t physlot, int32_t unit, DM_OUT(PDev__VsdPort) ports,
                                           int32_t *count);

/* Which static ports are on a chip? The same. */
DM_API int32_t ndm_get_static_port_in_chip(int32_t dev, int32_t physlot, int32_t unit, DM_OUT(PDev__PortStatic) ports,
                                           int32_t *count);

/* Releases a message handed out as a copy. Null is accepted. Takes no lock. */
DM_API void ndm_port_obj_free(void *message);

#ifdef __cplusplus
}
#endif

#endif
