// Look-ups by key against a walk, over rows that live through everything that a process does to them. An answer that a walk
// would not give is another port's, a freed object's, or a port that seems not to be there.
#include "tests/support/live_cache.h"

#include "base/row_table.h"
#include "cache/row_update.h"

#include <random>

namespace {

constexpr auto list_of = [](int32_t row) { return obj_sub_list[row].obj_list; };

using Nodes = std::vector<dm_cache_list_node *>;

Nodes walked(int32_t row) {
    Nodes nodes;
    for (dm_cache_list_node &node : dm::Elements(list_of(row))) nodes.push_back(&node);
    return nodes;
}

// Every VSD's port at a place, in the order of the list: by the table, and by a walk.
Nodes found_at(const int32_t *place) {
    Nodes found;
    const auto add = [](dm_cache_list_node *node, void *to) { static_cast<Nodes *>(to)->push_back(node); };
    dm::for_elements_at(DM_ROW_VSD_PORT, place, add, &found);
    return found;
}
Nodes walked_at(const int32_t *place) {
    Nodes nodes = walked(DM_ROW_VSD_PORT);
    std::erase_if(nodes, [place](const dm_cache_list_node *node) {
        const PDev__VsdPortIndex &at = *reinterpret_cast<const PDev__VsdPort *>(node->obj)->index;
        return !std::equal(place, place + 5, std::array{at.t_dev, at.t_slot, at.t_sslot, at.t_port, at.t_type}.begin());
    });
    return nodes;
}

dm_cache_list_node *walk_for(int32_t row, const Message &object) {
    for (dm_cache_list_node *node : walked(row))
        if (obj_sub_list[row].cmp_func(node->obj, object.get()) == 0) return node;
    return nullptr;
}

bool remove(int32_t row, const ProtobufCMessage *object) {
    dm::caller_holds_lock();  // there is no other thread
    return dm::remove_object(row, object).message != nullptr;
}

struct Elements {
    std::mt19937 random;
    Nodes unlinked;

    explicit Elements(unsigned seed) : random(seed) {}

    // Keys of every size: negative ones, ones that fill 32 bits, and few enough to meet again.
    int32_t number() {
        static constexpr int32_t numbers[] = {0, 1, 2, 3, 255, 256, 1023, 1024, -1, INT32_MAX, INT32_MIN};
        return numbers[random() % std::size(numbers)];
    }
    Message object(int32_t row) {
        const auto few = [&] { return static_cast<int32_t>(random() % 4); };
        if (row == DM_ROW_VSD_PORT) return global_port(number(), few(), number(), few(), 7, 1).set("dev", few());
        if (row == DM_ROW_UNIT_CPORT_INFO) return local_port(number(), number(), few());
        if (row == DM_ROW_DM_CHIP_STATTR)
            return {"p_dev.dm_chip_stattr_t", {{"index.type", number()}, {"type", few()}}};
        return card(number(), number(), few()).set("sw_status", few());
    }

    void change(int32_t row) {
        const Message one = object(row);
        const auto dice = random() % 100;
        dm_cache_list_node *const node = walk_for(row, one);
        if (dice < 60) {
            EXPECT_EQ(dm_cache_set_obj(row, one.get()), 0);
        } else if (dice < 85) {
            EXPECT_EQ(remove(row, one.get()), node != nullptr);
        } else if (dice < 88) {
            // What a client may do to a list: take out, take out by hand, put back in at the end, add what is there already.
            dm_cache_list_node *taken = dm_cache_list_del(list_of(row), obj_sub_list[row].cmp_func, one.get());
            EXPECT_EQ(taken, node);
            dm_cache_list_free(taken);
        } else if (dice < 93 && node) {
            ndm_cache_tree_del_node(&obj_sub_list[row], one.get());
            int32_t other_count = 1, *const count = &list_of(row)->count;
            dm_list_del_with_limit(&node->link, dice < 91 ? count : &other_count);
            *count -= 1 - other_count;
            unlinked.push_back(node);
        } else if (dice < 96) {
            const auto never_the_same = [](const ProtobufCMessage *, const ProtobufCMessage *) { return -1; };
            const auto always_the_same = [](const ProtobufCMessage *, const ProtobufCMessage *) { return 0; };
            dm_cache_list_add(list_of(row), one.get(), one.get()->descriptor,
                              dice < 95 ? never_the_same : +always_the_same);
        } else if (dice < 97) {
            for (dm_cache_list_node *gone : walked(row))
                if (random() % 2 == 0) remove(row, Message::copy(gone->obj).get());
        }
        if (unlinked.size() > 3) {
            for (dm_cache_list_node *left : unlinked) dm_cache_list_free(left);
            unlinked.clear();
        }
    }

    void compare(int32_t row) {
        const Message one = object(row);
        const dm_cache_list_node *const expected = walk_for(row, one);
        ASSERT_EQ(dm_cache_list_find(list_of(row), obj_sub_list[row].cmp_func, one.get()), expected);
        const ProtobufCMessage *found = nullptr;
        ASSERT_EQ(dm_cache_get_obj(row, key_message(one.get()), &found), expected ? 0 : -1);
        ASSERT_EQ(found, expected ? expected->obj : nullptr);
    }

    void compare_place() {
        const Message one = object(DM_ROW_VSD_PORT);
        const PDev__VsdPortIndex &key = *one.as<PDev__VsdPort>()->index;
        const int32_t place[] = {key.t_dev, key.t_slot, key.t_sslot, key.t_port, key.t_type};
        ASSERT_EQ(found_at(place), walked_at(place));
    }
};

}  // namespace

TEST(RowTable, AnswersWhatAWalkWould) {
    start({8, 17, 20, 30});
    Elements elements(11);
    for (int step = 0; step < 20000 && !testing::Test::HasFailure(); ++step) {
        for (const int32_t row : {8, 17, 20, 30}) {
            elements.change(row);
            elements.compare(row);
        }
        elements.compare_place();
    }
    for (dm_cache_list_node *left : elements.unlinked) dm_cache_list_free(left);
}

// Ten thousand are found, no more are taken, and an emptied row begins anew: also when the VSDs of all sit at few places, in
// numbers that a key in one word cannot tell apart.
TEST(RowTable, HoldsAFullRow) {
    start({30});
    for (dm_cache_list_node *left : walked(30)) remove(30, Message::copy(left->obj).get());
    using Port = Message (*)(int32_t);
    const Port spread = [](int32_t i) { return global_port(i % 300, i / 4096, i % 7, i % 4096, 7, i); };
    const Port crowded = [](int32_t i) { return global_port(i / 3 * 256, 1, 2, i % 3, 7, i); };
    const Port late = [](int32_t i) {  // after the table has grown for the last time
        return i < 7000 ? global_port(0, 3, 2, i, 7, i) : global_port(i * 256, 1, 2, 1, 7, i);
    };
    for (const Port port : {late, spread, crowded}) {
        for (int32_t i = 0; i < DM_CACHE_LIST_LIMIT; ++i) ASSERT_EQ(dm_cache_set_obj(30, port(i).get()), 0);
        EXPECT_EQ(dm_cache_set_obj(30, port(DM_CACHE_LIST_LIMIT).get()), -1);
        for (int32_t i = 0; i <= DM_CACHE_LIST_LIMIT; ++i) {
            const PDev__VsdPort *found = nullptr;
            dm_cache_get_obj(30, key_message(port(i).get()), &found);
            ASSERT_EQ(found ? found->ifx : -1, i < DM_CACHE_LIST_LIMIT ? i : -1);
        }
        constexpr int32_t place[] = {1, 2, 0, 1, 7};
        EXPECT_EQ(found_at(place), walked_at(place));
        const auto nodes = walked(30);
        for (size_t i = 0; i < nodes.size(); ++i) ASSERT_TRUE(remove(30, nodes[i * 7919 % nodes.size()]->obj));
        EXPECT_EQ(cached(30), 0);
    }
}

// A client's own list follows no table. A changed object must neither move nor double nor lose its place in an index.
TEST(List, ReplacesInPlaceAndTakesNoMoreThanItsLimit) {
    dm_cache_list list{{&list.head, &list.head}, 0};
    const auto cmp = +[](const ProtobufCMessage *a, const ProtobufCMessage *b) {
        const auto slot = [](auto *card) { return reinterpret_cast<const PDev__CardInfo *>(card)->index->slotid; };
        return slot(a) == slot(b) ? 0 : 7;
    };
    const auto add = [&](const Message &one) {
        return dm_cache_list_add(&list, one.get(), one.get()->descriptor, cmp);
    };
    for (const int32_t slot : {5, 3, 9}) EXPECT_EQ(add(card(1, slot, 0)), 0);
    dm_cache_list_node *const second = dm_cache_list_find(&list, cmp, card(0, 3, 0).get());
    auto *const record = second->key = static_cast<ndm_cache_key *>(std::calloc(1, sizeof(ndm_cache_key)));
    second->dirty = 1;
    const Message changed = card(2, 3, 1);
    EXPECT_EQ(add(changed), 1);
    EXPECT_EQ(dm_cache_list_find(&list, cmp, changed.get()), second);
    EXPECT_TRUE(second->obj != changed.get() && equal(second->obj, changed.get()));
    EXPECT_TRUE(second->key == record && second->dirty == 0 && second->link.prev->prev == &list.head);

    EXPECT_EQ(dm_cache_list_del(&list, cmp, card(0, 4, 0).get()), nullptr);
    EXPECT_EQ(dm_cache_list_del(&list, cmp, changed.get()), second);
    EXPECT_TRUE(second->link.next == &second->link && second->link.prev == &second->link);
    dm_cache_list_free(second);
    for (int32_t slot = 10; list.count < DM_CACHE_LIST_LIMIT; ++slot) ASSERT_EQ(add(card(1, slot, 0)), 0);
    EXPECT_EQ(add(card(1, -1, 0)), -1);
    EXPECT_EQ(add(card(7, 9, 0)), 1);
    dm_list_head link{&link, &link};
    EXPECT_EQ(dm_list_add_tail_with_limit(&link, &list.head, &list.count, DM_CACHE_LIST_LIMIT), -1);
    while (list.count > 0)
        dm_cache_list_free(dm_cache_list_del(&list, cmp, reinterpret_cast<dm_cache_list_node *>(list.head.next)->obj));
}
