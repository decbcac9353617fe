// Who leads, what is there, and what is fixed about it.
#include "base/message.h"
#include "tests/query/topology.h"

#include <malloc.h>

class Roles : public Topology {};
class Statics : public Topology {};

// A card that takes itself for the master, or follows the wrong one, splits the unit.
TEST_F(Roles, ComeFromTheRoleRecords) {
    const auto leaders = [] {
        return ask(ndm_get_master_slotid, out, out) + ask(ndm_get_slaver_id, out, out) + ask(ndm_get_master_node) +
               ask(ndm_get_slaver_node, out) + each(ndm_indep_get_master_node(), ndm_indep_get_slave_node()) +
               each(ndm_get_my_role(), ndm_get_my_dev_grole());
    };
    // The one kind of node number drops the sub-slot, the other keeps it.
    EXPECT_EQ(leaders(), text("0 1 30;0 2 5;0xc041e00;0 0xc080500;%d %d;3 3;", 0x0C051E00, 0x0C088500));
    const auto role = ndm_get_role_by_node;
    EXPECT_EQ(each(role(0x0C059E00), role(0x0C041F00), role(0x0C041D00), role(0x0C080000)), "1 2 -1 3;");
    const auto master = ndm_mb_is_local_master;
    EXPECT_EQ(each(master(1, 30), master(1, 31), master(2, 0), master(2, 30)), "1 0 1 0;");
    EXPECT_EQ(each(ndm_get_my_devid_rt(), ndm_get_my_lslotid_rt()), "-1 -1;");

    // Masters where no main board sits, in devices that cannot be; and nobody leads.
    set(15,
        "card_role{devid:1 slotid:5 is_local_master:1} card_role{slotid:30 is_local_master:1} "
        "card_role{devid:17 slotid:30 is_local_master:1} card_role{devid:1 is_local_master:1}");
    EXPECT_EQ(each(master(1, 5), master(0, 30), master(17, 30), master(1, 0)), "0 0 0 1;");
    EXPECT_EQ(leaders(), "-1 ~ ~;-1 ~ ~;0xffffffff;-1 ~;-1 -1;0 0;");
    drop(15);
    EXPECT_EQ(leaders(), "-1 ~ ~;-1 ~ ~;0xffffffff;-1 ~;-1 -1;0 -1;");
    EXPECT_EQ(each(role(0x0C041E00), master(1, 30)), "-1 0;");
}

TEST_F(Roles, CountWhatIsThereAndOnline) {
    const auto online_nodes = [] {
        uint32_t *nodes = nullptr;
        int32_t count = -1;
        std::string all = each(ndm_get_online_node_bmp_gms(&nodes, &count));
        for (int32_t i = 0; i < count; ++i) all += number(nodes[i]) + ' ';
        std::free(nodes);
        return all + each(count);
    };
    EXPECT_EQ(online_nodes(), "0;0x1 0x3 0x4 0x6 0x7 5;");
    EXPECT_EQ(each(ndm_get_online_lc_num(1), ndm_get_online_lc_num(2)), "1 0;");
    EXPECT_EQ(each(ndm_device_is_online(1), ndm_device_is_online(2), ndm_device_is_online(9)), "1 0 0;");
    EXPECT_EQ(each(ndm_card_is_online(1, 3, 1), ndm_card_is_online(1, 4, 0), ndm_card_is_online(1, 3, 2)), "1 0 0;");
    EXPECT_EQ(each(ndm_card_is_online_by_node(0x0C048300), ndm_card_is_online_by_node(0x0C042300)), "1 0;");
    set(14, "index{slotid:32} ldp_online:1");
    const auto local = ndm_local_is_online;
    EXPECT_EQ(each(local(3, 0), local(4, 0), local(3, 1), local(32, 0), local(-1, 0)), "1 0 0 0 0;");
    EXPECT_EQ(each(ndm_is_mboard(0x0C041F00), ndm_is_mboard(0x0C040300), ndm_is_mboard(0x0C041D00)), "1 0 0;");
    const auto type = ndm_get_node_type;
    EXPECT_EQ(each(type(0x0C048300), type(0x0C041E00), type(0x0C040500), type(0x0C041D00), type(0x14048300)),
              "4 2 0 0 0;");
    const auto box = [](int32_t devid) { return number(ndm_dev_is_box_switch(devid)); };
    EXPECT_EQ(over({1, 2, 3, 4, 9}, box), "01010");  // device 4 has only its type's record
    drop(3, "index{type:200}");
    EXPECT_EQ(over({1, 2, 3, 4, 9}, box), "01000");

    const auto devices = [] { return each(ndm_get_device_num(), ndm_get_min_devid(), ndm_get_max_devid()); };
    EXPECT_EQ(devices(), "4 1 4;");
    for (const int32_t devid : {1, 2, 3, 4}) drop(16, text("index{devid:%d}", devid));
    EXPECT_EQ(devices(), "0 -1 -1;");
    for (const int32_t devid : {3, 1, 2}) set(16, text("index{devid:%d} devid:%d", devid, devid));
    EXPECT_EQ(devices(), "3 1 3;");
    for (const char *place : {"1 slotid:30", "1 slotid:3", "1 slotid:3 sslotid:1", "1 slotid:5", "2 slotid:30"})
        drop(17, text("index{devid:%s}", place));
    EXPECT_EQ(online_nodes(), "0;0;");
}

// A unit's link cards must not be reset or taken for ordinary ones.
TEST_F(Roles, OfAUnitsLinks) {
    for (int32_t lport = 0; lport < 70; ++lport) set(21, text("index{devid:1 slotid:3 subslot:2 lport:%d}", lport));
    set(21, "index{devid:1 slotid:5}");  // beyond the first 64
    const auto links = [](int32_t mode) {
        set(13, text("device_mode:%d", mode));
        const auto link = ndm_is_vsl_card;
        return each(ndm_is_vsu(), link(1, 3), link(1, 5), link(1, 4), link(2, 3));
    };
    EXPECT_EQ(over({1, 0, 2}, links), "1 1 1 0 0;0 0 0 0 0;0 0 0 0 0;");
    drop(13);
    EXPECT_EQ(each(ndm_is_vsu(), ndm_is_vsl_card(1, 3)), "0 0;");
    const int32_t same = 2, other = 3;
    const Message port = object(21, "vsl_ap:2");
    EXPECT_EQ(each(ndm_vsl_cmp_ap(port.get(), &same), ndm_vsl_cmp_ap(port.get(), &other)), "0 -1;");
}

TEST_F(Statics, AreReadFromTheRecordsThatHoldThem) {
    const auto mine = [] {
        return ask(ndm_get_my_card_type, out) + ask(ndm_get_my_device_type, out) +
               ask(ndm_get_my_local_master_node, out) +
               each(ndm_get_my_node_type(), ndm_get_my_node(), ndm_get_my_dev_lrole()) +
               each(ndm_get_my_devid(), ndm_get_my_lslotid(), ndm_get_my_user_slot());
    };
    EXPECT_EQ(mine(), "0 645;0 100;0 44;3 0xc040300 2;1 3 2;");
    EXPECT_EQ(ask(ndm_get_device_type, 2, out) + ask(ndm_get_device_type, 9, out), "0 200;-1 ~;");
    EXPECT_EQ(each(ndm_get_dev_phy_type(1, 3, 1), ndm_get_dev_phy_type(1, 3, 2)), "7 -1;");
    EXPECT_EQ(each(ndm_get_cpu_num(0x0C041E00), ndm_get_cpu_num(0x0C045E00)), "2 -1;");  // slot 94
    EXPECT_EQ(each(ndm_get_card_switch_chip_num(645), ndm_get_card_switch_chip_num(1)), "1 -1;");
    EXPECT_EQ(each(ndm_get_total_chip_num_by_card_type(645), ndm_get_total_chip_num_by_card_type(1)), "2 -1;");
    EXPECT_EQ(each(ndm_get_card_type_by_lslotid(3), ndm_get_card_type_by_lslotid(4)), "645 -1;");
    EXPECT_EQ(each(ndm_card_sup_subslot(1, 3), ndm_card_sup_subslot(1, 30), ndm_card_sup_subslot(1, 5)), "1 0 0;");
    EXPECT_EQ(each(ndm_get_node_type_from_card_type(20), ndm_get_node_type_from_card_type(1)), "1 -1;");
    EXPECT_EQ(each(ndm_get_slot_num(1), ndm_get_slot_num(2), ndm_get_slot_num(4), ndm_get_slot_num(9)), "8 0 -1 -1;");
    for (const int32_t row : {2, 12, 13}) drop(row);
    EXPECT_EQ(mine(), "-1 ~;-1 ~;-1 ~;0 0xffffffff -1;-1 -1 -1;");
}

TEST_F(Statics, GiveTextsAndAddressesThatFitTheirBuffer) {
    const auto in = [](auto query, int32_t which) { return [=](int32_t len) { return ask_text(query, len, which); }; };
    EXPECT_EQ(over({32, 4, 1, 0}, in(ndm_get_device_sn, 1)), "0 SN-12345|32;0 SN-|4;0 |1;-1 |0;");
    EXPECT_EQ(over({40, 31}, in(ndm_get_dev_name_by_id, 2)), "0 box|40;-1 |0;");
    EXPECT_EQ(in(ndm_get_dev_name_by_id, 1)(32), "0 more than 31 characters, to be |32;");
    EXPECT_EQ(over({32, 4, 1, 0}, in(ndm_get_dev_name_by_type, 100)), "0 a chassis|10;0 a c|4;0 |1;-1 |0;");
    for (const auto query : {ndm_get_device_sn, ndm_get_dev_name_by_id, ndm_get_dev_name_by_type})
        EXPECT_EQ(in(query, 9)(32), "-1 |0;");
    const auto my_name = [](int32_t devid, char *name, int32_t len) {
        set(13, text("devid:%d", devid));
        return ndm_get_my_device_name(name, len);
    };
    EXPECT_EQ(over({40, 31}, in(my_name, 1)), "0 a chassis|40;-1 |0;");
    EXPECT_EQ(in(my_name, 2)(32), "0 a box of more than 31 character|32;");
    EXPECT_EQ(in(my_name, 9)(32), "-1 |0;");

    const auto system = [](int32_t, char *mac, int32_t len) {
        return ndm_get_system_l3_mac(reinterpret_cast<uint8_t *>(mac), len);
    };
    const auto vsd = [](int32_t id, char *mac, int32_t len) {
        return ndm_get_vsd_l3mac(id, reinterpret_cast<uint8_t *>(mac), len);
    };
    EXPECT_EQ(over({6, 8, 9, 5}, in(system, 0)), "0 ABCDEF|6;0 ABCDEFGH|8;-1 |0;-1 |0;");
    set(32, "index{t_vsdid:4}");
    set(32, "index{t_vsdid:1} id:1 l3mac:'abcdef'");
    set(32, "index{t_vsdid:2} l3mac:'abcde'");
    EXPECT_EQ(in(vsd, 0)(6), "-1 |0;");
    set(32, "index{t_vsdid:3} l3mac:'ghijklm'");
    EXPECT_EQ(over({8, 6, 5}, in(vsd, 0)) + in(vsd, 1)(6) + in(vsd, -1)(6), "0 ghijkl|6;0 ghijkl|6;-1 |0;-1 |0;-1 |0;");
}

// An array of the usual size for a card with more chips is a heap written past its end.
TEST_F(Statics, MakeRoomForEveryChipOfACard) {
    for (const int32_t n : {1, 8, 9, 64, 1000}) {
        std::string card = "index{type:645} chip_num:" + number(n);
        for (int32_t i = 0; i < n; ++i) card += " chip_attr_array{chip_type:" + number(100 + i) + "}";
        set(11, card);
        const auto expect_all = [n](int32_t *types) {
            const dm::OwnedMemory<int32_t> own(types);
            ASSERT_NE(types, nullptr);
            ASSERT_GE(malloc_usable_size(types), static_cast<size_t>(n) * sizeof *types) << n;
            for (int32_t i = 0; i < n; ++i) EXPECT_EQ(types[i], 100 + i);
        };
        int32_t *types = nullptr, count = 0;
        EXPECT_EQ(ndm_get_my_lchips(&types), n);
        expect_all(types);
        EXPECT_EQ(ndm_get_chip_type_by_card_type(645, &types, &count), 0);
        EXPECT_EQ(count, n);
        expect_all(types);
    }
}

// A store may hold any number where an enumeration is declared: it is handed on as it is. A build that watches how such
// fields are read (clang's -fsanitize=enum) ends here when one is read as what it is declared.
TEST_F(Statics, HandOnWhateverNumberAnEnumerationHolds) {
    const std::string port = "index{t_dev:1 t_slot:3 t_port:2 t_type:7} ";
    set(2, "card_type:645 dm_my_node_type:-7 slotid:3");
    set(15, "my_grole:-7 card_role{devid:1 slotid:30 globe_role:-7}");
    set(12, "my_lrole:-7");
    set(13, "device_mode:-7");
    set(17, "index{devid:1 slotid:3} config_dev_type:645 is_online:1 static_info{node_type:-7}");
    set(6, "index{type:20} node_type:-7");
    set(16, "index{devid:1} devid:1 static_info{slot_type:-7,8,-1}");
    set(11, "index{type:645} chip_attr_array{port_attr{lport:2 type:-7}}");
    set(10, "lport_num:1");
    set(8, "index{cport:1} static_info{lport:4 pd_medium_type:-7}");
    set(7, port + "static_info{type:-7 user_port:2 lport:2}");
    set(31, port + "dev:1 slot:3 physlot:3 ifx:5");
    EXPECT_EQ(each(ndm_get_my_node_type(), ndm_get_my_role(), ndm_get_my_dev_grole(), ndm_get_my_dev_lrole()),
              "-7 -7 -7 -7;");
    EXPECT_EQ(each(ndm_get_role_by_node(0x0C041E00), ndm_get_node_type(0x0C040300),
                   ndm_get_node_type_from_card_type(20), ndm_is_vsu()),
              "-7 -7 -7 0;");
    EXPECT_EQ(each(ndm_get_slot_num(1), ndm_get_online_lc_num(1)), "2 0;");
    EXPECT_EQ(ask(ndm_get_port_type, 0x14040302, out), "0 -7;");
    int32_t lport = 0, n = 1;
    EXPECT_EQ(ndm_get_my_card_multi_lport(&lport, &n), 0);
    EXPECT_EQ(n, 0);
    PDev__VsdPortAttr *found = nullptr;
    EXPECT_EQ(ndm_get_vsd_port_by_lsm_key(1, 3, 2, -7, &found), 0);
    ndm_port_obj_free(found);
}
