// Tables of the library on the simulated platform, which costs next to nothing: life of a table,
// lookups under the read lock, start of an owner on a window with many tables.
#include <benchmark/benchmark.h>
#include <sys/mman.h>
#include <time.h>

#include <csignal>
#include <string>
#include <vector>

#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "ipv4/multicast/lib/ip6mc_table.h"
#include "tests/kit/child.h"
#include "tests/kit/library.h"
#include "tests/kit/run_dir.h"

namespace {

constexpr uint32_t many = 4000;

std::string name_of(uint32_t number) {
    return "customer-" + std::to_string(number * 7919 % 10007);
}

bool activate(uint32_t number) {
    ipv4mc_table_st *table = nullptr;
    return ip6mc_table_operation(IPV4MC_ACTION_ACTIVATE, number, number + 100000,
                                 name_of(number).c_str(), &table, 16) == 0;
}

bool activate_many(uint32_t count) {
    for (uint32_t number = 1; number <= count; ++number) {
        if (!activate(number)) {
            return false;
        }
    }
    return true;
}

// Create, activate and delete one VRF table and its TID table, beside `range` others.
void life_of_a_table(benchmark::State &state) {
    kit::run_dir dir;
    kit::library owner;
    if (!activate_many(static_cast<uint32_t>(state.range(0)))) {
        state.SkipWithError("cannot make the tables");
        return;
    }
    for (auto _ : state) {
        ipv4mc_table_st *table = nullptr;
        ip6mc_table_operation(IPV4MC_ACTION_CREATE, 0, 99999, "comes-and-goes", &table, 16);
        ip6mc_table_operation(IPV4MC_ACTION_ACTIVATE, 99999, 99999, "comes-and-goes", &table, 16);
        ip6mc_table_operation(IPV4MC_ACTION_DELETE, 0, 0, nullptr, &table, 16);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(life_of_a_table)->Arg(0)->Arg(many);

void lookup_by_id(benchmark::State &state) {
    kit::run_dir dir;
    kit::library owner;
    activate_many(many);
    uint32_t number = 0;
    for (auto _ : state) {
        number = number % many + 1;
        benchmark::DoNotOptimize(ip6mc_table_lookup_by_tbl_id(number));
    }
}
BENCHMARK(lookup_by_id);

void lookup_by_name(benchmark::State &state) {
    kit::run_dir dir;
    kit::library owner;
    activate_many(many);
    std::vector<std::string> names;
    for (uint32_t number = 1; number <= many; ++number) {
        names.push_back(name_of(number));
    }
    size_t next = 0;
    for (auto _ : state) {
        ipv4mc_table_st *table = nullptr;
        ip6mc_table_operation(2, 0, 0, names[next].c_str(), &table, 0);
        benchmark::DoNotOptimize(table);
        next = (next + 1) % names.size();
    }
}
BENCHMARK(lookup_by_name);

double seconds_now() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

// ip6mc_lib_init in a process of its own, on the window of an owner that was killed.
void start_of_an_owner(benchmark::State &state) {
    kit::run_dir dir;
    const auto count = static_cast<uint32_t>(state.range(0));
    kit::child maker([count](const kit::post &parent) {
        if (kit::start_library() != 0 || !activate_many(count)) {
            return 1;
        }
        parent.tell();
        parent.hear();
        return 0;
    });
    if (maker.hear() == 0) {
        state.SkipWithError("cannot make the tables");
        return;
    }
    maker.kill();
    auto *taken = static_cast<double *>(
        mmap(nullptr, sizeof(double), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    for (auto _ : state) {
        kit::child next([taken](const kit::post &) {
            const double before = seconds_now();
            const cerrno rc = kit::start_library();
            *taken = seconds_now() - before;
            return rc == 0 ? 0 : 1;
        });
        if (next.wait() != 0) {
            state.SkipWithError("no start");
            break;
        }
        state.SetIterationTime(*taken);
    }
    munmap(taken, sizeof(double));
}
BENCHMARK(start_of_an_owner)
    ->Arg(0)
    ->Arg(many)
    ->UseManualTime()
    ->Iterations(20)
    ->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
