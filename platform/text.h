// Words of others in a message. No state, no lock.
#ifndef TQ_PLATFORM_TEXT_H
#define TQ_PLATFORM_TEXT_H

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
        if (is_printable(c)) {
            shown += c;
        } else {
            shown.append("\\x").append(1, digits[byte >> 4]).append(1, digits[byte & 15]);
        }
    }
    return text.size() > longest ? shown + "..." : shown;
}

}  // namespace tq

#endif
