// `name=value` words of a command line, read by the descriptor of the kind that they speak of. A name is a field of the
// kind's key, else a field of the object; a dot leads into a sub-message. Takes no lock.
#pragma once

#include "dmq/json.h"

namespace dmq {

struct Assignment {
    std::vector<std::string> path;  // from the object down: {"index", "devid"}
    Json value;
};

// Values are verified: a name that is not there or a value of the wrong type throws a Failure.
std::vector<Assignment> read_words(const ProtobufCMessageDescriptor &type, const std::vector<std::string> &words);

// Writes the values into an object of the kind. What it has beside them stays, also what no name is known for.
void assign(ProtobufCMessage &object, const std::vector<Assignment> &assignments);

// Gives fields their default again, by their path.
void reset(ProtobufCMessage &object, const std::vector<std::string> &path);

// Are all these values in the object? It is one with all its fields.
bool agrees(const Json &object, const std::vector<Assignment> &assignments);

// What it has instead of them, such as "is_online is true, not false"; empty: nothing, they are all there.
std::string unlike(const Json &object, const std::vector<Assignment> &assignments);

// An object with nothing but its key.
Message object_with_key(const ProtobufCMessageDescriptor &type, const std::vector<Assignment> &key);

// The same from words that name the whole key, and nothing else.
Message read_key(const ProtobufCMessageDescriptor &type, const std::vector<std::string> &words);

// Throws a Failure that names the fields of the key which the words do not give.
void need_whole_key(const ProtobufCMessageDescriptor &type, const std::vector<Assignment> &assignments);

// Throws a Failure that names the field which two words give.
void refuse_twice(const std::vector<Assignment> &assignments);

// What belongs to the key among the words.
std::vector<Assignment> key_part(const ProtobufCMessageDescriptor &type, const std::vector<Assignment> &assignments);

}  // namespace dmq
