// How long after the beginning of the first post of a signal, in a client, the reader of changed
// routes in the owner runs. Beside it, in turns, a process-shared pthread mutex and condition
// between the same two processes. Each wake-up finds its reader asleep.
#include <benchmark/benchmark.h>
#include <pthread.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <vector>

#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "ipv4/multicast/lib/ip6mc_signal.h"
#include "ipv4/multicast/lib/ip6mc_table.h"
#include "platforms/sim/sim.h"
#include "services/diag/run_dir.h"
#include "services/window/setup.h"

namespace {

constexpr uint32_t tid = 5;
constexpr useconds_t until_asleep_us = 300;

cerrno start(int attach_only) {
    return ip6mc_lib_init(nullptr, nullptr, attach_only, 7, 8, 0xe0800000, 0x60000000, 2, nullptr,
                          nullptr, nullptr, nullptr, 0);
}

int64_t now_ns() {
    return std::chrono::steady_clock::now().time_since_epoch().count();
}

ip_maddr_st address(uint8_t first, uint32_t low) {
    ip_maddr_st a{};
    a.bytes[0] = first;
    memcpy(a.bytes + 12, &low, sizeof(low));
    return a;
}

enum order : char { attach = 'a', post = 'p', signal = 's', quit = 'q' };

// What the two processes share.
struct shared {
    std::atomic<int64_t> posted_at;
    std::atomic<int64_t> post_took;
    pthread_mutex_t mutex;
    pthread_cond_t condition;
    bool ready;

    shared() : posted_at(0), post_took(0), ready(false) {
        pthread_mutexattr_t how;
        pthread_mutexattr_init(&how);
        pthread_mutexattr_setpshared(&how, PTHREAD_PROCESS_SHARED);
        pthread_mutex_init(&mutex, &how);
        pthread_condattr_t how_to_wait;
        pthread_condattr_init(&how_to_wait);
        pthread_condattr_setpshared(&how_to_wait, PTHREAD_PROCESS_SHARED);
        pthread_cond_init(&condition, &how_to_wait);
    }
};

// The client that posts, an order for each byte.
class poster {
  public:
    explicit poster(shared *with) {
        int down[2];
        if (pipe(down) != 0)
            abort();
        pid_ = fork();
        if (pid_ == 0) {
            close(down[1]);
            work(down[0], with);
            _exit(0);
        }
        close(down[0]);
        to_ = down[1];
    }
    ~poster() {
        tell(quit);
        close(to_);
        waitpid(pid_, nullptr, 0);
    }
    poster(const poster &) = delete;
    poster &operator=(const poster &) = delete;

    void tell(char order) const {
        if (write(to_, &order, 1) != 1)
            abort();
    }

  private:
    static void work(int from, shared *with) {
        char what = 0;
        ipv4mc_table_st *table = nullptr;
        uint32_t n = 0;
        while (read(from, &what, 1) == 1 && what != quit) {
            if (what == attach) {
                if (start(1) != 0)
                    _exit(1);
                table = ip6mc_table_lookup_by_tbl_id(tid);
                continue;
            }
            usleep(until_asleep_us);
            if (what == post) {
                const ip_maddr_st s = address(0x20, ++n);
                const ip_maddr_st g = address(0xff, n);
                ipv4mc_route_entry_st *route = nullptr;
                with->posted_at = now_ns();
                if (ip6mc_signal_add_mutex(table, &s, &g, 0x10, &route, nullptr, nullptr) != 0)
                    _exit(2);
                with->post_took = now_ns() - with->posted_at;
            } else {
                with->posted_at = now_ns();
                pthread_mutex_lock(&with->mutex);
                with->ready = true;
                pthread_mutex_unlock(&with->mutex);
                pthread_cond_signal(&with->condition);
            }
        }
    }

    pid_t pid_ = -1;
    int to_ = -1;
};

// Each waits for one wake-up; how long it took.
int64_t await_route(const poster &client, const shared *with) {
    client.tell(post);
    if (ip6mc_changed_routes_wait(10000) != 0)
        abort();
    const int64_t took = now_ns() - with->posted_at;
    if (ip6mc_shmwin_mutex_lock("bench", 1) != 0)
        abort();
    ipv4mc_route_entry_st *route = ipv4mc_desc->shmwin_info->changed_route_head;
    ipv4mc_intf_entry_st *intf = route->intf_list;
    ip6mc_signal_remove_signal_route(route->table, &route, &intf);
    ip6mc_shmwin_mutex_unlock();
    return took;
}

int64_t await_condition(const poster &client, shared *with) {
    client.tell(signal);
    pthread_mutex_lock(&with->mutex);
    while (!with->ready)
        pthread_cond_wait(&with->condition, &with->mutex);
    const int64_t took = now_ns() - with->posted_at;
    with->ready = false;
    pthread_mutex_unlock(&with->mutex);
    return took;
}

double rank(std::vector<int64_t> *all, size_t percent) {
    const auto at = all->begin() + static_cast<long>(all->size() * percent / 100);
    std::nth_element(all->begin(), at, all->end());
    return static_cast<double>(*at);
}

void first_post_until_reader_runs(benchmark::State &state) {
    char folder[] = "/dev/shm/mfwd6-bench-XXXXXX";
    if (mkdtemp(folder) == nullptr)
        abort();
    shmwin_set_run_dir(folder);
    diag_set_run_dir(folder);
    sim_reset();
    void *memory =
        mmap(nullptr, sizeof(shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED)
        abort();
    auto *with = new (memory) shared;
    {
        const poster client(with);
        ipv4mc_table_st *vrf = nullptr;
        if (start(0) != 0 ||
            ip6mc_table_operation(IPV4MC_ACTION_ACTIVATE, tid, 6, "red", &vrf, 16) != 0) {
            abort();
        }
        client.tell(attach);
        std::vector<int64_t> ours;
        std::vector<int64_t> theirs;
        std::vector<int64_t> posts;
        for (auto _ : state) {
            ours.push_back(await_route(client, with));
            theirs.push_back(await_condition(client, with));
            posts.push_back(with->post_took);  // the client is past its post by now
            state.SetIterationTime(static_cast<double>(ours.back()) * 1e-9);
        }
        state.counters["median_us"] = rank(&ours, 50) / 1000;
        state.counters["p99_us"] = rank(&ours, 99) / 1000;
        state.counters["post_median_us"] = rank(&posts, 50) / 1000;
        state.counters["condition_median_us"] = rank(&theirs, 50) / 1000;
        state.counters["condition_p99_us"] = rank(&theirs, 99) / 1000;
        state.counters["median_ratio"] = rank(&ours, 50) / rank(&theirs, 50);
    }
    ip6mc_lib_terminate(0, IPV4MC_TERMINATE_END);
    munmap(memory, sizeof(shared));
    std::filesystem::remove_all(folder);
}

}  // namespace

BENCHMARK(first_post_until_reader_runs)->UseManualTime()->Iterations(5000);
