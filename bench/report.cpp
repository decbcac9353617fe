// The table.
#include "bench/report.h"

#include <algorithm>
#include <cstdio>

namespace bench {

namespace {

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return (values[values.size() / 2] + values[(values.size() - 1) / 2]) / 2;
}

std::string verdict(const Goal &goal, double value, double times) {
    const bool least = goal.rule == Goal::times_at_least, absolute = goal.rule == Goal::at_most;
    const double reached = absolute ? value : times;
    const bool met = least ? reached >= goal.value : reached <= goal.value;
    char text[64];
    std::snprintf(text, sizeof text, "%s %g%s: %s", least ? "at least" : "at most", goal.value, absolute ? "" : "x",
                  met ? "met" : "MISSED");
    return text;
}

}  // namespace

void add(const std::string &name, int repetitions, std::function<void(Counters &)> run) {
    const auto once = [run = std::move(run)](benchmark::State &state) {
        for ([[maybe_unused]] auto _ : state) {
            try {
                run(state.counters);
            } catch (const std::exception &error) {
                state.SkipWithError(error.what());
            }
        }
    };
    benchmark::RegisterBenchmark(name.c_str(), once)->Iterations(1)->Repetitions(repetitions);
}

void Report::ReportRuns(const std::vector<Run> &runs) {
    for (const Run &run : runs) {
        if (run.run_type != Run::RT_Iteration) continue;
        if (run.error_occurred) std::printf("%s: %s\n", run.benchmark_name().c_str(), run.error_message.c_str());
        failed = failed || run.error_occurred;
        for (const auto &[name, counter] : run.counters) {
            if (!run.error_occurred) values_[{run.run_name.function_name, name}].push_back(counter.value);
        }
    }
}

void Report::Finalize() {
    std::printf("%-14s %-28s %10s %10s %10s %4s %6s  %s\n", "FIGURE", "WHAT", "MEDIAN", "LEAST", "MOST", "RUNS",
                "X BARE", "GOAL");
    for (const auto &[name, values] : values_) {
        const auto &[benchmark, counter] = name;
        const auto [least, most] = std::minmax_element(values.begin(), values.end());
        const auto rival = values_.find({benchmark.substr(0, benchmark.rfind('/')) + "/bare", counter});
        const double times = rival == values_.end() ? 0 : median(values) / median(rival->second);
        const auto goal = goals_.find(name);
        char shown[16] = "";
        if (times > 0) std::snprintf(shown, sizeof shown, "%.2f", times);
        std::printf("%-14s %-28s %10.4g %10.4g %10.4g %4zu %6s  %s\n", benchmark.c_str(), counter.c_str(),
                    median(values), *least, *most, values.size(), shown,
                    goal == goals_.end() ? "" : verdict(goal->second, median(values), times).c_str());
    }
}

}  // namespace bench
