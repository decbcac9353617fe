// Runs the benchmarks in an order that mixes their repetitions, so that whatever else the machine does meets all alike,
// and prints one table. Google Benchmark's options are understood: --benchmark_filter=push runs what has push in its
// name.
#include "bench/stores.h"

namespace bench {

// However much waits for a slow hearer: it is the hearer that is measured.
RedisServer &server() {
    static RedisServer only({"--client-output-buffer-limit", "pubsub 0 0 0"});
    static const bool loaded = (load(only.url()), only.restart(/*keep=*/true), true);
    (void)loaded;
    return only;
}

std::string mem_store() {
    static const bool loaded = (load("mem:bench"), true);
    (void)loaded;
    return "mem:bench";
}

}  // namespace bench

int main(int argc, char **argv) {
    using bench::Goal;
    char mixed[] = "--benchmark_enable_random_interleaving=true";
    std::vector<char *> arguments(argv, argv + argc);
    arguments.insert(arguments.begin() + 1, mixed);
    int count = static_cast<int>(arguments.size());
    benchmark::Initialize(&count, arguments.data());
    if (benchmark::ReportUnrecognizedArguments(count, arguments.data())) return 2;
    bench::add_scans();
    bench::add_pushes();
    bench::add_restarts();
    bench::add_caches();
    bench::Report report({{{"scan/redis", "ms"}, {Goal::times_at_most, 1.3}},
                          {{"push/redis", "us, median"}, {Goal::times_at_most, 1.2}},
                          {{"push/redis", "us, 99 of 100 within"}, {Goal::times_at_most, 1.5}},
                          {{"flood/redis", "pushes a second"}, {Goal::times_at_least, 0.8}},
                          {{"sets/redis", "pushes a second"}, {Goal::times_at_least, 0.8}},
                          {{"retry/redis", "ms after the loss"}, {Goal::at_most, 100}},
                          {{"restart/redis", "ms after the first answer"}, {Goal::at_most, 50}},
                          {{"outage/redis", "ms after the first answer"}, {Goal::at_most, 50}}});
    benchmark::RunSpecifiedBenchmarks(&report);
    return report.failed ? 1 : 0;
}
