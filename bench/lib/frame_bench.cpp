// The frame of the library on the simulated platform: starts, platform calls through their wrapper,
// reports, the typed allocator.
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "ipv4/multicast/lib/ip6mc_platform_wrappers.h"
#include "ipv4/multicast/lib/ip6mc_table.h"
#include "platforms/sim/sim.h"
#include "services/diag/debug.h"
#include "services/diag/run_dir.h"
#include "services/window/setup.h"

namespace {

cerrno start() {
    return ip6mc_lib_init(nullptr, nullptr, 0, 7, 8, 0xe0800000, 0x60000000, 2, nullptr, nullptr,
                          nullptr, nullptr, 0);
}

// A folder of its own for the windows of one benchmark.
class run_dir {
  public:
    run_dir() {
        char folder[] = "/dev/shm/mfwd6-bench-XXXXXX";
        if (mkdtemp(folder) == nullptr) {
            abort();
        }
        path_ = folder;
        shmwin_set_run_dir(path_.c_str());
        diag_set_run_dir(path_.c_str());
    }
    ~run_dir() { std::filesystem::remove_all(path_); }
    run_dir(const run_dir &) = delete;
    run_dir &operator=(const run_dir &) = delete;

    void remove_window() const { std::filesystem::remove(path_ + "/mfwdv6"); }

  private:
    std::string path_;
};

// A started library, and one table in it.
class library {
  public:
    library() {
        if (start() != 0 ||
            ip6mc_table_operation(IPV4MC_ACTION_ACTIVATE, 5, 6, "red", &table, 16) != 0) {
            abort();
        }
    }
    ~library() { ip6mc_lib_terminate(0, IPV4MC_TERMINATE_END); }
    library(const library &) = delete;
    library &operator=(const library &) = delete;

    ipv4mc_table_st *table = nullptr;

  private:
    run_dir dir_;
};

void start_on_a_new_window(benchmark::State &state) {
    const run_dir dir;
    for (auto _ : state) {
        state.PauseTiming();
        dir.remove_window();
        state.ResumeTiming();
        if (start() != 0) {
            state.SkipWithError("no start");
            break;
        }
        state.PauseTiming();
        ip6mc_lib_terminate(0, IPV4MC_TERMINATE_END);
        state.ResumeTiming();
    }
}
BENCHMARK(start_on_a_new_window)->Unit(benchmark::kMillisecond);

void start_on_an_empty_window(benchmark::State &state) {
    const run_dir dir;
    for (auto _ : state) {
        if (start() != 0) {
            state.SkipWithError("no start");
            break;
        }
        state.PauseTiming();
        ip6mc_lib_terminate(0, IPV4MC_TERMINATE_END);
        state.ResumeTiming();
    }
}
BENCHMARK(start_on_an_empty_window)->Unit(benchmark::kMillisecond);

void platform_call_direct(benchmark::State &state) {
    library lib;
    for (auto _ : state) {
        benchmark::DoNotOptimize(
            ip6mc_platform_table_operation(IPV4MC_ACTION_COMMIT, 5, 6, "red", &lib.table, 0));
    }
}
BENCHMARK(platform_call_direct);

void platform_call_through_wrapper(benchmark::State &state) {
    library lib;
    for (auto _ : state) {
        benchmark::DoNotOptimize(ip6mc_platform_table_operation_wrapper(IPV4MC_ACTION_COMMIT, 5, 6,
                                                                        "red", &lib.table, 0));
    }
}
BENCHMARK(platform_call_through_wrapper);

void error_report(benchmark::State &state) {
    const library lib;
    for (auto _ : state) {
        benchmark::DoNotOptimize(ip6mc_get_state(nullptr, nullptr));
    }
}
BENCHMARK(error_report);

void error_report_with_its_line(benchmark::State &state) {
    const library lib;
    ipv4_debug_set_sink([](void *, uint32_t, const char *, const char *) {}, nullptr);
    ipv4_debug_switch(nullptr, 1, 0);
    for (auto _ : state) {
        benchmark::DoNotOptimize(ip6mc_get_state(nullptr, nullptr));
    }
    ipv4_debug_switch(nullptr, 0, 1);
    ipv4_debug_set_sink(nullptr, nullptr);
}
BENCHMARK(error_report_with_its_line);

void allocate_and_free(benchmark::State &state) {
    const library lib;
    ip6mc_shmwin_buffer_status(state.range(1) != 0 ? 1 : 0);
    const auto size = static_cast<size_t>(state.range(0));
    for (auto _ : state) {
        void *block = ipv4mc_shmwin_malloc_inline(size, IPMC_SHMWIN_ALLOC_INTF);
        benchmark::DoNotOptimize(block);
        ipv4mc_shmwin_free_inline(block, IPMC_SHMWIN_ALLOC_INTF);
    }
    state.SetLabel(state.range(1) != 0 ? "pool" : "service");
}
BENCHMARK(allocate_and_free)->Args({256, 1})->Args({256, 0});

}  // namespace

BENCHMARK_MAIN();
