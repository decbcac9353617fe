// A message as dmq holds it: owned, its key, its packed bytes, and its fields by their descriptors. No message type is
// named here. Without memory the process ends, so a null message always means something else. Takes no lock.
#pragma once

#include <memory>
#include <span>
#include <string>

#include "tq_dm_cache/dm_schema.h"

namespace dmq {

struct FreeMessage {
    void operator()(ProtobufCMessage *message) const { protobuf_c_message_free_unpacked(message, nullptr); }
};
using Message = std::unique_ptr<ProtobufCMessage, FreeMessage>;

// Zeroed memory, also for a size of 0, which protobuf-c frees.
void *allocate(size_t size);

Message new_message(const ProtobufCMessageDescriptor &type);
std::string pack(const ProtobufCMessage &message);
// Null: the bytes are none of the kind's.
Message unpack(const ProtobufCMessageDescriptor &type, const std::string &bytes);
Message copy(const ProtobufCMessage &message);

inline std::span<const ProtobufCFieldDescriptor> fields_of(const ProtobufCMessageDescriptor &type) {
    return {type.fields, type.n_fields};
}

// Null: the type has no such field.
const ProtobufCFieldDescriptor *find_field(const ProtobufCMessageDescriptor &type, const std::string &name);

// The type of a field that holds one message; null for any other field.
const ProtobufCMessageDescriptor *sub_type(const ProtobufCFieldDescriptor &field);

// What lies at an offset that the descriptor gives.
template <class T> T &at(const ProtobufCMessage &message, unsigned offset) {
    return *reinterpret_cast<T *>(reinterpret_cast<uintptr_t>(&message) + offset);
}

// The memory that one value of a field takes.
size_t size_of(ProtobufCType type);

// The field that carries an object's key; null for a kind without key.
const ProtobufCFieldDescriptor *key_field(const ProtobufCMessageDescriptor &type);

// An object's key message; null when it has none.
const ProtobufCMessage *key_of(const ProtobufCMessage &object);
std::string packed_key(const ProtobufCMessage &object);  // empty when it has none

// Part of a key in name only: the cache never compares it, and it is hardly ever used.
inline bool is_never_compared(std::string_view field) {
    return field == "t_mod";
}

// Makes two messages of a kind exchange one field, by its path from the top down.
void swap_field(ProtobufCMessage &one, ProtobufCMessage &other, std::span<const std::string> path);

}  // namespace dmq
