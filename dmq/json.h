// Messages to JSON and back, through the library's descriptors alone: no message type is named here. Strict on the way
// in; on the way out an unlisted enumeration value is a number and invalid UTF-8 becomes U+FFFD. Takes no lock.
#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "dmq/failure.h"
#include "dmq/message.h"

namespace dmq {

using Json = nlohmann::ordered_json;  // fields stay in the order of the schema

// `set`: fields that differ from their default, and every field of the key. `all`: every field, a missing sub-message as
// null.
enum class Fields { set, all };
Json to_json(const ProtobufCMessage &message, Fields which);

// Throws a Failure that names the field below `where` and what is wrong with it.
Message from_json(const Json &object, const ProtobufCMessageDescriptor &type, const std::string &where);

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
