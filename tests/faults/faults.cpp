// Runs faults, one seed after the other; a run is long by its cycles.
#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "tests/faults/world.h"

namespace {

Totals &sum = shared_by_runs<Totals>();

void run(long seed, long cycles, bool trace) {
    alarm(static_cast<unsigned>(60 + 30 * cycles));
    World world(static_cast<uint64_t>(seed), trace);
    for (long i = 0; i < cycles; i++) world.cycle();
    const Totals done = world.end();
    sum = {sum.cycles + done.cycles,
           sum.writes + done.writes,
           sum.refused_writes + done.refused_writes,
           sum.losses + done.losses,
           sum.same_server + done.same_server,
           sum.other_server + done.other_server,
           std::max(sum.objects, done.objects)};
}

}  // namespace

int main(int argc, char **argv) {
    const int result = run_seeds({"faults", "cycles", 10, /*at_a_time=*/1, run}, argc, argv);
    if (result == 2) return result;
    std::printf(
        "  %ld cycles, %ld writes (%ld while cut off or refused), %ld connections lost, back on the same server %ld "
        "times, on "
        "another "
        "%ld times; %ld objects in the largest row\n",
        sum.cycles, sum.writes, sum.refused_writes, sum.losses, sum.same_server, sum.other_server, sum.objects);
    return result;
}
