// shmwin_malloc and shmwin_free beside malloc(3) and free(3), with one million live blocks: a block
// chosen at random goes, a new one comes. Time is per pair. The window's allocator writes its
// journal in every case; `in a group` adds the notes in the owner's log that an operation needs.
#include <benchmark/benchmark.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "services/journal/journal.h"
#include "services/window/epochs.h"
#include "services/window/setup.h"
#include "services/window/window.h"

namespace {

constexpr size_t live_blocks = 1000000;

// One window for the whole run, in a folder of its own.
class window {
  public:
    window() {
        char dir[] = "/dev/shm/mfwd6-bench-XXXXXX";
        dir_ = mkdtemp(dir);
        shmwin_set_run_dir(dir_.c_str());
        shmwin_open_record r = {};
        std::memcpy(r.name, "bench", 6);
        r.hdr_size = 64;
        r.open_flags = SHMWIN_OPEN_OWNER;
        void *header = nullptr;
        if (shmwin_platform_info(r.name, &r.base_addr, &r.max_table_size) != 0 ||
            shmwin_open_win(&r, &header, &id_) != 0) {
            std::abort();
        }
    }
    ~window() {
        shmwin_close(id_, 1);
        unlink((dir_ + "/bench").c_str());
        rmdir(dir_.c_str());
    }
    window(const window &) = delete;
    window &operator=(const window &) = delete;

    uint32_t id() const { return id_; }

  private:
    std::string dir_;
    uint32_t id_ = 0;
};

uint32_t window_id() {
    static const window w;
    return w.id();
}

struct from_window {
    static void *take(size_t size) {
        void *block = nullptr;
        shmwin_malloc(window_id(), size, &block);
        return block;
    }
    static void give(void *block) { shmwin_free(block); }
};

struct from_heap {
    static void *take(size_t size) { return std::malloc(size); }
    static void give(void *block) { std::free(block); }
};

// The order in which blocks go, made beforehand.
const std::vector<uint32_t> &random_order() {
    static const std::vector<uint32_t> order = [] {
        std::mt19937 random(1);
        std::vector<uint32_t> o(1 << 20);
        for (uint32_t &i : o) {
            i = static_cast<uint32_t>(random() % live_blocks);
        }
        return o;
    }();
    return order;
}

// `Zero`: the block is zeroed as a caller does, else only one word of it is written.
template <class From, bool Zero>
void come_and_go(benchmark::State &state) {
    const auto size = static_cast<size_t>(state.range(0));
    const std::vector<uint32_t> &order = random_order();
    std::vector<void *> live(live_blocks);
    for (void *&block : live) {
        block = From::take(size);
        std::memset(block, 1, 64);
    }
    size_t at = 0;
    for (auto _ : state) {
        void *&block = live[order[at++ % order.size()]];
        From::give(block);
        block = From::take(size);
        if (Zero) {
            std::memset(block, 0, size);
        } else {
            *static_cast<uint64_t *>(block) = at;
        }
    }
    for (void *block : live) {
        From::give(block);
    }
}
BENCHMARK(come_and_go<from_heap, false>)->Name("malloc_free/glibc")->Arg(200)->Arg(700);
BENCHMARK(come_and_go<from_window, false>)->Name("malloc_free/window")->Arg(200)->Arg(700);
BENCHMARK(come_and_go<from_heap, true>)->Name("malloc_zero_free/glibc")->Arg(200)->Arg(700);
BENCHMARK(come_and_go<from_window, true>)->Name("malloc_zero_free/window")->Arg(200)->Arg(700);

struct from_window_in_a_group {
    static void *take(size_t size) {
        const mfwd6::journal::group g;
        return from_window::take(size);
    }
    static void give(void *block) {
        const mfwd6::journal::group g;
        from_window::give(block);
    }
};
BENCHMARK(come_and_go<from_window_in_a_group, false>)
    ->Name("malloc_free/window_in_a_group")
    ->Arg(200)
    ->Arg(700);

void quiescent(benchmark::State &state) {
    uint32_t reader = 0;
    shmwin_reader_enter(window_id(), &reader);
    for (auto _ : state) {
        shmwin_reader_quiescent(window_id(), reader);
    }
    shmwin_reader_leave(window_id(), reader);
}
BENCHMARK(quiescent)->Name("reader_quiescent");

void window_mutex(benchmark::State &state) {
    for (auto _ : state) {
        shmwin_lock(window_id());
        shmwin_unlock(window_id());
    }
}
BENCHMARK(window_mutex)->Name("window_lock_unlock");

}  // namespace

BENCHMARK_MAIN();
