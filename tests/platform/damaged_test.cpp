// Stored bytes that no reader could hand on. What is not called damaged where it is read is gone without a word where it is
// copied.
#include "tests/support/messages.h"

#include "tq_dm_cache/tq_platform.h"
#include "tq_dm_cache/tq_platform_bundled.h"

#include <gtest/gtest.h>

TEST(Damaged, BytesThatDoNotSurvivePackingAreAndNoOthers) {
    using namespace std::string_literals;
    const auto number_0 = "\x82\x80\x80\x80\x00\x01x"s;  // a field of number 0, its number written in five bytes
    const auto vsd = [] { return Message("p_dev.vsd_info", {{"index.t_vsdid", 3}, {"id", 3}}); };
    const auto inside = [](std::string_view outer, std::string inner) {
        const auto *field = protobuf_c_message_descriptor_get_field_by_name(
            Message("p_dev.port_static").get()->descriptor, std::string(outer).c_str());
        return std::string{static_cast<char>(field->id << 3 | 2), static_cast<char>(inner.size())} + std::move(inner);
    };
    const Message port = static_port(1, 2, 3, 7);
    const struct {
        const char *name;
        Message key;
        std::string bytes;
        int32_t error;
    } rows[] = {
        {"at the end", vsd(), packed(vsd().get()) + number_0, TQ_MOM_E_DAMAGED},
        {"at the beginning", vsd(), number_0 + packed(vsd().get()), TQ_MOM_E_DAMAGED},
        {"a number", vsd(), packed(vsd().get()) + "\x80\x80\x00\x05"s, TQ_MOM_E_DAMAGED},
        {"in two bytes", vsd(), packed(vsd().get()) + "\x85\0tiny"s, TQ_MOM_E_DAMAGED},
        {"within", Message::copy(port.get()), packed(port.get()) + inside("static_info", number_0), TQ_MOM_E_DAMAGED},
        {"within the key", Message::copy(port.get()), packed(port.get()) + inside("index", number_0), TQ_MOM_E_DAMAGED},
        {"an unknown field", vsd(), packed(vsd().get()) + "\xfa\x7f\x01x"s, 0},
        {"bytes like it", vsd(), packed(vsd().set("l3mac", "\x82\x80\x80\x80\x00\x01"s).get()), 0},
    };
    tq_mom_handle *handle = nullptr;
    ASSERT_EQ(tq_mom_client_open("mem:damaged", &handle), 0);
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        const auto *bytes = reinterpret_cast<const uint8_t *>(row.bytes.data());
        ASSERT_EQ(tq_mem_put_bytes(handle, 1, row.key.get(), bytes, static_cast<uint32_t>(row.bytes.size())), 0);
        int32_t error = 0;
        const Message read(tq_mom_get_sync(handle, 1, row.key.get(), &error));
        EXPECT_EQ(error, row.error);
        EXPECT_EQ(read.get() == nullptr, row.error != 0);
        EXPECT_TRUE(!read.get() || equal(Message::copy(read.get()).get(), read.get()));
    }
    EXPECT_EQ(tq_mom_client_close(handle), 0);
}
