// How a command ends: the exit codes, and the one exception that carries a code with its message.
#pragma once

#include <atomic>
#include <stdexcept>
#include <string>

namespace dmq {

enum Exit { exit_yes = 0, exit_no = 1, exit_usage = 2, exit_unreachable = 3, exit_timeout = 4 };

struct Failure : std::runtime_error {
    Failure(Exit exit, const std::string &text) : std::runtime_error(text), code(exit) {}
    Exit code;
};

// Set while the terminal is not as it was; null: it is.
inline std::atomic<void (*)()> give_terminal_back = nullptr;

// Without memory dmq says so and ends with exit_no at once, wherever it is: half an answer is none.
[[noreturn]] void out_of_memory() noexcept;

}  // namespace dmq
