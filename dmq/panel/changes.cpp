// An object is called as an operator calls it, where its kind says how.
#include "dmq/panel/changes.h"

#include <ctime>

#include "dmq/facts.h"
#include "dmq/output.h"
#include "dmq/topology.h"
#include "tq_dm_cache/p_dev.pb-c.h"

namespace dmq {

namespace {

template <class T> const T *as(const ProtobufCMessage &object, const ProtobufCMessageDescriptor &type) {
    return object.descriptor == &type ? reinterpret_cast<const T *>(&object) : nullptr;
}

// Empty: its kind gives it no name.
std::string own_name(const ProtobufCMessage &object) {
    if (const auto *port = as<PDev__VsdPort>(object, p_dev__vsd_port__descriptor)) return port->hardware_name;
    if (const auto *port = as<PDev__VsdPortAttr>(object, p_dev__vsd_port_attr__descriptor)) return port->hardware_name;
    if (const auto *port = as<PDev__PortStatic>(object, p_dev__port_static__descriptor))
        return port->static_info ? port->static_info->hardware_name : "";
    const auto *card = as<PDev__CardInfo>(object, p_dev__card_info__descriptor);
    if (!card) return "";
    const uint32_t node = node_of(card->index->devid, card->index->slotid, card->index->sslotid);
    const std::string sub = card->index->sslotid ? ", sub-slot " + std::to_string(card->index->sslotid) : "";
    return cell_text(slot_name(node)) + sub + " " + card->name;
}

std::string called(const ProtobufCMessage &object) {
    const std::string kind = object.descriptor->name;
    const std::string name = own_name(object), key = key_words(object);
    const std::string shown = name.empty() ? key : cell_text(name);
    return kind.substr(kind.find('.') + 1) + (shown.empty() ? "" : " " + shown);
}

}  // namespace

std::string with_time(const std::string &text) {
    const time_t now = std::time(nullptr);
    tm local{};
    localtime_r(&now, &local);
    char time[16];
    return std::string(time, std::strftime(time, sizeof time, "%H:%M:%S", &local)) + "  " + text;
}

std::string change_line(const ProtobufCMessage *before, const ProtobufCMessage *after) {
    if (!before || !after) return with_time((after ? "added " : "gone ") + called(after ? *after : *before));
    std::string text;
    const Json fields = differences(*before, *after);
    for (const auto &[field, change] : fields.items())
        text += (text.empty() ? ": " : ", ") + field + " " + change_text(change);
    return with_time(called(*after) + text);
}

std::vector<std::string> changes_between(const Picture &before, const Picture &after, size_t most) {
    std::vector<std::string> lines;
    const auto tell = [&](const ProtobufCMessage *old, const ProtobufCMessage *now) {
        if (lines.size() < most) lines.push_back(change_line(old, now));
    };
    for (const auto &[row, objects] : after.objects) {
        std::map<std::string, const ProtobufCMessage *> earlier;
        if (const auto found = before.objects.find(row); found != before.objects.end())
            for (const Seen &seen : found->second) earlier[packed_key(*seen.object)] = seen.object.get();
        for (const Seen &seen : objects) {
            const auto old = earlier.extract(packed_key(*seen.object));
            if (old.empty())
                tell(nullptr, seen.object.get());
            else if (pack(*old.mapped()) != pack(*seen.object))
                tell(old.mapped(), seen.object.get());
        }
        for (const auto &[key, old] : earlier) tell(old, nullptr);
    }
    return lines;
}

}  // namespace dmq
