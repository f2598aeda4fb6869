// What diagnostics cost where nothing goes wrong: a trace record, a class that is off, a fault
// point that is not armed; and an error report's two steps that are never off.
#include <benchmark/benchmark.h>

#include "services/diag/debug.h"
#include "services/diag/fault.h"
#include "services/diag/trace.h"

namespace {

void trace_record(benchmark::State &state) {
    ltrace_handle *handle = ip6mc_mlib_eve_ltrace();
    uint64_t i = 0;
    for (auto _ : state) {
        _ltrace_3(handle, 0x10, i, i, i);
        ++i;
    }
}
BENCHMARK(trace_record)->Threads(1)->Threads(2);

void trace_text(benchmark::State &state) {
    for (auto _ : state) {
        _lstrace(ip6mc_mlib_err_ltrace(), 0x10, nullptr,
                 "ERR: ipv4_mlib_buginf_err: Multicast library Not ready\n");
    }
}
BENCHMARK(trace_text);

void traceback(benchmark::State &state) {
    traceback_record record;
    for (auto _ : state) {
        traceback_v2(&record, 5);
        benchmark::DoNotOptimize(record);
    }
}
BENCHMARK(traceback);

void debug_class_off(benchmark::State &state) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(ipv4_debug_event_active(5));
    }
}
BENCHMARK(debug_class_off);

void debug_class_off_inline(benchmark::State &state) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(ipv4_debug_event_active_inline(5));
    }
}
BENCHMARK(debug_class_off_inline);

void fault_point_not_armed(benchmark::State &state) {
    static const char points[1][fim_text_size] = {"point"};
    fim_handle handle = nullptr;
    fim_register("bench", points, 1, 0, &handle, nullptr);
    for (auto _ : state) {
        benchmark::DoNotOptimize(fim_armed(handle, 0));
    }
}
BENCHMARK(fault_point_not_armed);

}  // namespace

BENCHMARK_MAIN();
