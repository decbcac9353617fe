// A message is built as its descriptor says: zeroed memory of its size, its initialiser, then each value at its offset,
// with the default allocator, so that protobuf-c frees it.
#include "dmq/message.h"

#include <algorithm>
#include <cstdlib>

#include "dmq/failure.h"

namespace dmq {

void *allocate(size_t size) {
    void *memory = std::calloc(1, size ? size : 1);
    if (!memory) out_of_memory();
    return memory;
}

Message new_message(const ProtobufCMessageDescriptor &type) {
    auto *message = static_cast<ProtobufCMessage *>(allocate(type.sizeof_message));
    type.message_init(message);
    return Message(message);
}

std::string pack(const ProtobufCMessage &message) {
    std::string bytes(protobuf_c_message_get_packed_size(&message), '\0');
    protobuf_c_message_pack(&message, reinterpret_cast<uint8_t *>(bytes.data()));
    return bytes;
}

Message unpack(const ProtobufCMessageDescriptor &type, const std::string &bytes) {
    // Missing memory must not look like bytes that mean nothing.
    ProtobufCAllocator allocator = {[](void *, size_t size) { return allocate(size); },
                                    [](void *, void *memory) { std::free(memory); }, nullptr};
    const auto *data = reinterpret_cast<const uint8_t *>(bytes.data());
    return Message(protobuf_c_message_unpack(&type, &allocator, bytes.size(), data));
}

Message copy(const ProtobufCMessage &message) {
    return unpack(*message.descriptor, pack(message));
}

const ProtobufCFieldDescriptor *find_field(const ProtobufCMessageDescriptor &type, const std::string &name) {
    const auto *field = protobuf_c_message_descriptor_get_field_by_name(&type, name.c_str());
    return field && name == field->name ? field : nullptr;  // the name may hold a zero character
}

const ProtobufCMessageDescriptor *sub_type(const ProtobufCFieldDescriptor &field) {
    if (field.type != PROTOBUF_C_TYPE_MESSAGE || field.label == PROTOBUF_C_LABEL_REPEATED) return nullptr;
    return static_cast<const ProtobufCMessageDescriptor *>(field.descriptor);
}

// The schema has these types and no others.
size_t size_of(ProtobufCType type) {
    switch (type) {
        case PROTOBUF_C_TYPE_INT64:
        case PROTOBUF_C_TYPE_UINT64:
            return 8;
        case PROTOBUF_C_TYPE_STRING:
        case PROTOBUF_C_TYPE_MESSAGE:
            return sizeof(void *);
        case PROTOBUF_C_TYPE_BYTES:
            return sizeof(ProtobufCBinaryData);
        default:
            return 4;
    }
}

const ProtobufCFieldDescriptor *key_field(const ProtobufCMessageDescriptor &type) {
    for (const auto &field : fields_of(type))
        if (dm_schema_key_mark(&field) == 2) return &field;
    return nullptr;
}

const ProtobufCMessage *key_of(const ProtobufCMessage &object) {
    const auto *field = key_field(*object.descriptor);
    return field ? at<const ProtobufCMessage *>(object, field->offset) : nullptr;
}

std::string packed_key(const ProtobufCMessage &object) {
    const ProtobufCMessage *key = key_of(object);
    return key ? pack(*key) : "";
}

void swap_field(ProtobufCMessage &one, ProtobufCMessage &other, std::span<const std::string> path) {
    const auto &field = *find_field(*one.descriptor, path[0]);
    const bool repeated = field.label == PROTOBUF_C_LABEL_REPEATED;
    if (path.size() > 1) {
        auto *const inner = at<ProtobufCMessage *>(one, field.offset);
        if (inner) return swap_field(*inner, *at<ProtobufCMessage *>(other, field.offset), path.subspan(1));
    }
    char *const value = &at<char>(one, field.offset);
    const size_t size = repeated ? sizeof(void *) : size_of(field.type);
    std::swap_ranges(value, value + size, &at<char>(other, field.offset));
    if (repeated) std::swap(at<size_t>(one, field.quantifier_offset), at<size_t>(other, field.quantifier_offset));
}

}  // namespace dmq
