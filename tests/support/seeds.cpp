// Runs seeds in processes of their own.
#include "tests/support/seeds.h"

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <span>
#include <string>

namespace {

SeedProgram program;
long runs = 1, first = 1, current_seed = 0;
bool trace = false;

// Shared by the processes of all runs, which have their literals at the same place; never freed.
struct Total {
    std::atomic<const char *> name;
    std::atomic<long> number;
};
std::span<Total> totals;

long run_all() {
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
    for (long seed = first; seed < first + runs; ++seed) {
        if (running.size() >= program.at_a_time) wait_for_one();
        std::fflush(nullptr);
        const pid_t child = fork();
        if (child < 0) fail("cannot start a process");
        if (child == 0) {
            current_seed = seed;
            program.run(static_cast<uint64_t>(seed), program.size, trace);
            std::exit(0);
        }
        running[child] = seed;
    }
    while (!running.empty()) wait_for_one();
    return failed;
}

bool read_options(int argc, char **argv) {
    const std::map<std::string, long *> numbers = {{"--runs", &runs},
                                                   {std::string("--") + program.size_name, &program.size},
                                                   {"--first", &first},
                                                   {"--seed", &first}};
    for (int i = 1; i < argc; ++i) {
        if (std::string("--trace") == argv[i]) {
            trace = true;
            continue;
        }
        const auto option = numbers.find(argv[i]);
        if (option == numbers.end() || ++i == argc || (*option->second = std::atol(argv[i])) < 1) return false;
    }
    return true;
}

}  // namespace

int run_seeds(const SeedProgram &started, int argc, char **argv) {
    program = started;
    if (!read_options(argc, argv)) {
        std::fprintf(stderr, "usage: %s [--runs N] [--%s M] [--first SEED | --seed SEED] [--trace]\n", program.name,
                     program.size_name);
        return 2;
    }
    void *shared = mmap(nullptr, 16 * sizeof(Total), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    totals = {static_cast<Total *>(shared), 16};
    const long failed = run_all();
    std::printf("%ld runs, %ld failed\n", runs, failed);
    for (const auto &[name, number] : totals)
        if (name) std::printf("  %ld %s\n", number.load(), name.load());
    return failed ? 1 : 0;
}

void count(const char *what, long more) {
    for (auto &[name, number] : totals) {
        const char *taken = nullptr;
        if (!name.compare_exchange_strong(taken, what) && taken != what) continue;
        number += more;
        return;
    }
    fail("more than %zu totals", totals.size());
}

void fail(const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    std::fflush(stdout);
    std::fprintf(stderr, "seed %ld: ", current_seed);
    std::vfprintf(stderr, format, arguments);
    std::fprintf(stderr, "\n    replay: %s --seed %ld --%s %ld --trace\n", program.name, current_seed,
                 program.size_name, program.size);
    va_end(arguments);
    _exit(1);
}
