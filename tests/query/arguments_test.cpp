// What queries answer to null pointers: none may end the process.
#include "tests/query/topology.h"

class Arguments : public Topology {};

// Nothing is written through the other pointers either.
TEST_F(Arguments, ThatAreNullAreRefused) {
    const auto expect_refused = [](const std::string &answers) {
        EXPECT_EQ(answers.find_first_not_of("-1 ~;"), std::string::npos) << answers;
    };
    constexpr auto null = nullptr;
    expect_refused(
        ask(ndm_get_node_from_dev_slot_cpuid, 1, 2, 3, null) +
        ask(ndm_get_dev_slot_cpuid_from_node, 1, out, out, null) + ask(ndm_get_dev_slot_from_node, 1, null, out) +
        ask(ndm_get_id_from_phy_card_type, 1, out, out, out, null) + ask(ndm_get_dcm_addr_from_node, 0x0C041E00, null) +
        ask(ndm_get_node_from_dcm_addr, 0x11E, null) + ask(ndm_get_my_dcm_addr, null) +
        ask(ndm_get_id_from_phyid, 0x14040301, out, out, null, out) +
        ask(ndm_get_id_from_phyid, 0x14040301, out, out, out, null) +
        ask(ndm_get_physlot_by_userslot, 1, 2, 0, out, null) + ask(ndm_get_physlot_by_devid_userslot, 1, 2, null) +
        ask(ndm_get_node_from_userslot, 1, 2, null) + ask(ndm_get_userslot_from_node, 0x0C040300, null) +
        ask(ndm_get_my_phy_slot, null) + ask(ndm_get_user_slot_range_from_device_type, 100, out, null) +
        ask(ndm_get_lc_slot_range_from_device_type, 100, null, out) +
        ask(ndm_get_fe_slot_range_by_dev_id, 1, out, null) + ask(ndm_get_max_slot_num, 1, null) +
        ask(ndm_get_min_slot_num, 1, null) + ask(ndm_get_user_slot_name, 1, 2, 0, null, 32) +
        ask(ndm_get_card_name_by_slot, 1, 2, 0, null, 32));
    expect_refused(
        ask(ndm_get_master_slotid, out, null) + ask(ndm_get_slaver_id, null, out) + ask(ndm_get_slaver_node, null) +
        ask(ndm_get_online_node_bmp_gms, out, null) + ask(ndm_get_online_node_bmp_gms, null, out) +
        ask(ndm_get_my_card_type, null) + ask(ndm_get_my_device_type, null) + ask(ndm_get_device_type, 1, null) +
        ask(ndm_get_device_sn, 1, null, 32) + ask(ndm_get_dev_name_by_id, 1, null, 32) +
        ask(ndm_get_dev_name_by_type, 100, null, 32) + ask(ndm_get_system_l3_mac, null, 6) +
        ask(ndm_get_vsd_l3mac, 0, null, 6) + ask(ndm_vsl_cmp_ap, null, out) + ask(ndm_vsl_cmp_ap, out, null) +
        ask(ndm_get_card_type_by_slot, 1, 3, 0, null, 1) + ask(ndm_get_objid_by_slot_lport, 1, 3, 1, null) +
        ask(ndm_get_port_type, 0x14040301, null) + ask(ndm_get_max_lport_by_slot, 1, 3, 0, null) +
        ask(ndm_get_min_port_num, 1, 3, null) + ask(ndm_get_vsdid_by_objid_rt, 0x14040301, null) +
        ask(_ndm_get_my_card_type_rt, null, 1) + ask(_ndm_get_my_card_obj_rt, null, 1) +
        ask(ndm_get_my_lport_num_by_sub_slot, 0, null) + ask(ndm_get_my_card_multi_lport, out, null) +
        ask(ndm_get_my_lchips, null) + ask(ndm_get_chip_type_by_card_type, 645, out, null) +
        ask(ndm_get_chip_type_by_card_type, 645, null, out) + ask(ndm_get_poe_support_by_objid, 0x14040301, null) +
        ask(ndm_get_hpoe_support_by_objid, 0x14040301, null) + ask(ndm_get_my_device_name, null, 32) +
        ask(ndm_get_my_local_master_node_rt, null) + ask(ndm_get_local_port_by_lport, 0, null) +
        ask(ndm_get_static_port_by_ifx, 0, 0, null) + ask(ndm_get_static_port_by_ss_phyid, 1, 3, 1, null) +
        ask(ndm_get_card_static_by_type, 645, null) + ask(ndm_get_global_port_in_chip, 1, 3, 0, out, null) +
        ask(ndm_get_static_port_in_chip, 1, 3, 0, null, out));
}
