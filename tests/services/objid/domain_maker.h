// Domains for tests, in memory of the process.
#ifndef MFWD6_TESTS_SERVICES_OBJID_DOMAIN_MAKER_H
#define MFWD6_TESTS_SERVICES_OBJID_DOMAIN_MAKER_H

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>

#include "services/objid/obj_id.h"

namespace objid_test {

inline long blocks = 0;       // allocated and not freed
inline long alloc_left = -1;  // allocations that still succeed; negative: all do
inline int errors = 0;        // messages to the error function

inline void *take(size_t count, size_t size) {
    if (alloc_left == 0) {
        return nullptr;
    }
    alloc_left -= alloc_left > 0 ? 1 : 0;
    ++blocks;
    // Not zeroed, on purpose.
    void *const block = std::malloc(count * size);
    auto *const bytes = static_cast<unsigned char *>(block);
    for (size_t i = 0; i < count * size; ++i) {
        bytes[i] = 0xa5;
    }
    return block;
}

inline void give(void *block) {
    --blocks;
    std::free(block);
}

__attribute__((format(printf, 1, 2))) inline void note_error(const char *, ...) {
    ++errors;
}

struct numbers {
    uint64_t ids = uint64_t{1} << 32;
    uint32_t table_size = 4096;
    uint32_t instances = 1024;
    uint32_t versions = 1024;
    uint32_t userdata = 8;
};

// The two parameter records, ready for a call.
class params {
  public:
    params() {
        EXPECT_EQ(fib_obj_id_domain_params_init(&domain, take, give), 0U);
        EXPECT_EQ(fib_obj_id_params_init(&all), 0U);
        EXPECT_EQ(fib_obj_id_params_set_dbg_err_fn(all, note_error), 0U);
    }
    explicit params(const numbers &n) : params() {
        EXPECT_EQ(fib_obj_id_params_set_id_cnt(all, n.ids), 0U);
        EXPECT_EQ(fib_obj_id_params_set_id_table_size(all, n.table_size), 0U);
        EXPECT_EQ(fib_obj_id_params_set_id_instance_cnt(all, n.instances), 0U);
        EXPECT_EQ(fib_obj_id_params_set_id_version_cnt(all, n.versions), 0U);
        EXPECT_EQ(fib_obj_id_params_set_id_userdata_cnt(all, n.userdata), 0U);
    }
    ~params() {
        EXPECT_EQ(fib_obj_id_params_free(all), 0U);
        EXPECT_EQ(fib_obj_id_domain_params_free(domain), 0U);
    }
    params(const params &) = delete;
    params &operator=(const params &) = delete;

    fib_obj_id_domain_params_t *domain = nullptr;
    fib_obj_id_params_t *all = nullptr;
};

inline fib_obj_id_domain_t *make(const numbers &n) {
    const params p(n);
    fib_obj_id_domain_t *domain = nullptr;
    EXPECT_EQ(fib_obj_id_domain_init(p.domain, p.all, &domain), 0U);
    return domain;
}

}  // namespace objid_test

#endif
