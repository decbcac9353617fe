#ifndef TQ_DM_TESTS_SEEDS_H
#define TQ_DM_TESTS_SEEDS_H

// Programs that search: one seed is one run in a process of its own, since the library lives as long as its process.
//
//   PROGRAM --runs 2000 --SIZE 500 --first 1    many seeds
//   PROGRAM --seed 17 --SIZE 500 --trace        one seed, with everything that happens

#include <sys/mman.h>

#include <new>

struct SeedProgram {
    const char *name;
    const char *size_name;  // of what a run is long by: "steps"
    long size;              // unless given
    unsigned at_a_time;
    void (*run)(long seed, long size, bool trace);
};

// Returns when every run has ended: 0 when none failed, 1, or 2 for a wrong command line. Prints how many failed.
int run_seeds(const SeedProgram &program, int argc, char **argv);

// Ends a run: says why, and how to see it again.
[[noreturn]] void fail(const char *format, ...) __attribute__((format(printf, 1, 2)));

// What the processes of all runs share; never freed.
template <class T> T &shared_by_runs() {
    return *new (mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)) T{};
}

#endif
