// The indexes over ports and attributes. A wrong key finds another port or none; a stale one reads freed memory.
#include "tests/support/live_cache.h"

namespace {

void *found(int32_t row, int number, int64_t key) {
    return dm_rbtree_find_node(&obj_sub_list[row].port_tree->root[number], key);
}

void set(int32_t row, const Message &object) {
    EXPECT_EQ(dm_cache_set_obj(row, object.get()), 0);
}

// Stores an object and expects it under exactly these keys.
void expect_keys(int32_t row, const Message &object, const std::vector<int64_t> &keys) {
    set(row, object);
    dm_cache_list_node *node = element(row, object);
    ASSERT_TRUE(node && node->key) << row;
    EXPECT_EQ(obj_sub_list[row].port_tree->tree_num, static_cast<int32_t>(keys.size()));
    for (size_t i = 0; i < NDM_CACHE_TREES; ++i) {
        EXPECT_EQ(node->key->key[i], i < keys.size() ? keys[i] : 0) << "row " << row << " tree " << i;
        if (i < keys.size())
            EXPECT_EQ(found(row, static_cast<int>(i), keys[i]), node);
        else
            EXPECT_EQ(obj_sub_list[row].port_tree->root[i], nullptr);
    }
}

// Place 1/2/sslot/3 of type 7, where every attribute differs from what the port's own key says.
Message attributes(int32_t sslot, int32_t lport) {
    return static_port(1, 2, 3, 7)
        .set("index.t_sslot", sslot)
        .set("static_info.type", 9)
        .set("static_info.unit", 4)
        .set("static_info.port", 5)
        .set("static_info.lport", lport)
        .set("static_info.user_port", 8);
}

Message moved(Message port, int32_t sslot, int32_t dev) {
    return std::move(port)
        .set("index.t_sslot", sslot)
        .set("dev", dev)
        .set("slot", 14)
        .set("physlot", 12)
        .set("unit", 99);
}

class PortIndex : public testing::Test {
protected:
    PortIndex() {
        EXPECT_EQ(dm_cache_init_obj(obj_sub_list), 0);
        EXPECT_EQ(ndm_cache_init_port_obj(obj_sub_list), 0);
    }
};

}  // namespace

// Queries form the same keys from what a user knows about a port: one bit off, and the port is not there.
TEST_F(PortIndex, ComposesKeysFromTheFieldsOfEachKind) {
    set(7, attributes(0, 6));
    set(7, attributes(2, 262));
    const auto global = [](int32_t vsdid, int32_t ifx, int32_t sslot, int32_t dev) {
        return moved(global_port(vsdid, 1, 2, 3, 7, ifx), sslot, dev);
    };
    const auto vsd = [](int32_t ifx, int32_t sslot, int32_t dev) {
        return moved(vsd_port(1, 2, 3, 7, ifx), sslot, dev);
    };

    expect_keys(30, global(1, 0x55, 0, 11), {0x01000055, 0x0B0C0405, 0x060B0C06, 0x070B0E03});
    expect_keys(31, vsd(0x55, 0, 11), {0x55, 0x0B0C0405, 0x060B0C06, 0x090B0E08});
    // A sub-slot, a logical port that reaches into the slot's byte, a number that reaches into the VSD's.
    expect_keys(30, global(4, 0x03000055, 2, 10), {0x07000055, 0x0A0C0405, 0x060A0D06, 0x2070A0E03});
    expect_keys(31, vsd(-2, 2, 10), {-2, 0x0A0C0405, 0x060A0D06, 0x2090A0E08});
    // 32 bits, signed: a device of 200 makes a negative key, one of 0x5A00 spills over the type.
    expect_keys(30, global(0xFF, 1, 0, 200), {int32_t(0xFF000001), int32_t(0xC80C0405), 0x06C80C06, 0x07C80E03});
    expect_keys(31, vsd(7, 2, 0x8A00), {7, 0x000C0405, int32_t(0x8E000D06), 0x200000000 | int32_t(0x8B000E08)});

    expect_keys(8, local_port(3, 0x9000, -5), {int32_t(0x90000003), -5});
    expect_keys(11, {"p_dev.dm_card_stattr_t", {{"index.type", -2}, {"type", 6}}}, {-2});
    expect_keys(20, {"p_dev.dm_chip_stattr_t", {{"index.type", 77}, {"type", 6}}}, {77});
}

// An object whose keys cannot be built stays cached, and the log says why no query finds it.
TEST_F(PortIndex, KeepsWhatItCannotIndex) {
    LogCapture log(2);
    const Message global = global_port(1, 1, 2, 3, 7, 5);
    const std::string invalid = "get static port fail, or static info invalid.\n";
    set(30, global);
    set(31, vsd_port(1, 2, 3, 7, 5));
    set(8, {"p_dev.unit_cport_info", {{"index.unit", 1}}});
    EXPECT_EQ(log.take(), at_threshold(2, {"2 dm_cache_port_obj:ndm_global_port_gen_key>" + invalid,
                                           "2 dm_cache_port_obj:ndm_vsd_port_gen_key>" + invalid,
                                           "2 dm_cache_port_obj:ndm_local_port_gen_key>param invalid.\n"}));
    EXPECT_EQ(cached(30) + cached(31) + cached(8), 3);
    EXPECT_EQ(element(30, global)->key, nullptr);
    EXPECT_EQ(ndm_cache_tree_add_node(&obj_sub_list[30], global.get()), -1);
    EXPECT_EQ(ndm_cache_tree_add_node(&obj_sub_list[30], global_port(1, 9, 9, 9, 9, 9).get()), 0);
    EXPECT_EQ(ndm_cache_tree_add_node(&obj_sub_list[7], static_port(1, 2, 3, 7).get()), 0);
    EXPECT_EQ(ndm_cache_tree_del_node(&obj_sub_list[30], global.get()), 0);
}

// Two objects under one key: a query must go on finding the first, and never an object that is gone.
TEST_F(PortIndex, TheFirstOfTwoEqualKeysIsFoundAndEitherTakesItAway) {
    LogCapture log(2);
    const std::string refused = "2 dm_cache_port_obj:ndm_cache_tree_add_node>add cache tree node fail.\n";
    set(8, local_port(0, 1, 40));
    set(8, local_port(0, 2, 40));
    EXPECT_EQ(ndm_cache_tree_add_node(&obj_sub_list[8], local_port(0, 2, 0).get()), 0);
    EXPECT_EQ(log.take(), at_threshold(2, {refused, refused}));
    EXPECT_EQ(found(8, 1, 40), element(8, local_port(0, 1, 0)));
    EXPECT_EQ(found(8, 0, 0x20000), element(8, local_port(0, 2, 0)));

    EXPECT_EQ(log.take(), "");
    EXPECT_EQ(ndm_cache_tree_add_node(&obj_sub_list[8], local_port(0, 1, 0).get()), 0);  // indexed already
    EXPECT_EQ(found(8, 1, 40), element(8, local_port(0, 1, 0)));
    EXPECT_EQ(ndm_cache_tree_del_node(&obj_sub_list[8], local_port(0, 1, 0).get()), 0);
    EXPECT_EQ(element(8, local_port(0, 1, 0))->key, nullptr);
    EXPECT_EQ(found(8, 0, 0x10000), nullptr);
}

// All five numbers name a static port; a search that drops one answers with a neighbour's attributes.
TEST_F(PortIndex, FindsAStaticPortByItsWholeKey) {
    set(7, attributes(0, 6));
    set(7, attributes(2, 6));
    PDev__PortStatic *out = nullptr;
    EXPECT_EQ(ndm_get_static_port_by_index_with_subslot(1, 2, 2, 3, 7, &out), 0);
    EXPECT_EQ(&out->base, element(7, attributes(2, 6))->obj);
    EXPECT_EQ(ndm_get_static_port_by_index(1, 2, 3, 7, &out), 0);
    EXPECT_EQ(out->index->t_sslot, 0);
    for (const auto &[dev, slot, sslot, port, type] :
         {std::array{9, 2, 0, 3, 7}, {1, 9, 0, 3, 7}, {1, 2, 9, 3, 7}, {1, 2, 0, 9, 7}, {1, 2, 0, 3, 9}}) {
        out = reinterpret_cast<PDev__PortStatic *>(this);
        EXPECT_EQ(ndm_get_static_port_by_index_with_subslot(dev, slot, sslot, port, type, &out), -1);
        EXPECT_EQ(out, nullptr);
    }
}
