// Messages to JSON and back, through the library's descriptors alone: no message type is named here. Strict on the way
// in; on the way out an unlisted enumeration value is a number and invalid UTF-8 becomes U+FFFD. Takes no lock.
#pragma once

#include <memory>
#include <nlohmann/json.hpp>
#include <span>
#include <string>

#include "dmq/failure.h"
#include "tq_dm_cache/dm_schema.h"

namespace dmq {

using Json = nlohmann::ordered_json;  // fields stay in the order of the schema

struct FreeMessage {
    void operator()(ProtobufCMessage *message) const { protobuf_c_message_free_unpacked(message, nullptr); }
};
using Message = std::unique_ptr<ProtobufCMessage, FreeMessage>;

inline std::span<const ProtobufCFieldDescriptor> fields_of(const ProtobufCMessageDescriptor &type) {
    return {type.fields, type.n_fields};
}

// The field that carries an object's key; null for a kind without key.
const ProtobufCFieldDescriptor *key_field(const ProtobufCMessageDescriptor &type);

// An object's key message; null when it has none.
const ProtobufCMessage *key_of(const ProtobufCMessage &object);

Message new_message(const ProtobufCMessageDescriptor &type);
std::string pack(const ProtobufCMessage &message);
// Null: the bytes are none of the kind's.
Message unpack(const ProtobufCMessageDescriptor &type, const std::string &bytes);

// `set`: fields that differ from their default, and every field of the key. `all`: every field, a missing sub-message as
// null.
enum class Fields { set, all };
Json to_json(const ProtobufCMessage &message, Fields which);

// Throws a Failure that names the field below `where` and what is wrong with it.
Message from_json(const Json &object, const ProtobufCMessageDescriptor &type, const std::string &where);

// Makes two messages of a kind exchange one field, by its path from the top down.
void swap_field(ProtobufCMessage &one, ProtobufCMessage &other, std::span<const std::string> path);

// Part of a key in name only: the cache never compares it, and it is hardly ever used.
inline bool is_never_compared(std::string_view field) {
    return field == "t_mod";
}

// Throws a Failure that names the fields which an object's key lacks. A field that is never compared may be left out.
void need_whole_key(const ProtobufCMessageDescriptor &type, const Json &key);

// Hex digits; six bytes are a MAC address and read like one.
std::string to_hex(const ProtobufCBinaryData &bytes);

// The innermost fields that differ, as {"static_info.name": {"old": .., "new": ..}}.
Json differences(const ProtobufCMessage &before, const ProtobufCMessage &after);
// Of one of them: "old -> new".
std::string change_text(const Json &change);

// Text that anybody may have written, of a bounded depth. Throws a Failure when it is deeper; discarded: it is no JSON.
constexpr int deepest = 64;
Json read_json(const std::string &text, const std::string &where);

// On one line, whatever it holds.
std::string dump(const Json &value);

}  // namespace dmq
