// The command line in plain records: which commands there are, what they take and how they are explained. Parsing, help,
// completion and the manual page read the same records; commands.cpp has them. Takes no lock.
//
// Texts called `about` and `more` are for the manual page: what stands in `backquotes` is typed as it is, but for words in
// capitals, which stand for something.
#pragma once

#include <span>
#include <variant>

#include "dmq/complete.h"

namespace dmq {

// Where an option's value goes. The type says how it is read: a bool is a flag, a double is seconds, a list takes one
// value each time the option is given. What is not optional is shown with its default.
template <class... T> using Targets = std::variant<T &(*)(Command &)...>;
using Target =
    Targets<bool, int, double, std::string, std::vector<std::string>, std::optional<int>, std::optional<double>>;

// The target at the end of a path of members: in<&Command::watch, &WatchOptions::date>.
template <auto... path> constexpr Target in = +[](Command &command) -> auto & {
    return (command.*....*path);
};

struct Option {
    const char *name;             // with its dashes
    const char *value = nullptr;  // what it takes: "SECONDS"; null: nothing
    const char *what;             // one line; empty: hidden
    Target target;
    Candidates (*next)(const Asked &) = nullptr;  // which values are offered
    const char *more = nullptr;
    const char *variable = nullptr;  // of the environment, for when the option is not given
    bool in_shell = true;            // has a meaning on a line of a shell
};

// The words behind a command's name.
struct Words {
    const char *name = nullptr;  // null: there are none
    const char *what = "";
    int least = 0;
    int most = 0;  // 0: any number
};

enum VerbUse : unsigned {
    anywhere = 0,
    not_in_shell = 1,
    not_attached = 2,  // follows or writes a store, so it is not for the cache of another process
    runs_program = 4,  // what stands behind -- is a program and its arguments
};

struct Verb {
    const char *name;
    const char *what;   // one line
    const char *usage;  // what follows the name, a line for each form
    const char *examples;
    Words words;
    std::span<const Option> options;
    Exit (*run)(Context &, const Command &);
    Candidates (*next)(const Asked &) = nullptr;  // which words are offered; null: a file, or nothing that is known
    unsigned use = anywhere;
    const char *about = nullptr;
};

// A line as far as its words are known.
struct Line {
    const Verb *verb = nullptr;
    const Option *open = nullptr;      // its value is to come
    std::vector<std::string> options;  // those of all commands, with their values
    std::vector<std::string> words;
    bool program = false;  // the rest belongs to a program
};

extern const char *const overview;

std::span<const Verb> verbs();

// Those that every command has.
std::span<const Option> common_options();

// Null: there is no such command, or none on a line of a shell.
const Verb *find_verb(const std::string &name, bool in_shell);

// Of a command (null: none is known yet), or of all; null: there is no such option.
const Option *find_option(const Verb *verb, const std::string &name, bool in_shell);

// Takes the next word. False: it is no command.
bool take(Line &line, const std::string &word, bool in_shell);

// The manual page of the whole.
std::string manual();

// Lines: the version, the interface of the library, and the build.
std::string version();

}  // namespace dmq
