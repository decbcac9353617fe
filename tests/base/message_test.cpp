// Deep copies: what the cache keeps and what a query hands out must not hang on to anybody else's memory.
#include "tests/support/log_capture.h"
#include "tests/support/messages.h"

#include "tq_dm_cache/dm_cache.h"
#include "tq_dm_cache/p_dev.pb-c.h"

#include <gtest/gtest.h>

// A copy that shares its key with the source reads freed memory as soon as the store client frees its message.
TEST(Copy, OutlivesItsSourceWithEveryField) {
    Message source =
        card(1, 3, 2).set("name", "M8600").set("serial", std::string_view("\0\1\2", 3)).set("port_num", -1);
    const std::string before = packed(source.get());
    PDev__CardInfo *copy = nullptr;
    ASSERT_EQ(dm_cache_copy_obj(source.get(), source.get()->descriptor, &copy), 0);
    EXPECT_EQ(packed(source.get()), before);
    source = Message();
    const Message held(&copy->base);
    EXPECT_EQ(packed(held.get()), before);
    EXPECT_EQ(copy->index->slotid, 3);

    const Message empty("p_dev.card_info");
    ProtobufCMessage *nothing = nullptr;
    ASSERT_EQ(dm_cache_copy_obj(empty.get(), empty.get()->descriptor, &nothing), 0);
    const Message held_nothing(nothing);
    EXPECT_EQ(nothing->descriptor, &p_dev__card_info__descriptor);
    EXPECT_EQ(held_nothing.as<PDev__CardInfo>()->index, nullptr);
    EXPECT_STREQ(held_nothing.as<PDev__CardInfo>()->name, "");
}

// A caller that finds an old pointer in `out` after a failure frees somebody else's message.
TEST(Copy, FailsWithItsCodeItsMessageAndNull) {
    LogCapture log(2);
    Message large = card(1, 3, 0);
    large.as<PDev__CardInfo>()->serial.len = 0xC0000000;  // never read: the size alone is refused
    const Message keyless = complete();
    void *out = &log;

    EXPECT_EQ(dm_cache_copy_obj(large.get(), large.get()->descriptor, &out), -2);
    EXPECT_EQ(out, nullptr);
    const auto size = static_cast<int32_t>(protobuf_c_message_get_packed_size(large.get()));
    large.as<PDev__CardInfo>()->serial.len = 0;
    out = &log;
    EXPECT_EQ(dm_cache_copy_obj(keyless.get(), &p_dev__card_info__descriptor, &out), -5);
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(log.take(), at_threshold(2, {text("2 dm_cache_copy_obj>key[%p] get packed size fail[%d].\n",
                                                static_cast<void *>(large.get()), size),
                                           "2 dm_cache_copy_obj>unpack val failed.\n"}));

    EXPECT_EQ(dm_cache_copy_obj(nullptr, keyless.get()->descriptor, &out), -1);
    EXPECT_EQ(dm_cache_copy_obj(keyless.get(), nullptr, &out), -1);
    EXPECT_EQ(dm_cache_copy_obj(keyless.get(), keyless.get()->descriptor, nullptr), -1);
}
