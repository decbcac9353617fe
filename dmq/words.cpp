// A word's text becomes JSON as its field's type suggests; then the same checks hold as for a file.
#include "dmq/words.h"

#include <algorithm>
#include <set>

#include "dmq/names.h"

namespace dmq {

namespace {

// A text stays a text, the end of an enumeration's name is the name; anything else is read as JSON reads it, numbers also in hex (0x0c041e00).
Json value_of(const ProtobufCFieldDescriptor &field, const std::string &text) {
    const bool textual = field.type == PROTOBUF_C_TYPE_STRING || field.type == PROTOBUF_C_TYPE_BYTES ||
                         field.type == PROTOBUF_C_TYPE_ENUM;
    if (textual && field.label != PROTOBUF_C_LABEL_REPEATED) {
        const auto *names = static_cast<const ProtobufCEnumDescriptor *>(field.descriptor);
        const auto *named = field.type == PROTOBUF_C_TYPE_ENUM ? find_value(*names, text) : nullptr;
        return named ? named->name : text;
    }
    if (const auto number = text.starts_with("0x") ? whole_number<uint64_t>(text) : std::nullopt) return *number;
    const Json value = read_json(text, field.name);
    return value.is_discarded() ? Json(text) : value;
}

// {index: {devid: 1}} for the path {index, devid}.
Json nested(const Assignment &assignment) {
    Json object = assignment.value;
    for (auto name = assignment.path.rbegin(); name != assignment.path.rend(); ++name) object = Json{{*name, object}};
    return object;
}

// Null: a sub-message on the way is not there.
const Json &value_at(const Json &object, const std::vector<std::string> &path) {
    static const Json nothing;
    const Json *value = &object;
    for (const auto &name : path) {
        if (!value->is_object() || !value->contains(name)) return nothing;
        value = &(*value)[name];
    }
    return *value;
}

Assignment read_word(const ProtobufCMessageDescriptor &type, const std::string &word) {
    const size_t equals = word.find('=');
    if (equals == std::string::npos || equals == 0) throw Failure(exit_usage, "needs field=value, not " + dump(word));
    Assignment assignment;
    const ProtobufCMessageDescriptor *level = &type;
    const auto *key = key_field(type);
    std::string rest = word.substr(0, equals);
    if (key && find_field(*sub_type(*key), rest.substr(0, rest.find('.')))) rest = std::string(key->name) + "." + rest;
    while (true) {
        const size_t dot = rest.find('.');
        assignment.path.push_back(rest.substr(0, dot));
        const auto *field = find_field(*level, assignment.path.back());
        if (dot == std::string::npos || !field || !sub_type(*field)) {
            if (field) assignment.value = value_of(*field, word.substr(equals + 1));
            break;
        }
        level = sub_type(*field);
        rest.erase(0, dot + 1);
    }
    // Verified, and as it would be printed.
    const Json clean = to_json(*from_json(nested(assignment), type, type.name), Fields::all);
    const Json *value = &clean;
    for (const auto &name : assignment.path) value = &(*value)[name];
    assignment.value = *value;
    return assignment;
}

}  // namespace

std::vector<Assignment> read_words(const ProtobufCMessageDescriptor &type, const std::vector<std::string> &words) {
    std::vector<Assignment> assignments;
    for (const auto &word : words) assignments.push_back(read_word(type, word));
    return assignments;
}

// The value comes in a message that has nothing else, and changes places with what was there.
void assign(ProtobufCMessage &object, const std::vector<Assignment> &assignments) {
    for (const auto &assignment : assignments) {
        const Message carrier = from_json(nested(assignment), *object.descriptor, object.descriptor->name);
        swap_field(object, *carrier, assignment.path);
    }
}

void reset(ProtobufCMessage &object, const std::vector<std::string> &path) {
    const Message carrier = from_json(nested({{path.begin(), path.end() - 1}, Json::object()}), *object.descriptor, "");
    swap_field(object, *carrier, path);
}

void need_whole_key(const ProtobufCMessageDescriptor &type, const std::vector<Assignment> &assignments) {
    const auto *key = key_field(type);
    if (!key) return;
    Json named = Json::object();
    for (const Assignment &one : assignments)
        if (one.path.size() == 2 && one.path[0] == key->name) named[one.path[1]] = true;
    need_whole_key(type, named);
}

void refuse_twice(const std::vector<Assignment> &assignments) {
    std::set<std::vector<std::string>> paths;
    for (const Assignment &one : assignments)
        if (!paths.insert(one.path).second) throw Failure(exit_usage, one.path.back() + " is given twice");
}

bool agrees(const Json &object, const std::vector<Assignment> &assignments) {
    return std::all_of(assignments.begin(), assignments.end(),
                       [&](const Assignment &one) { return value_at(object, one.path) == one.value; });
}

std::string unlike(const Json &object, const std::vector<Assignment> &assignments) {
    std::string text;
    for (const Assignment &one : assignments) {
        const Json &value = value_at(object, one.path);
        if (value == one.value) continue;
        text += text.empty() ? "" : ", ";
        for (const auto &name : one.path) text += (&name == &one.path.front() ? "" : ".") + name;
        text += " is " + dump(value) + ", not " + dump(one.value);
    }
    return text;
}

std::vector<Assignment> key_part(const ProtobufCMessageDescriptor &type, const std::vector<Assignment> &assignments) {
    std::vector<Assignment> part;
    const auto *key = key_field(type);
    for (const auto &assignment : assignments)
        if (key && assignment.path.front() == key->name) part.push_back(assignment);
    return part;
}

Message object_with_key(const ProtobufCMessageDescriptor &type, const std::vector<Assignment> &key) {
    Json empty = Json::object();
    if (const auto *field = key_field(type)) empty[field->name] = Json::object();
    Message object = from_json(empty, type, type.name);
    assign(*object, key);
    return object;
}

Message read_key(const ProtobufCMessageDescriptor &type, const std::vector<std::string> &words) {
    const auto assignments = read_words(type, words);
    if (key_part(type, assignments).size() < words.size())
        throw Failure(exit_usage, std::string(type.name) + ": only fields of the key name an object");
    refuse_twice(assignments);
    need_whole_key(type, assignments);
    return object_with_key(type, assignments);
}

}  // namespace dmq
