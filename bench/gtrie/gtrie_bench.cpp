// The trie beside absl::flat_hash_map on the same random 256-bit keys, in the same run.
//
// Memory comes from a shared mapping as the window's does, with a log bound, so that each store
// pays for its journal entry. Counters: bytes_per_leaf is all memory of the trie less the records;
// BesideMap takes turns with the map and gives medians and their ratios, which hold on a machine
// that does other things meanwhile.
#include <absl/container/flat_hash_map.h>
#include <benchmark/benchmark.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <random>
#include <vector>

#include "services/gtrie/gtrie.h"
#include "services/journal/journal.h"

namespace {

namespace journal = mfwd6::journal;

constexpr uint64_t arena_bytes = uint64_t{6} << 30;
constexpr size_t record_bytes = 48;

struct shared_area {
    alignas(64) std::atomic<uint32_t> ready;
    std::atomic<uint32_t> stop;
    alignas(64) std::atomic<uint64_t> reads;
    std::atomic<uint64_t> cpu_ns;  // of the reader, whatever else the machine does
    std::atomic<uint64_t> misses;
    void *handle;
};

char *arena = nullptr;
uint64_t taken = 0;
uint64_t live_bytes = 0;
// Freed blocks by size in units of 16, reused only after a delay, as readers demand.
std::array<std::deque<void *>, 64> freed;
size_t reuse_delay = 0;

void *take(size_t size, uint32_t) {
    const size_t need = (size + 24 + 15) & ~size_t{15};
    live_bytes += need;
    const size_t kind = need / 16;
    char *block = nullptr;
    if (kind < freed.size() && freed[kind].size() > reuse_delay) {
        block = static_cast<char *>(freed[kind].front());
        freed[kind].pop_front();
    } else {
        block = arena + taken;
        taken += need;
        if (taken > arena_bytes) {
            abort();
        }
    }
    std::memset(block, 0, need);
    std::memcpy(block, &need, sizeof(need));
    return block + 24;
}

cerrno give(void *where, uint32_t) {
    char *block = static_cast<char *>(where) - 24;
    size_t need = 0;
    std::memcpy(&need, block, sizeof(need));
    live_bytes -= need;
    if (need / 16 < freed.size()) {
        freed[need / 16].push_back(block);
    }
    return 0;
}

void open_arena() {
    if (arena == nullptr) {
        arena = static_cast<char *>(mmap(nullptr, arena_bytes, PROT_READ | PROT_WRITE,
                                         MAP_SHARED | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0));
        if (arena == MAP_FAILED) {
            abort();
        }
    }
    madvise(arena, arena_bytes, MADV_REMOVE);
    freed = {};
    live_bytes = 0;
    reuse_delay = 0;
    journal::log *log = journal::format(arena, journal::log_bytes(8192));
    journal::bind_process(log, 1);
    taken = (journal::log_bytes(8192) + 4095) & ~uint64_t{4095};
}

using key = std::array<uint8_t, 32>;

struct bits_hash {
    size_t operator()(const key &k) const {
        return absl::Hash<absl::string_view>()(
            absl::string_view(reinterpret_cast<const char *>(k.data()), k.size()));
    }
};

std::vector<key> random_keys(size_t count, uint64_t seed) {
    std::mt19937_64 random(seed);
    std::vector<key> keys(count);
    for (key &k : keys) {
        for (size_t i = 0; i < 4; ++i) {
            const uint64_t word = random();
            std::memcpy(k.data() + i * 8, &word, 8);
        }
    }
    return keys;
}

void *open_trie() {
    ip6mc_gtrie_params_t p{};
    p.shared = 1;
    p.flags = 1;
    p.key_bits = 256;
    p.node_size = 624;
    p.alloc_fn = take;
    p.free_fn = give;
    return ip6mc_gtrie_init(&p, nullptr);
}

void *add(void *trie, const key &k, uint32_t length) {
    void *leaf = nullptr;
    int created = 0;
    ip6mc_gtrie_leaf_create(trie, k.data(), length, &leaf, record_bytes, &created);
    if (created != 0) {
        ip6mc_gtrie_leaf_insert(trie, leaf, nullptr);
    }
    return leaf;
}

// Full keys in random order, more than the caches hold.
std::vector<uint32_t> probe_order(size_t count) {
    std::mt19937_64 random(99);
    std::vector<uint32_t> order(1 << 20);
    for (uint32_t &o : order) {
        o = static_cast<uint32_t>(random() % count);
    }
    return order;
}

void FlatHashMapFind(benchmark::State &state) {
    const auto keys = random_keys(static_cast<size_t>(state.range(0)), 1);
    const auto order = probe_order(keys.size());
    absl::flat_hash_map<key, void *, bits_hash> map;
    for (const key &k : keys) {
        map[k] = nullptr;
    }
    size_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(map.find(keys[order[i++ & (order.size() - 1)]]));
    }
}

enum class question { exact, longest };

void lookup(benchmark::State &state, question what, bool groups) {
    open_arena();
    const auto keys = random_keys(static_cast<size_t>(state.range(0)), 1);
    const auto order = probe_order(keys.size());
    void *trie = open_trie();
    for (const key &k : keys) {
        add(trie, k, 256);
    }
    if (groups) {
        // A (*,G) for a tenth of the groups and the ranges above them: three lengths are in use.
        for (size_t i = 0; i < keys.size(); i += 10) {
            add(trie, keys[i], 128);
        }
        for (uint32_t i = 0; i < 256; ++i) {
            key range{};
            range[0] = static_cast<uint8_t>(i);
            add(trie, range, 8);
        }
    }
    size_t i = 0;
    for (auto _ : state) {
        const key &k = keys[order[i++ & (order.size() - 1)]];
        benchmark::DoNotOptimize(what == question::exact
                                     ? ip6mc_gtrie_lookup_exact(trie, k.data(), 256, nullptr)
                                     : ip6mc_gtrie_lookup(trie, k.data(), nullptr));
    }
    const auto leaves = static_cast<double>(keys.size());
    state.counters["bytes_per_leaf"] =
        static_cast<double>(live_bytes) / leaves - static_cast<double>(record_bytes);
}

void Exact(benchmark::State &state) {
    lookup(state, question::exact, false);
}
void Longest(benchmark::State &state) {
    lookup(state, question::longest, false);
}
void LongestThreeLengths(benchmark::State &state) {
    lookup(state, question::longest, true);
}

uint64_t thread_ns() {
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000000 + static_cast<uint64_t>(now.tv_nsec);
}

// Nanoseconds for one of `turn` calls with keys in the order from `from` on.
template <class Ask>
double ask_in_turn(const std::vector<key> &keys, const std::vector<uint32_t> &order, size_t from,
                   Ask &&ask) {
    constexpr size_t turn = 300000;
    const uint64_t start = thread_ns();
    for (size_t i = from; i < from + turn; ++i) {
        benchmark::DoNotOptimize(ask(keys[order[i & (order.size() - 1)]]));
    }
    return static_cast<double>(thread_ns() - start) / static_cast<double>(turn);
}

double median(std::vector<double> &values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

void BesideMap(benchmark::State &state) {
    open_arena();
    const auto keys = random_keys(static_cast<size_t>(state.range(0)), 1);
    const auto order = probe_order(keys.size());
    absl::flat_hash_map<key, void *, bits_hash> map;
    void *trie = open_trie();
    for (const key &k : keys) {
        map[k] = add(trie, k, 256);
    }
    std::vector<double> of_map;
    std::vector<double> of_exact;
    std::vector<double> of_longest;
    size_t from = 0;
    for (auto _ : state) {
        of_map.push_back(ask_in_turn(keys, order, from, [&](const key &k) { return map.find(k); }));
        of_exact.push_back(ask_in_turn(keys, order, from, [&](const key &k) {
            return ip6mc_gtrie_lookup_exact(trie, k.data(), 256, nullptr);
        }));
        of_longest.push_back(ask_in_turn(keys, order, from, [&](const key &k) {
            return ip6mc_gtrie_lookup(trie, k.data(), nullptr);
        }));
        from += 700001;
    }
    const double base = median(of_map);
    state.counters["map_ns"] = base;
    state.counters["exact_ns"] = median(of_exact);
    state.counters["longest_ns"] = median(of_longest);
    state.counters["exact_ratio"] = median(of_exact) / base;
    state.counters["longest_ratio"] = median(of_longest) / base;
}

// What a caller of the library pays for one key: the buffer, its length, the lookup.
void KeyAndLookup(benchmark::State &state) {
    open_arena();
    const auto keys = random_keys(static_cast<size_t>(state.range(0)), 1);
    const auto order = probe_order(keys.size());
    void *trie = open_trie();
    for (const key &k : keys) {
        add(trie, k, 256);
    }
    size_t i = 0;
    for (auto _ : state) {
        const key &k = keys[order[i++ & (order.size() - 1)]];
        uint8_t prefix[GTRIE_PREFIX_BYTES] = {};
        uint32_t length = 256;
        ip6mc_gtrie_platform_make_prefix(trie, prefix, k.data() + 16, k.data());
        ip6mc_gtrie_platform_get_pfx_len_adjusted(trie, &length);
        benchmark::DoNotOptimize(ip6mc_gtrie_platform_lookup_exact(trie, prefix, length, nullptr));
    }
}

void MakePrefix(benchmark::State &state) {
    open_arena();
    void *trie = open_trie();
    const auto keys = random_keys(1024, 1);
    uint8_t prefix[GTRIE_PREFIX_BYTES] = {};
    size_t i = 0;
    for (auto _ : state) {
        const key &k = keys[i++ & 1023];
        uint32_t length = 256;
        ip6mc_gtrie_platform_make_prefix(trie, prefix, k.data() + 16, k.data());
        ip6mc_gtrie_platform_get_pfx_len_adjusted(trie, &length);
        benchmark::DoNotOptimize(length);
        benchmark::ClobberMemory();
    }
}

// A key that no (S,G) has: all lengths are probed down to the range.
void LongestFallsToRange(benchmark::State &state) {
    open_arena();
    const auto keys = random_keys(static_cast<size_t>(state.range(0)), 1);
    const auto others = random_keys(1 << 16, 2);
    void *trie = open_trie();
    for (size_t i = 0; i < keys.size(); ++i) {
        add(trie, keys[i], i % 10 == 0 ? 128 : 256);
    }
    for (uint32_t i = 0; i < 256; ++i) {
        key range{};
        range[0] = static_cast<uint8_t>(i);
        add(trie, range, 8);
    }
    size_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(
            ip6mc_gtrie_lookup(trie, others[i++ & (others.size() - 1)].data(), nullptr));
    }
}

void FlatHashMapInsert(benchmark::State &state) {
    const auto keys = random_keys(static_cast<size_t>(state.range(0)), 1);
    for (auto _ : state) {
        absl::flat_hash_map<key, void *, bits_hash> map;
        for (const key &k : keys) {
            map[k] = nullptr;
        }
        benchmark::DoNotOptimize(map);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

// Creation (with its search for an equal key) is part of the time only in CreateAndInsert.
void Insert(benchmark::State &state) {
    const auto keys = random_keys(static_cast<size_t>(state.range(0)), 1);
    for (auto _ : state) {
        open_arena();
        void *trie = open_trie();
        double spent = 0;
        std::vector<void *> leaves(1000);
        for (size_t at = 0; at < keys.size(); at += leaves.size()) {
            for (size_t i = 0; i < leaves.size(); ++i) {
                int created = 0;
                ip6mc_gtrie_leaf_create(trie, keys[at + i].data(), 256, &leaves[i], record_bytes,
                                        &created);
            }
            const auto from = std::chrono::steady_clock::now();
            for (void *leaf : leaves) {
                ip6mc_gtrie_leaf_insert(trie, leaf, nullptr);
            }
            spent += std::chrono::duration<double>(std::chrono::steady_clock::now() - from).count();
        }
        state.SetIterationTime(spent);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

void CreateAndInsert(benchmark::State &state) {
    const auto keys = random_keys(static_cast<size_t>(state.range(0)), 1);
    for (auto _ : state) {
        state.PauseTiming();
        open_arena();
        void *trie = open_trie();
        state.ResumeTiming();
        for (const key &k : keys) {
            add(trie, k, 256);
        }
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

void Walk(benchmark::State &state) {
    open_arena();
    void *trie = open_trie();
    for (const key &k : random_keys(static_cast<size_t>(state.range(0)), 1)) {
        add(trie, k, 256);
    }
    const key zero{};
    for (auto _ : state) {
        uint64_t seen = 0;
        for (void *l = ip6mc_gtrie_first_leaf(trie, zero.data(), 0, nullptr); l != nullptr;
             l = ip6mc_gtrie_next_leaf(trie, l, nullptr)) {
            ++seen;
        }
        if (seen != static_cast<uint64_t>(state.range(0))) {
            state.SkipWithError("walk lost leaves");
        }
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

void LessSpecific(benchmark::State &state) {
    open_arena();
    void *trie = open_trie();
    const auto keys = random_keys(static_cast<size_t>(state.range(0)), 1);
    std::vector<void *> leaves;
    for (const key &k : keys) {
        leaves.push_back(add(trie, k, 256));
        add(trie, k, 128);
    }
    const auto order = probe_order(leaves.size());
    size_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(ip6mc_gtrie_less_specific_of_leaf(
            trie, leaves[order[i++ & (order.size() - 1)]], nullptr));
    }
}

// A reader in a process of its own, on the keys that stay, while this one inserts and deletes
// others.
[[noreturn]] void read_for_ever(shared_area *area, const std::vector<key> &keys) {
    const auto order = probe_order(keys.size());
    area->ready.store(1);
    uint64_t done = 0;
    for (size_t i = 0; area->stop.load(std::memory_order_relaxed) == 0; ++i) {
        const key &k = keys[order[i & (order.size() - 1)]];
        if (ip6mc_gtrie_lookup(area->handle, k.data(), nullptr) == nullptr) {
            area->misses.fetch_add(1);
        }
        if ((++done & 4095) == 0) {
            timespec now{};
            clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
            area->cpu_ns.store(
                static_cast<uint64_t>(now.tv_sec) * 1000000000 + static_cast<uint64_t>(now.tv_nsec),
                std::memory_order_relaxed);
            area->reads.store(done, std::memory_order_relaxed);
        }
    }
    _exit(0);
}

// Where the writer works: nowhere, in a trie that nobody reads (what the machine alone makes of two
// busy processors), or in the reader's.
enum class writer { none, elsewhere, beside };

void Reader(benchmark::State &state, writer works) {
    open_arena();
    reuse_delay = 20000;
    auto *area = static_cast<shared_area *>(mmap(
        nullptr, sizeof(shared_area), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    const auto keys = random_keys(100000, 1);
    const auto others = random_keys(20000, 2);
    area->handle = open_trie();
    for (const key &k : keys) {
        add(area->handle, k, 256);
    }
    void *written = works == writer::beside ? area->handle : open_trie();
    const bool disturbed = works != writer::none;
    const pid_t child = fork();
    if (child == 0) {
        read_for_ever(area, keys);
    }
    while (area->ready.load() == 0) {
        usleep(100);
    }
    std::vector<void *> leaves(others.size());
    uint64_t changes = 0;
    uint64_t reads = 0;
    uint64_t reader_ns = 0;
    double seconds = 0;
    for (auto _ : state) {
        const uint64_t before = area->reads.load();
        const uint64_t before_ns = area->cpu_ns.load();
        const auto from = std::chrono::steady_clock::now();
        const auto passed = [&] {
            return std::chrono::duration<double>(std::chrono::steady_clock::now() - from).count();
        };
        if (!disturbed) {
            usleep(500000);
        }
        while (disturbed && passed() < 0.5) {
            for (size_t i = 0; i < others.size(); ++i) {
                leaves[i] = add(written, others[i], 256);
            }
            for (void *leaf : leaves) {
                ip6mc_gtrie_leaf_delete(written, leaf, nullptr);
                ip6mc_gtrie_leaf_free(written, leaf);
            }
            changes += 2 * others.size();
        }
        seconds += passed();
        reads += area->reads.load() - before;
        reader_ns += area->cpu_ns.load() - before_ns;
    }
    area->stop.store(1);
    waitpid(child, nullptr, 0);
    state.counters["ns_per_read"] = static_cast<double>(reader_ns) / static_cast<double>(reads);
    state.counters["changes_per_s"] = static_cast<double>(changes) / seconds;
    state.counters["misses"] = static_cast<double>(area->misses.load());
    munmap(area, sizeof(shared_area));
}

void ReaderAlone(benchmark::State &state) {
    Reader(state, writer::none);
}
void ReaderBesideStranger(benchmark::State &state) {
    Reader(state, writer::elsewhere);
}
void ReaderBesideWriter(benchmark::State &state) {
    Reader(state, writer::beside);
}

BENCHMARK(FlatHashMapFind)->Arg(10000)->Arg(100000)->Arg(1000000);
BENCHMARK(BesideMap)->Arg(10000)->Arg(100000)->Arg(1000000)->Iterations(15)->Unit(
    benchmark::kMillisecond);
BENCHMARK(KeyAndLookup)->Arg(10000);
BENCHMARK(MakePrefix);
BENCHMARK(Exact)->Arg(10000)->Arg(100000)->Arg(1000000);
BENCHMARK(Longest)->Arg(10000)->Arg(100000)->Arg(1000000);
BENCHMARK(LongestThreeLengths)->Arg(1000000);
BENCHMARK(LongestFallsToRange)->Arg(1000000);
BENCHMARK(FlatHashMapInsert)->Arg(1000000)->Iterations(2)->Unit(benchmark::kMillisecond);
BENCHMARK(Insert)->Arg(10000)->Arg(100000)->Arg(1000000)->Iterations(2)->UseManualTime()->Unit(
    benchmark::kMillisecond);
BENCHMARK(CreateAndInsert)->Arg(1000000)->Iterations(2)->Unit(benchmark::kMillisecond);
BENCHMARK(Walk)->Arg(100000)->Arg(1000000)->Iterations(3)->Unit(benchmark::kMillisecond);
BENCHMARK(LessSpecific)->Arg(100000);
BENCHMARK(ReaderAlone)->Iterations(3)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(ReaderBesideStranger)->Iterations(3)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(ReaderBesideWriter)->Iterations(3)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
