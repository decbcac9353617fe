// Random objects of any row, made through the descriptors.
#include "tests/simulation/objects.h"

#include "tq_dm_cache/dm_cache.h"

namespace {

bool is_text(const ProtobufCFieldDescriptor &field) {
    return field.type == PROTOBUF_C_TYPE_STRING || field.type == PROTOBUF_C_TYPE_BYTES;
}

Message set_field(Random &random, Message message, const ProtobufCFieldDescriptor &field, const std::string &path) {
    static constexpr std::string_view texts[] = {"", "a", "bc", "def"};
    if (is_text(field)) return std::move(message).set(path, texts[random.below(std::size(texts))]);
    const int32_t values = field.type == PROTOBUF_C_TYPE_BOOL ? 2 : 4;
    return std::move(message).set(path, random.below(static_cast<size_t>(values)));
}

// Some of the fields, and those of most inner messages.
Message fill(Random &random, Message message, const ProtobufCMessageDescriptor &kind, const std::string &prefix) {
    for (uint32_t i = 0; i < kind.n_fields; ++i) {
        const ProtobufCFieldDescriptor &field = kind.fields[i];
        const std::string path = prefix + field.name;
        if (field.label == PROTOBUF_C_LABEL_REPEATED || path.ends_with("index")) continue;
        if (field.type != PROTOBUF_C_TYPE_MESSAGE) {
            if (random.percent(50)) message = set_field(random, std::move(message), field, path);
        } else if (prefix.empty() && random.percent(80)) {
            const auto &inner = *static_cast<const ProtobufCMessageDescriptor *>(field.descriptor);
            message = fill(random, std::move(message), inner, path + '.');
        }
    }
    return message;
}

// Every field of the key but the last takes one bit of `key`, the last takes the rest. Fields that do not tell objects
// apart stay the same.
Message set_key(Message message, int32_t row, int32_t key) {
    const auto &kind = *key_of(obj_sub_list[row].obj_tmpl)->descriptor;
    for (uint32_t i = 0; i < kind.n_fields; ++i) {
        const std::string_view name = kind.fields[i].name;
        const bool fixed = name == "t_mod" || (row == DM_ROW_LOCAL_CARD_INFO && name == "devid");
        const bool last = i + 1 == kind.n_fields;
        const int32_t value = fixed ? 0 : last ? key : key % 2;
        if (!fixed) key /= 2;
        message = std::move(message).set("index." + std::string(name), value + 1);
    }
    return message;
}

// Still changing from time to time, but never what another object has.
Message keep_index_keys_apart(Random &random, Message message, int32_t row, int32_t key) {
    const auto own = [&] { return key * 4 + random.below(4); };
    if (row == DM_ROW_PORT_STATIC || row == DM_ROW_UNIT_CPORT_INFO)
        for (const char *field : {"port", "lport", "user_port"})
            message = std::move(message).set(std::string("static_info.") + field, own());
    if (row == DM_ROW_VSD_PORT || row == DM_ROW_VSD_PORT_ATTR)
        for (const char *field : {"ifx", "dev", "slot"}) message = std::move(message).set(field, own());
    return message;
}

}  // namespace

Message random_object(Random &random, int32_t row, int32_t key) {
    const ProtobufCMessage *tmpl = obj_sub_list[row].obj_tmpl;
    Message message = fill(random, Message(tmpl->descriptor->name), *tmpl->descriptor, "");
    if (random.own_index_keys) message = keep_index_keys_apart(random, std::move(message), row, key);
    return key_of(tmpl) ? set_key(std::move(message), row, key) : std::move(message);
}
