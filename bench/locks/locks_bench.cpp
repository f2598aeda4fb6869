// Locks, uncontended and beside another process. Time is for one lock and one unlock.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <string>

#include "services/locks/locks.h"
#include "services/peers/peers.h"

namespace mfwd6 {
namespace {

struct page {
    peers::table peers;
    locks::robust_mutex mutex;
    rrw_lock_t rw;
    pthread_mutex_t pthread;
    uint32_t running;
};

struct window {
    window() {
        char path[] = "/dev/shm/mfwd6-bench-XXXXXX";
        const int fd = mkstemp(path);
        if (fd < 0 || ftruncate(fd, sizeof(page)) != 0) {
            abort();
        }
        at = static_cast<page *>(
            mmap(nullptr, sizeof(page), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
        unlink(path);
        open(&env, fd);
        pthread_mutexattr_t a;
        pthread_mutexattr_init(&a);
        pthread_mutexattr_setpshared(&a, PTHREAD_PROCESS_SHARED);
        pthread_mutexattr_setrobust(&a, PTHREAD_MUTEX_ROBUST);
        pthread_mutex_init(&at->pthread, &a);
    }
    void open(peers::env *e, int fd) {
        e->base = at;
        e->length = sizeof(page);
        e->peers = &at->peers;
        e->fd = fd;
        if (!peers::env_add(e) || peers::join(e, peers::role::attached) != 0) {
            abort();
        }
    }
    page *at;
    peers::env env{};
    peers::env child_env{};
};

window &w() {
    static window one;
    return one;
}

timespec soon() {
    timespec t;
    clock_gettime(CLOCK_REALTIME, &t);
    t.tv_sec += 10;
    return t;
}

void read_locks(benchmark::State &state, window &in) {
    const timespec t = soon();
    for (auto _ : state) {
        benchmark::DoNotOptimize(rrw_lock_get_timedrdlock(&in.at->rw, &t));
        rrw_lock_unlock(&in.at->rw, __LINE__, 1);
    }
}

void read_lock_alone(benchmark::State &state) {
    read_locks(state, w());
}
BENCHMARK(read_lock_alone);

void read_lock_beside_a_reading_process(benchmark::State &state) {
    window &in = w();
    std::atomic_ref<uint32_t> running(in.at->running);
    running = 0;
    const std::string again =
        "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(in.env.fd);
    const pid_t other = fork();
    if (other == 0) {
        // An open file description of its own: a shared one would live on in the parent.
        in.open(&in.child_env, ::open(again.c_str(), O_RDWR | O_CLOEXEC));
        const timespec t = soon();
        running = 1;
        for (;;) {
            rrw_lock_get_timedrdlock(&in.at->rw, &t);
            rrw_lock_unlock(&in.at->rw, __LINE__, 1);
        }
    }
    while (running == 0) {
        sched_yield();
    }
    read_locks(state, in);
    kill(other, SIGKILL);
    waitpid(other, nullptr, 0);
}
BENCHMARK(read_lock_beside_a_reading_process);

void write_lock_alone(benchmark::State &state) {
    window &in = w();
    for (auto _ : state) {
        const timespec t = soon();
        benchmark::DoNotOptimize(rrw_lock_get_timedwrlock(&in.at->rw, &t));
        rrw_lock_unlock(&in.at->rw, __LINE__, 0);
    }
}
BENCHMARK(write_lock_alone);

void robust_mutex(benchmark::State &state) {
    window &in = w();
    const locks::mutex_options how = {.window = &in.env};
    for (auto _ : state) {
        benchmark::DoNotOptimize(locks::lock(&in.at->mutex, how));
        locks::unlock(&in.at->mutex, how);
    }
}
BENCHMARK(robust_mutex);

void pthread_robust_mutex(benchmark::State &state) {
    window &in = w();
    for (auto _ : state) {
        benchmark::DoNotOptimize(pthread_mutex_lock(&in.at->pthread));
        pthread_mutex_unlock(&in.at->pthread);
    }
}
BENCHMARK(pthread_robust_mutex);

void packet_client_mutex(benchmark::State &state) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(pak_client_mutex_lock());
        pak_client_mutex_unlock();
    }
}
BENCHMARK(packet_client_mutex);

}  // namespace
}  // namespace mfwd6

BENCHMARK_MAIN();
