// ip6mc_lookup beside absl::flat_hash_map::find on the same keys in the same run: routes of one
// table, looked up in random order, debug off. Prints nanoseconds per lookup, overlapping and one
// by one, alone and with a second reader process, and the factor to the map; then routes deleted
// and walked per second.
//
//   lib_lookup_bench [routes...]     default 10000 100000 1000000
#include <absl/container/flat_hash_map.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <numeric>
#include <random>
#include <vector>

#include "ipv4/multicast/lib/ip6mc_idb.h"
#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "ipv4/multicast/lib/ip6mc_route.h"
#include "ipv4/multicast/lib/ip6mc_table.h"
#include "platforms/sim/sim.h"
#include "services/diag/run_dir.h"
#include "services/window/setup.h"

namespace {

using map_key = std::array<uint64_t, 4>;
struct hash_of_key {
    size_t operator()(const map_key &k) const { return absl::HashOf(k[0], k[1], k[2], k[3]); }
};
using map = absl::flat_hash_map<map_key, void *, hash_of_key>;

constexpr uint32_t tid = 0xe0000005;
constexpr ifhtype the_interface = 7;
constexpr uint32_t lookups = 1'000'000;

struct query {
    ip_maddr_st source;
    ip_maddr_st group;
};

struct shared {
    std::atomic<uint32_t> go;
    std::atomic<uint32_t> stop;
    std::atomic<uint32_t> reading;
};

double now() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

ip_maddr_st address(uint8_t first, uint8_t kind, uint32_t n) {
    ip_maddr_st result{};
    result.bytes[0] = first;
    result.bytes[1] = kind;
    // Spread over all bits, as addresses in use are.
    const uint64_t mixed = (uint64_t{n} + 1) * 0x9e3779b97f4a7c15;
    std::memcpy(result.bytes + 4, &mixed, sizeof(mixed));
    std::memcpy(result.bytes + 12, &n, sizeof(n));
    return result;
}

map_key key_of(const query &q) {
    map_key k;
    std::memcpy(k.data(), &q.group, 16);
    std::memcpy(k.data() + 2, &q.source, 16);
    return k;
}

int start(int attach_only) {
    return static_cast<int>(ip6mc_lib_init(nullptr, nullptr, attach_only, 7, 8, 0xe0800000,
                                           0x60000000, 2, nullptr, nullptr, nullptr, nullptr, 0));
}

void add(ipv4mc_table_st *table, const ip_maddr_st &source, const ip_maddr_st &group,
         uint16_t length) {
    ipv4mc_route_entry_st *route = nullptr;
    int is_new = 0;
    if (ip6mc_route_operation(IPV4MC_ACTION_CREATE, table, &source, &group, length, nullptr, &route,
                              0, 0, &is_new) != 0) {
        abort();
    }
    // With the record in hand: finding it by handle proves its count, over all routes of the
    // interface.
    static ipv4mc_idb_st *idb = nullptr;
    if (idb == nullptr) {
        ip6mc_idb_lookup(the_interface, &idb);
    }
    ipv4mc_intf_entry_st *entry = nullptr;
    ip6mc_intf_operation(IPV4MC_ACTION_CREATE, table, route, 0, the_interface, 0, 0, 0, &entry, idb,
                         0, 0, 1);
    ip6mc_intf_operation(IPV4MC_ACTION_COMMIT, table, route, 0, the_interface, 0, 0, 0, &entry, idb,
                         0, 0, 1);
    if (ip6mc_route_operation(IPV4MC_ACTION_COMMIT, table, &source, &group, length, nullptr, &route,
                              0, 0, &is_new) != 0) {
        abort();
    }
}

// How the next question follows the last answer.
enum class pace {
    one_by_one,  // asked when the last answer is there, as for packets
    overlapping  // asked at once: the processor works at several
};

// Nanoseconds per lookup: the best of three rounds, as the machine is shared. `look` gives the
// address of what it found.
template <class Look>
double measure(const std::vector<query> &queries, pace how, const Look &look) {
    double best = 1e9;
    // What the compiler cannot know to be zero.
    uintptr_t none = 0;
    asm volatile("" : "+r"(none));
    for (int round = 0; round < 3; ++round) {
        const double from = now();
        uintptr_t last = 0;
        for (size_t n = 0; n < queries.size(); ++n) {
            const uintptr_t found = look(queries[n + last]);
            asm volatile("" : : "r"(found));
            last = how == pace::one_by_one ? found & none : 0;
        }
        best = std::min(best, (now() - from) * 1e9 / static_cast<double>(queries.size()));
    }
    return best;
}

uintptr_t in_map(const map &yardstick, const query &q) {
    const auto it = yardstick.find(key_of(q));
    return it != yardstick.end() ? reinterpret_cast<uintptr_t>(it->second) : 0;
}

uintptr_t route_only(ipv4mc_table_st *table, const query &q) {
    ipv4mc_route_entry_st *route = nullptr;
    ip6mc_lookup(table, &q.source, &q.group, the_interface, &route, nullptr);
    return reinterpret_cast<uintptr_t>(route);
}

uintptr_t with_interface(ipv4mc_table_st *table, const query &q) {
    ipv4mc_route_entry_st *route = nullptr;
    ipv4mc_intf_entry_st *intf = nullptr;
    ip6mc_lookup(table, &q.source, &q.group, the_interface, &route, &intf);
    return reinterpret_cast<uintptr_t>(intf);
}

struct workload {
    const char *name;
    std::vector<query> queries;
};

// Four fifths (S,G), a fifth (*,G), and 16 ranges (*,G/16): each kind has groups of its own.
std::vector<workload> fill(ipv4mc_table_st *table, uint32_t routes, map &yardstick) {
    std::vector<query> sg;
    std::vector<query> star;
    for (uint32_t n = 0; n < routes; ++n) {
        const bool is_star = n % 5 == 4;
        const query q{is_star ? ip_maddr_st{} : address(0x20, 1, n),
                      address(0xff, is_star ? 0x20 : 0x10, n)};
        add(table, q.source, q.group, is_star ? 128 : 256);
        (is_star ? star : sg).push_back(q);
        yardstick.emplace(key_of(q), table);
    }
    for (uint8_t n = 0; n < 16; ++n) {
        ip_maddr_st group{};
        group.bytes[0] = 0xff;
        group.bytes[1] = static_cast<uint8_t>(0x30 + n);
        add(table, {}, group, 16);
    }
    std::mt19937 random(1);
    std::vector<workload> all{
        {"(S,G) hit", {}}, {"(*,G) hit", {}}, {"(*,G/m) hit", {}}, {"miss", {}}};
    for (uint32_t n = 0; n < lookups; ++n) {
        const auto r = static_cast<uint32_t>(random());
        all[0].queries.push_back(sg[r % sg.size()]);
        all[1].queries.push_back({address(0x20, 2, r), star[r % star.size()].group});
        all[2].queries.push_back(
            {address(0x20, 2, r), address(0xff, static_cast<uint8_t>(0x30 + r % 16), r)});
        all[3].queries.push_back({address(0x20, 2, r), address(0xff, 0x70, r)});
    }
    return all;
}

// The second reader looks up on its own until it is told to stop.
[[noreturn]] void read_along(shared &line, uint32_t routes) {
    while (line.go.load() == 0)
        usleep(1000);
    if (start(1) != 0)
        _exit(1);
    ipv4mc_table_st *table = ip6mc_table_lookup_by_tbl_id(tid);
    std::mt19937 random(2);
    line.reading.store(1);
    while (line.stop.load() == 0) {
        const auto n = static_cast<uint32_t>(random() % routes);
        with_interface(table, {address(0x20, 1, n), address(0xff, 0x10, n)});
    }
    _exit(0);
}

cerrno count_one(ipv4mc_route_entry_st *route, void *context) {
    *static_cast<uint64_t *>(context) += route->pfx_len;
    return 0;
}

void rates(ipv4mc_table_st *table, uint32_t routes) {
    uint64_t sum = 0;
    double from = now();
    ip6mc_route_walk(table, 0, count_one, &sum);
    const double walked = routes / (now() - from);
    uint32_t spared = 0;
    from = now();
    ip6mc_route_delete_all(table, 0, 0, 0, &spared);
    printf("%8u routes  walk %.2f million/s, delete (one interface each) %.3f million/s\n\n",
           routes, walked / 1e6, routes / (now() - from) / 1e6);
}

void run(uint32_t routes) {
    char folder[] = "/dev/shm/mfwd6-bench-XXXXXX";
    if (mkdtemp(folder) == nullptr)
        abort();
    shmwin_set_run_dir(folder);
    diag_set_run_dir(folder);
    auto &line = *new (mmap(nullptr, sizeof(shared), PROT_READ | PROT_WRITE,
                            MAP_SHARED | MAP_ANONYMOUS, -1, 0)) shared{};
    const pid_t reader = fork();
    if (reader == 0)
        read_along(line, routes);
    sim_reset();
    if (start(0) != 0)
        abort();
    ip6mc_idb_init(nullptr, nullptr, 0, nullptr, nullptr, nullptr, nullptr);
    ipv4mc_table_st *table = nullptr;
    ip6mc_table_operation(IPV4MC_ACTION_ACTIVATE, tid, 6, "red", &table, 0);
    table = table->tid_table;
    map yardstick;
    yardstick.reserve(routes);
    const auto work = fill(table, routes, yardstick);
    // A map has no longest match: what does not hit it by key is compared with its hits.
    const auto beside_map = [&](const workload &w, pace how, const char *name) {
        const double map_hit =
            measure(work[0].queries, how, [&](const query &q) { return in_map(yardstick, q); });
        const double route =
            measure(w.queries, how, [&](const query &q) { return route_only(table, q); });
        const double both =
            measure(w.queries, how, [&](const query &q) { return with_interface(table, q); });
        printf(
            "%8u routes  %-12s map hit %6.1f ns  route %6.1f ns (x%.2f)  "
            "route and interface %6.1f ns (x%.2f)\n",
            routes, name, map_hit, route, route / map_hit, both, both / map_hit);
        return both;
    };
    beside_map(work[0], pace::overlapping, "overlapping");
    std::vector<double> alone;
    for (const workload &w : work) {
        alone.push_back(beside_map(w, pace::one_by_one, w.name));
    }
    line.go.store(1);
    while (line.reading.load() == 0)
        usleep(1000);
    for (size_t n = 0; n < work.size(); ++n) {
        const double both = measure(work[n].queries, pace::one_by_one,
                                    [&](const query &q) { return with_interface(table, q); });
        printf("%8u routes  %-12s beside a second reader: %6.1f ns (alone %.1f)\n", routes,
               work[n].name, both, alone[n]);
    }
    line.stop.store(1);
    waitpid(reader, nullptr, 0);
    rates(table, routes);
    ip6mc_idb_terminate(0, 0);
    ip6mc_lib_terminate(0, IPV4MC_TERMINATE_END);
    std::filesystem::remove_all(folder);
}

}  // namespace

int main(int argc, char **argv) {
    std::vector<uint32_t> sizes;
    for (int n = 1; n < argc; ++n) {
        // Options are for the programs that this one is run beside.
        if (argv[n][0] != '-') {
            sizes.push_back(static_cast<uint32_t>(strtoul(argv[n], nullptr, 10)));
        }
    }
    if (sizes.empty())
        sizes = {10'000, 100'000, 1'000'000};
    for (const uint32_t routes : sizes) {
        // Each in a process of its own: a library starts once.
        const pid_t pid = fork();
        if (pid == 0) {
            run(routes);
            fflush(stdout);
            _exit(0);
        }
        int status = 0;
        waitpid(pid, &status, 0);
        if (status != 0)
            return 1;
    }
    return 0;
}
