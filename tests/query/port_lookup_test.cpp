// Ports by what is known of them. What is handed out must be the right one, and the caller's own.
#include "tests/query/topology.h"

namespace {

struct Known {
    const char *name;
    int32_t row;
    Message port;
};
std::vector<Known> known;

// The name of the port of which a look-up hands out a copy.
template <class Query, class... Given> std::string found(Query query, Given... given) {
    ProtobufCMessage *copy = nullptr;
    const int32_t answer = query(given..., &copy);
    if (answer != 0) return number(answer) + (copy ? " written;" : ";");
    const Message own(copy);
    for (const Known &each : known)
        if (equal(each.port.get(), copy)) return element(each.row, each.port)->obj == copy ? "borrowed" : each.name;
    return "unknown;";
}

}  // namespace

class PortLookup : public Topology {
protected:
    PortLookup() {
        const auto chip = [](Message port, int32_t cport) {
            return std::move(port).set("static_info.unit", 2).set("static_info.port", cport);
        };
        known.clear();
        known.push_back({"static 1;", 7, chip(static_port(1, 3, 1, 7), 0)});
        known.push_back(
            {"static 1/2;", 7, chip(static_port(1, 3, 1, 7), 1).set("index.t_sslot", 2).set("static_info.lport", 61)});
        known.push_back({"static 5;", 7, chip(static_port(1, 3, 5, 7), 7)});
        known.push_back({"static 6;", 7, chip(static_port(1, 3, 6, 7), 255).set("static_info.user_port", 66)});
        known.push_back({"global 1;", 30, global_port(4, 1, 3, 1, 7, 5)});
        known.push_back({"global 1/2;", 30, global_port(4, 1, 3, 1, 7, 6).set("index.t_sslot", 2)});
        known.push_back({"global 5;", 30, global_port(0, 1, 3, 5, 7, 7)});
        known.push_back({"vsd 1;", 31, vsd_port(1, 3, 1, 7, 5)});
        known.push_back({"vsd 6;", 31, vsd_port(1, 3, 6, 7, 8)});
        known.push_back({"local;", 8, local_port(2, 9, 31)});
        known.push_back({"chip;", 20, object(20, "index{type:7} family:1")});
        for (const Known &each : known) EXPECT_EQ(dm_cache_set_obj(each.row, each.port.get()), 0);
        known.push_back({"card;", 11, object(11, line_card)});
    }
};

TEST_F(PortLookup, FindsByEveryKey) {
    EXPECT_EQ(found(ndm_get_local_port_by_unit_cport, 2, 9) + found(ndm_get_local_port_by_unit_cport, 9, 2),
              "local;-1;");
    EXPECT_EQ(found(ndm_get_local_port_by_lport, 31) + found(ndm_get_local_port_by_lport, 9), "local;-1;");
    EXPECT_EQ(found(ndm_get_global_port_by_ifx, 4, 5) + found(ndm_get_global_port_by_ifx, 0, 5), "global 1;-1;");
    EXPECT_EQ(found(ndm_get_global_port_by_dm_phyid, 1, 3, 2, 1), "global 1/2;");
    EXPECT_EQ(found(ndm_get_global_port_by_ss_phyid, 1, 3, 61) + found(ndm_get_global_port_by_ss_phyid, 1, 3, 6),
              "global 1/2;-1;");
    EXPECT_EQ(found(ndm_get_global_port_by_lsm_key, 1, 3, 1, 7), "global 1;");
    EXPECT_EQ(found(ndm_get_global_port_by_lsm_key_with_subslot, 1, 3, 2, 1, 7), "global 1/2;");
    EXPECT_EQ(found(ndm_get_vsd_port_by_ifx, 5) + found(ndm_get_vsd_port_by_ifx, 6), "vsd 1;-1;");
    EXPECT_EQ(found(ndm_get_vsd_port_by_dm_phyid, 1, 3, 2, 255) + found(ndm_get_vsd_port_by_ss_phyid, 1, 3, 6),
              "vsd 6;vsd 6;");
    EXPECT_EQ(found(ndm_get_vsd_port_by_lsm_key, 1, 3, 66, 7), "vsd 6;");
    EXPECT_EQ(found(ndm_get_vsd_port_by_lsm_key_with_subslot, 1, 3, 2, 1, 7), "-1;");
    EXPECT_EQ(found(ndm_get_static_port_by_ifx, 4, 6) + found(ndm_get_static_port_by_ifx, 0, 8), "static 1/2;-1;");
    EXPECT_EQ(found(ndm_get_static_port_by_ifx_in_vsd, 8) + found(ndm_get_static_port_by_ifx_in_vsd, 6),
              "static 6;-1;");
    // Of a global port, else of one of this VSD.
    const auto by_chip = ndm_get_static_port_by_dm_phyid;
    EXPECT_EQ(found(by_chip, 1, 3, 2, 7) + found(by_chip, 1, 3, 2, 255) + found(by_chip, 1, 3, 2, 8),
              "static 5;static 6;-1;");
    const auto by_lport = ndm_get_static_port_by_ss_phyid;
    EXPECT_EQ(found(by_lport, 1, 3, 61) + found(by_lport, 1, 3, 6) + found(by_lport, 1, 3, 7),
              "static 1/2;static 6;-1;");
    const auto by_key = ndm_get_static_port_by_lsm_key_with_subslot;
    EXPECT_EQ(found(by_key, 1, 3, 2, 1, 7) + found(by_key, 1, 3, 1, 1, 7), "static 1/2;-1;");
    EXPECT_EQ(found(ndm_get_static_port_by_lsm_key, 1, 3, 66, 7), "static 6;");
    EXPECT_EQ(found(ndm_get_card_static_by_type, 645) + found(ndm_get_card_static_by_type, 8), "card;-1;");
    EXPECT_EQ(found(ndm_get_chip_stattr_by_type, 7) + found(ndm_get_chip_stattr_by_type, 8), "chip;-1;");
}

// A caller's array holds the ports that are there, one after the other, and nothing behind them.
TEST_F(PortLookup, ListsAChip) {
    const auto in_chip = [](auto query, int32_t unit) {
        ProtobufCMessage *ports[256] = {};
        int32_t count = -1;
        EXPECT_EQ(query(1, 3, unit, ports, &count), 0);
        const auto there = std::count_if(ports, ports + 256, [](auto *port) { return port != nullptr; });
        for (int32_t i = 0; i < count; ++i) ndm_port_obj_free(ports[i]);
        return each(count, static_cast<int32_t>(there));
    };
    EXPECT_EQ(in_chip(ndm_get_global_port_in_chip, 2) + in_chip(ndm_get_static_port_in_chip, 2), "3 3;4 4;");
    EXPECT_EQ(in_chip(ndm_get_global_port_in_chip, 1) + in_chip(ndm_get_static_port_in_chip, 1), "0 0;0 0;");
    ndm_port_obj_free(nullptr);
}
