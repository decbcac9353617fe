// dmq, the command-line client of the device cache.
#include "dmq/command.h"

int main(int argc, char **argv) {
    dmq::keep_stdout();
    return dmq::reporting("", [&] {
        const auto request = dmq::parse({argv + 1, argv + argc}, {}, /*in_shell=*/false);
        if (!request) return dmq::exit_yes;
        dmq::Context context(request->command.settings);
        return request->run(context, request->command);
    });
}
