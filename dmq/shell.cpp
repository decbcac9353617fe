// Many commands in one process, from a terminal, a pipe or a file. A command that fails is told and the next one runs. The
// exit code is that of the first command that failed (2 to 4), else the last answer, yes or no.
#include <unistd.h>

#include <fstream>
#include <iostream>

#include "dmq/command.h"

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

}  // namespace

Exit run_shell(Context &context, const Command &command) {
    std::ifstream file;
    const bool from_file = !command.words.empty() && command.words[0] != "-";
    if (from_file) file.open(command.words[0]);
    if (from_file && file) file.peek();  // a folder opens, and cannot be read
    if (from_file && (!file.is_open() || file.bad())) throw Failure(exit_usage, "cannot read " + command.words[0]);
    std::istream &lines = from_file ? file : std::cin;
    const bool terminal = !from_file && isatty(STDIN_FILENO);

    context.open(command.settings);
    context.in_shell = true;
    Shell shell{context, command.settings};
    Exit failed = exit_yes;
    std::vector<char> line(longest_line + 2);
    for (int number = 1; !shell.ended; ++number) {
        if (terminal) print("dmq> ");
        lines.getline(line.data(), static_cast<std::streamsize>(line.size()));
        const bool too_long = lines.fail() && !lines.eof();
        if (lines.fail() && !too_long) break;
        const std::string source = from_file ? command.words[0] + ":" : "line ";
        shell.last = reporting(terminal ? "" : source + std::to_string(number) + ": ", [&] {
            if (too_long) throw Failure(exit_usage, "longer than " + std::to_string(longest_line) + " characters");
            return run_text(shell, line.data());
        });
        if (too_long) break;
        if (!failed && shell.last > exit_no) failed = shell.last;
    }
    return failed ? failed : shell.last;
}

}  // namespace dmq
