// Numbers that name cards and ports. One bit off, and a query answers for another card.
#include "tests/query/topology.h"

class Identifiers : public Topology {};

// Components come back from a number as they went in, over their whole range; a wider one has no number.
TEST_F(Identifiers, KeepTheirComponents) {
    EXPECT_EQ(ask(ndm_get_node_from_dev_slot_cpuid, 1, 30, 0, out), "0 0xc041e00;");
    EXPECT_EQ(ask(ndm_get_node_from_dev_slot_cpuid, 2, 3, 1, out), "0 0xc088300;");
    for (int32_t i = 0; i < 256 * 128 * 8; ++i) {
        const int32_t devid = i >> 10, slot = i >> 3 & 127, cpuid = i & 7;
        uint32_t node = 0, address = 0, back = 0;
        ndm_get_node_from_dev_slot_cpuid(devid, slot, cpuid, &node);
        int32_t got[5] = {};
        ASSERT_EQ(ndm_get_dev_slot_cpuid_from_node(node, &got[0], &got[1], &got[2]), 0);
        ASSERT_EQ(ndm_get_dev_slot_from_node(node, &got[3], &got[4]), 0);
        ASSERT_EQ(std::to_array(got), (std::array{devid, slot, cpuid, devid, slot}));
        ASSERT_EQ(node & 0xFC0000FF, 0x0C000000);
        const bool has_address = devid >= 1 && devid <= 16 && slot <= 31 && cpuid <= 5;
        ASSERT_EQ(ndm_get_dcm_addr_from_node(node, &address), has_address ? 0 : -1) << node;
        ASSERT_EQ(ndm_get_node_from_dcm_addr(address | 0xABCD0000, &back), has_address ? 0 : -1);
        ASSERT_EQ(back, has_address ? node : 0);
    }
    EXPECT_EQ(ask(ndm_get_dcm_addr_from_node, 0x0C041E00, out), "0 0x11e;");
    EXPECT_EQ(ask(ndm_get_dcm_addr_from_node, 0x0C429F00, out), "0 0x10bf;");
    const auto node_of = [](int32_t address) { return ask(ndm_get_node_from_dcm_addr, address, out); };
    EXPECT_EQ(over({0xFF, 0x1100, 0xFF00, 0x01C0, 0x01E0}, node_of), "-1 ~;-1 ~;-1 ~;-1 ~;-1 ~;");
    const auto card_of = [](int32_t id) { return ask(ndm_get_id_from_phy_card_type, id, out, out, out, out); };
    EXPECT_EQ(over({0x0C041E00, 0x1404222C, 0, INT32_MIN}, card_of), "0 1 30 0 ~;0 1 34 0 ~;-1 ~ ~ ~ ~;-1 ~ ~ ~ ~;");
}

TEST_F(Identifiers, OfPortsHoldEveryLogicalPort) {
    const auto objid = ndm_get_objid_by_slot_lport;
    EXPECT_EQ(ask(objid, 1, 0, 288, out) + ask(objid, 16, 31, 255, out), "0 0x14042020;0 0x14401fff;");
    const auto at = [objid](std::array<int32_t, 3> place) { return ask(objid, place[0], place[1], place[2], out); };
    for (const auto &place : {std::array{0, 1, 1}, {17, 1, 1}, {1, -1, 1}, {1, 32, 1}, {1, 1, -1}, {1, 1, 289}})
        EXPECT_EQ(at(place), "-1 ~;") << each(place[0], place[1], place[2]);
    for (int32_t i = 0; i < 16 * 32 * 289; ++i) {
        const int32_t devid = i / (32 * 289) + 1, slot = i / 289 % 32, lport = i % 289;
        uint32_t id = 0;
        ASSERT_EQ(objid(devid, slot, lport, &id), 0);
        ASSERT_EQ(each(id >> 26, id >> 18 & 255, id >> 15 & 7, (id >> 13 & 3) << 8 | (id & 255), id >> 8 & 31),
                  text("0x5 %#x 0 %#x %#x;", devid, lport, slot));
    }
}

// The address by which a CPU is reached: a box counts otherwise than a chassis, and an unknown card as a chassis.
TEST_F(Identifiers, OfCpusDependOnTheNodeType) {
    const auto mine = [] {
        return each(ndm_calculate_tipc_node(1, 0, 0), ndm_calculate_tipc_node(2, 3, 1)) + ask(ndm_get_my_dcm_addr, out);
    };
    EXPECT_EQ(mine(), "640 816;0 0x103;");
    set(2, "dm_my_node_type:1 card_nodeid:205782784");  // 0x0C440300, device 17
    EXPECT_EQ(mine(), "645 651;-1 ~;");
    drop(2);
    EXPECT_EQ(mine(), "640 816;-1 ~;");
}

// From a port's identifier to its chip, and to its interface index.
TEST_F(Identifiers, OfPortsLeadToTheirChipAndInterface) {
    const auto chip = [](int32_t id) { return ask(ndm_get_id_from_phyid, id, out, out, out, out); };
    // Ports 300, 556, 2 on both chips, one that is nowhere; a sub-card without chips, no card, no attributes, no port.
    EXPECT_EQ(over({0x1404232C, 0x1404432C, 0x14040302, 0x14040363}, chip),
              "0 1 3 1 23;0 1 3 2 24;0 1 3 1 22;0 1 3 ~ ~;");
    EXPECT_EQ(over({0x14048301, 0x14040901, 0x14081E01, 0x0C040300}, chip),
              "0 1 3 ~ ~;-1 1 9 ~ ~;-1 2 30 ~ ~;-1 ~ ~ ~ ~;");

    dm_cache_set_obj(7, static_port(1, 3, 300, 1).get());
    dm_cache_set_obj(30, global_port(1, 1, 3, 300, 1, 77).get());
    dm_cache_set_obj(31, vsd_port(1, 3, 300, 1, 66).get());
    const auto interfaces = [](int32_t id) {
        const auto objid = static_cast<uint32_t>(id);
        return each(ndm_get_global_ifx_by_objid(objid), ndm_get_ifx_by_objid(objid));
    };
    EXPECT_EQ(over({0x1404232C, 0x0405A32C, 0x1404022C, 0x1404232D}, interfaces), "77 66;77 66;-1 -1;-1 -1;");
}
