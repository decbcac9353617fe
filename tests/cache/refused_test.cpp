// Objects that arrive and do not end in the cache. Each is one device, card or port that a query answers wrongly about: the
// counters must say so whatever became of it, and no message of a store may be taken for what it is not.
#include "tests/support/live_cache.h"

namespace {

// Its copy, which is made by packing it, cannot be unpacked.
Message uncopyable() {
    Message one = Message::unpack(&p_dev__card_info__descriptor, packed(card(1, 8, 0).get()) + "\xC0\x3E\x05");
    one.get()->unknown_fields->tag = 0;
    return one;
}

void reply_with(ProtobufCMessage *object, int32_t error) {
    result_rec record{object, {}, error};
    receive_value(17, REPLY, &record);
}

void *const not_to_be_looked_at = reinterpret_cast<void *>(16);

}  // namespace

TEST(Refused, CountsWhateverDoesNotEndInTheCache) {
    start_gathering({1, 17});
    const auto gathered = [] {
        receive(17, REPLY, card(1, 3, 0));
        receive_end(17);
        receive_end(1);
    };
    gathered();
    // What a store's every message can be instead of an object that is stored.
    const struct {
        const char *name;
        std::function<void()> arrive;
    } troubles[] = {
        {"damaged push", [] { receive_value(17, SET, card(1, 8, 0).get(), 0, /*result=*/-6); }},
        {"damaged push without its key", [] { receive_value(17, SET, nullptr, 0, /*result=*/-6); }},
        {"unusable push", [] { receive_value(17, SET, not_to_be_looked_at, 0, /*result=*/-1); }},
        {"unusable reply", [] { reply_with(reinterpret_cast<ProtobufCMessage *>(not_to_be_looked_at), 1); }},
        {"damaged reply", [] { reply_with(card(1, 8, 0).get(), -6); }},
        {"reply without an object", [] { reply_with(nullptr, 0); }},
        {"push of nothing", [] { receive_value(17, SET, nullptr); }},
        {"delete of nothing", [] { receive_value(17, DELETE, nullptr); }},
        {"reply of nothing", [] { receive_value(17, REPLY, nullptr); }},
        {"no key", [] { receive(17, REPLY_HASH, {"p_dev.card_info"}); }},
        {"another kind", [] { receive(17, SET, Message("p_dev.dp_lib_lrole")); }},
        {"reply of another kind", [] { receive(17, REPLY, vsd_port(1, 2, 3, 7, 5)); }},
        {"delete of another kind", [] { receive(17, DELETE, Message("p_dev.dp_lib_lrole")); }},
        {"copy", [] { receive(17, SET, uncopyable()); }},
        {"not cached", [] { receive(17, DELETE, card(1, 8, 0)); }},
    };
    for (const auto &trouble : troubles) {
        SCOPED_TRACE(trouble.name);
        for (const bool live : {true, false}) {
            const uint32_t before = counters(17).refused, others = counters(1).refused, applied = dm_cache_applied();
            if (!live) receive(1, SET, complete());
            trouble.arrive();
            if (!live) gathered();
            EXPECT_EQ(counters(17).refused, before + 1) << (live ? "live" : "gathering");
            EXPECT_EQ(counters(1).refused, others);
            EXPECT_EQ(cached(17), 1);
            EXPECT_EQ(dm_cache_applied(), applied + (live ? 0 : 1));
        }
    }
    // The last reply of a scan that nobody waits for is dropped with its object; an end mark is none.
    const uint32_t before = counters(17).refused;
    receive(17, REPLY, card(1, 4, 0), /*flag=*/1);
    receive_end(17);
    receive_value(17, SUBSCRIBED, nullptr, 0, /*result=*/-6);
    receive(17, REPLY_GET, card(1, 4, 0));
    EXPECT_EQ(counters(17).refused, before + 1);
}

// A client's own copy of the schema has descriptors of its own: what is the same kind by name is stored.
TEST(Refused, TellsKindsByNameAndSize) {
    start({17, 12});
    EXPECT_EQ(dm_cache_set_obj(17, Message("p_dev.dp_lib_lrole").get()), -1);
    EXPECT_EQ(dm_cache_set_obj(12, card(1, 3, 0).get()), -1);
    EXPECT_EQ(counters(17).refused + counters(12).refused, 2U);
    EXPECT_EQ(cached(17) + cached(12), 0);

    ProtobufCMessageDescriptor other = *card(1, 3, 0).get()->descriptor;
    const std::string name = other.name;
    other.name = name.c_str();
    const Message own = card(1, 3, 0);
    own.get()->descriptor = &other;
    EXPECT_EQ(dm_cache_set_obj(17, own.get()), 0);
    EXPECT_EQ(cached(17), 1);
    own.get()->descriptor = nullptr;
    EXPECT_EQ(dm_cache_set_obj(17, own.get()), -1);
    own.get()->descriptor = card(1, 3, 0).get()->descriptor;
    dm_cache_list_free(dm_cache_list_del(obj_sub_list[17].obj_list, obj_sub_list[17].cmp_func, own.get()));
}

// A row that overflows loses objects in every process, and with the usual threshold no log says so.
TEST(Refused, SaysThatARowIsFullWhenItBeginsAndAtEachDoubling) {
    start({1, 17});
    platform.synchronise();
    for (int32_t slot = 0; slot < DM_CACHE_LIST_LIMIT; ++slot) receive(17, SET, card(1, slot, 0));
    Capture standard_error(STDERR_FILENO);
    receive(17, DELETE, card(2, 0, 0));
    receive(17, SET, {"p_dev.card_info"});
    receive(17, SET, card(1, 7, 0).set("port_num", 5));  // what is there is still replaced
    for (int32_t slot = 0; slot < 5; ++slot) receive(17, SET, card(2, slot, 0));
    dm_cache_set_obj(17, card(2, 5, 0).get());
    receive(17, DELETE, card(1, 7, 0));
    receive(17, SET, card(2, 0, 0));
    for (int32_t slot = 1; slot < 3; ++slot) receive(17, SET, card(2, slot, 0));
    receive(1, SET, complete());  // what a scan brings finds the row as full
    for (int32_t slot = 0; slot < 8; ++slot) receive(17, REPLY, card(3, slot, 0));
    receive_end(1), receive_end(17);
    std::string expected;
    for (const int times : {1, 2, 4, 8, 16})
        expected += text("dm_cache: row 17 p_dev.card_info is full: 10000 objects cached, %d refused\n", times);
    EXPECT_EQ(standard_error.take(), expected);
    EXPECT_EQ(counters(17).refused, 18U);
}
