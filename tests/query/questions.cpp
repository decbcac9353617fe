// What an argument is for follows from its type, and its number from its name.
#include "tests/query/questions.h"

#include "tests/support/messages.h"
#include "tq_dm_cache/ndm/port_lookup.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <sstream>

namespace {

using dmq::Pass;

[[noreturn]] void wrong(const char *what, const std::string &name) {
    std::fprintf(stderr, "question: no %s %s\n", what, name.c_str());
    std::abort();
}

std::vector<std::string> words_of(std::string_view text) {
    std::istringstream stream{std::string(text)};
    return {std::istream_iterator<std::string>(stream), {}};
}

// A node or port identifier is that of device 1, slot 3; the port is number 1.
uintptr_t usual_word(const std::string &parameter) {
    static const std::vector<std::string> usual = words_of(
        "card_type=645 cause=cause chip_type=77 cport=2 cpuid=0 dcm_addr=259 dev=1 device_type=10 devid=1 ifx=101 "
        "len=64 "
        "lport=1 mod_name=module name=FE2 node=0x0c040300 objid=0x14040301 phyid=0x14040301 physlot=3 port=1 "
        "reserved=0 "
        "rt=1 slot=3 sslot=0 sub_slot=0 type=7 unit=0 user_slot=2 user_sslot=0 vsdid=0");
    const auto is_it = [&](const std::string &each) { return each.starts_with(parameter + '='); };
    const auto at = std::ranges::find_if(usual, is_it);
    if (at == usual.end()) wrong("usual value of", parameter);
    const char *value = at->c_str() + parameter.size() + 1;
    return std::isdigit(*value) ? std::strtoul(value, nullptr, 0) : reinterpret_cast<uintptr_t>(value);
}

// Numbers, texts and short arrays, or up to 256 messages. An array's length is asked for where its number is written.
std::string room_for(Pass pass) {
    if (pass == Pass::object) return std::string(257 * sizeof(void *), '\0');
    if (pass == Pass::s32_array || pass == Pass::u32_array) return std::string(sizeof(void *), '\0');
    std::string room(128, '\x5A');
    if (pass == Pass::s32_out) std::memcpy(room.data(), std::to_array<int32_t>({8}).data(), 4);
    return room;
}

template <class T> T first(const std::string &room) {
    T value;
    std::memcpy(&value, room.data(), sizeof value);
    return value;
}

std::string taken(Pass pass, const std::string &room, int32_t &count) {
    if (room == room_for(pass)) return "~";
    std::string text;
    if (pass == Pass::object) {
        const auto *each = reinterpret_cast<ProtobufCMessage *const *>(room.data());
        for (; *each; ndm_port_obj_free(*each++)) text += packed(*each) + ';';
    } else if (pass == Pass::s32_array || pass == Pass::u32_array) {
        auto *array = first<char *>(room);
        text.assign(array, static_cast<size_t>(count) * sizeof(int32_t));
        std::free(array);
    } else {
        if (pass == Pass::s32_out) count = first<int32_t>(room);
        text = room;
    }
    return text;
}

}  // namespace

Question::Question(const std::string &asked) : line(asked), query_(nullptr) {
    const auto parts = words_of(asked);
    for (const dmq::Query &query : dmq::queries)
        if (query.name == parts[0] && query.callable.call) query_ = &query;
    if (!query_) wrong("query", parts[0]);
    const auto parameters = words_of(query_->parameters);
    for (size_t i = 0; i < parameters.size(); ++i)
        words_.push_back(passes()[i] <= Pass::text ? usual_word(parameters[i]) : 0);
    for (size_t i = 1; i < parts.size(); ++i) {
        const size_t equals = parts[i].find('=');
        const auto at = std::ranges::find(parameters, parts[i].substr(0, equals));
        if (at == parameters.end()) wrong("parameter", parts[i]);
        words_[static_cast<size_t>(at - parameters.begin())] =
            static_cast<uintptr_t>(std::stoll(parts[i].substr(equals + 1)));
    }
}

std::vector<std::string> Question::names() {
    std::vector<std::string> all;
    for (const dmq::Query &query : dmq::queries)
        if (query.callable.call) all.emplace_back(query.name);
    return all;
}

std::string Question::parameter(size_t argument) const {
    return words_of(query_->parameters)[argument];
}

std::string Question::answer(size_t argument, uintptr_t word) const {
    std::vector<uintptr_t> words = words_;
    std::vector<std::string> rooms(words.size());
    for (size_t i = 0; i < words.size(); ++i) {
        if (passes()[i] <= Pass::text || i == argument) continue;
        rooms[i] = room_for(passes()[i]);
        words[i] = reinterpret_cast<uintptr_t>(rooms[i].data());
    }
    if (argument < words.size()) words[argument] = word;
    std::string text =
        std::to_string(static_cast<int32_t>(query_->callable.call(query_->callable.function, words.data())));
    int32_t count = 8;
    for (size_t i = words.size(); i-- > 0;)
        if (!rooms[i].empty()) text += '|' + taken(passes()[i], rooms[i], count);
    return text;
}
