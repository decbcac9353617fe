// Where dmq writes: answers to standard output, messages to standard error. The library's log lines go to descriptor 1,
// so the descriptor that dmq was given is kept aside and 1 is pointed to standard error. Any thread may write; a call's
// text is never mixed with another's.
#pragma once

#include <chrono>
#include <span>
#include <string_view>
#include <vector>

#include "dmq/json.h"

namespace dmq {

// Before any call of the library.
void keep_stdout();

// Where the answers go.
int answers_descriptor();

// While a person edits a line: what any thread writes waits, and the event `wake` says so, until it is written in the line's
// place, behind `before`; until the release.
void hold_output(int wake);
void write_held(std::string_view before, bool release);

// An answer, as it is. Written at once.
void print(std::string_view text);
void print_line(std::string_view text);

// A message for the person: "dmq: ...". Passwords of URLs are starred out, what is not printable is escaped.
void note(std::string_view text);

// A word of somebody else's as a message may show it: what a terminal would obey is escaped, and no more than a line of it.
std::string shown(std::string_view word);

// The same of a text of several lines.
std::string printable_text(std::string_view text);

// A store's URL without what may be its secret, as the platform shows it.
std::string shown_url(const std::string &url);

// Stars out what may be a password, in place: what lies before the last @ and is not shown of such a URL.
void hide_password(std::span<char> text);

// "1 object", "2 objects"; of what does not only get an s, `many` says how it is.
std::string counted(size_t count, const std::string &one, const std::string &many = "");

// A key of a tree: "0x3f", "-0x1".
std::string hex(int64_t key);

enum class Colour { none, heading, good, change, bad };

// The text in a colour, when standard output is a terminal and NO_COLOR is not set.
std::string coloured(Colour colour, const std::string &text);

// How far a long piece of work is: shown on standard error when that is a terminal and a second has passed.
class Progress {
public:
    explicit Progress(const char *what);
    Progress(const Progress &) = delete;
    ~Progress();
    void show(size_t done, size_t total);

private:
    const char *what_;
    std::chrono::steady_clock::time_point next_;
    bool shown_ = false;
};

}  // namespace dmq
