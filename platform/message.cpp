// Messages as the store holds them. Reads descriptors and bytes; no state, no lock.
#include "platform/message.h"

#include <cstdlib>

#include "tq_dm_cache/tq_platform_bundled.h"

namespace tq {

namespace {

constexpr unsigned key_mark_object = 2;

const ProtobufCFieldDescriptor *key_field(const ProtobufCMessageDescriptor &kind) {
    for (unsigned i = 0; i < kind.n_fields; ++i) {
        const ProtobufCFieldDescriptor &field = kind.fields[i];
        if (field.reserved_flags == key_mark_object && field.type == PROTOBUF_C_TYPE_MESSAGE) return &field;
    }
    return nullptr;
}

void put_varint(std::string &out, uint64_t value) {
    for (; value >= 0x80; value >>= 7) out.push_back(static_cast<char>(value | 0x80));
    out.push_back(static_cast<char>(value));
}

std::optional<uint64_t> take_varint(std::string_view &bytes) {
    uint64_t value = 0;
    for (unsigned shift = 0; shift < 64 && !bytes.empty(); shift += 7) {
        const auto byte = static_cast<uint8_t>(bytes.front());
        bytes.remove_prefix(1);
        value |= static_cast<uint64_t>(byte & 0x7f) << shift;
        if (!(byte & 0x80)) return value;
    }
    return {};
}

// How many bytes the value behind a tag takes; its own length, if it has one, is taken off the front.
std::optional<uint64_t> value_length(std::string_view &bytes, uint64_t wire_type) {
    if (wire_type == PROTOBUF_C_WIRE_TYPE_VARINT) return take_varint(bytes) ? std::optional<uint64_t>(0) : std::nullopt;
    if (wire_type == PROTOBUF_C_WIRE_TYPE_64BIT) return 8;
    if (wire_type == PROTOBUF_C_WIRE_TYPE_LENGTH_PREFIXED) return take_varint(bytes);
    if (wire_type == PROTOBUF_C_WIRE_TYPE_32BIT) return 4;
    return {};
}

// Every occurrence of a field, tags included; nothing when the bytes are no message.
std::optional<std::string> field_bytes(std::string_view bytes, uint32_t number) {
    std::string found;
    while (!bytes.empty()) {
        const std::string_view start = bytes;
        const auto tag = take_varint(bytes);
        const auto length = tag ? value_length(bytes, *tag & 7) : std::nullopt;
        if (!length || *length > bytes.size()) return {};
        bytes.remove_prefix(static_cast<size_t>(*length));
        if (*tag >> 3 == number) found.append(start.substr(0, start.size() - bytes.size()));
    }
    return found;
}

// A field's number written as zero, in more bytes than it needs. protobuf-c reads it as an unknown field, but packs it into
// one byte, which it does not read. In bytes as they are packed a zero follows such a byte by chance only.
bool may_hold_field_zero(std::string_view bytes) {
    for (size_t at = bytes.find('\0', 1); at != std::string_view::npos; at = bytes.find('\0', at + 1))
        if ((static_cast<uint8_t>(bytes[at - 1]) & 0xf8) == 0x80) return true;
    return false;
}

// No message, and `no_memory` when that is why. The stock functions free what it has made.
Message unpack(const ProtobufCMessageDescriptor &kind, std::string_view bytes, bool &no_memory) {
    const auto allocate = [](void *failed, size_t size) {
        void *block = std::malloc(size);
        if (!block) *static_cast<bool *>(failed) = true;
        return block;
    };
    ProtobufCAllocator allocator = {allocate, [](void *, void *block) { std::free(block); }, &no_memory};
    no_memory = false;
    return Message(
        protobuf_c_message_unpack(&kind, &allocator, bytes.size(), reinterpret_cast<const uint8_t *>(bytes.data())));
}

}  // namespace

std::string pack(const ProtobufCMessage &message) {
    std::string bytes(protobuf_c_message_get_packed_size(&message), '\0');
    protobuf_c_message_pack(&message, reinterpret_cast<uint8_t *>(bytes.data()));
    return bytes;
}

std::optional<std::string> packed_key(const ProtobufCMessage &message) {
    const ProtobufCFieldDescriptor *field = key_field(*message.descriptor);
    if (!field) return std::string();
    const auto *place = reinterpret_cast<const char *>(&message) + field->offset;
    const auto *key = *reinterpret_cast<const ProtobufCMessage *const *>(place);
    if (!key) return {};
    return pack(*key);
}

Target::Target(uint32_t db, const ProtobufCMessage *message) {
    if (!message || !message->descriptor) return;
    kind = message->descriptor;
    place = {db, kind->name};
    key = packed_key(*message);
}

Message key_only(const ProtobufCMessageDescriptor &kind, const std::string &key) {
    std::string bytes;
    if (const ProtobufCFieldDescriptor *field = key_field(kind)) {
        put_varint(bytes, uint64_t{field->id} << 3 | PROTOBUF_C_WIRE_TYPE_LENGTH_PREFIXED);
        put_varint(bytes, key.size());
        bytes += key;
    }
    bool no_memory = false;
    return unpack(kind, bytes, no_memory);
}

Decoded decode(const ProtobufCMessageDescriptor &kind, const Object &object) {
    bool no_memory = false;
    Message message = unpack(kind, object.bytes, no_memory);
    // Whoever copies the message packs and unpacks it.
    const bool survives = message && (!may_hold_field_zero(object.bytes) || unpack(kind, pack(*message), no_memory));
    if (survives && packed_key(*message) == object.key) return {std::move(message), 0};
    return {key_only(kind, object.key), no_memory ? TQ_MOM_E_MEMORY : TQ_MOM_E_DAMAGED};
}

bool has_field(const ProtobufCMessageDescriptor &kind, uint32_t number) {
    return protobuf_c_message_descriptor_get_field(&kind, number) != nullptr;
}

bool field_differs(std::string_view before, std::string_view after, uint32_t number) {
    const auto old_bytes = field_bytes(before, number);
    const auto new_bytes = field_bytes(after, number);
    return !old_bytes || !new_bytes || *old_bytes != *new_bytes;
}

}  // namespace tq
