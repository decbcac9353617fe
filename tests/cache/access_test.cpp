// Reading and storing cached objects: what every query stands on.
#include "tests/support/live_cache.h"

namespace {

constexpr auto ignore = [](ProtobufCMessage *, uintptr_t *) { return 0; };

// Notes the slot; its answer must not stop the walk.
int32_t note_slot(ProtobufCMessage *object, uintptr_t *word) {
    reinterpret_cast<std::vector<int32_t> *>(*word)->push_back(
        reinterpret_cast<PDev__CardInfo *>(object)->index->slotid);
    return -1;
}

constexpr auto key = [](const Message &object) { return key_message(object.get()); };
constexpr auto set = [](int32_t row, const Message &object) { return dm_cache_set_obj(row, object.get()); };

}  // namespace

// A card that is found twice, or taken for another, sends a query to the wrong slot.
TEST(Objects, AreToldApartByTheFieldsOfTheirKind) {
    start({});
    const auto local = [](int32_t slot) { return Message("p_dev.local_card_info", {{"index.slotid", slot}}); };
    const auto after = [](int32_t row, const Message &a, const Message &b) {
        EXPECT_EQ(set(row, a) + set(row, b), 0);
        return cached(row);
    };
    EXPECT_EQ(after(17, card(1, 3, 2), card(1, 3, 2).set("index.t_mod", 5)), 1);
    EXPECT_EQ(after(17, card(2, 3, 2), card(1, 4, 2)), 3);
    EXPECT_EQ(after(14, local(1), local(1).set("index.devid", 2).set("index.t_mod", 3)), 1);
    EXPECT_EQ(after(5, {"p_dev.dm_port_attr_t", {{"lport", 1}}}, {"p_dev.dm_port_attr_t", {{"lport", 2}}}), 1);
    const Message ports[] = {global_port(1, 0, 0, 0, 0, 0), global_port(0, 1, 0, 0, 0, 0),
                             global_port(0, 0, 1, 0, 0, 0), global_port(0, 0, 0, 1, 0, 0),
                             global_port(0, 0, 0, 0, 1, 0), global_port(0, 0, 0, 0, 0, 0).set("index.t_sslot", 1)};
    for (const Message &port : ports) EXPECT_EQ(set(30, port), 0);
    EXPECT_EQ(after(30, global_port(0, 0, 0, 0, 0, 0), global_port(0, 0, 0, 0, 0, 9)), 7);
}

// Every answer of the five operations, in the order in which a client meets them.
TEST(Objects, AreReadInTheOrderInWhichTheyWereStored) {
    EXPECT_EQ(set(17, card(1, 3, 0)), -1);  // no list yet
    dm_cache_init_obj(obj_sub_list);
    EXPECT_EQ(set(17, card(1, 3, 0)), 0);
    EXPECT_EQ(dm_cache_get_obj_index_list_len(17), -2);
    start({});
    EXPECT_EQ(dm_cache_get_obj_index_list_len(17), 0);

    PDev__DpLibLrole *role = reinterpret_cast<PDev__DpLibLrole *>(&role);
    EXPECT_EQ(dm_cache_get_obj(12, nullptr, &role), -1);
    EXPECT_EQ(role, nullptr);
    EXPECT_EQ(set(12, {"p_dev.dp_lib_lrole", {{"local_master_slotid", 4}}}), 0);
    EXPECT_EQ(dm_cache_get_obj(12, nullptr, &role), 0);
    EXPECT_EQ(role->local_master_slotid, 4);

    for (const int32_t slot : {5, 3, 9, 1, 7}) EXPECT_EQ(set(17, card(1, slot, 0)), 0);
    EXPECT_EQ(set(17, card(1, 9, 0).set("port_num", 48)), 0);
    PDev__CardInfo *found = nullptr;
    EXPECT_EQ(dm_cache_get_obj(17, key(card(1, 9, 0)), &found), 0);
    EXPECT_EQ(found->port_num, 48);
    EXPECT_EQ(dm_cache_get_obj(17, key(card(1, 8, 0)), &found), -1);
    EXPECT_EQ(found, nullptr);
    EXPECT_EQ(dm_cache_get_obj_index_list_len(17), 5);

    std::vector<int32_t> slots;
    EXPECT_EQ(dm_cache_foreach_obj(17, note_slot, reinterpret_cast<uintptr_t>(&slots)), 0);
    EXPECT_EQ(slots, (std::vector<int32_t>{5, 3, 9, 1, 7}));
    PDev__CardInfoIndex *keys[3] = {};
    int32_t count = 77;
    EXPECT_EQ(dm_cache_get_obj_index_list(17, keys, 2, &count), 0);
    EXPECT_EQ(keys[1]->slotid, 3);
    EXPECT_EQ(keys[2], nullptr);
    EXPECT_EQ(dm_cache_get_obj_index_list(12, keys, 3, &count), 0);
    EXPECT_EQ(count, 2);
}

// A kind that is only followed must never fill memory; an object without key could never be found again.
TEST(Objects, AreNotStoredWhenTheyShouldNot) {
    for (const int32_t row : {16, 18}) dm_cache_sub_obj(row, nullptr, DM_CACHE_NO_STORE);
    start({});
    LogCapture log(2);
    EXPECT_EQ(set(16, {"p_dev.device_info", {{"index.devid", 1}}}), 0);
    EXPECT_EQ(set(18, card(1, 3, 0)), 0);
    EXPECT_EQ(log.take(), "");
    EXPECT_EQ(set(17, {"p_dev.card_info"}), -1);
    EXPECT_EQ(set(30, {"p_dev.vsd_port"}), -1);
    EXPECT_EQ(set(0, card(1, 3, 0)), -1);
    EXPECT_NE(log.take(), "");
    EXPECT_EQ(cached(16) + cached(17) + cached(30), 0);
    void *out = &log;
    EXPECT_EQ(dm_cache_get_obj(0, nullptr, &out), -1);
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(dm_cache_foreach_obj(0, ignore, 0), 0);
}

// One crash of a shared library takes a whole service of the switch with it: no argument may cause one.
TEST(Arguments, AreRefusedWhenOutOfRangeOrNull) {
    start({17});
    const Message one = card(1, 3, 0);
    obj_sub_entry *const row = &obj_sub_list[17];
    dm_cache_list *const list = row->obj_list;
    const auto *kind = one.get()->descriptor;
    const auto visit = [](ProtobufCMessage *, void *) { return 0; };
    dm_list_head link{&link, &link};
    store_msg msg{};
    msg.cmd = SET;
    msg.value = one.get();
    void *buf[2];
    int32_t n = 0;
    std::vector<int32_t> answers;
    for (const int32_t type : {-1, 39, INT32_MIN, INT32_MAX}) {
        dm_cache_mom_cache(&msg, type);
        for (const int32_t answer :
             {dm_cache_get_obj(type, key(one), buf), set(type, one), dm_cache_foreach_obj(type, ignore, 0),
              dm_cache_get_obj_index_list_len(type), dm_cache_get_obj_index_list(type, buf, 2, &n),
              dm_cache_sub_obj(type, nullptr, 0), receive_value(type, SUBSCRIBED, nullptr)})
            answers.push_back(answer);
    }
    for (const int32_t answer : {dm_cache_set_obj(17, nullptr),
                                 dm_cache_get_obj(17, key(one), nullptr),
                                 dm_cache_get_obj(17, nullptr, buf),
                                 dm_cache_foreach_obj(17, nullptr, 0),
                                 dm_cache_get_obj_index_list(17, nullptr, 2, &n),
                                 dm_cache_get_obj_index_list(17, buf, 2, nullptr),
                                 dm_cache_get_obj_index_list(17, buf, -1, &n),
                                 ndm_cache_tree_add_node(nullptr, one.get()),
                                 ndm_get_static_port_by_index(1, 2, 3, 7, nullptr),
                                 ndm_get_static_port_by_index_with_subslot(1, 2, 0, 3, 7, nullptr),
                                 dm_cache_mom_callback_func(nullptr, &msg, &msg),
                                 dm_cache_mom_callback_func(&platform.handle, nullptr, &msg),
                                 dm_cache_mom_cache(nullptr, 17),
                                 dm_list_add_tail_with_limit(nullptr, &list->head, &n, 5),
                                 dm_list_add_tail_with_limit(&link, nullptr, &n, 5),
                                 dm_list_add_tail_with_limit(&link, &link, nullptr, 5),
                                 dm_cache_list_add(nullptr, one.get(), kind, row->cmp_func),
                                 dm_cache_list_add(list, nullptr, kind, row->cmp_func),
                                 dm_cache_list_add(list, one.get(), nullptr, row->cmp_func),
                                 dm_cache_list_add(list, one.get(), kind, nullptr),
                                 dm_cache_list_walk(nullptr, visit, nullptr),
                                 dm_cache_list_walk(list, nullptr, nullptr)})
        answers.push_back(answer);
    for (auto *init :
         {dm_cache_init_obj, ndm_cache_init_port_obj, dm_init_cache_device_sync_info, ndm_init_cache_staticport,
          ndm_init_cache_localport, ndm_init_cache_globalport, ndm_init_cache_vsdport, ndm_init_cache_cardsta,
          ndm_init_cache_lportinfo, ndm_init_cache_chipsta})
        answers.push_back(init(nullptr));
    EXPECT_EQ(answers, std::vector<int32_t>(answers.size(), -1));

    for (auto *search : {dm_cache_list_find, dm_cache_list_del}) {
        EXPECT_EQ(search(nullptr, row->cmp_func, one.get()), nullptr);
        EXPECT_EQ(search(list, nullptr, one.get()), nullptr);
        EXPECT_EQ(search(list, row->cmp_func, nullptr), nullptr);
    }
    EXPECT_EQ(set(17, one), 0);
    EXPECT_EQ(dm_cache_list_find(list, row->cmp_func, Message("p_dev.card_info").get()), nullptr);
    dm_cache_list_free(dm_cache_list_del(list, row->cmp_func, one.get()));
    ndm_cache_tree_add_node(&obj_sub_list[30], nullptr);
    ndm_cache_tree_del_node(&obj_sub_list[30], nullptr);
    ndm_cache_tree_del_node(nullptr, one.get());
    dm_list_del_with_limit(nullptr, &n);
    dm_cache_list_free(nullptr);
    EXPECT_EQ(list->count + n + dm_cache_subscribe(99), 0);
    platform.synchronise();  // what was queued for no row is gone, and the machine goes on
    receive(17, SET, one);
    EXPECT_EQ(g_cache_proc_done + cached(17), 2);
}
