// A small unit in a live cache, and short ways to ask it. A chassis (device 1) has main boards in 30 and 31, line cards in
// 3, where this process runs, and in 4, a sub-card in 3/1 and a card without description in 5. Device 2 is a box with a
// sub-card, devices 3 and 4 are badly described. The store is empty.
#pragma once

#include "tests/support/live_cache.h"
#include "tq_dm_cache/ndm.h"

// An object from its fields: "index{devid:1} slot_index:-1,2 name:'a box'". Messages of a repeated field are named each by
// each.
Message object(std::string_view kind, const std::string &fields);
Message object(int32_t row, const std::string &fields);
void set(int32_t row, const std::string &fields);
void drop(int32_t row, const std::string &fields = "");

extern const char *const line_card, *const role_record;

class Topology : public testing::Test {
protected:
    Topology();
};

// Answers as texts, unsigned ones in hexadecimal: "1 0 -1;".
template <class T> std::string number(T value) {
    if constexpr (std::is_same_v<T, uint32_t>) return text("%#x", value);
    return std::to_string(value);
}
template <class First, class... Rest> std::string each(First first, Rest... rest) {
    return (number(first) + ... + (' ' + number(rest))) + ';';
}

// In the place of a pointer: the query may write there. What it wrote is told as "~" for nothing, "*" for no number.
struct Out {};
inline constexpr Out out;

template <class T> struct Argument {
    template <class Given> explicit Argument(Given given) : value(static_cast<T>(given)) {}
    std::string told() const { return ""; }
    T value;
};
template <class T> struct Argument<T *> {
    explicit Argument(T *given) : value(given) {}
    explicit Argument(Out) : room(4096, 0x5A), value(reinterpret_cast<T *>(room.data())) {}
    std::string told() const {
        if (room == std::vector<uint8_t>(room.size(), 0x5A)) return room.empty() ? "" : " ~";
        if constexpr (std::is_arithmetic_v<T>) return ' ' + number(*value);
        return " *";
    }
    std::vector<uint8_t> room;
    T *value;
};

// The answer of a query and what it wrote: "0 30 2;" or "-1 ~ ~;".
template <class Result, class... Parameter, class... Given>
std::string ask(Result (*query)(Parameter...), Given... given) {
    std::tuple<Argument<Parameter>...> arguments(given...);
    const auto call = [query](auto &...argument) {
        const std::string answer = number(query(argument.value...));
        return (answer + ... + argument.told()) + ';';
    };
    return std::apply(call, arguments);
}

// The same for a text in a buffer of a length: "0 Slot 5|32;", last the number of bytes written.
template <class Query, class... Given> std::string ask_text(Query query, int32_t len, Given... given) {
    std::string buffer(99, '~');
    const std::string answer = number(query(given..., buffer.data(), len));
    const size_t written = buffer.find_last_not_of('~') + 1;
    return answer + ' ' + std::string(buffer.data()).substr(0, written) + '|' + std::to_string(written) + ';';
}

// The answers for several values of one argument.
template <class Ask> std::string over(std::initializer_list<int64_t> values, const Ask &ask_with) {
    std::string all;
    for (const int64_t value : values) all += ask_with(static_cast<int32_t>(value));
    return all;
}
