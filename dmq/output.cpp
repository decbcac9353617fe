// Standard output kept aside, colour and progress.
#include "dmq/output.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <tuple>

#include "tq_dm_cache/tq_platform_bundled.h"

namespace dmq {

namespace {

int answers = STDOUT_FILENO;
std::mutex writing;
int held_for = -1;                              // who edits a line is woken up there; -1: nobody edits one
std::vector<std::pair<int, std::string>> held;  // descriptor and text

void write_now(int fd, std::string_view text) {
    while (!text.empty()) {
        const ssize_t written = write(fd, text.data(), text.size());
        if (written < 0) {
            if (errno == EINTR) continue;
            if (fd == answers) std::perror("dmq: standard output");
            std::_Exit(exit_no);
        }
        text.remove_prefix(static_cast<size_t>(written));
    }
}

void write_all(int fd, std::string_view text) {
    const std::lock_guard guard(writing);
    if (held_for < 0) return write_now(fd, text);
    held.emplace_back(fd, text);
    constexpr uint64_t one = 1;
    std::ignore = write(held_for, &one, sizeof one);
}

// How many bytes the UTF-8 character at the beginning has that a terminal can print; 0: none, or it would obey it.
size_t printable(std::string_view text) {
    const auto byte = [&](size_t i) -> unsigned { return i < text.size() ? static_cast<unsigned char>(text[i]) : 0U; };
    const unsigned first = byte(0);
    if (first < 0x80) return first >= 0x20 && first != 0x7F;
    const size_t length = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
    if (first < 0xC2 || first > 0xF4 || (first == 0xC2 && byte(1) < 0xA0)) return 0;
    for (size_t i = 1; i < length; ++i)
        if ((byte(i) & 0xC0) != 0x80) return 0;
    return length;
}

std::string escaped(std::string_view text, bool with_newlines) {
    std::string shown;
    while (!text.empty()) {
        const bool kept = text[0] == '\n' && !with_newlines;
        const size_t length = kept ? 1 : printable(text);
        char code[8];
        std::snprintf(code, sizeof code, "\\x%02x", static_cast<unsigned char>(text[0]));
        shown += length ? text.substr(0, length) : code;
        text.remove_prefix(std::max<size_t>(length, 1));
    }
    return shown;
}

}  // namespace

void keep_stdout() {
    // From 3 on: where standard output is closed, its number must not be taken for the answers.
    answers = fcntl(STDOUT_FILENO, F_DUPFD, 3);
    dup2(STDERR_FILENO, STDOUT_FILENO);
    setvbuf(stdout, nullptr, _IOLBF, 0);
}

int answers_descriptor() {
    return answers;
}

void hold_output(int wake) {
    const std::lock_guard guard(writing);
    held_for = wake;
}

void write_held(std::string_view before, bool release) {
    const std::lock_guard guard(writing);
    if (!held.empty()) write_now(answers, before);
    for (const auto &[fd, text] : held) write_now(fd, text);
    held.clear();
    if (release) held_for = -1;
}

void print(std::string_view text) {
    write_all(answers, text);
}

void print_line(std::string_view text) {
    print(std::string(text) + "\n");
}

void out_of_memory() noexcept {
    constexpr std::string_view text = "dmq: not enough memory\n";
    if (void (*const give_back)() = give_terminal_back) give_back();
    std::ignore = write(STDERR_FILENO, text.data(), text.size());
    std::_Exit(exit_no);
}

std::string shown(std::string_view word) {
    constexpr size_t most = 200;
    const std::string text = escaped(word.substr(0, most), /*with_newlines=*/true);
    return word.size() > most ? text + "..." : text;
}

std::string printable_text(std::string_view text) {
    return escaped(text, /*with_newlines=*/false);
}

void note(std::string_view text) {
    std::string line = "dmq: " + printable_text(text) + "\n";
    hide_password(line);
    write_all(STDERR_FILENO, line);
}

std::string shown_url(const std::string &url) {
    std::string text(std::max<size_t>(3 * url.size() + 4, 64), '\0');  // every byte escaped, at the most
    tq_mom_url_without_secret(url.c_str(), text.data(), static_cast<uint32_t>(text.size()));
    text.resize(text.find('\0'));
    return text;
}

void hide_password(std::span<char> text) {
    const std::string_view view(text.data(), text.size());
    const size_t end = view.rfind('@'), slashes = view.find("://");
    if (end == std::string_view::npos) return;
    constexpr std::string_view around = " \";";  // of a word in a message
    const size_t begin = view.find_last_of(around, std::min(end, slashes)) + 1;
    if (view.find(':', begin) > end) return;
    const std::string url(view.substr(begin, view.find_first_of(around, end) - begin));
    const std::string shown = shown_url(url), front = shown.substr(0, shown.rfind('@'));
    const auto secret = std::mismatch(url.begin(), url.end(), front.begin(), front.end()).first - url.begin();
    for (size_t i = begin + static_cast<size_t>(secret); i < end; ++i) text[i] = '*';
}

std::string counted(size_t count, const std::string &one, const std::string &many) {
    return std::to_string(count) + " " + (count == 1 ? one : many.empty() ? one + "s" : many);
}

std::string hex(int64_t key) {
    char text[32];
    std::snprintf(text, sizeof text, "%s0x%llx", key < 0 ? "-" : "",
                  static_cast<unsigned long long>(key < 0 ? -key : key));
    return text;
}

std::string coloured(Colour colour, const std::string &text) {
    static const char *const code[] = {"", "\033[1m", "\033[32m", "\033[33m", "\033[31m"};
    static const bool wanted = isatty(answers) && !std::getenv("NO_COLOR");
    return wanted && colour != Colour::none ? code[static_cast<int>(colour)] + text + "\033[0m" : text;
}

Progress::Progress(const char *what) : what_(what), next_(std::chrono::steady_clock::now() + std::chrono::seconds(1)) {}

void Progress::show(size_t done, size_t total) {
    const auto now = std::chrono::steady_clock::now();
    if (now < next_ || !isatty(STDERR_FILENO)) return;
    next_ = now + std::chrono::milliseconds(200);
    shown_ = true;
    write_all(STDERR_FILENO, "\r" + std::string(what_) + ": " + std::to_string(done) + " of " + std::to_string(total));
}

Progress::~Progress() {
    if (shown_) write_all(STDERR_FILENO, "\r\033[K");
}

}  // namespace dmq
