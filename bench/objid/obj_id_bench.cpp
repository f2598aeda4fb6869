// Object ids: nanoseconds for one free and allocation, and for one lookup, in domains with as many
// ids in use as the argument says. "journaled" works with an undo log bound, as on a window.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <memory>
#include <random>
#include <vector>

#include "services/journal/journal.h"
#include "services/objid/obj_id.h"

namespace {

namespace journal = mfwd6::journal;

class domain {
  public:
    explicit domain(size_t count) {
        fib_obj_id_domain_params_t *d = nullptr;
        fib_obj_id_params_t *p = nullptr;
        fib_obj_id_domain_params_init(&d, calloc, free);
        fib_obj_id_params_init(&p);
        fib_obj_id_params_set_id_cnt(p, uint64_t{1} << 32);
        fib_obj_id_params_set_id_table_size(p, 4096);
        fib_obj_id_params_set_id_instance_cnt(p, 1024);
        fib_obj_id_params_set_id_version_cnt(p, 1024);
        fib_obj_id_params_set_id_userdata_cnt(p, 8);
        if (fib_obj_id_domain_init(d, p, &handle) != 0) {
            std::abort();
        }
        fib_obj_id_params_free(p);
        fib_obj_id_domain_params_free(d);
        ids.resize(count);
        for (uint64_t &id : ids) {
            fib_obj_id_alloc(handle, &id, this, 1);
        }
    }
    ~domain() { fib_obj_id_domain_destroy(handle); }
    domain(const domain &) = delete;
    domain &operator=(const domain &) = delete;

    uint64_t &any() { return ids[random() % ids.size()]; }

    fib_obj_id_domain_t *handle = nullptr;
    std::vector<uint64_t> ids;
    std::minstd_rand random{1};
};

void free_and_alloc(benchmark::State &state, bool journaled) {
    domain d(static_cast<size_t>(state.range(0)));
    constexpr size_t bytes = journal::log_bytes(1024);
    const std::unique_ptr<void, void (*)(void *)> memory(aligned_alloc(64, bytes), free);
    if (journaled) {
        journal::bind_process(journal::format(memory.get(), bytes), 1);
    }
    for (auto _ : state) {
        uint64_t &id = d.any();
        fib_obj_id_free(d.handle, id);
        fib_obj_id_alloc(d.handle, &id, &d, 1);
    }
    journal::bind_process(nullptr, 0);
}

void lookup(benchmark::State &state) {
    domain d(static_cast<size_t>(state.range(0)));
    for (auto _ : state) {
        void *object = nullptr;
        benchmark::DoNotOptimize(
            fib_obj_id_get_object_from_id(d.handle, d.any(), &object, nullptr));
    }
}

BENCHMARK_CAPTURE(free_and_alloc, private, false)->Arg(1000)->Arg(1000000);
BENCHMARK_CAPTURE(free_and_alloc, journaled, true)->Arg(1000)->Arg(1000000);
BENCHMARK(lookup)->Arg(1000)->Arg(1000000);

}  // namespace

BENCHMARK_MAIN();
