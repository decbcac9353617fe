// dmq, the command-line client of the device cache. Its arguments are visible to every user of the machine, so passwords
// are taken out of them once they are read.
#include <cstdlib>
#include <cstring>
#include <new>

#include "dmq/complete.h"

// Before anything that needs memory, other initialisers included.
[[gnu::constructor(101)]] static void prepare() {
    std::set_new_handler(dmq::out_of_memory);
}

int main(int argc, char **argv) {
    dmq::keep_stdout();
    const std::vector<std::string> words(argv + 1, argv + argc);
    for (char *word : std::span(argv, static_cast<size_t>(argc))) dmq::hide_password({word, std::strlen(word)});
    if (!words.empty() && words[0] == "complete") return dmq::complete({words.begin() + 1, words.end()});
    const dmq::Exit code = dmq::reporting("", [&] {
        const auto command = dmq::parse(words, {}, /*in_shell=*/false);
        if (!command) return dmq::exit_yes;
        dmq::Context context(command->settings);
        return dmq::run(context, *command);
    });
    if (dmq::left_behind) std::_Exit(code);
    return code;
}
