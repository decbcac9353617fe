// Any public query by its name: its arguments from words, its answer with the names and the meaning of what it wrote. What
// an argument is for follows from its type and its name by one table. Each query takes the cache lock as its header says.
#include "dmq/call.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>

#include "dmq/complete.h"
#include "tq_dm_cache/ndm.h"

namespace dmq {

namespace {

// What dmq does with an argument: asks for it, passes a number of its own, or passes a place and shows what the query has
// written there. What stands in the places from `array` on is handed out by the query and released here.
enum class Role { number, text, zero, room, scratch, out, chars, bytes, list, count, array, object, objects };

constexpr int32_t numbers_room = 512;
constexpr size_t word_size = sizeof(void *);

constexpr struct Rule {
    Pass pass;
    std::string_view name;  // empty: any other
    Role role;
    size_t size;  // of its place
} rules[] = {
    {Pass::s32, "len", Role::room, 0},
    {Pass::s32, "reserved", Role::zero, 0},
    {Pass::s32, "", Role::number, 0},
    {Pass::u32, "", Role::number, 0},
    {Pass::u8, "", Role::number, 0},
    {Pass::text, "", Role::text, 0},
    {Pass::s32_out, "reserved", Role::scratch, word_size},
    {Pass::s32_out, "lports", Role::list, numbers_room * sizeof(int32_t)},
    {Pass::s32_out, "num", Role::count, word_size},
    {Pass::s32_out, "count", Role::count, word_size},
    {Pass::s32_out, "", Role::out, word_size},
    {Pass::u32_out, "", Role::out, word_size},
    {Pass::u8_out, "mac", Role::bytes, 6},
    {Pass::u8_out, "", Role::out, word_size},
    {Pass::text_out, "", Role::chars, 1024},
    {Pass::s32_array, "", Role::array, word_size},
    {Pass::u32_array, "", Role::array, word_size},
    {Pass::object, "ports", Role::objects, 256 * word_size},
    {Pass::object, "", Role::object, word_size},
};

struct Argument {
    Argument() = default;
    Argument(const Argument &) = delete;
    ~Argument();

    std::string_view name;
    Pass pass = Pass::foreign;
    Role role = Role::number;
    std::string place;  // what its word points to
    std::string before;
    uintptr_t word = 0;

    bool written() const { return place != before; }

    template <class T> T at(size_t i) const {
        T value;
        std::memcpy(&value, place.data() + i * sizeof value, sizeof value);
        return value;
    }
};

Argument::~Argument() {
    if (role == Role::array) std::free(at<void *>(0));
    if (role < Role::object) return;
    for (size_t i = 0; i < place.size() / word_size; i++) ndm_port_obj_free(at<void *>(i));
}

// `previous` is the argument before it: a length or a count speaks of that.
void prepare(Argument &argument, const Argument *previous) {
    static constexpr char untouched = '\xA5';  // so that it shows what a query leaves alone
    const Rule &rule = *std::find_if(std::begin(rules), std::end(rules), [&](const Rule &one) {
        return one.pass == argument.pass && (one.name.empty() || one.name == argument.name);
    });
    argument.role = rule.role;
    if (rule.role == Role::room) argument.word = previous->place.size();
    if (rule.size == 0) return;
    argument.place.assign(rule.size, rule.role >= Role::array ? '\0' : untouched);
    if (rule.role == Role::count && previous->role == Role::list)
        std::memcpy(argument.place.data(), &numbers_room, sizeof numbers_room);
    argument.before = argument.place;
    argument.word = reinterpret_cast<uintptr_t>(argument.place.data());
}

std::vector<Argument> arguments_of(const Query &query) {
    std::vector<Argument> arguments(query.callable.passes.size());
    std::string_view names = query.parameters;
    for (size_t i = 0; i < arguments.size(); i++) {
        arguments[i].name = names.substr(0, names.find(' '));
        arguments[i].pass = query.callable.passes[i];
        names.remove_prefix(std::min(names.size(), arguments[i].name.size() + 1));
        prepare(arguments[i], i ? &arguments[i - 1] : nullptr);
    }
    return arguments;
}

bool is_node(std::string_view name) {
    return name == "node" || name == "nodes";
}

bool is_port(std::string_view name) {
    return name == "objid" || name == "phyid";
}

// The enumeration whose values an argument takes or a query writes there, or null.
const ProtobufCEnumDescriptor *enumeration_of(const Query &query, std::string_view name) {
    return name == "type" || name == "port_type" ? dm_schema_find_enum(query.enumeration) : nullptr;
}

std::optional<int64_t> whole_number(std::string_view text) {
    const bool minus = text.starts_with('-');
    text.remove_prefix(minus);
    const bool hex = text.starts_with("0x");
    text.remove_prefix(hex ? 2 : 0);
    uint32_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, hex ? 16 : 10);
    if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return minus ? -int64_t{value} : int64_t{value};
}

// "1/30/0": device, slot, and the sub-slot of a node or the logical port of a port.
std::optional<int64_t> number_of_place(std::string_view name, const std::string &text) {
    int32_t part[3], used = 0;
    uint32_t id = 0;
    if (!is_node(name) && !is_port(name)) return std::nullopt;
    if (std::sscanf(text.c_str(), "%d/%d/%d%n", &part[0], &part[1], &part[2], &used) != 3) return std::nullopt;
    const auto build = is_node(name) ? ndm_get_node_from_dev_slot_cpuid : ndm_get_objid_by_slot_lport;
    if (text[static_cast<size_t>(used)] || build(part[0], part[1], part[2], &id) != 0) return std::nullopt;
    return id;
}

uintptr_t read_number(const Query &query, const Argument &argument, const std::string &text) {
    const auto *names = enumeration_of(query, argument.name);
    const auto *named = names ? protobuf_c_enum_descriptor_get_value_by_name(names, text.c_str()) : nullptr;
    auto value = named ? named->value : whole_number(text);
    if (!value) value = number_of_place(argument.name, text);
    const int64_t least = argument.pass == Pass::s32 ? INT32_MIN : 0;
    const int64_t most = argument.pass == Pass::s32 ? INT32_MAX : argument.pass == Pass::u8 ? UINT8_MAX : UINT32_MAX;
    if (value && *value >= least && *value <= most) return static_cast<uintptr_t>(*value);
    const std::string also = is_node(argument.name)   ? " or device/slot/sub-slot"
                             : is_port(argument.name) ? " or device/slot/logical-port"
                             : names                  ? " or a name of " + std::string(names->name)
                                                      : "";
    throw Failure(exit_usage, std::string(query.name) + ": " + std::string(argument.name) +
                                  " needs a whole number from " + std::to_string(least) + " to " +
                                  std::to_string(most) + also + ", not " + dump(text));
}

void read_words(const Query &query, std::vector<Argument> &arguments, const std::vector<std::string> &words) {
    std::string wanted;
    size_t count = 1;  // words[0] is the query
    for (Argument &argument : arguments) {
        if (argument.role > Role::text) continue;
        wanted += " " + std::string(argument.name);
        if (count++ >= words.size()) continue;
        argument.place = words[count - 1];
        argument.word = argument.role == Role::text ? reinterpret_cast<uintptr_t>(argument.place.c_str())
                                                    : read_number(query, argument, argument.place);
    }
    if (count != words.size())
        throw Failure(exit_usage, "it is: call " + std::string(query.name) + wanted + "\n  " +
                                      std::string(query.question) + "\n  " + std::string(query.prototype));
}

Json number_json(Pass pass, const void *numbers, size_t i) {
    if (pass == Pass::u8_out) return static_cast<const uint8_t *>(numbers)[i];
    if (pass == Pass::u32_out || pass == Pass::u32_array) return static_cast<const uint32_t *>(numbers)[i];
    return static_cast<const int32_t *>(numbers)[i];
}

// The i-th object or number that the query wrote there.
Json element_of(const Argument &argument, size_t i) {
    if (argument.role <= Role::array)
        return number_json(argument.pass, argument.role == Role::array ? argument.at<void *>(0) : argument.place.data(),
                           i);
    const auto *object = argument.at<const ProtobufCMessage *>(i);
    return object ? to_json(*object, Fields::set) : Json();
}

// What the query wrote there; null: nothing. A list has `count` elements.
Json value_of(const Argument &argument, int64_t count) {
    std::string bytes = argument.place;
    const bool listed = argument.role == Role::list || argument.role == Role::objects;
    if (!argument.written() && !listed) return nullptr;
    if (argument.role == Role::chars) return bytes.c_str();
    if (argument.role == Role::bytes) return to_hex({bytes.size(), reinterpret_cast<uint8_t *>(bytes.data())});
    if (!listed && argument.role != Role::array) return element_of(argument, 0);
    Json list = Json::array();
    for (int64_t i = 0; i < count; i++) list.push_back(element_of(argument, static_cast<size_t>(i)));
    return list;
}

// Every out-value by name. A list is counted by the argument behind it, else by the result.
Json values_of(const std::vector<Argument> &arguments, int64_t result) {
    Json values = Json::object();
    for (size_t i = 0; i < arguments.size(); i++) {
        if (arguments[i].role < Role::out) continue;
        const bool counted = i + 1 < arguments.size() && arguments[i + 1].role == Role::count;
        const bool known = counted && arguments[i + 1].written();
        const int64_t count = !counted ? result : known ? arguments[i + 1].at<int32_t>(0) : 0;
        values[std::string(arguments[i].name)] = value_of(arguments[i], count);
    }
    return values;
}

bool failed(int64_t result) {
    return result < 0 || result == UINT32_MAX;
}

// Beside out-values the result says only whether they are an answer.
bool answers(const Query &query, int64_t result, const Json &values) {
    if (failed(result)) return false;
    if (values.empty()) return result != 0 || !query.zero_is_no;
    return std::none_of(values.begin(), values.end(), [&](const Json &value) {
        return value == -1 || value == Json::array() || (query.yes_or_no && value == 0);
    });
}

// A number that is made of fields, taken apart; nothing for any other.
std::string fields_text(std::string_view name, uint32_t number) {
    char text[128] = "";
    int32_t dev = 0, slot = 0, sslot = 0;
    ndm_get_dev_slot_cpuid_from_node(number, &dev, &slot, &sslot);
    if (name == "dcm_addr") std::snprintf(text, sizeof text, "0x%08x", number);
    if (is_node(name))
        std::snprintf(text, sizeof text, "0x%08x: device %d, slot %d, sub-slot %d", number, dev, slot, sslot);
    // Of a port's logical number two bits lie beside the slot.
    if (is_port(name))
        std::snprintf(text, sizeof text, "0x%08x: type %u, device %d, slot %d, sub-slot %d, logical port %u", number,
                      number >> 26, dev, slot & 31, sslot, static_cast<uint32_t>(slot) >> 5 << 8 | (number & 0xFF));
    return text;
}

// What a number means, when it says more than itself.
std::string meaning_of(const Query &query, std::string_view name, bool has_outs, const Json &value) {
    if (!value.is_number()) return "";
    const bool is_result = name == "result";
    if (is_result && failed(value)) return "no answer";
    if (is_result && has_outs) return "";
    if (query.yes_or_no) return value == 0 ? "no" : "yes";
    const auto *names = is_result ? dm_schema_find_enum(query.enumeration) : enumeration_of(query, name);
    if (const auto *named = names ? protobuf_c_enum_descriptor_get_value(names, value) : nullptr) return named->name;
    if (is_result && query.question.starts_with("Which node")) name = "node";
    return fields_text(name, static_cast<uint32_t>(value.get<int64_t>()));
}

void print_values(const Query &query, int64_t result, const Json &values) {
    Table table{{"name", "value"}, {}};
    const auto add = [&](const std::string &name, const Json &value) {
        const std::string meaning = meaning_of(query, name, !values.empty(), value);
        table.rows.push_back({name, meaning.empty() ? value : Json(dump(value) + " (" + meaning + ")")});
    };
    add("result", result);
    for (const auto &[name, value] : values.items()) {
        const bool one_a_line = value.is_array() && (is_node(name) || (!value.empty() && value[0].is_object()));
        if (one_a_line) {
            for (const Json &element : value) add(name, element);
        } else if (!value.is_null()) {
            add(name, value);
        }
    }
    print_table(table, /*json=*/false);
}

void print_json(const Query &query, int64_t result, const Json &values) {
    Json meaning = {{"result", meaning_of(query, "result", !values.empty(), result)}};
    for (const auto &[name, value] : values.items()) {
        Json &texts = meaning[name] = meaning_of(query, name, true, value);
        if (!value.is_array()) continue;
        texts = Json::array();
        for (const Json &element : value) texts.push_back(meaning_of(query, name, true, element));
    }
    print_line(dump(Json{{"function", query.name},
                         {"answered", answers(query, result, values)},
                         {"result", result},
                         {"out", values},
                         {"meaning", meaning}}));
}

Exit list_queries(const std::vector<std::string> &words, bool json) {
    Table table{{"function", "header", "prototype", "question", "callable"}, {}};
    std::string lines;
    for (const Query &query : queries) {
        const std::string text = std::string(query.name) + " " + std::string(query.question);
        if (!words.empty() && text.find(words[0]) == std::string::npos) continue;
        const bool callable = query.callable.call;
        table.rows.push_back({query.name, query.header, query.prototype, query.question, callable});
        lines += std::string(query.prototype) + "\n    " + std::string(query.question) + "\n";
        if (!callable) lines += "    Not by call: it takes what only a program has.\n";
    }
    json ? print_table(table, true) : print(lines);
    return table.rows.empty() ? exit_no : exit_yes;
}

const Query &find_query(const std::string &name) {
    std::vector<std::string> names;
    for (const Query &query : queries) {
        if (query.name == name && query.callable.call) return query;
        if (query.name == name) throw Failure(exit_usage, "call " + name + ": it takes what only a program has");
        names.emplace_back(query.name);
    }
    throw Failure(exit_usage, "there is no query " + shown(name) + did_you_mean(name, names) + "; see dmq call --list");
}

}  // namespace

Candidates next_query(const Asked &asked) {
    Candidates candidates;
    for (const Query &query : queries) {
        if (asked.words.empty() && query.callable.call)
            candidates.push_back({std::string(query.name), std::string(query.question)});
    }
    return candidates;
}

Exit run_call(Context &context, const Command &command) {
    if (command.list) return list_queries(command.words, command.settings.json);
    if (command.words.empty()) throw Failure(exit_usage, "call needs the name of a query; see dmq call --list");
    const Query &query = find_query(command.words[0]);
    const auto arguments = std::make_shared<std::vector<Argument>>(arguments_of(query));
    read_words(query, *arguments, command.words);
    std::vector<uintptr_t> words;
    for (const Argument &argument : *arguments) words.push_back(argument.word);
    auto ask = [&query, arguments, words = std::move(words)]() mutable {
        errno = 0;
        const int64_t answer = query.callable.call(query.callable.function, words.data());
        return std::pair(answer, errno == ENOMEM);
    };
    const auto [result, lacked_memory] =
        query.pure ? ask()
                   : context.synchronised({}, command.settings).ask(std::string(query.name) + " to answer", ask);
    const Json values = values_of(*arguments, result);
    (command.settings.json ? print_json : print_values)(query, result, values);
    if (lacked_memory) throw Failure(exit_no, std::string(query.name) + ": not enough memory");
    return answers(query, result, values) ? exit_yes : exit_no;
}

}  // namespace dmq
