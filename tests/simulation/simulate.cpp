// Runs simulations, as many at a time as there are processors; a run is long by its steps.
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <thread>

#include "tests/simulation/world.h"
#include "tq_dm_cache/dm_cache_status.h"

namespace {

Totals &sum = shared_by_runs<Totals>();

void run(long seed, long steps, bool trace) {
    alarm(60);
    World world(static_cast<uint64_t>(seed), trace);
    for (long step = 0; step < steps; ++step) {
        world.step();
        if (world.random.below(80) == 0) world.check_at_rest();
    }
    world.check_at_rest();
    for (int32_t row = 0; row < obj_sub_list_max; ++row) {
        dm_cache_stats stats{};
        dm_cache_get_stats(row, &stats, sizeof stats);
        world.totals[swept] += stats.swept;
    }
    for (size_t i = 0; i < total_count; ++i) __atomic_fetch_add(&sum[i], world.totals[i], __ATOMIC_RELAXED);
}

}  // namespace

int main(int argc, char **argv) {
    const unsigned at_a_time = std::max(1U, std::thread::hardware_concurrency());
    const int result = run_seeds({"simulate", "steps", 500, at_a_time, run}, argc, argv);
    for (size_t i = 0; result != 2 && i < total_count; ++i)
        std::printf("  %lld %s\n", static_cast<long long>(sum[i]), total_names[i]);
    return result;
}
