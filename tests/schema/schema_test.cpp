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
using FieldDescriptor = ProtobufCFieldDescriptor;

template <class T> std::span<const T *const> all(const T *const *(*table)(uint32_t *)) {
    uint32_t count = 0;
    const auto *first = table(&count);
    return {first, count};
}

std::span<const FieldDescriptor> fields(const Type *type) {
    return {type->fields, type->n_fields};
}

bool is_packed(const FieldDescriptor &field) {
    return field.label == PROTOBUF_C_LABEL_REPEATED && field.type != PROTOBUF_C_TYPE_MESSAGE &&
           field.type != PROTOBUF_C_TYPE_STRING && field.type != PROTOBUF_C_TYPE_BYTES;
}

// A type that cannot be found by name, or that the walk leaves out, cannot be shown, stored or recorded.
TEST(Schema, EveryTypeAndFieldIsFoundByName) {
    std::map<std::string, int> types;
    for (const Type *type : all(dm_schema_messages)) {
        ++types[std::string("message ") + type->package_name];
        EXPECT_EQ(dm_schema_find_message(type->name), type) << type->name;
        for (const FieldDescriptor &field : fields(type)) {
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
    std::set<const void *> keys;
    int keyed = 0;
    for (const Type *type : all(dm_schema_messages)) {
        const uint32_t *words = reinterpret_cast<const uint32_t *>(&type->message_init + 1);
        EXPECT_EQ(words[0], std::strlen(type->package_name)) << type->name;
        EXPECT_EQ(words[1], std::strlen(std::strchr(type->name, '.') + 1)) << type->name;
        EXPECT_EQ(dm_schema_package_length(type), words[0]);
        EXPECT_EQ(dm_schema_name_length(type), words[1]);
        EXPECT_FALSE(type->reserved3) << type->name;
        EXPECT_TRUE(std::ranges::is_sorted(fields(type), {}, &FieldDescriptor::id)) << type->name;
        for (const FieldDescriptor &field : fields(type)) {
            const bool is_key = field.type == PROTOBUF_C_TYPE_MESSAGE && std::string(field.name) == "index";
            const uint32_t mark = std::strncmp(field.name, "t_", 2) == 0 ? 1 : is_key ? 2 : 0;
            EXPECT_EQ(*(&field.flags + 1), mark) << type->name << '.' << field.name;
            EXPECT_EQ(dm_schema_key_mark(&field), mark);
            EXPECT_EQ(field.flags, is_packed(field) ? unsigned{PROTOBUF_C_FIELD_FLAG_PACKED} : 0u)
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
