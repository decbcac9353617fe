// Benchmarks that count for themselves, and a table of what they counted: the median of all repetitions, beside that of
// the bare subscriber.
#pragma once

#include <benchmark/benchmark.h>

#include <functional>
#include <map>
#include <string>
#include <vector>

namespace bench {

using Counters = benchmark::UserCounters;

// `name` is FIGURE/WHO; FIGURE/bare is the rival. Runs once a repetition; what it throws is told beside its name.
void add(const std::string &name, int repetitions, std::function<void(Counters &)> run);

struct Goal {
    enum Rule { at_most, times_at_most, times_at_least } rule;
    double value;
};

class Report : public benchmark::BenchmarkReporter {
public:
    using Name = std::pair<std::string, std::string>;  // a benchmark, and a counter of it

    explicit Report(std::map<Name, Goal> goals) : goals_(std::move(goals)) {}
    bool ReportContext(const Context &) override { return true; }
    void ReportRuns(const std::vector<Run> &runs) override;
    void Finalize() override;
    bool failed = false;

private:
    const std::map<Name, Goal> goals_;
    std::map<Name, std::vector<double>> values_;
};

}  // namespace bench
