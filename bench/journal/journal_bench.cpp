// What a journaled store costs beside a plain one, per group size. Time is per store.
#include <benchmark/benchmark.h>

#include "services/journal/journal.h"
#include "services/journal/list.h"

namespace mfwd6 {
namespace {

alignas(64) unsigned char memory[journal::log_bytes(4096)];
uint64_t words[1024];

void plain_store(benchmark::State &state) {
    uint64_t i = 0;
    for (auto _ : state) {
        ++i;
        std::atomic_ref<uint64_t>(words[i % 1024]).store(i, std::memory_order_relaxed);
    }
}
BENCHMARK(plain_store);

void store_without_a_log(benchmark::State &state) {
    uint64_t i = 0;
    for (auto _ : state) {
        ++i;
        journal::store(words[i % 1024], i);
    }
}
BENCHMARK(store_without_a_log);

void journaled_store(benchmark::State &state) {
    journal::log *log = journal::format(memory, sizeof memory);
    journal::bind_process(log, 0x101);
    const int64_t size = state.range(0);
    uint64_t i = 0;
    while (state.KeepRunningBatch(size)) {
        journal::group g;
        for (int64_t k = 0; k < size; ++k) {
            ++i;
            journal::store(words[i % 1024], i);
        }
    }
    journal::bind_process(nullptr, 0);
}
BENCHMARK(journaled_store)->Arg(1)->Arg(4)->Arg(16)->Arg(64)->Arg(1024);

struct record {
    record *next;
    record *prev;
};
using records = journal::member_list<record, &record::next, &record::prev>;

void list_insert_and_remove(benchmark::State &state) {
    journal::log *log = journal::format(memory, sizeof memory);
    if (state.range(0) != 0) {
        journal::bind_process(log, 0x101);
    }
    record *head = nullptr;
    record some[8] = {};
    for (record &r : some) {
        records(head).push_front(&r);
    }
    record one = {};
    for (auto _ : state) {
        records(head).insert_after(&some[3], &one);
        records(head).remove_and_clear(&one);
    }
    state.SetLabel(state.range(0) != 0 ? "journaled" : "without a log");
    journal::bind_process(nullptr, 0);
}
BENCHMARK(list_insert_and_remove)->Arg(0)->Arg(1);

}  // namespace
}  // namespace mfwd6

BENCHMARK_MAIN();
