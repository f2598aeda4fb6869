// What the simulated platform itself costs, so that benchmarks of the library can subtract it.
// Workload: (S,G) routes of one table, each with one interface; lookups and packets in random
// order.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <random>

#include "ipv4/multicast/lib/ip6mc_diag.h"
#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "ipv4/multicast/lib/ip6mc_route.h"
#include "ipv4/multicast/lib/ip6mc_table.h"
#include "platforms/sim/sim.h"

// Stands for the library: no benchmark here reports an asynchronous error or arms a fault.
cerrno ipmc_platform_async_err_handler(uint64_t, uint32_t, cerrno, uint32_t, uint32_t, void *) {
    std::abort();
}

fim_handle mlib_fim_hdl = nullptr;

namespace {

ipv4mc_table_st table;

ip_maddr_st numbered(uint8_t top, uint32_t n) {
    ip_maddr_st a = {};
    a.bytes[0] = top;
    a.bytes[12] = static_cast<uint8_t>(n >> 24);
    a.bytes[13] = static_cast<uint8_t>(n >> 16);
    a.bytes[14] = static_cast<uint8_t>(n >> 8);
    a.bytes[15] = static_cast<uint8_t>(n);
    return a;
}

void name(ipv4mc_route_entry_st &record, uint32_t n) {
    record.source = numbered(0x20, n);
    record.group = numbered(0xff, n % 1024);
    record.pfx_len = 256;
    record.table = &table;
}

void act(uint32_t action, ipv4mc_route_entry_st &record, int is_new) {
    ipv4mc_route_entry_st *p = &record;
    if (ip6mc_platform_route_operation(action, &table, &record.source, &record.group, 256, &p, 0, 0,
                                       is_new) != 0) {
        std::abort();
    }
}

void act(uint32_t action, ipv4mc_route_entry_st &record, ipv4mc_intf_entry_st &e, int is_new) {
    ipv4mc_intf_entry_st *p = &e;
    if (ip6mc_platform_intf_operation(action, &table, &record, e.ifh, 0, &p, nullptr, 0, 0,
                                      is_new) != 0) {
        std::abort();
    }
}

ipv4mc_intf_entry_st leg() {
    ipv4mc_intf_entry_st e = {};
    e.ifh = e.key_ifh = 5;
    e.attributes = MRIB_INTF_ACCEPT | MRIB_INTF_FORWARD;
    return e;
}

void load(uint32_t routes) {
    sim_reset();
    table.tid = 1;
    ipv4mc_intf_entry_st e = leg();
    for (uint32_t n = 0; n < routes; ++n) {
        ipv4mc_route_entry_st record = {};
        name(record, n);
        act(IPV4MC_ACTION_CREATE, record, e, 1);
        act(IPV4MC_ACTION_COMMIT, record, e, 1);
        act(IPV4MC_ACTION_COMMIT, record, 1);
    }
}

// Programs all routes, empty hardware to full: three calls for each.
void program(benchmark::State &state) {
    const auto routes = static_cast<uint32_t>(state.range(0));
    for (auto _ : state) {
        load(routes);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
    sim_reset();
}
BENCHMARK(program)->Arg(1000)->Arg(1000000)->Unit(benchmark::kMillisecond);

// Commits a route that is held, at random.
void commit_again(benchmark::State &state) {
    const auto routes = static_cast<uint32_t>(state.range(0));
    load(routes);
    if (state.range(1) != 0 && sim_log_on(1 << 16) != 0) {
        std::abort();
    }
    std::mt19937 random(1);
    ipv4mc_route_entry_st record = {};
    for (auto _ : state) {
        name(record, static_cast<uint32_t>(random()) % routes);
        act(IPV4MC_ACTION_COMMIT, record, 0);
    }
    state.SetItemsProcessed(state.iterations());
    sim_reset();
}
BENCHMARK(commit_again)
    ->ArgNames({"routes", "log"})
    ->Args({1000, 0})
    ->Args({1000, 1})
    ->Args({1000000, 0})
    ->Args({1000000, 1});

// One packet through the hardware, at random.
void forward(benchmark::State &state) {
    const auto routes = static_cast<uint32_t>(state.range(0));
    load(routes);
    std::mt19937 random(1);
    ifhtype out[4];
    sim_packet packet = {};
    packet.tid = 1;
    packet.ifh = 5;
    packet.room = 4;
    packet.out = out;
    for (auto _ : state) {
        const uint32_t n = static_cast<uint32_t>(random()) % routes;
        packet.source = numbered(0x20, n);
        packet.group = numbered(0xff, n % 1024);
        sim_forward(&packet);
        benchmark::DoNotOptimize(packet.verdict);
    }
    state.SetItemsProcessed(state.iterations());
    sim_reset();
}
BENCHMARK(forward)->Arg(1000)->Arg(1000000);

// Lists all that is held.
void enumerate(benchmark::State &state) {
    load(static_cast<uint32_t>(state.range(0)));
    uint64_t seen = 0;
    for (auto _ : state) {
        ip6mc_platform_enumerate(
            IP6MC_PLATFORM_KINDS,
            [](const ip6mc_platform_held_st *, void *context) -> cerrno {
                ++*static_cast<uint64_t *>(context);
                return 0;
            },
            &seen);
    }
    state.SetItemsProcessed(static_cast<int64_t>(seen));
    sim_reset();
}
BENCHMARK(enumerate)->Arg(1000000)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
