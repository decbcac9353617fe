// Runs faults: one seed is one run in a process of its own, since the library lives as long as its process.
//
//   faults --runs 10 --cycles 10 --first 1     many seeds, one after the other
//   faults --seed 17 --cycles 10 --trace       one seed, with everything that happens
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <new>

#include "faults/world.h"

namespace {

struct Options {
    long runs = 1, cycles = 10, first = 1;
    bool trace = false;
};

Options options;
long current_seed = 0;

void run(long seed, Totals &sum) {
    current_seed = seed;
    alarm(static_cast<unsigned>(60 + 30 * options.cycles));
    World world(static_cast<uint64_t>(seed), options.trace);
    for (long i = 0; i < options.cycles; i++) world.cycle();
    const Totals done = world.end();
    sum = {sum.cycles + done.cycles,
           sum.writes + done.writes,
           sum.refused_writes + done.refused_writes,
           sum.losses + done.losses,
           sum.same_server + done.same_server,
           sum.other_server + done.other_server,
           std::max(sum.objects, done.objects)};
}

bool run_in_a_process(long seed, Totals &sum) {
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child < 0) fail("cannot start a process");
    if (child == 0) {
        run(seed, sum);
        std::exit(0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    if (WIFSIGNALED(status)) std::fprintf(stderr, "seed %ld: ended by signal %d\n", seed, WTERMSIG(status));
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

bool read_options(int argc, char **argv) {
    const std::map<std::string_view, long *> numbers = {{"--runs", &options.runs},
                                                        {"--cycles", &options.cycles},
                                                        {"--first", &options.first},
                                                        {"--seed", &options.first}};
    for (int i = 1; i < argc; ++i) {
        if (std::string_view(argv[i]) == "--trace") {
            options.trace = true;
            continue;
        }
        const auto option = numbers.find(argv[i]);
        if (option == numbers.end() || ++i == argc || (*option->second = std::atol(argv[i])) < 1) return false;
    }
    return true;
}

}  // namespace

void fail(const std::string &why) {
    std::fflush(stdout);
    std::fprintf(stderr, "seed %ld: %s\n    replay: faults --seed %ld --cycles %ld --trace\n", current_seed,
                 why.c_str(), current_seed, options.cycles);
    _exit(1);
}

int main(int argc, char **argv) {
    if (!read_options(argc, argv)) {
        std::fprintf(stderr, "usage: faults [--runs N] [--cycles M] [--first SEED | --seed SEED] [--trace]\n");
        return 2;
    }
    void *shared = mmap(nullptr, sizeof(Totals), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    Totals &sum = *new (shared) Totals;
    long failed = 0;
    for (long i = 0; i < options.runs; i++) failed += !run_in_a_process(options.first + i, sum);
    std::printf(
        "%ld runs, %ld failed: %ld cycles, %ld writes (%ld while cut off), %ld connections lost, back on the same "
        "server %ld times, on another %ld times; %ld objects in the largest row\n",
        options.runs, failed, sum.cycles, sum.writes, sum.refused_writes, sum.losses, sum.same_server, sum.other_server,
        sum.objects);
    return failed ? 1 : 0;
}
