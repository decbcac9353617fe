// Messages as the store holds them: packed bytes, found by the bytes of their key. Constant descriptors only, no lock.
#pragma once

#include <protobuf-c/protobuf-c.h>

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/store.h"

namespace tq {

struct FreeMessage {
    void operator()(ProtobufCMessage *message) const { protobuf_c_message_free_unpacked(message, nullptr); }
};
using Message = std::unique_ptr<ProtobufCMessage, FreeMessage>;

std::string pack(const ProtobufCMessage &message);

// The packed key: empty for a kind with one object. Nothing when a keyed kind's message carries no key.
std::optional<std::string> packed_key(const ProtobufCMessage &message);

// Where a message's object lies in the store. No kind: the message is unusable. No key: it may still name a kind.
struct Target {
    Target(uint32_t db, const ProtobufCMessage *message);
    const ProtobufCMessageDescriptor *kind = nullptr;
    Place place = {};
    std::optional<std::string> key;
};

// A message of the kind with this key and nothing else.
Message key_only(const ProtobufCMessageDescriptor &kind, const std::string &key);

// A message, or as much of one as could be made.
struct Decoded {
    Message message;
    int32_t error;
};

// An object as a message. Bytes that do not unpack as the kind, that make a message which cannot be packed and unpacked
// again, or that carry another object's key, are damaged: error, and a message that names the object by its key. Without
// memory: another error, and perhaps no message.
Decoded decode(const ProtobufCMessageDescriptor &kind, const Object &object);

bool has_field(const ProtobufCMessageDescriptor &kind, uint32_t number);

// Whether a field's encoding differs. Bytes that are no message differ from everything.
bool field_differs(std::string_view before, std::string_view after, uint32_t number);

}  // namespace tq
