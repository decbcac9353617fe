#ifndef TQ_DM_TESTS_SEEDS_H
#define TQ_DM_TESTS_SEEDS_H

// Programs that search: one seed is one run in a process of its own, since the library lives as long as its process.
//
//   PROGRAM --runs 2000 --SIZE 500 --first 1    many seeds
//   PROGRAM --seed 17 --SIZE 500 --trace        one seed, with everything that happens

#include <cstddef>
#include <cstdint>
#include <vector>

struct SeedProgram {
    const char *name;
    const char *size_name;  // of what a run is long by: "steps"
    long size;              // unless given
    size_t at_a_time;
    std::vector<const char *> totals;  // what is counted
    void (*run)(uint64_t seed, long size, bool trace);
};

// Returns when every run has ended: 0 when none failed, 1, or 2 for a wrong command line. Prints how many failed, and the
// totals.
int run_seeds(const SeedProgram &program, int argc, char **argv);

// Adds to one of the totals of all runs, by its place. Any thread.
void count(size_t total, long more = 1);

// Ends a run: says why, and how to see it again.
[[noreturn]] void fail(const char *format, ...) __attribute__((format(printf, 1, 2)));

#endif
