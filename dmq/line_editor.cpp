// The editor of lines is a library's; this file alone knows it. It is asked and written from one thread: what other threads
// print meanwhile is held (output.h), and an event wakes up the reading of the next key, which shows it.
#include "dmq/line_editor.h"

#include <fcntl.h>
#include <histedit.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <clocale>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cwchar>
#include <string_view>

#include "dmq/history.h"
#include "dmq/output.h"

#ifdef __SANITIZE_ADDRESS__
// The library never frees the names of functions that it is given, nobody else here copies such texts.
extern "C" __attribute__((visibility("default"))) const char *__lsan_default_suppressions();
extern "C" const char *__lsan_default_suppressions() {
    return "leak:wcsdup";
}
#endif

namespace dmq {

namespace {

constexpr std::string_view prompt = "dmq> ";
constexpr int most_lines = 1000;  // to be called back

struct EndEditor {
    void operator()(EditLine *editor) const { el_end(editor); }
    void operator()(History *history) const { history_end(history); }
    void operator()(FILE *file) const { std::fclose(file); }
};

size_t columns() {
    winsize size{};
    return ioctl(answers_descriptor(), TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : 80;
}

// Candidates as a person sees them: with what they are when there are few, else side by side.
std::string listed(const Candidates &candidates) {
    size_t widest = 0;
    for (const Candidate &one : candidates) widest = std::max(widest, one.word.size());
    const size_t width = widest + 2, line = columns();
    const bool few = candidates.size() <= 20;
    std::string text;
    size_t place = 0;
    for (const Candidate &one : candidates) {
        const std::string_view what = few ? std::string_view(one.what) : "";
        const size_t room = std::max(line, width + 1) - width - 1;
        if (place + width > line || (place && few)) place = 0;
        text += place ? "" : "\n";
        text += one.word + std::string(width - one.word.size(), ' ');
        text += what.substr(0, room);
        place += width;
    }
    return text + "\n";
}

// What all candidates begin with.
std::string common_beginning(const Candidates &candidates) {
    std::string common = candidates[0].word;
    for (const Candidate &one : candidates) {
        const auto end = std::mismatch(common.begin(), common.end(), one.word.begin(), one.word.end()).first;
        common.erase(end, common.end());
    }
    return common;
}

std::string before_cursor(EditLine *editor) {
    const LineInfo *line = el_line(editor);
    return {line->buffer, line->cursor};
}

}  // namespace

// In the order in which they need each other: the editor, which uses the history and writes to `out`, is ended first. Of the
// thread that reads lines; other threads only write to `wake`.
struct LineEditor::Parts {
    std::function<Candidates(const std::string &)> candidates;
    int wake = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    bool cleared = false;
    std::unique_ptr<FILE, EndEditor> out{fdopen(fcntl(answers_descriptor(), F_DUPFD_CLOEXEC, 3), "w")};
    std::unique_ptr<History, EndEditor> history{history_init()};
    std::unique_ptr<EditLine, EndEditor> editor{el_init("dmq", stdin, out.get(), stderr)};

    ~Parts() { close(wake); }

    static Parts &of(EditLine *editor) {
        void *parts = nullptr;
        el_get(editor, EL_CLIENTDATA, &parts);
        return *static_cast<Parts *>(parts);
    }

    // In place of the line, which is written again below it.
    void show_held() {
        uint64_t count = 0;
        if (::read(wake, &count, sizeof count) < 0) return;
        const LineInfoW *line = el_wline(editor.get());
        const int width = wcswidth(line->buffer, static_cast<size_t>(line->cursor - line->buffer));
        const size_t rows = (prompt.size() + static_cast<size_t>(std::max(width, 0))) / columns();
        const std::string up = rows ? "\033[" + std::to_string(rows) + "A" : "";
        write_held("\r" + up + "\033[J", /*release=*/false);
        el_set(editor.get(), EL_REFRESH);
    }

    static int next_key(EditLine *editor, wchar_t *key) {
        Parts &parts = of(editor);
        std::mbstate_t state{};
        while (true) {
            pollfd ready[] = {{STDIN_FILENO, POLLIN, 0}, {parts.wake, POLLIN, 0}};
            if (poll(ready, 2, -1) < 0) {
                if (errno != EINTR) return -1;
                el_set(editor, EL_REFRESH);  // stopped and continued, or another size
                continue;
            }
            if (ready[1].revents) parts.show_held();
            if (!ready[0].revents) continue;
            char byte = 0;
            const ssize_t got = ::read(STDIN_FILENO, &byte, 1);
            if (got < 0 && errno == EINTR) continue;
            if (got <= 0) return static_cast<int>(got);
            const size_t length = std::mbrtowc(key, &byte, 1, &state);
            if (length == static_cast<size_t>(-1)) state = {};
            if (length <= 1) return 1;
        }
    }

    static unsigned char clear(EditLine *editor, int) {
        of(editor).cleared = true;
        std::fputs("^C\n\033[J", of(editor).out.get());
        return CC_NEWLINE;
    }

    // The library gives the terminal back meanwhile.
    static unsigned char stop(EditLine *editor, int) {
        std::raise(SIGTSTP);
        el_set(editor, EL_REFRESH);
        return CC_NORM;
    }

    static unsigned char complete(EditLine *editor, int) {
        Parts &parts = of(editor);
        const std::string before = before_cursor(editor);
        const std::string word = before.substr(before.find_last_of(" \t") + 1);
        const Candidates candidates = parts.candidates(before);
        if (candidates.empty() || !candidates[0].word.starts_with(word)) return CC_ERROR;  // within quotes
        std::string more = common_beginning(candidates).substr(word.size());
        if (candidates.size() == 1 && !candidates[0].word.ends_with('=') && !candidates[0].word.ends_with('/'))
            more += ' ';
        if (!more.empty()) return el_insertstr(editor, more.c_str()) == 0 ? CC_REFRESH : CC_ERROR;
        std::fputs(listed(candidates).c_str(), parts.out.get());
        el_set(editor, EL_REFRESH);
        return CC_NORM;
    }

    void add_history(const std::string &line) {
        HistEvent event{};
        ::history(history.get(), &event, H_ENTER, line.c_str());
    }
};

bool LineEditor::is_possible() {
    const char *terminal = std::getenv("TERM");
    return isatty(STDIN_FILENO) && isatty(answers_descriptor()) && terminal && *terminal &&
           std::string_view(terminal) != "dumb";
}

LineEditor::LineEditor(std::function<Candidates(const std::string &)> candidates) : parts_(new Parts) {
    parts_->candidates = std::move(candidates);
    std::setlocale(LC_CTYPE, "");
    if (MB_CUR_MAX == 1) std::setlocale(LC_CTYPE, "C.UTF-8");
    EditLine *editor = parts_->editor.get();
    if (!editor || !parts_->history || parts_->wake < 0) throw Failure(exit_no, "the terminal cannot be used");
    el_set(editor, EL_CLIENTDATA, parts_.get());
    el_set(
        editor, EL_PROMPT, +[](EditLine *) { return const_cast<char *>(prompt.data()); });
    el_set(editor, EL_EDITOR, "emacs");
    el_set(editor, EL_SIGNAL, 1);
    el_set(editor, EL_GETCFN, Parts::next_key);
    el_set(editor, EL_HIST, history, parts_->history.get());
    el_set(editor, EL_ADDFN, "dmq-clear", "Clear the line", Parts::clear);
    el_set(editor, EL_ADDFN, "dmq-stop", "Stop until it is continued", Parts::stop);
    el_set(editor, EL_ADDFN, "dmq-complete", "Complete the word", Parts::complete);
    el_set(editor, EL_BIND, "^R", "em-inc-search-prev", nullptr);
    el_source(editor, nullptr);
    el_set(editor, EL_BIND, "^I", "dmq-complete", nullptr);
    el_set(editor, EL_BIND, "^C", "dmq-clear", nullptr);
    el_set(editor, EL_BIND, "^Z", "dmq-stop", nullptr);
    el_set(editor, EL_SETTY, "-d", "-isig", nullptr);  // these are keys while a line is edited
    HistEvent event{};
    ::history(parts_->history.get(), &event, H_SETSIZE, most_lines);
    ::history(parts_->history.get(), &event, H_SETUNIQUE, 1);
    for (const auto &line : remembered_lines()) parts_->add_history(line);
}

LineEditor::~LineEditor() = default;

std::optional<std::string> LineEditor::read() {
    int length = 0;
    parts_->cleared = false;
    hold_output(parts_->wake);
    el_set(parts_->editor.get(), EL_PREP_TERM, 1);  // before the prompt asks for keys
    const char *text = el_gets(parts_->editor.get(), &length);
    const bool ended = !parts_->cleared && (!text || length <= 0);
    if (ended) std::fputs("\n", parts_->out.get());
    std::fflush(parts_->out.get());
    write_held("", /*release=*/true);
    if (ended) return std::nullopt;
    if (parts_->cleared) return "";
    std::string line(text, static_cast<size_t>(length));
    if (line.ends_with('\n')) line.pop_back();
    if (line.find_first_not_of(" \t") == std::string::npos) return line;
    parts_->add_history(line);
    remember_line(line);
    return line;
}

}  // namespace dmq
