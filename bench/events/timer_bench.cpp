// Timers: nanoseconds to start one anew while as many run as the argument says. Clock: one reading.
#include <benchmark/benchmark.h>

#include <random>
#include <vector>

#include "services/events/ptimer.h"
#include "services/events/timer.h"

namespace {

void never(mgd_timer_leaf_t *, void *) {}

void restart(benchmark::State &state) {
    event_manager_t *evm = nullptr;
    event_manager_create(&evm);
    const uint32_t handle = event_timer_attach(evm, EVENT_TIMER_ONE_SHOT, never, nullptr);
    std::minstd_rand random(1);
    std::vector<mgd_timer_leaf_t *> leaves(static_cast<size_t>(state.range(0)));
    const auto start = [&](mgd_timer_leaf_t *leaf) {
        const timespec period{60 + static_cast<time_t>(random() % 600), 0};
        mgd_timer_leaf_start(leaf, &period);
    };
    for (mgd_timer_leaf_t *&leaf : leaves) {
        leaf = event_timer_leaf_new(evm, handle, nullptr);
        start(leaf);
    }
    for (auto _ : state) {
        start(leaves[random() % leaves.size()]);
    }
    event_manager_destroy(evm);
}

void read_clock(benchmark::State &state) {
    timespec now{};
    for (auto _ : state) {
        ptimer_gettime(&now);
        benchmark::DoNotOptimize(now);
    }
}

BENCHMARK(restart)->Arg(100)->Arg(100000);
BENCHMARK(read_clock);

}  // namespace

BENCHMARK_MAIN();
