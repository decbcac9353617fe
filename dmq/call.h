// The public queries as records, and how a function of any type is called with words. The types of the arguments are those
// of the function itself; the texts are made of the headers by scripts/queries.py, which writes the list `queries`.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <type_traits>
#include <utility>

namespace dmq {

// How an argument is passed. Foreign: it exists within a program only.
enum class Pass { s32, u32, u8, text, s32_out, u32_out, u8_out, text_out, s32_array, u32_array, object, foreign };

template <class T> inline constexpr Pass pass_of = Pass::foreign;
template <> inline constexpr Pass pass_of<int32_t> = Pass::s32;
template <> inline constexpr Pass pass_of<uint32_t> = Pass::u32;
template <> inline constexpr Pass pass_of<uint8_t> = Pass::u8;
template <> inline constexpr Pass pass_of<const char *> = Pass::text;
template <> inline constexpr Pass pass_of<int32_t *> = Pass::s32_out;
template <> inline constexpr Pass pass_of<uint32_t *> = Pass::u32_out;
template <> inline constexpr Pass pass_of<uint8_t *> = Pass::u8_out;
template <> inline constexpr Pass pass_of<char *> = Pass::text_out;
template <> inline constexpr Pass pass_of<int32_t **> = Pass::s32_array;
template <> inline constexpr Pass pass_of<uint32_t **> = Pass::u32_array;
template <> inline constexpr Pass pass_of<void *> = Pass::object;

// A query as a function of words: a number, or an address, in each.
struct Callable {
    void (*function)();
    int64_t (*call)(void (*function)(), const uintptr_t *words);  // null: not from a command line
    std::span<const Pass> passes;
};

// One for all queries of a type.
template <class Result, class... Arguments> struct Signature {
    static constexpr Pass passes[] = {pass_of<Arguments>..., Pass::foreign};

    template <class T> static T argument(uintptr_t word) {
        if constexpr (std::is_pointer_v<T>)
            return reinterpret_cast<T>(word);
        else
            return static_cast<T>(word);
    }

    template <size_t... i>
    static int64_t call_with(void (*function)(), [[maybe_unused]] const uintptr_t *words, std::index_sequence<i...>) {
        return reinterpret_cast<Result (*)(Arguments...)>(function)(argument<Arguments>(words[i])...);
    }

    static int64_t call(void (*function)(), const uintptr_t *words) {
        return call_with(function, words, std::index_sequence_for<Arguments...>());
    }
};

template <class Result, class... Arguments> Callable call_of(Result (*function)(Arguments...)) {
    using Of = Signature<Result, Arguments...>;
    Callable made{reinterpret_cast<void (*)()>(function), nullptr, std::span(Of::passes, sizeof...(Arguments))};
    if constexpr (std::is_integral_v<Result> && ((pass_of<Arguments> != Pass::foreign) && ...)) made.call = Of::call;
    return made;
}

// One public query, with what its header says of it.
struct Query {
    std::string_view name;
    std::string_view header;
    std::string_view prototype;
    std::string_view question;
    const char *enumeration;      // whose values it speaks of; may be empty
    std::string_view parameters;  // their names, separated by blanks
    bool yes_or_no;
    bool zero_is_no;
    bool writes;  // the store
    bool pure;    // a conversion that needs no cache, so no store either
    Callable callable;
};

// In the order of the headers.
extern const std::span<const Query> queries;

}  // namespace dmq
