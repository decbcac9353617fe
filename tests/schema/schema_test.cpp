// The whole schema, walked through its descriptors: what clients and stores rely on without looking at it.
#include "tq_dm_cache/dm_schema.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <set>
#include <span>
#include <string>

#include "tq_dm_cache/p_dev.pb-c.h"

namespace {

using Type = ProtobufCMessageDescriptor;
using Field = ProtobufCFieldDescriptor;

template <class T> std::span<const T *const> all(const T *const *(*table)(uint32_t *)) {
    uint32_t count = 0;
    const auto *first = table(&count);
    return {first, count};
}

std::span<const Field> fields(const Type *type) {
    return {type->fields, type->n_fields};
}

bool is_text(const Field &field) {
    return field.type == PROTOBUF_C_TYPE_STRING || field.type == PROTOBUF_C_TYPE_BYTES;
}
bool is_scalar(const Field &field) {
    return !is_text(field) && field.type != PROTOBUF_C_TYPE_MESSAGE;
}

std::string varint(uint64_t value) {
    std::string bytes;
    for (; value > 127; value >>= 7) bytes += static_cast<char>(value | 128);
    return bytes + static_cast<char>(value);
}

std::string with_length(const std::string &bytes) {
    return varint(bytes.size()) + bytes;
}

// The wire format of a message with every field set, written without protobuf-c. No two neighbours are alike.
std::string encoded(const Type *type);

std::string encoded_value(const Field &field, uint64_t number) {
    if (field.type == PROTOBUF_C_TYPE_MESSAGE) return with_length(encoded(static_cast<const Type *>(field.descriptor)));
    if (is_text(field)) return with_length("text " + std::to_string(number));
    if (field.type == PROTOBUF_C_TYPE_FLOAT) return {"\x01\x02\x03\x00", 4};
    if (field.type == PROTOBUF_C_TYPE_FIXED64 || field.type == PROTOBUF_C_TYPE_DOUBLE)
        return {reinterpret_cast<const char *>(&number), sizeof number};
    if (field.type == PROTOBUF_C_TYPE_BOOL) return varint(1);
    const bool is_signed = field.type == PROTOBUF_C_TYPE_INT32 || field.type == PROTOBUF_C_TYPE_INT64;
    return varint(is_signed ? 0 - number : number);
}

std::string encoded_field(const Field &field) {
    const bool fixed64 = field.type == PROTOBUF_C_TYPE_FIXED64 || field.type == PROTOBUF_C_TYPE_DOUBLE;
    const uint32_t wire = !is_scalar(field) ? 2 : fixed64 ? 1 : field.type == PROTOBUF_C_TYPE_FLOAT ? 5 : 0;
    const std::string tag = varint(field.id << 3 | wire);
    if (field.label != PROTOBUF_C_LABEL_REPEATED) return tag + encoded_value(field, 1000 + field.id);
    if (!is_scalar(field)) return tag + encoded_value(field, 1) + tag + encoded_value(field, 2);
    return varint(field.id << 3 | 2) + with_length(encoded_value(field, 1) + encoded_value(field, 2));
}

std::string encoded(const Type *type) {
    std::string bytes;
    for (const Field &field : fields(type)) bytes += encoded_field(field);
    return bytes;
}

std::string packed(const ProtobufCMessage *message) {
    std::string bytes(protobuf_c_message_get_packed_size(message), '\0');
    protobuf_c_message_pack(message, reinterpret_cast<uint8_t *>(bytes.data()));
    return bytes;
}

ProtobufCMessage *unpacked(const Type *type, const std::string &bytes) {
    return protobuf_c_message_unpack(type, nullptr, bytes.size(), reinterpret_cast<const uint8_t *>(bytes.data()));
}

// An object that loses a field between the store and a client is wrong in every process.
TEST(Schema, EveryFieldOfEveryMessageTravels) {
    for (const Type *type : all(dm_schema_messages)) {
        auto *message = unpacked(type, encoded(type));
        ASSERT_TRUE(message) << type->name;
        EXPECT_EQ(message->n_unknown_fields, 0u) << type->name;
        EXPECT_TRUE(packed(message) == encoded(type)) << type->name;
        protobuf_c_message_free_unpacked(message, nullptr);
    }
}

// A message of zeroes must take no room, and read back as safe to use: no null string, no invented key.
TEST(Schema, AnAbsentFieldReadsAsItsDefault) {
    for (const Type *type : all(dm_schema_messages)) {
        auto *message = unpacked(type, "");
        ASSERT_TRUE(message) << type->name;
        EXPECT_EQ(packed(message), "") << type->name;
        for (const Field &field : fields(type)) {
            const bool is_string = field.type == PROTOBUF_C_TYPE_STRING && field.label == PROTOBUF_C_LABEL_NONE;
            if (!is_string && field.type != PROTOBUF_C_TYPE_MESSAGE) continue;
            const void *value = *reinterpret_cast<void **>(reinterpret_cast<char *>(message) + field.offset);
            EXPECT_EQ(value, is_string ? protobuf_c_empty_string : nullptr) << field.name;
        }
        protobuf_c_message_free_unpacked(message, nullptr);
    }
    auto *keyless = unpacked(&p_dev__card_info__descriptor, "\x30\x07");
    EXPECT_EQ(reinterpret_cast<PDev__CardInfo *>(keyless)->config_dev_type, 7);
    EXPECT_FALSE(reinterpret_cast<PDev__CardInfo *>(keyless)->index);
    protobuf_c_message_free_unpacked(keyless, nullptr);
}

// A type that cannot be found by name, or that the walk leaves out, cannot be shown, stored or recorded.
TEST(Schema, EveryTypeAndFieldIsFoundByName) {
    std::map<std::string, int> types;
    for (const Type *type : all(dm_schema_messages)) {
        ++types[std::string("message ") + type->package_name];
        EXPECT_EQ(dm_schema_find_message(type->name), type) << type->name;
        for (const Field &field : fields(type)) {
            EXPECT_EQ(protobuf_c_message_descriptor_get_field_by_name(type, field.name), &field) << field.name;
            EXPECT_EQ(protobuf_c_message_descriptor_get_field(type, field.id), &field) << field.name;
            if (field.type != PROTOBUF_C_TYPE_MESSAGE) continue;
            const auto *part = static_cast<const Type *>(field.descriptor);
            EXPECT_EQ(dm_schema_find_message(part->name), part);
        }
    }
    for (const ProtobufCEnumDescriptor *type : all(dm_schema_enums)) {
        ++types[std::string("enum ") + type->package_name];
        EXPECT_EQ(dm_schema_find_enum(type->name), type) << type->name;
        for (const ProtobufCEnumValue &value : std::span(type->values, type->n_values)) {
            EXPECT_EQ(protobuf_c_enum_descriptor_get_value_by_name(type, value.name), &value) << value.name;
            EXPECT_EQ(protobuf_c_enum_descriptor_get_value(type, value.value), &value) << value.name;
        }
    }
    EXPECT_EQ(types, (std::map<std::string, int>{{"enum p_dev", 36},
                                                 {"enum p_intf", 43},
                                                 {"enum p_mng", 4},
                                                 {"message p_dev", 159},
                                                 {"message p_intf", 52},
                                                 {"message p_mng", 3}}));
    for (const char *name : {"", "p_dev", "p_dev.card_inf", "p_dev.card_info_", "p_zzz.card_info", "a"})
        EXPECT_FALSE(dm_schema_find_message(name)) << name;
    EXPECT_FALSE(dm_schema_find_message(nullptr));
    EXPECT_FALSE(dm_schema_find_enum("p_dev.card_info"));
    EXPECT_FALSE(dm_schema_messages(nullptr));
}

// A store finds the key of an object by these words; the cache finds it directly behind the message's header.
TEST(Schema, DescriptorsCarryTheirWords) {
    if (!DM_DESCRIPTOR_WORDS) GTEST_SKIP() << "built without the step that writes them";
    std::set<const void *> keys;
    int keyed = 0;
    for (const Type *type : all(dm_schema_messages)) {
        const uint32_t *words = reinterpret_cast<const uint32_t *>(&type->message_init + 1);
        EXPECT_EQ(words[0], std::strlen(type->package_name)) << type->name;
        EXPECT_EQ(words[1], std::strlen(std::strchr(type->name, '.') + 1)) << type->name;
        EXPECT_EQ(dm_schema_package_length(type), words[0]);
        EXPECT_EQ(dm_schema_name_length(type), words[1]);
        EXPECT_FALSE(type->reserved3) << type->name;
        EXPECT_TRUE(std::ranges::is_sorted(fields(type), {}, &Field::id)) << type->name;
        for (const Field &field : fields(type)) {
            const bool is_key = field.type == PROTOBUF_C_TYPE_MESSAGE && std::string(field.name) == "index";
            const uint32_t mark = std::strncmp(field.name, "t_", 2) == 0 ? 1 : is_key ? 2 : 0;
            EXPECT_EQ(*(&field.flags + 1), mark) << type->name << '.' << field.name;
            EXPECT_EQ(dm_schema_key_mark(&field), mark);
            const bool is_packed = field.label == PROTOBUF_C_LABEL_REPEATED && is_scalar(field);
            EXPECT_EQ(field.flags, is_packed ? unsigned{PROTOBUF_C_FIELD_FLAG_PACKED} : 0u)
                << type->name << '.' << field.name;
            if (!is_key) continue;
            EXPECT_EQ(field.offset, sizeof(ProtobufCMessage)) << type->name;
            keys.insert(field.descriptor);
            ++keyed;
        }
    }
    EXPECT_EQ(keyed, 104);
    EXPECT_EQ(keys.size(), 41u);
    EXPECT_EQ(dm_schema_name_length(&p_dev__dp_lib_my_chss_info__descriptor), 19u);
    EXPECT_EQ(dm_schema_package_length(nullptr) + dm_schema_name_length(nullptr) + dm_schema_key_mark(nullptr), 0u);
}

}  // namespace
