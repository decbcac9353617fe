// Messages for tests. Fields are found through the descriptors, so every kind is made by the same code.
#include "tests/support/messages.h"

#include "dmq/failure.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

[[noreturn]] void wrong(const char *what, std::string_view name) {
    std::fprintf(stderr, "test message: no %s %.*s\n", what, static_cast<int>(name.size()), name.data());
    std::abort();
}

bool is_text(const ProtobufCFieldDescriptor &field) {
    return field.type == PROTOBUF_C_TYPE_STRING || field.type == PROTOBUF_C_TYPE_BYTES;
}

const ProtobufCMessageDescriptor &kind_named(std::string_view name) {
    const auto *kind = dm_schema_find_message(std::string(name).c_str());
    return kind ? *kind : (wrong("kind", name), *kind);
}

// The message that a field lies in, and the field.
struct FieldIn {
    ProtobufCMessage &message;
    const ProtobufCFieldDescriptor &field;
};

FieldIn find(ProtobufCMessage &message, std::string_view path) {
    const size_t dot = path.find('.');
    const auto *field = dmq::find_field(*message.descriptor, std::string(path.substr(0, dot)));
    if (!field || field->label == PROTOBUF_C_LABEL_REPEATED) wrong("field", path);
    if (dot == std::string_view::npos) return {message, *field};
    auto *&inner = dmq::at<ProtobufCMessage *>(message, field->offset);
    if (!inner) inner = dmq::new_message(*dmq::sub_type(*field)).release();
    return find(*inner, path.substr(dot + 1));
}

// The two kinds of ports that carry their place beside their key.
Message at_place(Message port, int32_t dev, int32_t slot, int32_t ifx) {
    return std::move(port).set("dev", dev).set("slot", slot).set("physlot", slot).set("ifx", ifx);
}

void put_varint(std::string &bytes, size_t value) {
    for (; value > 127; value >>= 7) bytes += static_cast<char>(value | 128);
    bytes += static_cast<char>(value);
}

std::string content(const ProtobufCMessageDescriptor &kind, int32_t number, const Choose &choose) {
    std::string bytes;
    for (const ProtobufCFieldDescriptor &field : dmq::fields_of(kind)) {
        const bool is_message = field.type == PROTOBUF_C_TYPE_MESSAGE, is_bool = field.type == PROTOBUF_C_TYPE_BOOL;
        const int32_t count = field.label != PROTOBUF_C_LABEL_REPEATED ? 1 : is_message ? 2 : 4;
        for (int32_t i = number; i < number + count; ++i) {
            const std::optional<int32_t> chosen = choose(field, i);
            if (!chosen) continue;
            if (is_message)
                put_part(bytes, field, content(part_of(field), *chosen, choose));
            else if (is_text(field))
                put_part(bytes, field, std::string(*chosen ? 6 : 0, static_cast<char>('@' + *chosen % 32)));
            else
                put_number(bytes, field, is_bool ? *chosen % 2 : *chosen);
        }
    }
    return bytes;
}

}  // namespace

void put_number(std::string &bytes, const ProtobufCFieldDescriptor &field, int32_t value) {
    put_varint(bytes, field.id << 3);
    put_varint(bytes, static_cast<size_t>(value));
}

void put_part(std::string &bytes, const ProtobufCFieldDescriptor &field, const std::string &part) {
    put_varint(bytes, field.id << 3 | 2);
    put_varint(bytes, part.size());
    bytes += part;
}

void dmq::out_of_memory() noexcept {
    std::abort();
}

Message::Message(std::string_view kind, std::initializer_list<Value> values)
    : held_(dmq::new_message(kind_named(kind))) {
    for (const auto &[path, value] : values) std::move(*this).set(path, value);
}

Message &&Message::set(std::string_view path, int64_t value) && {
    const auto [message, field] = find(*held_, path);
    if (is_text(field) || field.type == PROTOBUF_C_TYPE_MESSAGE) wrong("number", path);
    if (dmq::size_of(field.type) == sizeof value)
        dmq::at<int64_t>(message, field.offset) = value;
    else
        dmq::at<int32_t>(message, field.offset) = static_cast<int32_t>(value);
    return std::move(*this);
}

Message &&Message::set(std::string_view path, std::string_view text) && {
    const auto [message, field] = find(*held_, path);
    if (!is_text(field)) wrong("text", path);
    if (field.type == PROTOBUF_C_TYPE_STRING) {
        auto *&string = dmq::at<char *>(message, field.offset);
        if (string != protobuf_c_empty_string) std::free(string);
        string = strndup(text.data(), text.size());
    } else {
        auto &bytes = dmq::at<ProtobufCBinaryData>(message, field.offset);
        std::free(bytes.data);
        bytes = {text.size(), static_cast<uint8_t *>(dmq::allocate(text.size()))};
        std::memcpy(bytes.data, text.data(), text.size());
    }
    return std::move(*this);
}

std::string packed(const ProtobufCMessage *message) {
    return dmq::pack(*message);
}

bool equal(const ProtobufCMessage *a, const ProtobufCMessage *b) {
    return a->descriptor == b->descriptor && packed(a) == packed(b);
}

ProtobufCMessage *key_message(const ProtobufCMessage *message) {
    return const_cast<ProtobufCMessage *>(dmq::key_of(*message));
}

std::string key_bytes(const ProtobufCMessage *message) {
    return dmq::packed_key(*message);
}

std::string key_text(const ProtobufCMessage *message) {
    std::string text;
    const ProtobufCMessage *key = key_message(message);
    if (!key) return text;
    for (const auto &field : dmq::fields_of(*key->descriptor))
        text += (text.empty() ? "" : ".") + std::to_string(dmq::at<int32_t>(*key, field.offset));
    return text;
}

Message key_only(const ProtobufCMessage *message) {
    dmq::Message bare = dmq::new_message(*message->descriptor);
    if (const ProtobufCMessage *key = key_message(message))
        dmq::at<ProtobufCMessage *>(*bare, dmq::key_field(*message->descriptor)->offset) = dmq::copy(*key).release();
    return Message(std::move(bare));
}

Message filled(const ProtobufCMessageDescriptor &kind, int32_t number, const Choose &choose) {
    return Message::unpack(&kind, content(kind, number, choose));
}

Message keyed(Message object, std::initializer_list<int32_t> key) {
    const auto *next = key.begin();
    for (const auto &field : dmq::fields_of(*dmq::sub_type(*dmq::key_field(*object.get()->descriptor)))) {
        const bool compared = !dmq::is_never_compared(field.name);
        if (next != key.end()) std::move(object).set("index." + std::string(field.name), compared ? *next++ : 0);
    }
    return object;
}

Message complete() {
    return {"p_dev.dp_lib_complete", {{"all_is_complete", 1}}};
}

Message card(int32_t devid, int32_t slot, int32_t sslot) {
    return keyed(Message("p_dev.card_info"), {devid, slot, sslot});
}

Message static_port(int32_t dev, int32_t slot, int32_t port, int32_t type) {
    Message made = keyed(Message("p_dev.port_static"), {dev, slot, port, type}).set("static_info.type", type);
    for (const char *name : {"port", "lport", "user_port"})
        std::move(made).set("static_info." + std::string(name), port);
    return made;
}

Message local_port(int32_t unit, int32_t cport, int32_t lport) {
    return keyed(Message("p_dev.unit_cport_info"), {unit, cport}).set("static_info.lport", lport);
}

Message global_port(int32_t vsdid, int32_t dev, int32_t slot, int32_t port, int32_t type, int32_t ifx) {
    return at_place(keyed(Message("p_dev.vsd_port"), {vsdid, dev, slot, port, type}), dev, slot, ifx);
}

Message vsd_port(int32_t dev, int32_t slot, int32_t port, int32_t type, int32_t ifx) {
    return at_place(keyed(Message("p_dev.vsd_port_attr"), {dev, slot, port, type}), dev, slot, ifx);
}
