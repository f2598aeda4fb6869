// Insert and find of the trees against boost::intrusive::avl_set, on the same records in the same
// order.
//
// Goals, for 100,000 records, with the comparison that the trees get (a function pointer): a
// journaled insert within 1.5 times, a find within 1.1 times of avl_set without a journal. The same
// is shown against avl_set with an inline comparison. `per_op` is the time of one operation in
// seconds.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <boost/intrusive/avl_set.hpp>
#include <memory>
#include <numeric>
#include <random>
#include <vector>

#include "services/journal/journal.h"
#include "services/trees/avl.h"
#include "services/trees/wavl.h"

namespace {

namespace bi = boost::intrusive;
using hook = bi::avl_set_base_hook<bi::optimize_size<true>, bi::link_mode<bi::normal_link>>;

// Like a record of the system: links, then a key, then what makes it larger than a cache line.
struct theirs : hook {
    uint32_t key;
    unsigned char rest[100];
};

struct ours {
    avl_node node;
    uint32_t key;
    unsigned char rest[100];
};
static_assert(sizeof(theirs) == sizeof(ours));

int compare_ours(const void *a, const void *b) {
    const uint32_t x = static_cast<const ours *>(a)->key;
    const uint32_t y = static_cast<const ours *>(b)->key;
    return x < y ? tree_less : x == y ? tree_equal : tree_greater;
}

int compare_theirs(const void *a, const void *b) {
    const uint32_t x = static_cast<const theirs *>(a)->key;
    const uint32_t y = static_cast<const theirs *>(b)->key;
    return x < y ? tree_less : x == y ? tree_equal : tree_greater;
}

// Read at run time, so that no comparison is inlined.
tree_compare_fn volatile ours_by_pointer = compare_ours;
tree_compare_fn volatile theirs_by_pointer = compare_theirs;

struct inline_less {
    bool operator()(const theirs &a, const theirs &b) const { return a.key < b.key; }
};

struct pointer_less {
    tree_compare_fn compare = theirs_by_pointer;
    bool operator()(const theirs &a, const theirs &b) const { return compare(&a, &b) == tree_less; }
};

template <class Less>
struct boost_tree {
    using record = theirs;
    bi::avl_set<theirs, bi::base_hook<hook>, bi::compare<Less>> set;

    bool insert(theirs &one) { return set.insert(one).second; }
    const theirs *find(const theirs &key) { return &*set.find(key); }
    void erase(theirs &one) { set.erase(set.iterator_to(one)); }
    void clear() { set.clear(); }
};

struct route_tree {
    using record = ours;
    avl_tree tree{};
    tree_compare_fn compare = ours_by_pointer;

    bool insert(ours &one) { return avl_insert(&tree, &one.node, compare) != nullptr; }
    const void *find(const ours &key) { return avl_search(&tree, &key.node, compare); }
    void erase(ours &one) { avl_delete(&tree, &one.node); }
    void clear() {}
};

struct thread_tree {
    using record = ours;
    wavl_tree tree{};
    tree_compare_fn compares[1] = {ours_by_pointer};
    shm_wavl_fns fns{nullptr, nullptr, nullptr, compares, nullptr};

    thread_tree() { shm_wavl_init(&fns, &tree, 1); }
    thread_tree(const thread_tree &) = delete;
    thread_tree &operator=(const thread_tree &) = delete;

    bool insert(ours &one) { return shm_wavl_insert_thread(&fns, &tree, &one, 0) != nullptr; }
    const void *find(const ours &key) { return shm_wavl_search(&fns, &tree, &key, 0); }
    void erase(ours &one) { shm_wavl_delete_thread(&fns, &tree, &one, 0); }
    void clear() {}
};

// A log bound to the process, while this lives.
class journaled {
  public:
    explicit journaled(bool wanted) {
        if (wanted) {
            mfwd6::journal::bind_process(mfwd6::journal::format(memory, sizeof(memory)), 1);
        }
    }
    ~journaled() { mfwd6::journal::bind_process(nullptr, 0); }
    journaled(const journaled &) = delete;
    journaled &operator=(const journaled &) = delete;

  private:
    alignas(64) static inline unsigned char memory[mfwd6::journal::log_bytes(4096)];
};

constexpr size_t total = 100000;

// `total` records whose keys are 0 to `size` - 1 again and again, each stretch shuffled by itself.
template <class T>
std::vector<T> records(size_t size) {
    std::mt19937 random(1);
    std::vector<uint32_t> keys(size);
    std::iota(keys.begin(), keys.end(), 0U);
    std::vector<T> made(total);
    for (size_t i = 0; i < total; ++i) {
        if (i % size == 0) {
            std::shuffle(keys.begin(), keys.end(), random);
        }
        made[i].key = keys[i % size];
    }
    return made;
}

// Places in a stretch of `size` records, shuffled.
std::vector<size_t> removal_order(size_t size) {
    std::vector<size_t> order(size);
    std::iota(order.begin(), order.end(), size_t{0});
    std::shuffle(order.begin(), order.end(), std::mt19937(2));
    return order;
}

void report(benchmark::State &state) {
    const auto operations = static_cast<double>(state.iterations()) * static_cast<double>(total);
    state.counters["per_op"] =
        benchmark::Counter(operations, benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

template <class T>
void unlink(std::vector<T> &all) {
    for (T &one : all) {
        const T empty{};
        const uint32_t key = one.key;
        one = empty;
        one.key = key;
    }
}

template <class Tree, bool logged>
void insert(benchmark::State &state) {
    const journaled log(logged);
    const auto size = static_cast<size_t>(state.range(0));
    auto all = records<typename Tree::record>(size);
    for (auto _ : state) {
        state.PauseTiming();
        std::vector<std::unique_ptr<Tree>> trees(total / size);
        for (auto &tree : trees) {
            tree = std::make_unique<Tree>();
        }
        state.ResumeTiming();
        for (size_t i = 0; i < total; ++i) {
            benchmark::DoNotOptimize(trees[i / size]->insert(all[i]));
        }
        state.PauseTiming();
        for (auto &tree : trees) {
            tree->clear();
        }
        unlink(all);
        state.ResumeTiming();
    }
    report(state);
}

template <class Tree>
void find(benchmark::State &state) {
    const auto size = static_cast<size_t>(state.range(0));
    auto all = records<typename Tree::record>(size);
    Tree tree;
    for (size_t i = 0; i < size; ++i) {
        tree.insert(all[i]);
    }
    std::mt19937 random(2);
    std::vector<uint32_t> wanted(total);
    for (uint32_t &key : wanted) {
        key = static_cast<uint32_t>(random() % size);
    }
    typename Tree::record key{};
    for (auto _ : state) {
        for (const uint32_t one : wanted) {
            key.key = one;
            benchmark::DoNotOptimize(tree.find(key));
        }
    }
    report(state);
    tree.clear();
}

template <class Tree, bool logged>
void erase(benchmark::State &state) {
    const journaled log(logged);
    const auto size = static_cast<size_t>(state.range(0));
    auto all = records<typename Tree::record>(size);
    const auto order = removal_order(size);
    for (auto _ : state) {
        state.PauseTiming();
        std::vector<std::unique_ptr<Tree>> trees(total / size);
        for (size_t i = 0; i < total; ++i) {
            if (i % size == 0) {
                trees[i / size] = std::make_unique<Tree>();
            }
            trees[i / size]->insert(all[i]);
        }
        state.ResumeTiming();
        for (size_t t = 0; t < trees.size(); ++t) {
            for (const size_t place : order) {
                trees[t]->erase(all[t * size + place]);
            }
        }
    }
    report(state);
}

using boost_inline = boost_tree<inline_less>;
using boost_pointer = boost_tree<pointer_less>;

}  // namespace

#define TREES_SIZES Arg(1000)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond)

BENCHMARK(insert<boost_inline, false>)->Name("insert/avl_set, inline")->TREES_SIZES;
BENCHMARK(insert<boost_pointer, false>)->Name("insert/avl_set, pointer")->TREES_SIZES;
BENCHMARK(insert<route_tree, false>)->Name("insert/avl, no journal")->TREES_SIZES;
BENCHMARK(insert<route_tree, true>)->Name("insert/avl, journaled")->TREES_SIZES;
BENCHMARK(insert<thread_tree, true>)->Name("insert/wavl, journaled")->TREES_SIZES;
BENCHMARK(find<boost_inline>)->Name("find/avl_set, inline")->TREES_SIZES;
BENCHMARK(find<boost_pointer>)->Name("find/avl_set, pointer")->TREES_SIZES;
BENCHMARK(find<route_tree>)->Name("find/avl")->TREES_SIZES;
BENCHMARK(find<thread_tree>)->Name("find/wavl")->TREES_SIZES;
BENCHMARK(erase<boost_inline, false>)->Name("erase/avl_set")->TREES_SIZES;
BENCHMARK(erase<route_tree, true>)->Name("erase/avl, journaled")->TREES_SIZES;
BENCHMARK(erase<thread_tree, true>)->Name("erase/wavl, journaled")->TREES_SIZES;

BENCHMARK_MAIN();
