// Runs simulations: one seed is one run in a process of its own, since the library lives as long as its process.
//
//   simulate --runs 2000 --steps 500 --first 1    many seeds, as many at a time as there are processors
//   simulate --seed 17 --steps 500 --trace        one seed, with everything that happens
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <new>
#include <thread>

#include "simulation/world.h"

namespace {

struct Options {
    long runs = 1, steps = 500, first = 1;
    bool trace = false;
};

Options options;
long current_seed = 0;

void run(long seed, Totals *sum) {
    current_seed = seed;
    alarm(60);
    World world(static_cast<uint64_t>(seed), options.trace);
    for (long step = 0; step < options.steps; ++step) {
        world.step();
        if (world.random.below(80) == 0) world.check_at_rest();
    }
    world.check_at_rest();
    for (const uint32_t n : world.missed_sweeps) world.totals[swept] += n;
    for (size_t i = 0; i < total_count; ++i) __atomic_fetch_add(&(*sum)[i], world.totals[i], __ATOMIC_RELAXED);
}

// The number of runs that failed.
long run_all(Totals *sum) {
    std::map<pid_t, long> running;
    long failed = 0;
    const auto wait_for_one = [&] {
        int status = 0;
        const pid_t child = wait(&status);
        if (WIFSIGNALED(status))
            std::fprintf(stderr, "seed %ld: ended by signal %d\n", running[child], WTERMSIG(status));
        if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) ++failed;
        running.erase(child);
    };
    for (long seed = options.first; seed < options.first + options.runs; ++seed) {
        if (running.size() >= std::max(1U, std::thread::hardware_concurrency())) wait_for_one();
        std::fflush(nullptr);
        const pid_t child = fork();
        if (child < 0) fail("cannot start a process");
        if (child == 0) {
            run(seed, sum);
            std::exit(0);
        }
        running[child] = seed;
    }
    while (!running.empty()) wait_for_one();
    return failed;
}

bool read_options(int argc, char **argv) {
    const std::map<std::string_view, long *> numbers = {{"--runs", &options.runs},
                                                        {"--steps", &options.steps},
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

void fail(const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    std::fflush(stdout);
    std::fprintf(stderr, "seed %ld: ", current_seed);
    std::vfprintf(stderr, format, arguments);
    std::fprintf(stderr, "\n    replay: simulate --seed %ld --steps %ld --trace\n", current_seed, options.steps);
    va_end(arguments);
    _exit(1);
}

int main(int argc, char **argv) {
    if (!read_options(argc, argv)) {
        std::fprintf(stderr, "usage: simulate [--runs N] [--steps M] [--first SEED | --seed SEED] [--trace]\n");
        return 2;
    }
    void *shared = mmap(nullptr, sizeof(Totals), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    auto *sum = new (shared) Totals{};
    const long failed = run_all(sum);
    std::printf("%ld runs, %ld failed\n", options.runs, failed);
    for (size_t i = 0; i < total_count; ++i)
        std::printf("  %lld %s\n", static_cast<long long>((*sum)[i]), total_names[i]);
    return failed ? 1 : 0;
}
