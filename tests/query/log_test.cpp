// The lines by which a support engineer follows a query, and what queries answer to null pointers.
#include "query/topology.h"

#include <span>

class Arguments : public Topology {};

namespace {

int32_t n, m, *types;
uint32_t u;
uint8_t b;
char buf[64];

struct Logged {
    std::string name;
    void (*call)();
    std::string lines;  // after a bar each: level (after an l: of the queries' own threshold), file and text
};

// A macro, as it also takes the name of the function from the call; another's name may follow the file.
#define LOGGED(call, lines) (Logged{#call, [] { call; }, lines})

const Logged by_a_unit[] = {
    LOGGED(ndm_get_node_from_dev_slot_cpuid(1, 2, 3, nullptr), "|l1 M>param error!\n"),
    LOGGED(ndm_get_id_from_phy_card_type(0, &n, &n, &n, &n), "|l2 M>invalid parameter\n"),
    LOGGED(ndm_get_dcm_addr_from_node(0x0C440000, &u), "|l2 M>get dev[17] from node[0xc440000] error\r\n"),
    LOGGED(ndm_get_node_from_dcm_addr(0x01C0, &u), "|l2 M>get subslot[6] from dcm addr[0x0001c0] error\r\n"),
    LOGGED(ndm_get_my_dcm_addr(nullptr), "|l2 M>input arguments error.\r\n"),
    LOGGED(ndm_get_id_from_phyid(0x0C040300, &n, &m, &n, &n), "|l1 M>phyid is not phy port type phy id!\n"),
    LOGGED(ndm_get_id_from_phyid(0x14040301, &n, &m, &n, &n), "|l2 M>get unitid from cache successd.\r\n"),
    LOGGED(ndm_get_node_from_userslot(1, 2, &u), "|l0 M>switch_id: 1, user_slot: 2\n|l0 M>node: 0xc040300\n"),
    LOGGED(ndm_get_node_from_userslot(2, 4, &u),
           "|l0 M>switch_id: 2, user_slot: 4\n|l2 M>phy_slot:30, phy_sslot:-1 invalid\r\n"),
    LOGGED(ndm_get_user_slot_range_from_device_type(100, nullptr, &n), "|l2 M>param error!\n"),
    LOGGED(ndm_get_fe_slot_range_by_dev_id(1, &n, nullptr),
           "|l1 M:ndm_get_fe_slot_range_from_device_type>param error!\n|l1 M>get fe slot range error!\n"),
    LOGGED(ndm_get_user_slot_name(1, 23, 6, buf, 8),
           "|l0 M>switch_id:1 user_slot:23 sub_slot:6\n|l0 M>name: Slot FE2\n"),
    LOGGED(ndm_get_system_l3_mac(&b, 9), "|l2 M>argument err(l3_mac_len:8).\n"),
    LOGGED(ndm_reset_module_by_node_causelly(0x0C048300, nullptr, "m"), "|l2 M>null cause or null mode name pointer\n"),
    LOGGED(ndm_reset_module_by_node_causelly(0x0C048300, "why", "m"),
           "|l0 M>reset node c048300 cause:why\n|l2 M>reset the card request failed to send.\r\n"),
    LOGGED(ndm_get_physlot_by_userslot(1, 21, 0, &n, &m),
           "|l2 D>invalid userslot: 21. min 1, max 8\n|l2 D>invalid physlot = -1!\n"),
    LOGGED(ndm_get_max_slot_num(0, &n),
           "|l0 D:ndm_get_dev_type_by_devno>devno = 0\n|l0 D:ndm_get_dev_type_by_devno>dev_type = 100\n"),
    LOGGED(ndm_get_slaver_id(nullptr, &n), "|l2 D>param error!\n"),
    LOGGED(ndm_local_is_online(32, 0), "|l1 D>param error slot = 32!\n"),
    LOGGED(ndm_get_dev_name_by_id(2, buf, 32), "|l0 D>succ to get dev name:box, dev_id:2\r\n"),
    LOGGED(ndm_get_userslot_from_node(0, nullptr), "|l2 P>invalid param.\r\n"),
    LOGGED(ndm_get_my_phy_slot(nullptr), "|l1 P>invalid param.\r\n"),
    LOGGED(ndm_get_device_type(1, nullptr), "|l2 I>invalid param.\r\n"),
    LOGGED(ndm_get_card_switch_chip_num(645), "|l0 T>type = 645!\n|l0 T>switch num = 1!\n"),
    LOGGED(ndm_get_vsd_l3mac(1, &b, 6), "|l2 V>invalid param.\r\n"),
    LOGGED(ndm_lib_subcribe_com(nullptr, nullptr, nullptr), "|l2 U>invalid param.\n"),
    LOGGED(ndm_get_objid_by_slot_lport(1, 2, 3, &u), "|0 N>devid:1, slot:2, lport:3\n|0 N>objid = 0x14040203!\n"),
    LOGGED(ndm_get_port_type(0x0C040203, &n), "|0 N>param objid = c040203!\n|1 N>objid is invalid!\n"),
    LOGGED(ndm_get_my_lport_num_by_sub_slot(1, &n), "|1 N>\n"),
    LOGGED(ndm_get_my_card_multi_lport(nullptr, &n), "|2 N:_ndm_get_my_card_multi_lport>invalid param.\r\n"),
    LOGGED(ndm_get_poe_support_by_objid(0x14040363, &b),
           "|1 N:_ndm_get_poe_support_by_objid>objid:0x14040363 ret:-1 port_attr:(nil)\r\n"),
    LOGGED(ndm_get_my_local_master_node(&n), "|0 N:_ndm_get_my_local_master_node>local master node: 0x2c\r\n"),
    LOGGED(ndm_get_my_device_name(buf, 32), "|0 N>my dev name:a chassis\r\n"),
};

const Logged by_an_empty_cache[] = {
    LOGGED(ndm_get_my_dcm_addr(&u), "|l2 M>get my node error.\r\n"),
    LOGGED(ndm_get_node_from_userslot(1, 2, &u),
           "|l0 M>switch_id: 1, user_slot: 2\n|l2 M>device info is not in cache.\r\n"),
    LOGGED(ndm_get_user_slot_range_from_device_type(100, &n, &n), "|l1 M>device stasic info is not in cache.\r\n"),
    LOGGED(ndm_get_lc_slot_range_from_device_type(100, &n, &n), "|l2 M>device stastic info is not in cache.\r\n"),
    LOGGED(ndm_get_user_slot_name(1, 2, 3, buf, 8),
           "|l0 M>switch_id:1 user_slot:2 sub_slot:3\n|l1 M:ndm_get_fe_slot_range_by_dev_id>get device type "
           "error!\n|l0 M>dm_get_fe_slot_range_by_dev_id fail."),
    LOGGED(ndm_get_system_l3_mac(&b, 6), "|l2 M>system 13 mac is not in cache.\r\n"),
    LOGGED(ndm_reset_module_by_node_causelly(0x0C048300, nullptr, ""),
           "|l1 P:ndm_card_is_online>get cache fail.\r\n|l2 M>node not found.\r\n"),
    LOGGED(ndm_get_physlot_by_userslot(1, 21, 0, &n, &n), "|l2 D>fail to get phy slot!\n"),
    LOGGED(ndm_get_min_slot_num(1, &n), "|l0 D:ndm_get_dev_type_by_devno>devno = 1\n|l2 D>fail to get device type\n"),
    LOGGED(ndm_get_port_host_userslot_from_userslot(1), "|l2 P>get card type fail.\r\n"),
    LOGGED(ndm_device_is_online(1), "|l1 P>get cache fail.\r\n"),
    LOGGED(ndm_get_card_type_by_lslotid(3), "|l1 P>get cache fail. slot[3].\r\n"),
    LOGGED(ndm_get_my_card_multi_lport(&n, &n),
           "|1 N:_ndm_get_my_lport_num>cache get LocalPortInfo fail.\r\n|1 "
           "N:_ndm_get_my_card_multi_lport>_ndm_get_my_lport_num ret -1.\r\n"),
    LOGGED(ndm_get_chip_type_by_card_type(645, &types, &n),
           "|1 N:_ndm_get_chip_type_by_card_type>ndm_get_card_obj_by_type 645 fail\n"),
    LOGGED(ndm_get_chip_family(88), "|1 N:_ndm_get_chip_family>ndm_get_chip_obj_by_type ret:-1, chip_sta:(nil)l\n"),
};

Strings lines_of(const Logged &logged) {
    static const std::pair<char, const char *> files[] = {
        {'M', "ndm_cache_mom_interface"}, {'D', "dp_lib"},        {'P', "ndm_dp"},  {'N', "ndm_port"},
        {'I', "dm_get_obj_info"},         {'T', "dm_static_tbl"}, {'V', "ndm_vsd"}, {'U', "ndm_vsu"}};
    Strings lines;
    for (size_t at = 0, end; at < logged.lines.size(); at = end) {
        end = std::min(logged.lines.find('|', at + 1), logged.lines.size());
        std::string line = logged.lines.substr(at + 1, end - at - 1);
        const size_t file = line.find(' ') + 1;
        if (line[file + 1] == '>') line.insert(file + 1, ":" + logged.name.substr(0, logged.name.find('(')));
        for (const auto &[letter, name] : files)
            if (line[file] == letter) line.replace(file, 1, name);
        lines.push_back(line);
    }
    return lines;
}

// Each threshold lets through its own lines only.
void expect_lines(std::span<const Logged> all) {
    for (const Logged &logged : all)
        for (const auto &[threshold, of_queries] : {std::pair{0, 3}, {1, 3}, {2, 3}, {3, 3}, {3, 0}, {3, 1}, {3, 2}}) {
            LogCapture log(threshold, of_queries);
            logged.call();
            EXPECT_EQ(log.take(), at_threshold(threshold, lines_of(logged), of_queries)) << logged.name;
        }
}

}  // namespace

TEST_F(Arguments, AreFollowedInTheLog) {
    platform.answers["set"] = -1;
    expect_lines(by_a_unit);
}

TEST(ArgumentsOfAnEmptyCache, AreFollowedInTheLog) {
    start({});
    expect_lines(by_an_empty_cache);
}

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
