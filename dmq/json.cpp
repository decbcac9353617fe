// The two directions field by field.
#include "dmq/json.h"

#include <algorithm>
#include <cstring>
#include <optional>
#include <utility>

#include "dmq/names.h"

namespace dmq {

namespace {

[[noreturn]] void refuse(const std::string &where, const std::string &what) {
    throw Failure(exit_usage, where.empty() ? what : where + ": " + what);
}

std::string quoted(const Json &value) {
    std::string text = value.dump(-1, ' ', /*ensure_ascii=*/true, Json::error_handler_t::replace);
    if (text.size() > 60) text.replace(57, std::string::npos, "...");
    return text;
}

template <class T> T &as(const void *address) {
    return *static_cast<T *>(const_cast<void *>(address));
}

bool is_set(const ProtobufCFieldDescriptor &field, const ProtobufCMessage &message) {
    if (field.label == PROTOBUF_C_LABEL_REPEATED) return at<size_t>(message, field.quantifier_offset) > 0;
    const void *address = &at<char>(message, field.offset);
    if (field.type == PROTOBUF_C_TYPE_STRING) return as<const char *>(address) && *as<const char *>(address);
    if (field.type == PROTOBUF_C_TYPE_BYTES) return as<ProtobufCBinaryData>(address).len > 0;
    static const char zero[8] = {};
    return std::memcmp(address, zero, size_of(field.type)) != 0;
}

Json enum_json(const ProtobufCFieldDescriptor &field, int value) {
    const auto *values = static_cast<const ProtobufCEnumDescriptor *>(field.descriptor);
    if (const auto *found = protobuf_c_enum_descriptor_get_value(values, value)) return found->name;
    return value;
}

Json value_json(const ProtobufCFieldDescriptor &field, const void *address, Fields which) {
    switch (field.type) {
        case PROTOBUF_C_TYPE_UINT32:
            return as<uint32_t>(address);
        case PROTOBUF_C_TYPE_INT64:
            return as<int64_t>(address);
        case PROTOBUF_C_TYPE_UINT64:
            return as<uint64_t>(address);
        case PROTOBUF_C_TYPE_BOOL:
            return as<protobuf_c_boolean>(address) != 0;
        case PROTOBUF_C_TYPE_ENUM:
            return enum_json(field, as<int>(address));
        case PROTOBUF_C_TYPE_STRING:
            return as<const char *>(address) ? as<const char *>(address) : "";
        case PROTOBUF_C_TYPE_BYTES:
            return to_hex(as<ProtobufCBinaryData>(address));
        case PROTOBUF_C_TYPE_MESSAGE:
            if (!as<const ProtobufCMessage *>(address)) return nullptr;
            return to_json(*as<const ProtobufCMessage *>(address), which);
        default:
            return as<int32_t>(address);
    }
}

Json field_json(const ProtobufCFieldDescriptor &field, const ProtobufCMessage &message, Fields which) {
    if (field.label != PROTOBUF_C_LABEL_REPEATED) return value_json(field, &at<char>(message, field.offset), which);
    Json array = Json::array();
    const char *element = at<const char *>(message, field.offset);
    for (size_t i = 0; i < at<size_t>(message, field.quantifier_offset); ++i, element += size_of(field.type))
        array.push_back(value_json(field, element, which));
    return array;
}

template <class T> T number(const Json &value, const std::string &where) {
    const auto fits = [](auto n) { return std::in_range<T>(n); };
    if (value.is_number_unsigned() && fits(value.get<uint64_t>())) return static_cast<T>(value.get<uint64_t>());
    if (value.is_number_integer() && !value.is_number_unsigned() && fits(value.get<int64_t>()))
        return static_cast<T>(value.get<int64_t>());
    using Limits = std::numeric_limits<T>;
    refuse(where, "needs a whole number from " + std::to_string(Limits::min()) + " to " +
                      std::to_string(Limits::max()) + ", not " + quoted(value));
}

int enum_number(const ProtobufCFieldDescriptor &field, const Json &value, const std::string &where) {
    const auto &type = *static_cast<const ProtobufCEnumDescriptor *>(field.descriptor);
    std::string names;
    for (const auto &listed : std::span(type.values, type.n_values)) {
        if (value == listed.name) return listed.value;
        names += (names.empty() ? "" : ", ") + std::string(listed.name);
    }
    refuse(where, "needs a value of " + std::string(type.name) + " (" + names + "), not " + quoted(value));
}

int nibble(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// Pairs of hex digits, all of them or none separated by colons.
std::optional<std::string> from_hex(std::string_view text) {
    const bool colons = text.size() > 2 && text[2] == ':';
    const size_t step = colons ? 3 : 2;
    if ((text.size() + (colons ? 1 : 0)) % step != 0) return std::nullopt;
    std::string bytes;
    for (size_t i = 0; i < text.size(); i += step) {
        const int high = nibble(text[i]), low = nibble(text[i + 1]);
        if (high < 0 || low < 0 || (i > 0 && colons && text[i - 1] != ':')) return std::nullopt;
        bytes += static_cast<char>(high << 4 | low);
    }
    return bytes;
}

char *string_value(const Json &value, const std::string &where) {
    if (!value.is_string()) refuse(where, "needs a text, not " + quoted(value));
    const auto &text = value.get_ref<const std::string &>();
    if (text.find('\0') != std::string::npos) refuse(where, "needs a text without a zero character");
    char *copy = static_cast<char *>(allocate(text.size() + 1));
    std::memcpy(copy, text.data(), text.size());
    return copy;
}

ProtobufCBinaryData bytes_value(const Json &value, const std::string &where) {
    const auto bytes = value.is_string() ? from_hex(value.get_ref<const std::string &>()) : std::nullopt;
    if (!bytes) refuse(where, "needs bytes as pairs of hex digits (00:1a:2b:3c:4d:5e or 001a2b), not " + quoted(value));
    ProtobufCBinaryData data = {bytes->size(), nullptr};
    if (bytes->empty()) return data;
    data.data = static_cast<uint8_t *>(allocate(bytes->size()));
    std::memcpy(data.data, bytes->data(), bytes->size());
    return data;
}

void set_value(const ProtobufCFieldDescriptor &field, const Json &value, void *address, const std::string &where) {
    switch (field.type) {
        case PROTOBUF_C_TYPE_UINT32:
            as<uint32_t>(address) = number<uint32_t>(value, where);
            return;
        case PROTOBUF_C_TYPE_INT64:
            as<int64_t>(address) = number<int64_t>(value, where);
            return;
        case PROTOBUF_C_TYPE_UINT64:
            as<uint64_t>(address) = number<uint64_t>(value, where);
            return;
        case PROTOBUF_C_TYPE_BOOL:
            if (!value.is_boolean()) refuse(where, "needs true or false, not " + quoted(value));
            as<protobuf_c_boolean>(address) = value.get<bool>();
            return;
        case PROTOBUF_C_TYPE_ENUM:
            as<int>(address) = enum_number(field, value, where);
            return;
        case PROTOBUF_C_TYPE_STRING:
            as<char *>(address) = string_value(value, where);
            return;
        case PROTOBUF_C_TYPE_BYTES:
            as<ProtobufCBinaryData>(address) = bytes_value(value, where);
            return;
        case PROTOBUF_C_TYPE_MESSAGE:
            as<ProtobufCMessage *>(address) =
                from_json(value, *static_cast<const ProtobufCMessageDescriptor *>(field.descriptor), where).release();
            return;
        default:
            as<int32_t>(address) = number<int32_t>(value, where);
    }
}

// The count follows the elements, so that a refusal halfway frees what is there.
void set_field(const ProtobufCFieldDescriptor &field, const Json &value, ProtobufCMessage &message,
               const std::string &where) {
    if (field.label != PROTOBUF_C_LABEL_REPEATED)
        return set_value(field, value, &at<char>(message, field.offset), where);
    if (!value.is_array()) refuse(where, "needs an array, not " + quoted(value));
    if (value.empty()) return;
    char *array = static_cast<char *>(allocate(value.size() * size_of(field.type)));
    at<char *>(message, field.offset) = array;
    size_t &count = at<size_t>(message, field.quantifier_offset);
    for (const Json &element : value) {
        set_value(field, element, array + count * size_of(field.type), where + "[" + std::to_string(count) + "]");
        ++count;
    }
}

void add_differences(const Json &before, const Json &after, const std::string &path, Json &found) {
    if (before == after) return;
    if (!before.is_object() || !after.is_object()) {
        found[path] = {{"old", before}, {"new", after}};
        return;
    }
    for (const auto &[name, value] : after.items())
        add_differences(before.value(name, Json()), value, path.empty() ? name : path + "." + name, found);
}

const ProtobufCFieldDescriptor &need_field(const ProtobufCMessageDescriptor &type, const std::string &name,
                                           const std::string &where) {
    if (const auto *field = find_field(type, name)) return *field;
    std::vector<std::string> names;
    for (const auto &field : fields_of(type)) names.emplace_back(field.name);
    refuse(where,
           std::string(type.name) + " has no field " + quoted(Json(name)) + did_you_mean(name, names) + listed(names));
}

}  // namespace

void need_whole_key(const ProtobufCMessageDescriptor &type, const Json &key) {
    std::string missing;
    for (const auto &field : fields_of(*sub_type(*key_field(type)))) {
        if (key.contains(field.name) || is_never_compared(field.name)) continue;
        missing += (missing.empty() ? "" : ", ") + std::string(field.name);
    }
    if (!missing.empty())
        throw Failure(exit_usage, std::string(type.name) + ": name the object by its whole key; it lacks " + missing);
}

Json to_json(const ProtobufCMessage &message, Fields which) {
    Json object = Json::object();
    for (const auto &field : fields_of(*message.descriptor)) {
        if (which == Fields::set && !is_set(field, message)) continue;
        object[field.name] = field_json(field, message, dm_schema_key_mark(&field) == 2 ? Fields::all : which);
    }
    return object;
}

Message from_json(const Json &object, const ProtobufCMessageDescriptor &type, const std::string &where) {
    if (!object.is_object()) refuse(where, "needs an object of " + std::string(type.name) + ", not " + quoted(object));
    Message message = new_message(type);
    for (const auto &[name, value] : object.items()) {
        const auto &field = need_field(type, name, where);
        set_field(field, value, *message, where.empty() ? name : where + "." + name);
    }
    return message;
}

std::string to_hex(const ProtobufCBinaryData &bytes) {
    static const char digit[] = "0123456789abcdef";
    std::string text;
    for (size_t i = 0; i < bytes.len; ++i) {
        if (i > 0 && bytes.len == 6) text += ':';
        text += {digit[bytes.data[i] >> 4], digit[bytes.data[i] & 15]};
    }
    return text;
}

Json differences(const ProtobufCMessage &before, const ProtobufCMessage &after) {
    Json found = Json::object();
    add_differences(to_json(before, Fields::all), to_json(after, Fields::all), "", found);
    return found;
}

std::string change_text(const Json &change) {
    return dump(change["old"]) + " -> " + dump(change["new"]);
}

Json read_json(const std::string &text, const std::string &where) {
    const auto bounded = [&](int depth, Json::parse_event_t, const Json &) {
        if (depth > deepest) refuse(where, "nested deeper than " + std::to_string(deepest));
        return true;
    };
    return Json::parse(text, bounded, /*allow_exceptions=*/false);
}

// JSON leaves the control characters from U+007F on as they are; a terminal obeys them.
std::string dump(const Json &value) {
    std::string text = value.dump(-1, ' ', false, Json::error_handler_t::replace);
    for (size_t i = text.find_first_of("\x7F\xC2"); i != std::string::npos; i = text.find_first_of("\x7F\xC2", i + 1)) {
        const bool wide = text[i] == '\xC2';
        const auto code = static_cast<unsigned char>(text[i + wide]);
        if (wide && code >= 0xA0) continue;
        char escape[8];
        std::snprintf(escape, sizeof escape, "\\u%04x", code);
        text.replace(i, 1 + wide, escape);
    }
    return text;
}

}  // namespace dmq
