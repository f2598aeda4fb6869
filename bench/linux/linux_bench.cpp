// The Linux platform: a route through the library against the kernel call alone, and the restart of
// an owner with many routes in the kernel. Runs in a network namespace of its own; needs root or
// user namespaces.
#include <benchmark/benchmark.h>
#include <linux/mroute6.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstring>

#include "tests/platforms/linux/router.h"

namespace {

ip_maddr_st group_of(uint32_t number) {
    ip_maddr_st group = net::address("ff3e::");
    const uint32_t low = htonl(number + 1);
    std::memcpy(group.bytes + 12, &low, sizeof(low));
    return group;
}

// The namespace and the links, once for the program.
const std::string &why_not() {
    static const std::string why = net::enter_namespace();
    static net::network *links = why.empty() ? new net::network({1, 2, 3, 4}) : nullptr;
    benchmark::DoNotOptimize(links);
    return why;
}

// ---- the kernel alone ---------------------------------------------------------------------------

int bare_table(uint32_t outputs) {
    const int fd = socket(AF_INET6, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_ICMPV6);
    const uint32_t table = 300;
    const int on = 1;
    setsockopt(fd, IPPROTO_IPV6, MRT6_TABLE, &table, sizeof(table));
    setsockopt(fd, IPPROTO_IPV6, MRT6_INIT, &on, sizeof(on));
    for (uint32_t n = 0; n <= outputs; ++n) {
        mif6ctl mif = {};
        mif.mif6c_mifi = static_cast<mifi_t>(n);
        mif.mif6c_pifi = static_cast<uint16_t>(net::network::handle(n + 1));
        setsockopt(fd, IPPROTO_IPV6, MRT6_ADD_MIF, &mif, sizeof(mif));
    }
    return fd;
}

void BareAddMfc(benchmark::State &state) {
    if (!why_not().empty()) {
        state.SkipWithError(why_not().c_str());
        return;
    }
    const int fd = bare_table(static_cast<uint32_t>(state.range(0)));
    const ip_maddr_st source = net::address("2001:db8::1");
    uint32_t number = 0;
    for (auto _ : state) {
        const ip_maddr_st group = group_of(number++);
        mf6cctl entry = {};
        entry.mf6cc_origin.sin6_family = entry.mf6cc_mcastgrp.sin6_family = AF_INET6;
        std::memcpy(&entry.mf6cc_origin.sin6_addr, &source, 16);
        std::memcpy(&entry.mf6cc_mcastgrp.sin6_addr, &group, 16);
        entry.mf6cc_ifset.ifs_bits[0] = ((2U << state.range(0)) - 1) & ~1U;
        if (setsockopt(fd, IPPROTO_IPV6, MRT6_ADD_MFC, &entry, sizeof(entry)) != 0) {
            state.SkipWithError("MRT6_ADD_MFC");
            break;
        }
    }
    close(fd);
}

// ---- through the library ------------------------------------------------------------------------

cerrno add_route(ipv4mc_table_st *table, const ip_maddr_st &source, const ip_maddr_st &group,
                 uint32_t outputs) {
    ipv4mc_route_entry_st *route = nullptr;
    int is_new = 0;
    cerrno failed = ip6mc_route_operation(IPV4MC_ACTION_CREATE, table, &source, &group, 256,
                                          nullptr, &route, 0, 0, &is_new);
    for (uint32_t n = 0; failed == 0 && n <= outputs; ++n) {
        const ifhtype ifh = net::network::handle(n + 1);
        ipv4mc_intf_entry_st *entry = nullptr;
        failed = ip6mc_intf_operation(IPV4MC_ACTION_CREATE, table, route, IPV4MC_INTF_ORDINARY, ifh,
                                      0, 0, 0, &entry, nullptr, 0, 0, 1);
        if (failed == 0) {
            entry->attributes = n == 0 ? MRIB_INTF_ACCEPT : MRIB_INTF_FORWARD;
            failed = ip6mc_intf_operation(IPV4MC_ACTION_COMMIT, table, route, IPV4MC_INTF_ORDINARY,
                                          ifh, 0, 0, 0, &entry, nullptr, 0, 0, 1);
        }
    }
    return failed != 0 ? failed
                       : ip6mc_route_operation(IPV4MC_ACTION_COMMIT, table, &source, &group, 256,
                                               nullptr, &route, 0, 0, &is_new);
}

void LibraryAdd(benchmark::State &state) {
    if (!why_not().empty()) {
        state.SkipWithError(why_not().c_str());
        return;
    }
    kit::run_dir dir;
    bed::sockets keeper;
    keeper.use();
    bed::owner o(dir.path());
    ipv4mc_table_st *table = o.table();
    const ip_maddr_st source = net::address("2001:db8::1");
    uint32_t number = 0;
    for (auto _ : state) {
        if (add_route(table, source, group_of(number++), static_cast<uint32_t>(state.range(0))) !=
            0) {
            state.SkipWithError("route refused");
            break;
        }
    }
}

// Start of the library and resynchronisation of an owner whose kernel and window hold the routes.
void RestartAndResync(benchmark::State &state) {
    if (!why_not().empty()) {
        state.SkipWithError(why_not().c_str());
        return;
    }
    kit::run_dir dir;
    bed::sockets keeper;
    keeper.use();
    auto o = std::make_unique<bed::owner>(dir.path());
    ipv4mc_table_st *table = o->table();
    const ip_maddr_st source = net::address("2001:db8::1");
    for (uint32_t n = 0; n < state.range(0); ++n) {
        if (add_route(table, source, group_of(n), 3) != 0) {
            state.SkipWithError("route refused");
            return;
        }
    }
    linux_resync_counts counts = {};
    for (auto _ : state) {
        o->leave();
        o.reset();
        const auto begin = std::chrono::steady_clock::now();
        o = std::make_unique<bed::owner>(dir.path());
        linux_resync(&counts);
        const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begin;
        state.SetIterationTime(took.count());
    }
    state.counters["kept"] = static_cast<double>(counts.kept);
    state.counters["programmed"] = static_cast<double>(counts.programmed);
}

BENCHMARK(BareAddMfc)->Arg(1)->Arg(3)->Iterations(100000);
BENCHMARK(LibraryAdd)->Arg(1)->Arg(3)->Iterations(100000);
BENCHMARK(RestartAndResync)
    ->Arg(1000)
    ->Arg(100000)
    ->Iterations(3)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
