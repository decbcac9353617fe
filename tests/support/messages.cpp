// Messages for tests. Fields are found through the descriptors, so every kind is made by the same code.
#include "tests/support/messages.h"

#include "tq_dm_cache/dm_schema.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

[[noreturn]] void wrong(const char *what, std::string_view name) {
    std::fprintf(stderr, "test message: no %s %.*s\n", what, static_cast<int>(name.size()), name.data());
    std::abort();
}

ProtobufCMessage *make(const ProtobufCMessageDescriptor *kind) {
    auto *message = static_cast<ProtobufCMessage *>(std::calloc(1, kind->sizeof_message));
    protobuf_c_message_init(kind, message);
    return message;
}

template <class T> T &member(ProtobufCMessage *message, const ProtobufCFieldDescriptor &field) {
    return *reinterpret_cast<T *>(reinterpret_cast<char *>(message) + field.offset);
}

struct Place {
    ProtobufCMessage *message;
    const ProtobufCFieldDescriptor *field;
};

Place find(ProtobufCMessage *message, std::string_view path) {
    for (;;) {
        const size_t dot = path.find('.');
        const std::string name(path.substr(0, dot));
        const auto *field = protobuf_c_message_descriptor_get_field_by_name(message->descriptor, name.c_str());
        if (!field || field->label == PROTOBUF_C_LABEL_REPEATED) wrong("field", path);
        if (dot == std::string_view::npos) return {message, field};
        auto *&inner = member<ProtobufCMessage *>(message, *field);
        if (!inner) inner = make(static_cast<const ProtobufCMessageDescriptor *>(field->descriptor));
        message = inner;
        path.remove_prefix(dot + 1);
    }
}

// The two kinds of ports that carry their place beside their key.
Message port(const char *kind, int32_t dev, int32_t slot, int32_t place, int32_t type, int32_t ifx) {
    return {kind,
            {{"index.t_dev", dev},
             {"index.t_slot", slot},
             {"index.t_port", place},
             {"index.t_type", type},
             {"dev", dev},
             {"slot", slot},
             {"physlot", slot},
             {"ifx", ifx}}};
}

}  // namespace

Message::Message(std::string_view kind, std::initializer_list<Field> fields) {
    const auto *descriptor = dm_schema_find_message(std::string(kind).c_str());
    if (!descriptor) wrong("kind", kind);
    held_.reset(make(descriptor));
    for (const auto &[path, value] : fields) std::move(*this).set(path, value);
}

Message Message::copy(const ProtobufCMessage *from) {
    return unpack(from->descriptor, packed(from));
}

Message Message::unpack(const ProtobufCMessageDescriptor *kind, const std::string &packed) {
    return Message(
        protobuf_c_message_unpack(kind, nullptr, packed.size(), reinterpret_cast<const uint8_t *>(packed.data())));
}

Message &&Message::set(std::string_view path, int64_t value) && {
    const auto [message, field] = find(held_.get(), path);
    switch (field->type) {
        case PROTOBUF_C_TYPE_BOOL:
            member<protobuf_c_boolean>(message, *field) = value != 0;
            break;
        case PROTOBUF_C_TYPE_INT32:
        case PROTOBUF_C_TYPE_UINT32:
        case PROTOBUF_C_TYPE_ENUM:
            member<uint32_t>(message, *field) = static_cast<uint32_t>(value);
            break;
        case PROTOBUF_C_TYPE_INT64:
        case PROTOBUF_C_TYPE_UINT64:
            member<int64_t>(message, *field) = value;
            break;
        default:
            wrong("number", path);
    }
    return std::move(*this);
}

Message &&Message::set(std::string_view path, std::string_view text) && {
    const auto [message, field] = find(held_.get(), path);
    if (field->type == PROTOBUF_C_TYPE_STRING) {
        auto *&string = member<char *>(message, *field);
        if (string != protobuf_c_empty_string) std::free(string);
        string = strndup(text.data(), text.size());
    } else if (field->type == PROTOBUF_C_TYPE_BYTES) {
        auto &bytes = member<ProtobufCBinaryData>(message, *field);
        std::free(bytes.data);
        bytes = {text.size(), static_cast<uint8_t *>(std::malloc(text.size() + 1))};
        std::memcpy(bytes.data, text.data(), text.size());
    } else {
        wrong("text", path);
    }
    return std::move(*this);
}

std::string packed(const ProtobufCMessage *message) {
    std::string bytes(protobuf_c_message_get_packed_size(message), '\0');
    protobuf_c_message_pack(message, reinterpret_cast<uint8_t *>(bytes.data()));
    return bytes;
}

bool equal(const ProtobufCMessage *a, const ProtobufCMessage *b) {
    return a->descriptor == b->descriptor && packed(a) == packed(b);
}

ProtobufCMessage *key_of(const ProtobufCMessage *message) {
    const auto *field = protobuf_c_message_descriptor_get_field_by_name(message->descriptor, "index");
    return field ? member<ProtobufCMessage *>(const_cast<ProtobufCMessage *>(message), *field) : nullptr;
}

Message key_only(const ProtobufCMessage *message) {
    Message bare(message->descriptor->name);
    if (const ProtobufCMessage *key = key_of(message)) {
        const auto *field = protobuf_c_message_descriptor_get_field_by_name(message->descriptor, "index");
        member<ProtobufCMessage *>(bare.get(), *field) = Message::copy(key).release();
    }
    return bare;
}

Message complete() {
    return {"p_dev.dp_lib_complete", {{"all_is_complete", 1}}};
}

Message card(int32_t devid, int32_t slot, int32_t sslot) {
    return {"p_dev.card_info", {{"index.devid", devid}, {"index.slotid", slot}, {"index.sslotid", sslot}}};
}

Message static_port(int32_t dev, int32_t slot, int32_t port, int32_t type) {
    return {"p_dev.port_static",
            {{"index.t_dev", dev},
             {"index.t_slot", slot},
             {"index.t_port", port},
             {"index.t_type", type},
             {"static_info.type", type},
             {"static_info.port", port},
             {"static_info.lport", port},
             {"static_info.user_port", port}}};
}

Message local_port(int32_t unit, int32_t cport, int32_t lport) {
    return {"p_dev.unit_cport_info", {{"index.unit", unit}, {"index.cport", cport}, {"static_info.lport", lport}}};
}

Message global_port(int32_t vsdid, int32_t dev, int32_t slot, int32_t place, int32_t type, int32_t ifx) {
    return port("p_dev.vsd_port", dev, slot, place, type, ifx).set("index.t_vsdid", vsdid);
}

Message vsd_port(int32_t dev, int32_t slot, int32_t place, int32_t type, int32_t ifx) {
    return port("p_dev.vsd_port_attr", dev, slot, place, type, ifx);
}
