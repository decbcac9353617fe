// Deep copies: what the cache keeps and what a query hands out must not hang on to anybody else's memory.
#include "tests/support/log_capture.h"
#include "tests/support/messages.h"

#include "tq_dm_cache/dm_cache.h"
#include "tq_dm_cache/p_dev.pb-c.h"

#include <gtest/gtest.h>

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
