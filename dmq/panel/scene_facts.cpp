// One card and one port of a scene in full, and ports by what they are called: as the tables of `show` know them.
#include <algorithm>
#include <set>
#include <sstream>

#include "dmq/output.h"
#include "dmq/panel/scene.h"
#include "dmq/session.h"
#include "dmq/things.h"
#include "tq_dm_cache/p_dev.pb-c.h"

namespace dmq {

namespace {

void add(SceneFacts &facts, const std::string &name, const Json &value) {
    facts.emplace_back(name, cell_text(value));
}

// What the table has of the object; then its facts, those of a row together.
void add_thing(SceneFacts &facts, const char *table, const ProtobufCMessage *object) {
    if (!object) return;
    const View &view = find_view(table);
    const auto columns = columns_of(view);
    const auto records = records_of(view, *object).rows;
    if (records.empty()) return;
    for (size_t i = 0; i < columns.size(); ++i) add(facts, columns[i], records[0][i]);
    std::vector<std::pair<std::string, SceneFacts>> groups;
    for (const Fact &fact : facts_of(view, records[0], *object)) {
        const std::string from = fact.from.empty() ? "computed" : fact.from[0];
        auto group = std::find_if(groups.begin(), groups.end(), [&](const auto &one) { return one.first == from; });
        if (group == groups.end()) group = groups.insert(group, {from, {}});
        group->second.emplace_back(fact.name, fact.shown.empty() ? "-" : fact.shown);
    }
    for (const auto &[from, those] : groups) {
        facts.emplace_back(from, "");
        facts.insert(facts.end(), those.begin(), those.end());
    }
}

PDev__PortIndex static_key_of(const SceneCard &card, const ScenePort &port) {
    PDev__PortIndex key = P_DEV__PORT_INDEX__INIT;
    key.t_dev = card.dev;
    key.t_slot = card.user_slot;
    key.t_port = port.number;
    key.t_type = port.type;
    key.t_sslot = card.sub;
    return key;
}

PDev__VsdPortIndex global_key_of(const SceneCard &card, const ScenePort &port) {
    PDev__VsdPortIndex key = P_DEV__VSD_PORT_INDEX__INIT;
    key.t_vsdid = port.vsd;
    return at_place_of(static_key_of(card, port), key);
}

std::string lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

template <class Is> std::vector<FoundPort> ports_that(const Scene &scene, Is is) {
    std::vector<FoundPort> found;
    for (const SceneDevice &device : scene) {
        for (const SceneCard &card : device.cards) {
            for (const ScenePort &port : card.ports)
                if (is(card, port)) found.push_back({&card, &port});
        }
    }
    return found;
}

}  // namespace

SceneFacts facts_of_card(const SceneCard &card) {
    const CacheLock lock;
    SceneFacts facts;
    if (!card.there) {
        add(facts, "slot", slot_name(card.node, card.user_slot));
        add(facts, "node", hex(card.node));
        return facts;
    }
    PDev__CardInfoIndex key = P_DEV__CARD_INFO_INDEX__INIT;
    key.devid = card.dev;
    key.slotid = card.slot;
    key.sslotid = card.sub;
    add_thing(facts, "cards", cached<ProtobufCMessage>(DM_ROW_CARD_INFO, key));
    return facts;
}

// One that is absent has no record in the table.
SceneFacts facts_of_port(const SceneCard &card, const ScenePort &port) {
    const CacheLock lock;
    SceneFacts facts;
    add(facts, "carries a VSL", port.vsl);
    add_thing(facts, "ports", cached<ProtobufCMessage>(DM_ROW_VSD_PORT, global_key_of(card, port)));
    if (port.state != PortState::absent) return facts;
    add(facts, "slot", slot_name(card.node, card.user_slot));
    add(facts, "sub", card.sub);
    add(facts, "port", port.number);
    add(facts, "type", enum_name(p_intf__intftype_e__descriptor, port.type));
    const auto *fixed = cached<ProtobufCMessage>(DM_ROW_PORT_STATIC, static_key_of(card, port));
    if (!fixed) return facts;
    facts.emplace_back(fixed->descriptor->name, "");
    const Json fields = to_json(*fixed, Fields::set)["static_info"];
    for (const auto &[name, value] : fields.items()) add(facts, name, value);
    return facts;
}

std::vector<FoundPort> find_ports(const Scene &scene, const std::string &words) {
    std::istringstream stream(words);
    std::vector<std::string> conditions;
    std::string name, word;
    while (stream >> word) {
        if (is_condition(word))
            conditions.push_back(word);
        else
            name += (name.empty() ? "" : " ") + word;
    }
    if (name.empty() && conditions.empty()) return {};
    const View &view = find_view("ports");
    const auto wanted = read_conditions(view, conditions);
    const CacheLock lock;
    std::set<const ProtobufCMessage *> meant;
    for (const Thing &thing : find_things(view, name, wanted)) meant.insert(thing.object);
    const auto is_meant = [&](const SceneCard &card, const ScenePort &port) {
        return meant.contains(cached<ProtobufCMessage>(DM_ROW_VSD_PORT, global_key_of(card, port)));
    };
    if (!meant.empty() || name.empty()) return ports_that(scene, is_meant);
    return ports_that(scene, [&](const SceneCard &, const ScenePort &port) {
        return lower(port.name).find(lower(name)) != std::string::npos;
    });
}

}  // namespace dmq
