// Answers of queries and the names of slots; the facts about one thing, for which every query of the list is asked whose
// arguments the thing gives.
#include "dmq/facts.h"

#include <algorithm>
#include <cstdio>
#include <map>
#include <set>

#include "dmq/names.h"
#include "dmq/output.h"
#include "dmq/reads.h"

namespace dmq {

namespace {

// Arguments of queries by the columns of the table that give them.
constexpr struct {
    std::string_view view, argument, column;
} arguments[] = {
    {"ports", "objid", "objid"},     {"ports", "phyid", "objid"},
    {"ports", "devid", "dev"},       {"ports", "slot", "pslot"},
    {"ports", "lport", "lport"},     {"cards", "node", "node"},
    {"cards", "dcm_addr", "dcm"},    {"cards", "card_type", "type_number"},
    {"cards", "devid", "dev"},       {"cards", "slot", "pslot"},
    {"cards", "sslot", "sub"},       {"cards", "cpuid", "sub"},
    {"cards", "user_slot", "uslot"}, {"cards", "sub_slot", "sub"},
    {"cards", "user_sslot", "sub"},  {"devices", "devid", "dev"},
};

// A query is about a thing when it asks for one of these; of `only_card` when the thing is no sub-card.
constexpr struct {
    std::string_view view, arguments;
    bool only_card = false;
} identities[] = {
    {"ports", "objid"},
    {"ports", "phyid"},
    {"ports", "devid slot lport"},
    {"cards", "node"},
    {"cards", "dcm_addr"},
    {"cards", "card_type"},
    {"cards", "devid slot sslot"},
    {"cards", "devid slot cpuid"},
    {"cards", "devid user_slot sub_slot"},
    {"cards", "devid user_slot user_sslot"},
    {"cards", "devid slot", true},
    {"cards", "devid user_slot", true},
    {"devices", "devid"},
};

// Rows with an object about the same thing. Its key is made of the fields that the thing's own key has too, of what the
// table shows, and of the thing's type.
constexpr struct {
    std::string_view view;
    int32_t row;
    bool only_local = false;  // rows that know this card, or this device, alone
} related[] = {
    {"ports", DM_ROW_PORT_STATIC},           {"ports", DM_ROW_VSD_PORT_ATTR},
    {"ports", DM_ROW_UNIT_CPORT_INFO, true}, {"ports", DM_ROW_LPORT_INFO, true},
    {"cards", DM_ROW_LOCAL_CARD_INFO, true}, {"cards", DM_ROW_CARD_STATIC_INFO},
    {"cards", DM_ROW_DM_CARD_STATTR},        {"devices", DM_ROW_DEVICE_SYNC_INFO},
    {"devices", DM_ROW_DEVICE_STATIC_INFO},  {"devices", DM_ROW_DM_DEVICE_STATTR},
};

// A thing with what it is asked by.
struct Subject {
    const View &view;
    const std::vector<Json> &record;
    const ProtobufCMessage &object;
    std::map<std::string_view, std::string> known;  // arguments of queries

    const Json &at(const std::string &column) const { return record[find_column(columns_of(view), column)]; }
};

std::set<std::string_view> words_in(std::string_view text) {
    std::set<std::string_view> words;
    while (!text.empty()) {
        const size_t end = std::min(text.find(' '), text.size());
        words.insert(text.substr(0, end));
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    return words;
}

// None of these queries writes: one that does takes a text too.
bool is_about(const Query &query, const Subject &subject) {
    const auto passes = query.callable.passes;
    if (!query.callable.call || query.name.starts_with('_') || query.name.ends_with("_rt")) return false;
    if (std::find(passes.begin(), passes.end(), Pass::object) != passes.end()) return false;
    const auto wanted = asked_arguments(query);
    const auto is_known = [&](std::string_view name) { return subject.known.contains(name); };
    if (!std::all_of(wanted.begin(), wanted.end(), is_known)) return false;
    const bool is_card = subject.view.name == "cards" && subject.at("sub") == 0;
    return std::any_of(std::begin(identities), std::end(identities), [&](const auto &one) {
        if (one.view != subject.view.name || (one.only_card && !is_card)) return false;
        const auto names = words_in(one.arguments);
        return std::all_of(names.begin(), names.end(), [&](std::string_view name) {
            return std::find(wanted.begin(), wanted.end(), name) != wanted.end();
        });
    });
}

// "ndm_get_role_by_node" is about the role.
std::string fact_name(std::string_view query) {
    for (const std::string_view front : {"ndm_", "get_", "calculate_"})
        if (query.starts_with(front)) query.remove_prefix(front.size());
    return std::string(query.substr(0, std::min(query.find("_by_"), query.find("_from_"))));
}

// The rows where a query found something; when it found nothing, those where it looked.
std::vector<std::string> rows_of(const Road &road) {
    std::set<int32_t> found, read;
    for (const Read &one : road.reads) (one.found ? found : read).insert(one.row);
    std::vector<std::string> rows;
    for (const int32_t row : found.empty() ? read : found) rows.push_back(row_name(row));
    return rows;
}

// What several rows say alike is one fact.
void add(std::vector<Fact> &facts, Fact fact) {
    const auto same = std::find_if(facts.begin(), facts.end(),
                                   [&](const Fact &one) { return one.name == fact.name && one.value == fact.value; });
    if (same == facts.end()) return facts.push_back(std::move(fact));
    for (auto &row : fact.from) {
        if (std::find(same->from.begin(), same->from.end(), row) == same->from.end())
            same->from.push_back(std::move(row));
    }
}

// A long list is told by its length.
std::string value_text(const Json &value) {
    constexpr size_t most = 8;
    if (!value.is_array()) return cell_text(value);
    if (value.size() > most || (!value.empty() && value[0].is_object()))
        return std::to_string(value.size()) + " of them";
    std::string text;
    for (const Json &one : value) text += (text.empty() ? "" : ", ") + cell_text(one);
    return text;
}

void add_answer(std::vector<Fact> &facts, const Query &query, const std::string &name, bool has_outs, const Json &value,
                const std::string &what, const std::vector<std::string> &from) {
    const bool is_none = what == "result" && failed(value);
    const std::string meaning = is_none ? "" : meaning_of(query, what, has_outs, value);
    const Json told = is_none ? Json() : value;
    add(facts, {name, told, meaning.empty() ? value_text(told) : meaning, from});
}

void add_answers(std::vector<Fact> &facts, const Query &query, const Subject &subject) {
    std::vector<std::string> words{std::string(query.name)};
    for (const std::string_view name : asked_arguments(query)) words.push_back(subject.known.at(name));
    Question question(query, words, "show");
    const Road road = walk_road(question, /*quiet=*/true);
    const Json values = question.values(road.answer.result);
    const std::string name = fact_name(query.name);
    const auto from = rows_of(road);
    if (values.empty()) return add_answer(facts, query, name, false, road.answer.result, "result", from);
    const auto is_said = [&](const std::string &out) {
        return values.size() > 1 && (subject.known.contains(out) || out == "num" || out == "count");
    };
    size_t told = 0;
    for (const auto &[out, value] : values.items()) told += !is_said(out);
    for (const auto &[out, value] : values.items()) {
        if (is_said(out)) continue;
        const std::string its = told == 1 ? name : name + " " + out;
        add_answer(facts, query, its, true, failed(road.answer.result) ? Json() : value, out, from);
    }
}

void add_field(std::vector<Fact> &facts, const Json &value, const std::string &path, const std::string &from) {
    if (!value.is_object()) return add(facts, {path, value, value_text(value), {from}});
    for (const auto &[name, field] : value.items())
        add_field(facts, field, path.empty() ? name : path + "." + name, from);
}

// The fields are named as field=value takes them: those of the key by their own names.
void add_object(std::vector<Fact> &facts, const ProtobufCMessage &object, int32_t row) {
    const auto *key = key_field(*object.descriptor);
    const Json fields = to_json(object, Fields::set);
    for (const auto &[name, field] : fields.items())
        add_field(facts, field, key && name == key->name ? "" : name, row_name(row));
}

bool is_local(const Subject &subject) {
    if (subject.at("dev") != ndm_get_my_devid()) return false;
    return subject.view.name != "ports" || subject.at("pslot") == written(ndm_get_my_phy_slot);
}

// Null: a part of it is not known.
Json key_in(int32_t row, const Subject &subject) {
    const Json own = to_json(subject.object, Fields::all);
    const auto columns = columns_of(subject.view);
    Json key = Json::object();
    for (const auto &field : fields_of(*sub_type(*key_field(*obj_sub_list[row].obj_tmpl->descriptor)))) {
        const std::string name = field.name;
        Json &part = key[name];
        if (own["index"].contains(name)) part = own["index"][name];
        if (part.is_null() && name == "type") part = own["config_dev_type"];
        if (part.is_null() && std::find(columns.begin(), columns.end(), name) != columns.end()) part = subject.at(name);
        if (part.is_null()) return nullptr;
    }
    return key;
}

const ProtobufCMessage *related_object(int32_t row, const Subject &subject) {
    const Json key = key_in(row, subject);
    if (key.is_null()) return nullptr;
    const auto &type = *sub_type(*key_field(*obj_sub_list[row].obj_tmpl->descriptor));
    return cached<ProtobufCMessage>(row, *from_json(key, type, type.name));
}

}  // namespace

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

std::vector<Fact> facts_of(const View &view, const std::vector<Json> &record, const ProtobufCMessage &object) {
    Subject subject{view, record, object, {}};
    for (const auto &one : arguments) {
        if (one.view != view.name) continue;
        const Json &value = subject.at(std::string(one.column));
        if (!value.is_null()) subject.known[one.argument] = cell_text(value);
    }
    std::vector<Fact> facts;
    for (const Query &query : queries)
        if (is_about(query, subject)) add_answers(facts, query, subject);
    add_object(facts, object, view.row);
    for (const auto &[about, row, only_local] : related) {
        if (about != view.name || (only_local && !is_local(subject))) continue;
        if (const auto *found = related_object(row, subject)) add_object(facts, *found, row);
    }
    return facts;
}

}  // namespace dmq
