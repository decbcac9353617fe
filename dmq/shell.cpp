// Many commands in one process, from a terminal, a pipe or a file. A command that fails is told and the next one runs. The
// exit code is that of the first command that failed (2 to 4), else the last answer, yes or no.
#include <unistd.h>

#include <fstream>
#include <iostream>

#include "dmq/line_editor.h"

namespace dmq {

namespace {

constexpr size_t longest_line = 1 << 16;

// Words between blanks; single or double quotes hold blanks together.
std::vector<std::string> split(const std::string &line) {
    std::vector<std::string> words;
    char quote = 0;
    bool open = false;
    for (const char c : line) {
        if (quote ? c == quote : c == '\'' || c == '"') {
            quote = quote ? 0 : c;
            if (!open) words.emplace_back();
            open = true;
        } else if (!quote && std::isspace(static_cast<unsigned char>(c))) {
            open = false;
        } else {
            if (!open) words.emplace_back();
            open = true;
            words.back() += c;
        }
    }
    if (quote) throw Failure(exit_usage, std::string("a quote ") + quote + " is not closed");
    return words;
}

// Words that are no commands.
constexpr std::pair<const char *, const char *> own_words[] = {
    {"echo", "Print a text"}, {"trace", "Print each command before it runs, or trace off"}, {"exit", "End this shell"}};

// What lasts from one line of a shell to the next.
struct Shell {
    Context &context;
    Settings settings;
    bool trace = false;
    bool ended = false;
    Exit last = exit_yes;  // the latest answer
};

Exit run_words(Shell &shell, std::vector<std::string> words) {
    const bool background = words.back() == "&";
    if (background) words.pop_back();
    if (words.empty() || (background && words[0] != "watch"))
        throw Failure(exit_usage, "only watch goes on while others run (watch &)");
    auto command = parse(words, shell.settings, /*in_shell=*/true);
    if (!command) return exit_yes;
    command->background = background;
    return run(shell.context, *command);
}

Exit run_text(Shell &shell, const std::string &line) {
    const size_t start = line.find_first_not_of(" \t");
    if (start == std::string::npos || line[start] == '#') return shell.last;
    if (line.substr(start, 5) == "echo " || line.substr(start) == "echo") {
        print_line(line.size() > start + 5 ? line.substr(start + 5) : "");
        return shell.last;
    }
    const auto words = split(line);
    if (words[0] == "trace") {
        shell.trace = words.size() < 2 || words[1] != "off";
        return shell.last;
    }
    if (words[0] == "exit" || words[0] == "quit") {
        shell.ended = true;
        return shell.last;
    }
    if (shell.trace) print_line(coloured(Colour::heading, "dmq> " + shown(line)));
    return run_words(shell, words);
}

// What may stand where the cursor is.
Candidates candidates_in(Shell &shell, const std::string &before) {
    std::vector<std::string> words;
    try {
        words = split(before);
    } catch (const Failure &) {
        return {};
    }
    if (before.empty() || std::isspace(static_cast<unsigned char>(before.back()))) words.emplace_back();
    Candidates candidates;
    for (const auto &[word, what] : own_words)
        if (words.size() == 1 && std::string_view(word).starts_with(words[0])) candidates.push_back({word, what});
    const Candidates known = complete_in_shell(words, shell.context, shell.settings);
    candidates.insert(candidates.end(), known.begin(), known.end());
    return candidates;
}

// Where the lines come from: a person at a terminal, or a stream.
class Lines {
public:
    Lines(std::istream &stream, Shell &shell, bool terminal) : stream_(stream), asks_(terminal) {
        if (terminal && LineEditor::is_possible())
            editor_.emplace([&shell](const std::string &before) { return candidates_in(shell, before); });
    }

    // Nothing: there are no more.
    std::optional<std::string> next() {
        if (editor_) return editor_->read();
        if (asks_) print("dmq> ");
        std::string line(longest_line + 2, '\0');
        stream_.getline(line.data(), static_cast<std::streamsize>(line.size()));
        too_long_ = stream_.fail() && !stream_.eof() && stream_.gcount() > 0;
        if (stream_.fail() && !too_long_) return std::nullopt;
        line.resize(std::char_traits<char>::length(line.data()));
        return line;
    }
    bool is_too_long() const { return too_long_; }

private:
    std::istream &stream_;
    const bool asks_;
    bool too_long_ = false;
    std::optional<LineEditor> editor_;
};

}  // namespace

Exit run_shell(Context &context, const Command &command) {
    std::ifstream file;
    const bool from_file = !command.words.empty() && command.words[0] != "-";
    if (from_file) file.open(command.words[0]);
    if (from_file && file) file.peek();  // a folder opens, and cannot be read
    if (from_file && (!file.is_open() || file.bad())) throw Failure(exit_usage, "cannot read " + command.words[0]);
    std::istream &stream = from_file ? file : std::cin;
    const bool terminal = !from_file && isatty(STDIN_FILENO);

    context.open(command.settings);
    context.in_shell = true;
    Shell shell{context, command.settings};
    Exit failed = exit_yes;
    Lines lines(stream, shell, terminal);
    for (int number = 1; !shell.ended; ++number) {
        const auto line = lines.next();
        if (!line) break;
        const bool too_long = lines.is_too_long();
        const std::string source = from_file ? command.words[0] + ":" : "line ";
        shell.last = reporting(terminal ? "" : source + std::to_string(number) + ": ", [&] {
            if (too_long) throw Failure(exit_usage, "longer than " + std::to_string(longest_line) + " characters");
            return run_text(shell, *line);
        });
        if (too_long) break;
        if (!failed && shell.last > exit_no) failed = shell.last;
    }
    return failed ? failed : shell.last;
}

}  // namespace dmq
