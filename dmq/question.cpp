// The table of arguments, and what is done with each.
#include "dmq/question.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "dmq/names.h"
#include "dmq/output.h"
#include "dmq/things.h"
#include "tq_dm_cache/ndm.h"

namespace dmq {

// Asks for it, passes a number of its own, or passes memory and shows what the query writes there.
struct Use {
    // How many elements the query wrote. A list has memory here for all of them, so an empty one is one too.
    enum class Count { one, list, array };

    Pass pass;
    std::string_view name;                         // empty: any other
    bool asked = false;                            // of the person
    size_t size = 0;                               // of the memory
    Json (*shown)(const Argument &, size_t) = {};  // an element that the query wrote; null: not shown
    Count count = Count::one;
    void (*release)(void *) = {};  // what the query hands out, an address a word
};

namespace {

constexpr int32_t numbers_room = 512;
constexpr size_t word_size = sizeof(void *);

Json number_there(const Argument &argument, size_t i);
Json number_handed_out(const Argument &argument, size_t i);
Json object_handed_out(const Argument &argument, size_t i);
Json text_there(const Argument &argument, size_t i);
Json bytes_there(const Argument &argument, size_t i);

using Count = Use::Count;

constexpr Use uses[] = {
    {Pass::s32, "len"},
    {Pass::s32, "reserved"},
    {Pass::s32, "", true},
    {Pass::u32, "", true},
    {Pass::u8, "", true},
    {Pass::text, "", true},
    {Pass::s32_out, "reserved", false, word_size},
    {Pass::s32_out, "lports", false, numbers_room * sizeof(int32_t), number_there, Count::list},
    {Pass::s32_out, "", false, word_size, number_there},
    {Pass::u32_out, "", false, word_size, number_there},
    {Pass::u8_out, "mac", false, 6, bytes_there},
    {Pass::u8_out, "", false, word_size, number_there},
    {Pass::text_out, "", false, 1024, text_there},
    {Pass::s32_array, "", false, word_size, number_handed_out, Count::array, std::free},
    {Pass::u32_array, "", false, word_size, number_handed_out, Count::array, std::free},
    {Pass::object, "ports", false, 256 * word_size, object_handed_out, Count::list, ndm_port_obj_free},
    {Pass::object, "", false, word_size, object_handed_out, Count::one, ndm_port_obj_free},
};

const Use &use_of(Pass pass, std::string_view name) {
    return *std::find_if(std::begin(uses), std::end(uses),
                         [&](const Use &one) { return one.pass == pass && (one.name.empty() || one.name == name); });
}

// The arguments that a person gives: how each is passed, and its name.
std::vector<std::pair<Pass, std::string_view>> asked_of(const Query &query) {
    std::vector<std::pair<Pass, std::string_view>> asked;
    std::string_view names = query.parameters;
    for (const Pass pass : query.callable.passes) {
        const std::string_view name = names.substr(0, names.find(' '));
        names.remove_prefix(std::min(names.size(), name.size() + 1));
        if (use_of(pass, name).asked) asked.emplace_back(pass, name);
    }
    return asked;
}

// `previous` is the argument before it: a length or a count speaks of that.
void prepare(Argument &argument, Pass pass, const Argument *previous) {
    static constexpr char untouched = '\xA5';  // so that it shows what a query leaves alone
    const Use &use = use_of(pass, argument.name);
    argument.use = &use;
    if (use.pass == Pass::s32 && use.name == "len") argument.word = previous->memory.size();
    if (use.size == 0) return;
    argument.memory.assign(use.size, use.release ? '\0' : untouched);
    if (argument.counts() && previous->use->count == Count::list && !previous->use->release)
        std::memcpy(argument.memory.data(), &numbers_room, sizeof numbers_room);
    argument.before = argument.memory;
    argument.word = reinterpret_cast<uintptr_t>(argument.memory.data());
}

// "1/30/0": device, slot, and the sub-slot of a node or the logical port of a port.
std::optional<int64_t> number_of_place(std::string_view name, const std::string &text) {
    if (!is_node(name) && !is_port(name)) return std::nullopt;
    const size_t first = text.find('/'), second = text.find('/', first + 1);
    if (second == std::string::npos) return std::nullopt;
    const std::string_view view = text;
    const auto dev = whole_number<int32_t>(view.substr(0, first));
    const auto slot = whole_number<int32_t>(view.substr(first + 1, second - first - 1));
    const auto rest = whole_number<int32_t>(view.substr(second + 1));
    const auto build = is_node(name) ? ndm_get_node_from_dev_slot_cpuid : ndm_get_objid_by_slot_lport;
    uint32_t id = 0;
    if (!dev || !slot || !rest || build(*dev, *slot, *rest, &id) != 0) return std::nullopt;
    return id;
}

std::pair<int64_t, int64_t> range_of(Pass pass) {
    if (pass == Pass::s32) return {INT32_MIN, INT32_MAX};
    return {0, pass == Pass::u8 ? UINT8_MAX : UINT32_MAX};
}

// What a word says without a look at the cache; nothing: it is no number, or none of the argument's.
std::optional<int64_t> number_in(const Query &query, Pass pass, std::string_view name, const std::string &text) {
    const auto *names = enumeration_of(query, name);
    const auto *named = names ? find_value(*names, text) : nullptr;
    std::optional<int64_t> value = named ? std::optional<int64_t>(named->value) : whole_number<int64_t>(text);
    if (!value) value = number_of_place(name, text);
    const auto [least, most] = range_of(pass);
    return value && *value >= least && *value <= most ? value : std::nullopt;
}

[[noreturn]] void refuse_number(const Query &query, Pass pass, std::string_view name, const std::string &text,
                                const std::string &near = "") {
    const auto *names = enumeration_of(query, name);
    std::string also = is_node(name) ? " or device/slot/sub-slot" : is_port(name) ? " or device/slot/logical-port" : "";
    if (is_number_of_thing(name)) also += " or a name that show prints";
    if (names) also += " or a name of " + std::string(names->name);
    const auto [least, most] = range_of(pass);
    std::string refusal = std::string(query.name) + ": " + std::string(name) + " needs a whole number from " +
                          std::to_string(least) + " to " + std::to_string(most) + also + ", not " + dump(text) + near;
    if (names) refusal = no_such(refusal + "; no name is", text, value_names(*names));
    throw Failure(exit_usage, refusal);
}

uintptr_t read_number(const Query &query, const Argument &argument, const std::string &text) {
    const auto value = number_in(query, argument.use->pass, argument.name, text);
    if (!value) refuse_number(query, argument.use->pass, argument.name, text);
    return static_cast<uintptr_t>(*value);
}

Json number_asked(const Argument &argument) {
    if (argument.use->pass == Pass::s32) return static_cast<int32_t>(argument.word);
    return static_cast<uint32_t>(argument.word);
}

Json number_json(Pass pass, const void *numbers, size_t i) {
    if (pass == Pass::u8_out) return static_cast<const uint8_t *>(numbers)[i];
    if (pass == Pass::u32_out || pass == Pass::u32_array) return static_cast<const uint32_t *>(numbers)[i];
    return static_cast<const int32_t *>(numbers)[i];
}

Json number_there(const Argument &argument, size_t i) {
    return number_json(argument.use->pass, argument.memory.data(), i);
}

Json number_handed_out(const Argument &argument, size_t i) {
    return number_json(argument.use->pass, argument.at<void *>(0), i);
}

Json object_handed_out(const Argument &argument, size_t i) {
    const auto *object = argument.at<const ProtobufCMessage *>(i);
    return object ? to_json(*object, Fields::set) : Json();
}

Json text_there(const Argument &argument, size_t) {
    return argument.memory.c_str();
}

Json bytes_there(const Argument &argument, size_t) {
    std::string bytes = argument.memory;
    return to_hex({bytes.size(), reinterpret_cast<uint8_t *>(bytes.data())});
}

// What the query wrote there; null: nothing. More than one element are `count`.
Json value_of(const Argument &argument, int64_t count) {
    const Use &use = *argument.use;
    if (!argument.written() && use.count != Count::list) return nullptr;
    if (use.count == Count::one) return use.shown(argument, 0);
    Json list = Json::array();
    for (int64_t i = 0; i < count; ++i) list.push_back(use.shown(argument, static_cast<size_t>(i)));
    return list;
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
    if (is_port(name)) {
        std::snprintf(text, sizeof text, "0x%08x: type %u, device %d, slot %d, sub-slot %d, logical port %u", number,
                      number >> 26, dev, slot & 31, sslot, static_cast<uint32_t>(slot) >> 5 << 8 | (number & 0xFF));
    }
    return text;
}

}  // namespace

Argument::~Argument() {
    for (size_t i = 0; use && use->release && i < memory.size() / word_size; ++i) use->release(at<void *>(i));
}

bool Argument::counts() const {
    return use->pass == Pass::s32_out && (name == "num" || name == "count");
}

Question::Question(const Query &query, const std::vector<std::string> &words, const std::string &command)
    : query_(query), arguments_(query.callable.passes.size()) {
    std::string_view names = query.parameters;
    std::string wanted;
    size_t count = 1;  // words[0] is the query
    for (size_t i = 0; i < arguments_.size(); ++i) {
        Argument &argument = arguments_[i];
        argument.name = names.substr(0, names.find(' '));
        names.remove_prefix(std::min(names.size(), argument.name.size() + 1));
        prepare(argument, query.callable.passes[i], i ? &arguments_[i - 1] : nullptr);
        if (!argument.use->asked) continue;
        wanted += " " + std::string(argument.name);
        if (count < words.size()) {
            argument.memory = words[count];
            argument.word = argument.use->pass == Pass::text ? reinterpret_cast<uintptr_t>(argument.memory.c_str())
                                                             : read_number(query, argument, argument.memory);
            asked_[std::string(argument.name)] =
                argument.use->pass == Pass::text ? Json(words[count]) : number_asked(argument);
        }
        ++count;
    }
    if (count != words.size()) {
        throw Failure(exit_usage, "it is: " + command + " " + std::string(query.name) + wanted + "\n  " +
                                      std::string(query.question) + "\n  " + std::string(query.prototype));
    }
}

Question::Answer Question::ask() {
    std::vector<uintptr_t> words;
    for (const Argument &argument : arguments_) words.push_back(argument.word);
    errno = 0;
    const int64_t result = query_.callable.call(query_.callable.function, words.data());
    return {result, errno == ENOMEM};
}

// Every out-value by name. A list is counted by the argument behind it, else by the result.
Json Question::values(int64_t result) const {
    Json values = Json::object();
    const auto &arguments = arguments_;
    for (size_t i = 0; i < arguments.size(); ++i) {
        if (!arguments[i].use->shown) continue;
        const bool counted = i + 1 < arguments.size() && arguments[i + 1].counts();
        const bool known = counted && arguments[i + 1].written();
        const int64_t count = !counted ? result : known ? arguments[i + 1].at<int32_t>(0) : 0;
        values[std::string(arguments[i].name)] = value_of(arguments[i], count);
    }
    return values;
}

void refuse_write(const Query &query, bool attached, const std::string &command) {
    if (attached && query.writes) {
        throw Failure(exit_usage, command + ": " + std::string(query.name) +
                                      " writes the store, so it is not for a process that dmq is attached to");
    }
}

std::vector<std::string_view> asked_arguments(const Query &query) {
    std::vector<std::string_view> names;
    for (const auto &[pass, name] : asked_of(query)) names.push_back(name);
    return names;
}

std::vector<std::string> with_numbers(const Query &query, std::vector<std::string> words,
                                      const std::function<void()> &prepare) {
    const auto asked = asked_of(query);
    bool is_ready = false;
    for (size_t i = 0; i < asked.size() && i + 1 < words.size(); ++i) {
        const auto &[pass, name] = asked[i];
        std::string &word = words[i + 1];
        if (pass == Pass::text || !is_number_of_thing(name) || number_in(query, pass, name, word)) continue;
        if (whole_number<int64_t>(word)) refuse_number(query, pass, name, word);
        if (!is_ready) prepare();
        is_ready = true;
        const auto [number, near] = number_of_thing(name, word);
        if (number.empty()) refuse_number(query, pass, name, word, near);
        word = number;
    }
    return words;
}

bool failed(int64_t result) {
    return result < 0 || result == UINT32_MAX;
}

bool answers(const Query &query, int64_t result, const Json &values) {
    if (failed(result)) return false;
    if (values.empty()) return result != 0 || !query.zero_is_no;
    return std::none_of(values.begin(), values.end(), [&](const Json &value) {
        return value == -1 || value == Json::array() || (query.yes_or_no && value == 0);
    });
}

bool is_node(std::string_view name) {
    return name == "node" || name == "nodes";
}

bool is_port(std::string_view name) {
    return name == "objid" || name == "phyid";
}

const ProtobufCEnumDescriptor *enumeration_of(const Query &query, std::string_view name) {
    return name == "type" || name == "port_type" ? dm_schema_find_enum(query.enumeration) : nullptr;
}

const Query &find_query(const std::string &name, const std::string &command) {
    std::vector<std::string> names;
    for (const Query &query : queries) {
        if (query.name == name && query.callable.call) return query;
        if (query.name == name) throw Failure(exit_usage, command + " " + name + ": it takes what only a program has");
        names.emplace_back(query.name);
    }
    throw Failure(exit_usage, "there is no query " + shown(name) + did_you_mean(name, names) + "; see dmq call --list");
}

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

}  // namespace dmq
