// The bounded lists: order, limit, replacement in place. What goes wrong here is lost or found twice in every query.
#include "tests/support/messages.h"

#include "tq_dm_cache/dm_list.h"
#include "tq_dm_cache/p_dev.pb-c.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <vector>

namespace {

int32_t slot_of(const ProtobufCMessage *message) {
    return reinterpret_cast<const PDev__CardInfo *>(message)->index->slotid;
}

int32_t same_slot(const ProtobufCMessage *cached, const ProtobufCMessage *probe) {
    return slot_of(cached) == slot_of(probe) ? 0 : 7;
}

int32_t always_same(const ProtobufCMessage *, const ProtobufCMessage *) {
    return 0;
}

int32_t append_slot(ProtobufCMessage *object, void *slots) {
    static_cast<std::vector<int32_t> *>(slots)->push_back(slot_of(object));
    return -1;
}

class CardList : public testing::Test {
protected:
    CardList() { list.head = {&list.head, &list.head}; }
    ~CardList() override {
        while (dm_cache_list_node *node = dm_cache_list_del(&list, always_same, card(0, 0, 0).get()))
            dm_cache_list_free(node);
    }

    int32_t add(const Message &object, dm_cache_cmp_func cmp = same_slot) {
        return dm_cache_list_add(&list, object.get(), object.get()->descriptor, cmp);
    }
    dm_cache_list_node *find(int32_t slot) { return dm_cache_list_find(&list, same_slot, card(0, slot, 0).get()); }

    // The list from the front; empty when the way back differs.
    std::vector<int32_t> slots() {
        std::vector<int32_t> forward, backward;
        EXPECT_EQ(dm_cache_list_walk(&list, append_slot, &forward), 0);
        for (dm_list_head *link = list.head.prev; link != &list.head; link = link->prev)
            backward.insert(backward.begin(), slot_of(reinterpret_cast<dm_cache_list_node *>(link)->obj));
        EXPECT_EQ(list.count, static_cast<int32_t>(forward.size()));
        return forward == backward ? forward : std::vector<int32_t>{};
    }

    dm_cache_list list{};
};

using Slots = std::vector<int32_t>;

}  // namespace

// A changed card must neither move nor double nor lose its place in an index, and must not stay marked for the sweep.
TEST_F(CardList, ReplacesInPlaceAndKeepsInsertionOrder) {
    EXPECT_EQ(slots(), Slots{});
    for (const int32_t slot : {5, 3, 9}) EXPECT_EQ(add(card(1, slot, 0)), 0);
    dm_cache_list_node *second = find(3);
    auto *record = static_cast<ndm_cache_key *>(std::malloc(64));
    second->key = record;
    second->dirty = 1;

    const Message changed = card(2, 3, 1).set("name", "new");
    EXPECT_EQ(add(changed), 1);
    EXPECT_EQ(find(3), second);
    EXPECT_NE(second->obj, changed.get());
    EXPECT_TRUE(equal(second->obj, changed.get()));
    EXPECT_EQ(second->key, record);
    EXPECT_EQ(second->dirty, 0);
    EXPECT_EQ(slots(), (Slots{5, 3, 9}));

    EXPECT_EQ(dm_cache_list_del(&list, same_slot, card(0, 4, 0).get()), nullptr);
    dm_cache_list_node *taken = dm_cache_list_del(&list, same_slot, card(0, 3, 0).get());
    ASSERT_EQ(taken, second);
    EXPECT_EQ(taken->link.next, &taken->link);
    EXPECT_EQ(taken->link.prev, &taken->link);
    EXPECT_EQ(slots(), (Slots{5, 9}));
    dm_cache_list_free(taken);
    EXPECT_EQ(add(card(1, 3, 0)), 0);
    EXPECT_EQ(slots(), (Slots{5, 9, 3}));
    EXPECT_EQ(dm_cache_list_find(&list, always_same, card(0, 0, 0).get()), find(5));
    EXPECT_EQ(add(card(1, 2, 0), always_same), 1);
    EXPECT_EQ(slots(), (Slots{2, 9, 3}));
}

// A runaway writer must not eat the process's memory, and a full kind must still follow changes of what it holds.
TEST_F(CardList, RefusesANewObjectWhenFullButReplaces) {
    for (int32_t slot = 0; slot < DM_CACHE_LIST_LIMIT; ++slot) ASSERT_EQ(add(card(1, slot, 0)), 0);
    EXPECT_EQ(add(card(1, -1, 0)), -1);
    EXPECT_EQ(find(-1), nullptr);
    EXPECT_EQ(add(card(7, 9999, 0)), 1);
    EXPECT_EQ(slots().size(), 10000U);
}
