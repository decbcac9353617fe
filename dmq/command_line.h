// The table of commands, for those who read a command line and those who ask what may come next on it.
#pragma once

#include <CLI/CLI.hpp>

#include "dmq/complete.h"

namespace dmq {

struct Verb {
    const char *name;
    const char *what;
    const char *examples;
    void (*options)(CLI::App &, Command &);
    Exit (*run)(Context &, const Command &);
    Candidates (*next)(const Asked &);  // null: a file, or nothing that is known
};

// Null: there is no such command.
const Verb *find_verb(const std::string &name);

// Gives an application its commands and options; what it parses goes into the command.
void describe(CLI::App &app, Command &command, bool in_shell);

}  // namespace dmq
