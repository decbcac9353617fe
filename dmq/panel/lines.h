// Lines of text with colours, and how they are cut and put together. A column of the terminal is a character.
#pragma once

#include "dmq/output.h"

namespace dmq {

struct Span {
    std::string text;
    Colour colour = Colour::none;
    bool reversed = false;
    bool cell = false;  // of a port: a block of its colour
};
using Line = std::vector<Span>;

size_t width_of(std::string_view text);
size_t width_of(const Line &line);

// Cut, or filled with blanks.
std::string fit(std::string_view text, size_t width);
Line fit(Line line, size_t width);

void append(Line &to, const Line &more);

// The second text at the right margin.
std::string spread(const std::string &left, const std::string &right, size_t width);

}  // namespace dmq
