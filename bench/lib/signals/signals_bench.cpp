// Signals per second, posted by one and by two attached clients beside each other, while the owner
// looks on.
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "ipv4/multicast/lib/ip6mc_signal.h"
#include "ipv4/multicast/lib/ip6mc_table.h"
#include "platforms/sim/sim.h"
#include "services/diag/run_dir.h"
#include "services/window/setup.h"

namespace {

constexpr uint32_t tid = 5;
constexpr uint32_t batch = 20000;
constexpr ifhtype ifh = 0x10;

cerrno start(int attach_only) {
    return ip6mc_lib_init(nullptr, nullptr, attach_only, 7, 8, 0xe0800000, 0x60000000, 2, nullptr,
                          nullptr, nullptr, nullptr, 0);
}

ip_maddr_st address(uint8_t first, uint32_t high, uint32_t low) {
    ip_maddr_st a{};
    a.bytes[0] = first;
    memcpy(a.bytes + 8, &high, sizeof(high));
    memcpy(a.bytes + 12, &low, sizeof(low));
    return a;
}

// A client: for each byte that comes, one batch of signals, and a byte back.
class poster {
  public:
    poster(uint32_t me, bool new_routes) {
        int down[2];
        int up[2];
        if (pipe(down) != 0 || pipe(up) != 0)
            abort();
        pid_ = fork();
        if (pid_ == 0) {
            close(down[1]);
            close(up[0]);
            work(down[0], up[1], me, new_routes);
            _exit(0);
        }
        close(down[0]);
        close(up[1]);
        to_ = down[1];
        from_ = up[0];
    }
    ~poster() {
        // A later client holds a copy of this end: closing it alone would not be noticed.
        if (write(to_, "q", 1) != 1)
            abort();
        close(to_);
        close(from_);
        waitpid(pid_, nullptr, 0);
    }
    poster(const poster &) = delete;
    poster &operator=(const poster &) = delete;

    void go() const {
        if (write(to_, "g", 1) != 1)
            abort();
    }
    void join() const {
        char c = 0;
        if (read(from_, &c, 1) != 1)
            abort();
    }

  private:
    static void work(int from, int to, uint32_t me, bool new_routes) {
        char c = 0;
        ipv4mc_table_st *table = nullptr;
        while (read(from, &c, 1) == 1 && c == 'g') {
            if (table == nullptr) {
                if (start(1) != 0)
                    _exit(1);
                table = ip6mc_table_lookup_by_tbl_id(tid);
            } else {
                for (uint32_t i = 0; i < batch; ++i) {
                    const ip_maddr_st s = address(0x20, me, new_routes ? i : i % 512);
                    const ip_maddr_st g = address(0xff, 1, new_routes ? i : i % 512);
                    ipv4mc_route_entry_st *route = nullptr;
                    if (ip6mc_signal_add_mutex(table, &s, &g, ifh, &route, nullptr, nullptr) != 0) {
                        _exit(2);
                    }
                }
            }
            if (write(to, &c, 1) != 1)
                _exit(3);
        }
    }

    pid_t pid_ = -1;
    int to_ = -1;
    int from_ = -1;
};

void run(benchmark::State &state, bool new_routes) {
    char folder[] = "/dev/shm/mfwd6-bench-XXXXXX";
    if (mkdtemp(folder) == nullptr)
        abort();
    shmwin_set_run_dir(folder);
    diag_set_run_dir(folder);
    sim_reset();
    {
        std::vector<std::unique_ptr<poster>> posters;
        for (uint32_t i = 1; i <= state.range(0); ++i) {
            posters.push_back(std::make_unique<poster>(i, new_routes));
        }
        ipv4mc_table_st *vrf = nullptr;
        if (start(0) != 0 ||
            ip6mc_table_operation(IPV4MC_ACTION_ACTIVATE, tid, 6, "red", &vrf, 16) != 0) {
            abort();
        }
        ipv4mc_table_st *table = ip6mc_table_lookup_by_tbl_id(tid);
        const auto all = [&] {
            for (const auto &p : posters)
                p->go();
            for (const auto &p : posters)
                p->join();
        };
        all();  // attach
        all();  // makes the routes
        for (auto _ : state) {
            if (new_routes && ip6mc_signal_remove_all_routes(table, 64, 0) != 0)
                abort();
            const auto begin = std::chrono::steady_clock::now();
            all();
            const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begin;
            state.SetIterationTime(took.count());
        }
        state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * batch * state.range(0));
    }
    ip6mc_lib_terminate(0, IPV4MC_TERMINATE_END);
    std::filesystem::remove_all(folder);
}

void new_route(benchmark::State &state) {
    run(state, true);
}
void existing_signal(benchmark::State &state) {
    run(state, false);
}

}  // namespace

BENCHMARK(new_route)->ArgName("processes")->Arg(1)->Arg(2)->UseManualTime()->MinTime(0.3);
BENCHMARK(existing_signal)->ArgName("processes")->Arg(1)->Arg(2)->UseManualTime()->MinTime(0.3);

BENCHMARK_MAIN();
