// The schema at run time: the search over the generated tables, and the descriptors' extra words. All constant, no lock.
#include "tq_dm_cache/dm_schema.h"

#include <cstddef>
#include <cstring>

#include "schema/tables.h"

namespace {

template <class T> const T *find(const T *const *table, uint32_t count, const char *name) {
    if (!name) return nullptr;
    uint32_t low = 0, high = count;
    while (low < high) {
        const uint32_t middle = low + (high - low) / 2;
        const int order = std::strcmp(table[middle]->name, name);
        if (order == 0) return table[middle];
        if (order < 0)
            low = middle + 1;
        else
            high = middle;
    }
    return nullptr;
}

template <class T> const T *const *all(const T *const *table, uint32_t size, uint32_t *count) {
    if (!count) return nullptr;
    *count = size;
    return table;
}

// The 32-bit word at an offset of a record. By offset, not by the name of a reserved member: a generator with members of
// its own for the words puts them at the same place.
uint32_t word_at(const void *record, size_t offset) {
    if (!record) return 0;
    uint32_t word;
    std::memcpy(&word, static_cast<const char *>(record) + offset, sizeof word);
    return word;
}

constexpr size_t message_words = offsetof(ProtobufCMessageDescriptor, message_init) + sizeof(ProtobufCMessageInit);
constexpr size_t field_words = offsetof(ProtobufCFieldDescriptor, flags) + sizeof(uint32_t);

}  // namespace

const ProtobufCMessageDescriptor *dm_schema_find_message(const char *name) {
    return find(dm_schema_table_messages, dm_schema_table_messages_count, name);
}

const ProtobufCEnumDescriptor *dm_schema_find_enum(const char *name) {
    return find(dm_schema_table_enums, dm_schema_table_enums_count, name);
}

const ProtobufCMessageDescriptor *const *dm_schema_messages(uint32_t *count) {
    return all(dm_schema_table_messages, dm_schema_table_messages_count, count);
}

const ProtobufCEnumDescriptor *const *dm_schema_enums(uint32_t *count) {
    return all(dm_schema_table_enums, dm_schema_table_enums_count, count);
}

uint32_t dm_schema_package_length(const ProtobufCMessageDescriptor *message) {
    return word_at(message, message_words);
}

uint32_t dm_schema_name_length(const ProtobufCMessageDescriptor *message) {
    return word_at(message, message_words + sizeof(uint32_t));
}

uint32_t dm_schema_key_mark(const ProtobufCFieldDescriptor *field) {
    return word_at(field, field_words);
}
