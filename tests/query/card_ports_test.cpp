// What sits in a slot, whose a port is and what it can do, and which chips a card has.
#include "tests/query/topology.h"

class CardPorts : public Topology {};

// A port of a sub-card is numbered by its carrier and described by itself; mixed up, power goes to the wrong port.
TEST_F(CardPorts, OfSubCardsAreDescribedByThem) {
    const auto type = [](int32_t devid, int32_t slot, int32_t sslot) {
        return ask(ndm_get_card_type_by_slot, devid, slot, sslot, out, 0);
    };
    set(17, "index{slotid:9} config_dev_type:5");  // a card of device 0 is no card of this chassis
    EXPECT_EQ(type(1, 3, 1) + type(0, 3, 0) + type(0, 3, 1) + type(0, 9, 0), "0 7;0 645;-1 ~;-1 ~;");

    const auto port = [](int32_t id) {  // its type, power, high power
        return ask(ndm_get_port_type, id, out) + ask(ndm_get_poe_support_by_objid, id, out) +
               ask(ndm_get_hpoe_support_by_objid, id, out) + ' ';
    };
    EXPECT_EQ(over({0x1404232C, 0x14040302, 0x14040301}, port), "0 10;0 0;0 0; 0 3;0 1;0 0; 0 4;0 0;0 1; ");
    EXPECT_EQ(port(0x14040328), "0 6;0 0;0 1; ");
    // Not known to its sub-card, without sub-card, nowhere, in a card without sub-cards.
    for (const int32_t id : {0x14040329, 0x14040332, 0x14040363, 0x14040428}) EXPECT_EQ(port(id), "-1 ~;-1 ~;-1 ~; ");
    EXPECT_EQ(over({0x20040302, 0x0C040302}, port), "0 3;0 1;-1 ~; -1 ~;0 1;-1 ~; ");  // types 8 and 3
    const auto owner = ndm_get_sslot_by_lport;
    EXPECT_EQ(each(owner(1, 3, 40), owner(1, 3, 50), owner(1, 3, 300), owner(1, 3, 99), owner(1, 30, 1)),
              "1 2 0 -1 -1;");
    const auto bounds = [](int32_t sslot) {
        return ask(ndm_get_min_lport_by_slot, 1, 3, sslot, out) + ask(ndm_get_max_lport_by_slot, 1, 3, sslot, out);
    };
    EXPECT_EQ(over({0, 1, 3}, bounds), "0 1;0 556;0 40;0 41;-1 -1;-1 -1;");
    EXPECT_EQ(ask(ndm_get_min_port_num, 1, 3, out) + ask(ndm_get_max_port_num, 1, 3, out), "0 1;0 556;");
    EXPECT_EQ(ask(ndm_get_min_port_num, 1, 30, out) + ask(ndm_get_max_port_num, 1, 30, out), "-1 ~;-1 ~;");
    drop(11, "index{type:7}");
    EXPECT_EQ(port(0x14040328), "-1 ~;-1 ~;-1 ~; ");
}

// An array one entry too short is written over; one that stays on failure leaks.
TEST_F(CardPorts, AndChipsAreListedInFull) {
    const auto chips = [](int32_t type) {  // of a card type; 0: of this card
        int32_t stale = 0, *types = &stale, n = -7;
        std::string all =
            number(type ? ndm_get_chip_type_by_card_type(type, &types, &n) : ndm_get_my_lchips(&types)) + ':';
        for (int32_t i = 0; types && i < std::max(8, n); ++i) all += number(types[i]) + ' ';
        std::free(types);
        return all + each(n);
    };
    EXPECT_EQ(over({0, 645, 1}, chips), "2:88 99 0 0 0 0 0 0 -7;0:88 99 0 0 0 0 0 0 2;-1:-7;");
    std::string ten;
    for (int32_t i = 0; i < 10; ++i) ten += " chip_attr_array{chip_type:1}";
    const std::tuple<int32_t, std::string, const char *> cards[] = {
        {0, ten.substr(0, 29), "0:1 0 0 0 0 0 0 0 -7;0:1 0 0 0 0 0 0 0 1;"},
        {8, ten.substr(0, 29), "8:1 0 0 0 0 0 0 0 -7;0:1 0 0 0 0 0 0 0 1;"},
        {9, ten.substr(0, 29), "-1:-7;0:1 0 0 0 0 0 0 0 1;"},
        {-1, ten, "-1:-7;-1:-7;"},
        {1, "", "-1:-7;-1:-7;"},
        {10, ten, "10:1 1 1 1 1 1 1 1 -7;0:1 1 1 1 1 1 1 1 1 1 10;"}};
    for (const auto &[chip_num, entries, want] : cards) {
        set(11, text("index{type:645} chip_num:%d", chip_num) + entries);
        EXPECT_EQ(over({0, 645}, chips), want) << chip_num;
    }
    drop(2);
    EXPECT_EQ(chips(0), "-1:-7;");
    set(20, "index{type:88} family:4");
    EXPECT_EQ(each(ndm_get_chip_family(88), ndm_get_chip_family(99)), "4 -1;");
}

TEST_F(CardPorts, ThatAreCombosFitTheCallersArray) {
    const auto combos = [](int32_t n) {
        int32_t lports[4] = {};
        const int32_t answer = ndm_get_my_card_multi_lport(lports, &n);
        return each(answer, n, lports[0], lports[1], lports[2]);
    };
    const auto number_of = ndm_get_my_lport_num_by_sub_slot;
    EXPECT_EQ(each(ndm_get_my_lport_num()) + ask(number_of, 0, out) + ask(number_of, 1, out), "-1;0 -1;-1 ~;");
    for (const int32_t i : {5, 6, 7}) set(8, text("index{cport:%d} static_info{lport:%d pd_medium_type:2}", i, i));
    set(8, "index{cport:8} static_info{lport:8 pd_medium_type:1}");
    set(8, "index{cport:9}");
    EXPECT_EQ(combos(3), "-1 3 0 0 0;");  // the number of ports is not known
    set(10, "lport_num:0");
    EXPECT_EQ(combos(3), "-1 3 0 0 0;");
    set(10, "lport_num:1");  // it bounds nothing
    EXPECT_EQ(ask(number_of, 0, out) + over({4, 3, 2}, combos), "0 1;0 3 5 6 7;0 3 5 6 7;-1 2 5 6 0;");
    for (const int32_t i : {5, 6, 7, 8, 9}) drop(8, text("index{cport:%d}", i));
    EXPECT_EQ(combos(4), "-1 4 0 0 0;");
}
