// Answers of queries, and the names of slots.
#include "dmq/facts.h"

#include <cstdio>

namespace dmq {

Json number(int32_t answer) {
    return answer < 0 ? Json() : Json(answer);
}

Json hex(uint32_t id) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%08x", id);
    return id == no_id ? Json() : Json(text);
}

Json enum_name(const ProtobufCEnumDescriptor &type, int32_t answer) {
    const auto *found = protobuf_c_enum_descriptor_get_value(&type, answer);
    return found ? Json(found->name) : number(answer);
}

uint32_t node_of(int32_t dev, int32_t pslot, int32_t sub) {
    return written<uint32_t>(ndm_get_node_from_dev_slot_cpuid, dev, pslot, sub);
}

Json slot_name(uint32_t node, int32_t user_slot) {
    if (node == no_id) return {};
    int32_t dev = unknown, pslot;
    ndm_get_dev_slot_from_node(node, &dev, &pslot);
    if (user_slot < 0) user_slot = written(ndm_get_userslot_from_node, node);
    const Json name = user_slot < 0 ? Json() : text(ndm_get_user_slot_name, dev, user_slot, /*sub_slot=*/0);
    return name.is_null() ? Json("node " + hex(node).get<std::string>()) : name;
}

}  // namespace dmq
