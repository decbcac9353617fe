// Words of others: shown in a message, read as a number. No state, no lock.
#pragma once

#include <charconv>
#include <optional>
#include <string>
#include <string_view>

namespace tq {

inline bool is_printable(char c) {
    return c >= ' ' && c <= '~';
}

// As it may be written to a log or a terminal: a server's words, a path or a name could else move the cursor, fake a line,
// or fill the disk.
inline std::string printable(std::string_view text, size_t longest = 600) {
    constexpr char digits[] = "0123456789abcdef";
    std::string shown;
    for (const char c : text.substr(0, longest)) {
        const auto byte = static_cast<unsigned char>(c);
        if (is_printable(c))
            shown += c;
        else
            shown.append("\\x").append(1, digits[byte >> 4]).append(1, digits[byte & 15]);
    }
    return text.size() > longest ? shown + "..." : shown;
}

// The whole text as a number of that base; nothing when it is none, or does not fit.
template <class T> std::optional<T> whole_number(std::string_view text, int base = 10) {
    T number = 0;
    const char *const text_end = text.data() + text.size();
    const auto [end, error] = std::from_chars(text.data(), text_end, number, base);
    return error == std::errc() && end == text_end ? std::optional(number) : std::nullopt;
}

}  // namespace tq
