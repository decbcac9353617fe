// One card and one port of a scene in full: what the queries answer, then the objects themselves; and the names by which a port
// is found.
#include <algorithm>

#include "dmq/output.h"
#include "dmq/scene.h"
#include "dmq/session.h"
#include "tq_dm_cache/p_dev.pb-c.h"

namespace dmq {

namespace {

void add(SceneFacts &facts, const std::string &name, const Json &value) {
    facts.emplace_back(name, cell_text(value));
}

void add_fields(SceneFacts &facts, const std::string &path, const Json &fields) {
    for (const auto &[name, value] : fields.items()) {
        if (value.is_object()) {
            add_fields(facts, path + name + ".", value);
        } else {
            add(facts, path + name, value);
        }
    }
}

// An object as it is cached, behind the name of its kind; nothing for one that is not.
template <class Key> const ProtobufCMessage *add_object(SceneFacts &facts, int32_t row, const Key &key) {
    const auto *object = cached<ProtobufCMessage>(row, key);
    if (!object) return nullptr;
    facts.emplace_back(object->descriptor->name, "");
    add_fields(facts, "", to_json(*object, Fields::set));
    return object;
}

PDev__PortIndex key_of(const SceneCard &card, const ScenePort &port) {
    PDev__PortIndex key = P_DEV__PORT_INDEX__INIT;
    key.t_dev = card.dev;
    key.t_slot = card.user_slot;
    key.t_port = port.number;
    key.t_type = port.type;
    key.t_sslot = card.sub;
    return key;
}

// The numbers of a port, which follow from its static port.
struct PortNumbers {
    int32_t lport = unknown, unit = unknown, cport = unknown, ifx = unknown;
    uint32_t objid = no_id;
};

PortNumbers numbers_of(const SceneCard &card, const ScenePort &port) {
    PortNumbers numbers;
    const auto *fixed = cached<PDev__PortStatic>(DM_ROW_PORT_STATIC, key_of(card, port));
    if (!fixed || !fixed->static_info) return numbers;
    numbers.lport = fixed->static_info->lport;
    numbers.objid = written<uint32_t>(ndm_get_objid_by_slot_lport, card.dev, card.slot, numbers.lport);
    int32_t dev, slot;
    ndm_get_id_from_phyid(numbers.objid, &dev, &slot, &numbers.unit, &numbers.cport);
    numbers.ifx = ndm_get_global_ifx_by_objid(numbers.objid);
    return numbers;
}

Json yes_or_no(int32_t code, uint8_t answer) {
    return code == 0 ? Json(answer != 0) : Json();
}

const char *state_text(const ScenePort &port) {
    constexpr const char *texts[] = {"up", "down", "absent: no global port is cached",
                                     "no static port: no query finds it"};
    return texts[static_cast<size_t>(port.state)];
}

std::string lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

std::string slashed(std::initializer_list<int32_t> numbers) {
    std::string text;
    for (const int32_t number : numbers) text += (text.empty() ? "" : "/") + std::to_string(number);
    return text;
}

}  // namespace

SceneFacts facts_of_card(const SceneCard &card) {
    const CacheLock lock;
    SceneFacts facts;
    uint32_t dcm = no_id;
    if (ndm_get_dcm_addr_from_node(card.node, &dcm) != 0) dcm = no_id;
    add(facts, "device", card.dev);
    add(facts, "slot", slot_name(card.node, card.user_slot));
    add(facts, "sub-slot", card.sub);
    add(facts, "physical slot", card.slot);
    add(facts, "node", hex(card.node));
    add(facts, "dcm address", hex(dcm));
    if (!card.there) return facts;
    add(facts, "card", card.name);
    add(facts, "online", card.online);
    add(facts, "role", card.role);
    add(facts, "node type", enum_name(p_dev__dm_node_type_e__descriptor, ndm_get_node_type_from_card_type(card.type)));
    add(facts, "leads its device", card.sub == 0 && ndm_mb_is_local_master(card.dev, card.slot) == 1);
    add(facts, "type number", number(card.type));
    add(facts, "chips", number(ndm_get_total_chip_num_by_card_type(card.type)));
    add(facts, "switching chips", number(ndm_get_card_switch_chip_num(card.type)));
    add(facts, "CPUs", number(ndm_get_cpu_num(card.node)));
    add(facts, "takes sub-cards", ndm_card_sup_subslot(card.dev, card.slot) == 1);
    add(facts, "lowest lport", number(written(ndm_get_min_lport_by_slot, card.dev, card.slot, card.sub)));
    add(facts, "highest lport", number(written(ndm_get_max_lport_by_slot, card.dev, card.slot, card.sub)));
    add(facts, "carries a VSL", ndm_is_vsl_card(card.dev, card.slot) == 1);
    PDev__CardInfoIndex key = P_DEV__CARD_INFO_INDEX__INIT;
    key.devid = card.dev;
    key.slotid = card.slot;
    key.sslotid = card.sub;
    add_object(facts, DM_ROW_CARD_INFO, key);
    return facts;
}

SceneFacts facts_of_port(const SceneCard &card, const ScenePort &port) {
    const CacheLock lock;
    const PortNumbers numbers = numbers_of(card, port);
    SceneFacts facts;
    add(facts, "name", port.name);
    add(facts, "state", state_text(port));
    add(facts, "slot", slot_name(card.node, card.user_slot));
    add(facts, "sub-slot", card.sub);
    add(facts, "port", port.number);
    add(facts, "type", enum_name(p_intf__intftype_e__descriptor, port.type));
    add(facts, "VSD", number(port.vsd));
    add(facts, "ifx", number(numbers.ifx));
    add(facts, "lport", number(numbers.lport));
    add(facts, "objid", hex(numbers.objid));
    add(facts, "chip", number(numbers.unit));
    add(facts, "port of the chip", number(numbers.cport));
    uint8_t answer = 0;
    int32_t code = ndm_get_poe_support_by_objid(numbers.objid, &answer);
    add(facts, "PoE", yes_or_no(code, answer));
    code = ndm_get_hpoe_support_by_objid(numbers.objid, &answer);
    add(facts, "high-power PoE", yes_or_no(code, answer));
    add(facts, "carries a VSL", port.vsl);
    const PDev__PortIndex key = key_of(card, port);
    PDev__VsdPortIndex global = P_DEV__VSD_PORT_INDEX__INIT;
    global.t_vsdid = port.vsd;
    global.t_dev = key.t_dev;
    global.t_slot = key.t_slot;
    global.t_port = key.t_port;
    global.t_type = key.t_type;
    global.t_sslot = key.t_sslot;
    add_object(facts, DM_ROW_VSD_PORT, global);
    add_object(facts, DM_ROW_VSD_PORT_ATTR, key);
    add_object(facts, DM_ROW_PORT_STATIC, key);
    PDev__VslPortIndex link = P_DEV__VSL_PORT_INDEX__INIT;
    link.devid = card.dev;
    link.slotid = card.slot;
    link.subslot = card.sub;
    link.lport = numbers.lport;
    if (port.vsl) add_object(facts, DM_ROW_VSL_PORT_INFO, link);
    PDev__UnitCportIndex local = P_DEV__UNIT_CPORT_INDEX__INIT;
    local.unit = numbers.unit;
    local.cport = numbers.cport;
    if (ndm_get_my_node() == node_of(card.dev, card.slot, 0)) add_object(facts, DM_ROW_UNIT_CPORT_INFO, local);
    return facts;
}

Called is_called(const SceneCard &card, const ScenePort &port, const std::string &word) {
    const std::string wanted = lower(word), name = lower(port.name);
    if (wanted.empty()) return Called::no;
    const std::string own = std::to_string(port.number);
    const std::string places[] = {name,
                                  name.substr(name.rfind(' ') + 1),
                                  card.place + "/" + own,
                                  slashed({card.dev, card.user_slot, card.sub, port.number}),
                                  card.sub ? "" : slashed({card.dev, card.user_slot, port.number}),
                                  card.sub ? "" : slashed({card.user_slot, port.number})};
    if (std::find(std::begin(places), std::end(places), wanted) != std::end(places)) return Called::so;
    const Called in_part = name.find(wanted) == std::string::npos ? Called::no : Called::in_part;
    const size_t sign = wanted.find('=');
    const std::string key = sign == std::string::npos ? "" : wanted.substr(0, sign);
    const auto value = whole_number<int64_t>(wanted.substr(key.empty() ? 0 : sign + 1));
    if (!value) return in_part;
    const CacheLock lock;
    const PortNumbers numbers = numbers_of(card, port);
    const std::tuple<std::string, int64_t, bool> named[] = {
        {"ifx", numbers.ifx, true},   {"objid", numbers.objid, true}, {"lport", numbers.lport, false},
        {"port", port.number, false}, {"unit", numbers.unit, false},  {"cport", numbers.cport, false}};
    const bool is_one = std::any_of(std::begin(named), std::end(named), [&](const auto &one) {
        const auto &[its_key, number, alone] = one;
        return number == *value && (key.empty() ? alone : key == its_key);
    });
    return is_one ? Called::so : in_part;
}

}  // namespace dmq
