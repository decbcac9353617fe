// Texts are UTF-8.
#include "dmq/panel/lines.h"

#include <algorithm>
#include <numeric>

namespace dmq {

// Bytes that begin a character in UTF-8.
size_t width_of(std::string_view text) {
    return static_cast<size_t>(std::count_if(text.begin(), text.end(), [](char c) { return (c & 0xC0) != 0x80; }));
}

size_t width_of(const Line &line) {
    return std::accumulate(line.begin(), line.end(), size_t{0},
                           [](size_t sum, const Span &span) { return sum + width_of(span.text); });
}

std::string fit(std::string_view text, size_t width) {
    size_t bytes = 0, columns = 0;
    while (bytes < text.size() && (columns < width || (text[bytes] & 0xC0) == 0x80))
        columns += (text[bytes++] & 0xC0) != 0x80;
    return std::string(text.substr(0, bytes)) + std::string(width - columns, ' ');
}

Line fit(Line line, size_t width) {
    size_t left = width;
    for (Span &span : line) {
        span.text = fit(span.text, std::min(left, width_of(span.text)));
        left -= width_of(span.text);
    }
    if (left > 0) line.push_back({std::string(left, ' ')});
    return line;
}

void append(Line &to, const Line &more) {
    to.insert(to.end(), more.begin(), more.end());
}

std::string spread(const std::string &left, const std::string &right, size_t width) {
    const size_t room = width - std::min(width, width_of(right));
    return fit(left, room) + right;
}

}  // namespace dmq
