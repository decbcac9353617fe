// Every kind of message with random content: a copy by plan is what packing and unpacking give, field by field, and two
// messages are the same when they pack to the same bytes. Allocations of the library are counted and fail on demand.
#include "base/message.h"
#include "base/plan.h"
#include "tests/support/log_capture.h"
#include "tests/support/messages.h"

#include "tq_dm_cache/dm_cache.h"
#include "tq_dm_cache/dm_schema.h"
#include "tq_dm_cache/p_dev.pb-c.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <future>
#include <random>

static thread_local int until_failure = 0;  // the allocation that fails; 0: none

static bool refused() {
    return until_failure > 0 && --until_failure == 0;
}

extern "C" {
void *__real_malloc(size_t size);
void *__real_calloc(size_t count, size_t size);
void *__wrap_malloc(size_t size);
void *__wrap_calloc(size_t count, size_t size);
void *__wrap_malloc(size_t size) {
    return refused() ? nullptr : __real_malloc(size);
}
void *__wrap_calloc(size_t count, size_t size) {
    return refused() ? nullptr : __real_calloc(count, size);
}
}

namespace {

std::span<const ProtobufCMessageDescriptor *const> kinds() {
    uint32_t count = 0;
    const auto *const all = dm_schema_messages(&count);
    return {all, count};
}

size_t size_of(ProtobufCType type) {
    return type == PROTOBUF_C_TYPE_DOUBLE || type == PROTOBUF_C_TYPE_FIXED64 ? 8 : dmq::size_of(type);
}

// Messages as a client may build them: what is absent is said in every way there is.
class Content {
public:
    explicit Content(bool unknown_fields) : unknown_fields_(unknown_fields) {}

    ProtobufCMessage *make(const ProtobufCMessageDescriptor *kind) {
        auto *const message = static_cast<ProtobufCMessage *>(std::calloc(1, kind->sizeof_message));
        protobuf_c_message_init(kind, message);
        for (const auto &field : dmq::fields_of(*message->descriptor)) fill(message, field);
        if (below(2)) add_unknown(message);
        return message;
    }

    // Puts another value into one field somewhere in a message.
    void change(ProtobufCMessage *message) {
        if (message->descriptor->n_fields == 0) return;
        const auto &field = dmq::fields_of(*message->descriptor)[below(message->descriptor->n_fields)];
        const bool repeated = field.label == PROTOBUF_C_LABEL_REPEATED;
        if (field.type == PROTOBUF_C_TYPE_MESSAGE && !repeated && below(4))
            if (auto *const inner = dmq::at<ProtobufCMessage *>(*message, field.offset)) return change(inner);
        const Message other(make(message->descriptor));
        char *const mine = &dmq::at<char>(*message, field.offset);
        std::swap_ranges(mine, mine + (repeated ? sizeof(void *) : size_of(field.type)),
                         &dmq::at<char>(*other.get(), field.offset));
        if (repeated)
            std::swap(dmq::at<size_t>(*message, field.quantifier_offset),
                      dmq::at<size_t>(*other.get(), field.quantifier_offset));
    }

private:
    uint32_t below(uint32_t limit) { return static_cast<uint32_t>(random_() % limit); }

    void fill(ProtobufCMessage *message, const ProtobufCFieldDescriptor &field) {
        if (field.label != PROTOBUF_C_LABEL_REPEATED)
            return value(&dmq::at<char>(*message, field.offset), field, false);
        const size_t count = below(4);
        dmq::at<size_t>(*message, field.quantifier_offset) = count;
        if (count == 0 && below(2)) return;
        char *const array = dmq::at<char *>(*message, field.offset) =
            static_cast<char *>(std::calloc(4, size_of(field.type)));
        for (size_t i = 0; i < count; ++i) value(array + i * size_of(field.type), field, true);
    }

    void value(void *to, const ProtobufCFieldDescriptor &field, bool element) {
        if (field.type == PROTOBUF_C_TYPE_MESSAGE) {
            if (!element && below(3) == 0) return;
            *static_cast<void **>(to) = make(static_cast<const ProtobufCMessageDescriptor *>(field.descriptor));
        } else if (field.type == PROTOBUF_C_TYPE_STRING) {
            const char *const texts[] = {"", "a", "TwentyFiveGigE 1/3/7"};
            if (element || below(2))
                *static_cast<char **>(to) = strdup(texts[below(3)]);
            else if (below(2))
                *static_cast<char **>(to) = nullptr;
        } else if (field.type == PROTOBUF_C_TYPE_BYTES) {
            const size_t size = below(3) * 6;
            *static_cast<ProtobufCBinaryData *>(to) = {
                size, size || below(2) ? static_cast<uint8_t *>(std::calloc(1, size + 1)) : nullptr};
        } else {  // of a floating-point number the bits: two of them are a double's and a float's -0, and -1 is NaN
            const int64_t numbers[] = {0, 1, 2, -1, INT64_MAX ^ below(UINT32_MAX), INT64_MIN, 1LL << 31};
            std::memcpy(to, &numbers[below(7)], size_of(field.type));  // little-endian
        }
    }

    // Without unknown fields, memory for one that was taken back.
    void add_unknown(ProtobufCMessage *message) {
        message->unknown_fields =
            static_cast<ProtobufCMessageUnknownField *>(std::calloc(1, sizeof(ProtobufCMessageUnknownField)));
        if (!unknown_fields_) return;
        message->n_unknown_fields = 1;
        *message->unknown_fields = {5000 + below(2), PROTOBUF_C_WIRE_TYPE_VARINT, 1,
                                    static_cast<uint8_t *>(std::malloc(1))};
        *message->unknown_fields->data = static_cast<uint8_t>(below(3));
    }

    const bool unknown_fields_;
    std::mt19937 random_{11};
};

// The same in memory, not only on the wire: what is absent is absent in the same way.
bool same_fields(const ProtobufCMessage *a, const ProtobufCMessage *b);

bool same_value(const void *a, const void *b, const ProtobufCFieldDescriptor &field) {
    if (field.type == PROTOBUF_C_TYPE_STRING) {
        const char *const x = *static_cast<char *const *>(a), *const y = *static_cast<char *const *>(b);
        return (x == field.default_value) == (y == field.default_value) && std::strcmp(x, y) == 0;
    }
    if (field.type == PROTOBUF_C_TYPE_MESSAGE) {
        const auto *const x = *static_cast<ProtobufCMessage *const *>(a);
        const auto *const y = *static_cast<ProtobufCMessage *const *>(b);
        return x && y ? same_fields(x, y) : x == y;
    }
    if (field.type != PROTOBUF_C_TYPE_BYTES) return std::memcmp(a, b, size_of(field.type)) == 0;
    const auto &x = *static_cast<const ProtobufCBinaryData *>(a), &y = *static_cast<const ProtobufCBinaryData *>(b);
    return x.len == y.len && !x.data == !y.data && (!x.data || std::memcmp(x.data, y.data, x.len) == 0);
}

bool same_field(const ProtobufCMessage *a, const ProtobufCMessage *b, const ProtobufCFieldDescriptor &field) {
    if (field.label != PROTOBUF_C_LABEL_REPEATED)
        return same_value(&dmq::at<char>(*a, field.offset), &dmq::at<char>(*b, field.offset), field);
    const char *const x = dmq::at<char *>(*a, field.offset), *const y = dmq::at<char *>(*b, field.offset);
    const size_t count = dmq::at<size_t>(*a, field.quantifier_offset), size = size_of(field.type);
    if (count != dmq::at<size_t>(*b, field.quantifier_offset) || !x != !y) return false;
    for (size_t i = 0; i < count; ++i)
        if (!same_value(x + i * size, y + i * size, field)) return false;
    return true;
}

bool same_fields(const ProtobufCMessage *a, const ProtobufCMessage *b) {
    if (a->descriptor != b->descriptor || a->n_unknown_fields != b->n_unknown_fields) return false;
    if (!a->unknown_fields != !b->unknown_fields) return false;
    return std::ranges::all_of(dmq::fields_of(*a->descriptor),
                               [&](const auto &field) { return same_field(a, b, field); });
}

class Copies : public testing::TestWithParam<bool> {
protected:
    Content content{GetParam()};
};
INSTANTIATE_TEST_SUITE_P(UnknownFields, Copies, testing::Bool());

}  // namespace

// A field that a copy forgets, or shares with its source, is wrong in one kind of 214 and found by nobody.
TEST_P(Copies, AreWhatPackingAndUnpackingGive) {
    for (const auto *const kind : kinds()) {
        SCOPED_TRACE(kind->name);
        for (int round = 0; round < 20; ++round) {
            Message source(content.make(kind));
            const std::string bytes = packed(source.get());
            const Message unpacked = Message::unpack(kind, bytes);
            ProtobufCMessage *out = nullptr;
            ASSERT_EQ(dm_cache_copy_obj(source.get(), kind, &out), 0);
            dm::StoredMessage stored;
            ASSERT_EQ(dm::store_copy(source.get(), kind, stored), 0);
            EXPECT_TRUE(dm::same_content(source.get(), out));
            source = Message();
            const Message copy(out);
            dm::StoredMessage shared = dm::share(stored.get());
            stored.reset();
            ASSERT_TRUE(same_fields(copy.get(), unpacked.get()));
            ASSERT_TRUE(same_fields(shared.get(), unpacked.get()));
            ASSERT_EQ(packed(copy.get()), bytes);
            ASSERT_EQ(packed(shared.get()), bytes);
        }
    }
}

// A change taken for none is never shown to anybody.
TEST_P(Copies, AreTheSameWhenTheirBytesAre) {
    int same = 0, different = 0;
    for (const auto *const kind : kinds()) {
        SCOPED_TRACE(kind->name);
        for (int round = 0; round < 40; ++round) {
            const Message a(content.make(kind)), b = Message::copy(a.get());
            ASSERT_TRUE(dm::same_content(a.get(), b.get()));
            content.change(b.get());
            const bool expected = packed(a.get()) == packed(b.get());
            ASSERT_EQ(dm::same_content(a.get(), b.get()), expected);
            ++(expected ? same : different);
        }
    }
    EXPECT_GT(same, 1000);
    EXPECT_GT(different, 1000);
}

// Half a copy must go as a whole.
TEST_P(Copies, FailWithEachAllocation) {
    for (const auto *const kind : kinds()) {
        SCOPED_TRACE(kind->name);
        const Message source(content.make(kind));
        dm::StoredMessage stored;
        const auto copy = [&](bool is_stored) {
            if (is_stored) return dm::store_copy(source.get(), kind, stored);
            ProtobufCMessage *out = source.get();
            const int32_t code = dm_cache_copy_obj(source.get(), kind, &out);
            EXPECT_EQ(!out, code != 0);
            protobuf_c_message_free_unpacked(out, nullptr);
            return code;
        };
        for (const bool is_stored : {false, true}) {
            LogCapture log(2);
            int32_t code = -1;
            for (int n = 1; code != 0; ++n) {
                until_failure = n;
                code = copy(is_stored);
                EXPECT_TRUE(!is_stored || !stored == (code != 0));
                if (std::exchange(until_failure, 0) > 0)
                    ASSERT_EQ(code, 0);
                else
                    ASSERT_EQ(code, n == 1 ? -3 : -5);
                const std::string line = n == 1 ? text("2 dm_cache_copy_obj>key[%p] malloc buffer fail.\n",
                                                       static_cast<void *>(source.get()))
                                                : "2 dm_cache_copy_obj>unpack val failed.\n";
                ASSERT_EQ(log.take(), code ? at_threshold(2, {line}) : "");
            }
        }
    }
}

// What no plan covers is packed: a part of another kind, smaller than the one that belongs there, and what is large.
TEST(Copies, OfWhatNoPlanCovers) {
    Message foreign = global_port(1, 1, 2, 3, 7, 5);
    auto *&key = dmq::at<ProtobufCMessage *>(*foreign.get(), offsetof(PDev__VsdPort, index));
    protobuf_c_message_free_unpacked(key, nullptr);
    key = Message("p_dev.port_index", {{"t_dev", 1}, {"t_port", 3}}).release();
    const Message large = card(1, 3, 0).set("serial", std::string(17 << 20, 's'));
    for (const Message *source : {&std::as_const(foreign), &large}) {
        const Message unpacked = Message::copy(source->get());
        ProtobufCMessage *out = nullptr;
        ASSERT_EQ(dm_cache_copy_obj(source->get(), source->get()->descriptor, &out), 0);
        const Message copy(out);
        dm::StoredMessage stored;
        ASSERT_EQ(dm::store_copy(source->get(), source->get()->descriptor, stored), 0);
        EXPECT_TRUE(same_fields(copy.get(), unpacked.get()));
        EXPECT_TRUE(same_fields(stored.get(), unpacked.get()));
        EXPECT_TRUE(dm::same_content(source->get(), stored.get()));
        EXPECT_FALSE(dm::same_content(foreign.get(), large.get()));
    }
}

// The queue's thread drops a message while a reader still holds it.
TEST(Stored, LivesUntilItsLastOwnerOnWhateverThread) {
    const Message source = global_port(1, 1, 2, 3, 7, 5).set("hardware_name", "GigE 1/2/3");
    dm::StoredMessage stored;
    ASSERT_EQ(dm::store_copy(source.get(), source.get()->descriptor, stored), 0);
    const auto own = [&source](dm::StoredMessage mine) {
        for (int i = 0; i < 1000; ++i) mine = dm::share(mine.get());
        return dm::same_content(mine.get(), source.get());
    };
    auto one = std::async(std::launch::async, own, dm::share(stored.get()));
    auto other = std::async(std::launch::async, own, std::move(stored));
    EXPECT_TRUE(one.get());
    EXPECT_TRUE(other.get());
}

// The plans are made by whichever thread asks first.
TEST(Plans, AreMadeOnceForTwoThreads) {
    const auto count = [] { return std::ranges::count_if(kinds(), [](auto *kind) { return dm::plan_of(kind); }); };
    auto other = std::async(std::launch::async, count);
    EXPECT_EQ(count(), std::ssize(kinds()));
    EXPECT_EQ(other.get(), std::ssize(kinds()));
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
