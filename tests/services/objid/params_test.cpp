#include <gtest/gtest.h>

#include <cerrno>

#include "services/objid/obj_id.h"
#include "tests/services/failing_malloc/failing_malloc.h"
#include "tests/services/objid/domain_maker.h"

namespace {

using namespace objid_test;

constexpr cerrno einval = EINVAL;

TEST(objid_params, refuse_null) {
    fib_obj_id_domain_params_t *d = nullptr;
    EXPECT_EQ(fib_obj_id_domain_params_init(nullptr, take, give), einval);
    EXPECT_EQ(fib_obj_id_domain_params_init(&d, nullptr, give), einval);
    EXPECT_EQ(fib_obj_id_domain_params_init(&d, take, nullptr), einval);
    EXPECT_EQ(d, nullptr);
    EXPECT_EQ(fib_obj_id_domain_params_free(nullptr), einval);
    EXPECT_EQ(fib_obj_id_params_init(nullptr), einval);
    EXPECT_EQ(fib_obj_id_params_free(nullptr), einval);
    EXPECT_EQ(fib_obj_id_params_set_id_cnt(nullptr, 1), einval);
    EXPECT_EQ(fib_obj_id_params_set_dbg_fn(nullptr, note_error), einval);
}

TEST(objid_params, refuse_numbers_out_of_range) {
    const params p;
    EXPECT_EQ(fib_obj_id_params_set_id_cnt(p.all, 0), einval);
    EXPECT_EQ(fib_obj_id_params_set_id_cnt(p.all, (uint64_t{1} << 32) + 1), einval);
    for (const uint32_t bad : {0U, 8U, 17U, 4095U, 131072U}) {
        EXPECT_EQ(fib_obj_id_params_set_id_table_size(p.all, bad), einval) << bad;
    }
    for (const uint32_t bad : {0U, (1U << 20) + 1}) {
        EXPECT_EQ(fib_obj_id_params_set_id_instance_cnt(p.all, bad), einval);
        EXPECT_EQ(fib_obj_id_params_set_id_version_cnt(p.all, bad), einval);
    }
    EXPECT_EQ(fib_obj_id_params_set_id_userdata_cnt(p.all, 0), einval);
    EXPECT_EQ(fib_obj_id_params_set_id_userdata_cnt(p.all, 257), einval);
    EXPECT_EQ(fib_obj_id_params_set_mem_alloc_fn(p.all, nullptr), einval);
    EXPECT_EQ(fib_obj_id_params_set_mem_free_fn(p.all, nullptr), einval);
    EXPECT_EQ(fib_obj_id_params_set_mem_alloc_fn(p.all, take), 0U);
    EXPECT_EQ(fib_obj_id_params_set_mem_free_fn(p.all, give), 0U);
    EXPECT_EQ(fib_obj_id_params_set_dbg_fn(p.all, nullptr), 0U);
}

TEST(objid_params, a_domain_needs_all_numbers) {
    const params p;
    fib_obj_id_domain_t *domain = nullptr;
    errors = 0;
    EXPECT_EQ(fib_obj_id_domain_init(p.domain, p.all, &domain), einval);
    EXPECT_EQ(domain, nullptr);
    EXPECT_EQ(errors, 1);
    EXPECT_EQ(fib_obj_id_domain_init(nullptr, p.all, &domain), einval);
    EXPECT_EQ(fib_obj_id_domain_init(p.domain, nullptr, &domain), einval);
    EXPECT_EQ(fib_obj_id_domain_init(p.domain, p.all, nullptr), einval);
}

TEST(objid_params, numbers_that_do_not_fit_in_an_id_make_no_domain) {
    for (const numbers &n : {numbers{uint64_t{1} << 32, 4096, 1 << 20, 1 << 20, 8},
                             numbers{uint64_t{1} << 32, 2048, 1, 1, 1}}) {
        const params p(n);
        fib_obj_id_domain_t *domain = nullptr;
        EXPECT_EQ(fib_obj_id_domain_init(p.domain, p.all, &domain), einval);
        EXPECT_EQ(domain, nullptr);
    }
    EXPECT_EQ(blocks, 0);
}

TEST(objid_params, a_domain_without_memory_is_not_made) {
    const params p(numbers{});
    fib_obj_id_domain_t *domain = nullptr;
    alloc_left = 0;
    EXPECT_EQ(fib_obj_id_domain_init(p.domain, p.all, &domain), static_cast<cerrno>(ENOMEM));
    alloc_left = -1;
    EXPECT_EQ(domain, nullptr);
    EXPECT_EQ(blocks, 0);
}

TEST(objid_params, without_process_memory_nothing_is_made) {
    SKIP_WITHOUT_FAILING_MALLOC();
    {
        const failing_malloc::scope none(0);
        fib_obj_id_domain_params_t *d = nullptr;
        fib_obj_id_params_t *a = nullptr;
        EXPECT_EQ(fib_obj_id_domain_params_init(&d, take, give), static_cast<cerrno>(ENOMEM));
        EXPECT_EQ(fib_obj_id_params_init(&a), static_cast<cerrno>(ENOMEM));
    }
    const params p(numbers{});
    fib_obj_id_domain_t *domain = nullptr;
    {
        const failing_malloc::scope domain_only(1);
        EXPECT_EQ(fib_obj_id_domain_init(p.domain, p.all, &domain), static_cast<cerrno>(ENOMEM));
    }
    EXPECT_EQ(domain, nullptr);
    EXPECT_EQ(blocks, 0);
}

TEST(objid_params, a_domain_is_destroyed_with_all_its_memory) {
    fib_obj_id_domain_t *const domain = make({});
    uint64_t id = 0;
    int object = 0;
    for (int i = 0; i < 5000; ++i) {
        ASSERT_EQ(fib_obj_id_alloc(domain, &id, &object, 1), 0U);
    }
    EXPECT_GT(blocks, 3);
    EXPECT_EQ(fib_obj_id_domain_destroy(domain), 0U);
    EXPECT_EQ(blocks, 0);
    EXPECT_EQ(fib_obj_id_domain_destroy(nullptr), einval);
}

}  // namespace
