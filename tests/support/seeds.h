// Programs that search: one seed is one run in a process of its own, since the library lives as long as its process.
//
//   PROGRAM --runs 2000 --SIZE 500 --first 1    many seeds
//   PROGRAM --seed 17 --SIZE 500 --trace        one seed, with everything that happens
#pragma once

#include <cstdint>

struct SeedProgram {
    const char *name;
    const char *size_name;  // of what a run is long by: "steps"
    long size;              // unless given
    unsigned at_a_time;
    void (*run)(uint64_t seed, long size, bool trace);
};

// Prints how many runs failed, and what was counted: 0 when none failed, 1, or 2 for a wrong command line.
int run_seeds(const SeedProgram &program, int argc, char **argv);

// Adds to what all runs did: each literal is a total of its own, at most 16. Any thread.
void count(const char *what, long more = 1);

// Ends a run: says why, and how to see it again.
[[noreturn]] void fail(const char *format, ...) __attribute__((format(printf, 1, 2)));
