// From the slot that an operator types to the card, and back, and how slots and cards are called.
#include "tests/query/topology.h"

class Slots : public Topology {};

// A command for one slot must reach the card in it, or be refused.
TEST_F(Slots, OfAnOperatorAreMappedToCards) {
    const auto of = [](int32_t devid) {
        return [devid](int32_t user_slot) { return ask(ndm_get_physlot_by_userslot, devid, user_slot, 9, out, out); };
    };
    EXPECT_EQ(over({5, 8, 22, 25, 29, 30, 31}, of(1)), "0 6 0;0 9 0;0 22 0;0 25 0;0 29 0;0 30 0;0 31 0;");
    EXPECT_EQ(over({-1, 0, 9, 21, 32}, of(1)), "-1 -1 ~;-1 -1 ~;-1 -1 ~;-1 -1 ~;-1 -1 ~;");
    EXPECT_EQ(over({0, 3, 4}, of(2)), "0 30 0;0 30 3;-1 30 ~;");
    EXPECT_EQ(over({2, 3}, of(3)), "0 5 0;-1 -1 ~;");  // in the range, beyond the table
    EXPECT_EQ(of(4)(30) + of(9)(30), "-1 ~ ~;-1 ~ ~;");
    EXPECT_EQ(ask(ndm_get_physlot_by_devid_userslot, 2, 3, out), "0 30;");
    set(17, "index{devid:2 slotid:30}");  // no description
    EXPECT_EQ(of(2)(1), "-1 30 ~;");
    drop(17, "index{devid:2 slotid:30}");
    EXPECT_EQ(over({1, 0}, of(2)), "-1 30 ~;0 30 0;");
}

TEST_F(Slots, OfAnOperatorAreMappedToNodesAndBack) {
    const auto of = [](int32_t devid) {
        return [devid](int32_t user_slot) { return ask(ndm_get_node_from_userslot, devid, user_slot, out); };
    };
    EXPECT_EQ(over({2, 25, 30}, of(1)), "0 0xc040300;0 0xc041800;0 0xc041f00;");  // the table's
    EXPECT_EQ(over({-1, 0, 21, 31, 32}, of(1)), "-1 ~;-1 ~;-1 ~;-1 ~;-1 ~;");
    EXPECT_EQ(over({0, 2, 3, 4, 5}, of(2)), "0 0xc081e00;0 0xc091e00;0 0xc099e00;-1 ~;-1 ~;");
    EXPECT_EQ(of(3)(3) + of(4)(1) + of(9)(1), "-1 ~;-1 ~;-1 ~;");
    set(6, "index{type:20}");
    EXPECT_EQ(of(2)(1), "-1 ~;");
    drop(6, "index{type:20}");
    EXPECT_EQ(over({1, 0}, of(2)), "-1 ~;0 0xc081e00;");

    const auto back = [](int32_t node) { return ask(ndm_get_userslot_from_node, node, out); };
    EXPECT_EQ(over({0x0C040300, 0x0C042300}, back), "0 2;-1 ~;");  // slot 35 is not slot 3
    EXPECT_EQ(each(ndm_get_my_user_slot()) + ask(ndm_get_my_phy_slot, out), "2;0 3;");
    const char *const boards[] = {"M1", "M2", "FE1", "FE4", "FE8", "0", "m1", "FE9", "M", "", nullptr};
    std::string slots;
    for (const char *name : boards) {
        slots += number(ndm_get_userslot_from_boardname(name)) + ' ';
        EXPECT_EQ(ndm_indep_get_userslot_from_boardname(name), ndm_get_userslot_from_boardname(name));
    }
    EXPECT_EQ(slots, "30 31 22 25 29 0 -1 -1 -1 -1 -1 ");
}

// Where a loop over slots begins and ends.
TEST_F(Slots, HaveRangesByDeviceType) {
    const auto user = ndm_get_user_slot_range_from_device_type, lc = ndm_get_lc_slot_range_from_device_type,
               fe = ndm_get_fe_slot_range_from_device_type, fe_of = ndm_get_fe_slot_range_by_dev_id;
    EXPECT_EQ(over({100, 200, 300}, [user](int32_t type) { return ask(user, type, out, out); }),
              "0 4 31;0 0 6;-1 ~ ~;");
    EXPECT_EQ(ask(lc, 100, out, out) + ask(fe, 100, out, out), "0 2 9;0 22 29;");
    for (const auto range : {user, lc, fe}) EXPECT_EQ(ask(range, 999, out, out), "-1 ~ ~;");
    EXPECT_EQ(ask(fe_of, 9, out, out), "0 22 29;");  // the local device's
    set(13, "devid:1 dev_type:100 device_mode:1");
    EXPECT_EQ(ask(fe_of, 9, out, out) + ask(fe_of, 2, out, out), "-1 ~ ~;0 0 0;");

    set(3, "index{type:401}");
    set(3, "index{type:402} slot_index:-1,-2");
    set(3, "index{type:403} slot_index:7,7,7,7,7,7,7,7,7,7,7,7,7,7,7,7,7,7,7,7,7,7,7,7,7,7,7,7,7,7,7,7,3,99");
    for (const int32_t n : {1, 2, 3}) set(16, text("index{devid:1%d} config_dev_type:40%d", n, n));
    const auto bounds = [](int32_t devid) {
        return ask(ndm_get_min_slot_num, devid, out) + ask(ndm_get_max_slot_num, devid, out) + ' ';
    };
    EXPECT_EQ(over({0, 2, 3, 9}, bounds), "0 2;0 31; 0 30;0 30; 0 5;0 6; -1 ~;-1 ~; ");
    EXPECT_EQ(over({11, 12, 13}, bounds), "-1 ~;-1 ~; 0 32;0 0; 0 7;0 7; ");  // of 32 user slots

    EXPECT_EQ(ndm_get_port_host_userslot_from_userslot(5), 5);
    set(2, "card_type:1");
    EXPECT_EQ(ndm_get_port_host_userslot_from_userslot(5), 0);
    drop(2);
    EXPECT_EQ(ndm_get_port_host_userslot_from_userslot(5), -1);
}

// A name in a buffer that is too short must end inside it.
TEST_F(Slots, AndCardsAreCalledAsAnOperatorReadsThem) {
    const auto slot = [](int32_t devid, int32_t len = 32) {
        return [=](int32_t user_slot) { return ask_text(ndm_get_user_slot_name, len, devid, user_slot, 0); };
    };
    EXPECT_EQ(over({5, 30, 31}, slot(2)), "0 Slot 5|32;0 Slot M1|32;0 Slot M2|32;");
    EXPECT_EQ(over({22, 29, 21}, slot(2)), "0 Slot FE1|32;0 Slot FE8|32;0 Slot 21|32;");
    EXPECT_EQ(slot(2, 4)(5) + slot(2, 1)(5) + slot(2, 0)(5), "0 Slo|4;0 |1;-1 |0;");
    set(13, "devid:1 dev_type:100 device_mode:1");
    EXPECT_EQ(slot(1)(23) + slot(2)(23) + slot(2, 9)(31) + slot(9)(5),
              "0 Slot 1/FE2|32;0 Slot 2/23|32;0 Slot 2/M|9;-1 |0;");

    const auto name = [](int32_t devid, int32_t user_slot, char *buf, int32_t len) {
        return ndm_get_card_name_by_slot(devid, user_slot, 0, buf, len);
    };
    EXPECT_EQ(ask_text(name, 32, 1, 2) + ask_text(name, 3, 2, 2) + ask_text(name, 1, 2, 2), "5 LC-48|6;7 BO|3;7 |1;");
    EXPECT_EQ(ask_text(name, 0, 2, 2) + ask_text(name, -1, 2, 2), "7 |0;-1 |0;");
    EXPECT_EQ(ask_text(name, 32, 2, 3) + ask_text(name, 32, 1, 21), "-1 |0;-1 |0;");
    EXPECT_EQ(ndm_get_card_name_by_slot(2, 2, 0, nullptr, 0), 7);
}
