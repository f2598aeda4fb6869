// What a route with its interfaces costs, beside the kernel's table in the same run.
//
// Each row is one process with a fresh window: CREATE, CREATE and COMMIT of each interface, COMMIT,
// with journal and traces on, on the simulated platform with its log off. Pinned to one core.
#include <arpa/inet.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "bench/lib/routes/kernel_table.h"
#include "ipv4/multicast/lib/ip6mc_idb.h"
#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "ipv4/multicast/lib/ip6mc_route.h"
#include "ipv4/multicast/lib/ip6mc_table.h"
#include "platforms/sim/sim.h"
#include "services/window/inspect.h"
#include "tests/kit/child.h"
#include "tests/kit/library.h"
#include "tests/kit/run_dir.h"

namespace {

constexpr uint32_t tid = 0xe0000005;
constexpr uint64_t most_entries = 5'000'000;

struct row {
    double total_ns;
    double delete_ns;
    double kernel_ns;
    double kernel_delete_ns;
    double bytes;
    double start_ms;
};
row *result = nullptr;

// Processor time unless told otherwise: the machine may be shared.
double now_ns(clockid_t clock = CLOCK_PROCESS_CPUTIME_ID) {
    timespec now{};
    clock_gettime(clock, &now);
    return static_cast<double>(now.tv_sec) * 1e9 + static_cast<double>(now.tv_nsec);
}

void require(bool holds, const char *what) {
    if (!holds) {
        fprintf(stderr, "failed: %s\n", what);
        _exit(1);
    }
}

void start() {
    sim_reset();
    sim_log_on(0);
    require(kit::start_library() == 0, "start");
    require(ip6mc_idb_init(nullptr, nullptr, 0, nullptr, nullptr, nullptr, nullptr) == 0,
            "interfaces");
}

uint64_t bytes_used() {
    shmwin_usage usage{};
    require(shmwin_get_usage(ipv4mc_desc->shmwin_id, &usage) == 0, "usage");
    return usage.used;
}

void add_route(ipv4mc_table_st *table, uint32_t number, uint32_t interfaces) {
    static const ip_maddr_st source = [] {
        ip_maddr_st made{};
        inet_pton(AF_INET6, "2001:db8::1", &made);
        return made;
    }();
    static ip_maddr_st group = [] {
        ip_maddr_st made{};
        inet_pton(AF_INET6, "ff3e::", &made);
        return made;
    }();
    const uint32_t low = htonl(number);
    memcpy(reinterpret_cast<char *>(&group) + 12, &low, sizeof(low));
    ipv4mc_route_entry_st *route = nullptr;
    int is_new = 0;
    require(ip6mc_route_operation(IPV4MC_ACTION_CREATE, table, &source, &group, 256, nullptr,
                                  &route, 0, 0, &is_new) == 0,
            "CREATE");
    for (ifhtype ifh = 1; ifh <= interfaces; ++ifh) {
        ipv4mc_intf_entry_st *entry = nullptr;
        require(ip6mc_intf_operation(IPV4MC_ACTION_CREATE, table, route, 0, ifh, 0, 0, 0, &entry,
                                     nullptr, 0, 0, 1) == 0,
                "interface CREATE");
        require(ip6mc_intf_operation(IPV4MC_ACTION_COMMIT, table, route, 0, ifh, 0, 0, 0, &entry,
                                     nullptr, 0, 0, 1) == 0,
                "interface COMMIT");
    }
    require(ip6mc_route_operation(IPV4MC_ACTION_COMMIT, table, &source, &group, 256, nullptr,
                                  &route, 0, 0, &is_new) == 0,
            "COMMIT");
}

void build(uint32_t routes, uint32_t interfaces) {
    ipv4mc_table_st *table = nullptr;
    require(ip6mc_table_operation(IPV4MC_ACTION_ACTIVATE, tid, 6, "bench", &table, 0) == 0,
            "table");
    table = table->tid_table;
    const uint64_t before = bytes_used();
    const double start_ns = now_ns();
    for (uint32_t n = 1; n <= routes; ++n)
        add_route(table, n, interfaces);
    result->total_ns = (now_ns() - start_ns) / routes;
    result->bytes = static_cast<double>(bytes_used() - before) / routes;
}

void delete_all(uint32_t routes) {
    ipv4mc_table_st *table = ip6mc_table_lookup_by_tbl_id(tid);
    require(table != nullptr, "table");
    uint32_t spared = 0;
    const double start_ns = now_ns();
    require(ip6mc_route_delete_all(table, 0, 0, 0, &spared) == 0 && spared == 0, "delete all");
    result->delete_ns = (now_ns() - start_ns) / routes;
}

row measure(uint32_t routes, uint32_t interfaces) {
    *result = {};
    kit::run_dir dir;
    kit::child ours([&](const kit::post &) {
        start();
        build(routes, interfaces);
        delete_all(routes);
        return 0;
    });
    require(ours.wait() == 0, "a run of the library");
    kit::child yardstick([&](const kit::post &) {
        const auto kernel = bench::kernel_ns_per_route(routes, std::min(interfaces, 15U));
        result->kernel_ns = kernel.add_ns;
        result->kernel_delete_ns = kernel.delete_ns;
        return 0;
    });
    yardstick.wait();
    return *result;
}

void measure_restart(uint32_t routes) {
    kit::run_dir dir;
    *result = {};
    kit::child first([&](const kit::post &parent) {
        start();
        build(routes, 1);
        parent.tell();
        parent.hear();
        return 0;
    });
    first.hear();
    first.kill();
    kit::child second([&](const kit::post &) {
        sim_reset();
        const double start_ns = now_ns(CLOCK_MONOTONIC);
        require(kit::start_library() == 0, "restart");
        result->start_ms = (now_ns(CLOCK_MONOTONIC) - start_ns) / 1e6;
        require(ipv4mc_desc->state == IPV4MC_LIB_STATE_READY, "state 2");
        return 0;
    });
    require(second.wait() == 0, "restart");
    printf("owner killed and started again on %u routes: state 2 after %.1f ms\n", routes,
           result->start_ms);
}

}  // namespace

int main(int argc, char **argv) {
    const uint32_t most =
        argc > 1 && atoi(argv[1]) > 0 ? static_cast<uint32_t>(atoi(argv[1])) : 1'000'000;
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(1, &one);
    sched_setaffinity(0, sizeof(one), &one);
    result = static_cast<row *>(
        mmap(nullptr, sizeof(row), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    if (argc > 2 && atoi(argv[1]) > 0) {  // one row without the yardstick, for a profiler
        kit::run_dir dir;
        start();
        build(most, static_cast<uint32_t>(atoi(argv[2])));
        printf("%.0f ns per route, %.0f bytes\n", result->total_ns, result->bytes);
        return 0;
    }
    printf("%9s %5s %12s %12s %7s %22s %12s\n", "routes", "intfs", "ns/route", "kernel ns", "ratio",
           "further intf / kernel", "bytes/route");
    double with_one = 0;
    for (const uint32_t routes : {10'000U, 100'000U, 1'000'000U}) {
        if (routes > most)
            break;
        for (const uint32_t interfaces : {1U, 4U, 8U, 16U}) {
            if (uint64_t{routes} * interfaces > most_entries) {
                printf("%9u %5u  left out: more than %lu interface entries\n", routes, interfaces,
                       most_entries);
                continue;
            }
            const row r = measure(routes, interfaces);
            with_one = interfaces == 1 ? r.total_ns : with_one;
            const double further = interfaces == 1 ? 0 : (r.total_ns - with_one) / (interfaces - 1);
            printf("%9u %5u %12.0f %12.0f %7.2f %13.0f / %5.2f %12.0f\n", routes, interfaces,
                   r.total_ns, r.kernel_ns, r.kernel_ns > 0 ? r.total_ns / r.kernel_ns : 0, further,
                   r.kernel_ns > 0 ? further / r.kernel_ns : 0, r.bytes);
            if (interfaces == 1) {
                printf("%9u routes deleted: %.0f ns each, MRT6_DEL_MFC %.0f ns, ratio %.2f\n",
                       routes, r.delete_ns, r.kernel_delete_ns,
                       r.kernel_delete_ns > 0 ? r.delete_ns / r.kernel_delete_ns : 0);
            }
            fflush(stdout);
        }
    }
    measure_restart(most);
    return 0;
}
