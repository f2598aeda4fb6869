#include "services/objid/obj_id.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <random>
#include <unordered_map>
#include <vector>

#include "tests/services/objid/domain_maker.h"

namespace {

using namespace objid_test;

constexpr cerrno einval = EINVAL;

class obj_id_test : public ::testing::Test {
  protected:
    void SetUp() override { remake({}); }
    void TearDown() override {
        EXPECT_EQ(fib_obj_id_domain_destroy(domain), 0U);
        EXPECT_EQ(blocks, 0);
    }

    void remake(const numbers &n) {
        if (domain != nullptr) {
            ASSERT_EQ(fib_obj_id_domain_destroy(domain), 0U);
        }
        domain = make(n);
        ASSERT_NE(domain, nullptr);
        errors = 0;
    }

    uint64_t alloc(void *object, uint32_t type) {
        uint64_t id = 0;
        EXPECT_EQ(fib_obj_id_alloc(domain, &id, object, type), 0U);
        return id;
    }

    cerrno find(uint64_t id, void **object) {
        return fib_obj_id_get_object_from_id(domain, id, object, nullptr);
    }

    uint64_t in_use() {
        uint64_t count = 99;
        EXPECT_EQ(fib_obj_id_in_use(domain, &count), 0U);
        return count;
    }

    fib_obj_id_domain_t *domain = nullptr;
    int objects[16] = {};
};

TEST_F(obj_id_test, an_id_leads_to_its_object_and_type) {
    const uint64_t route = alloc(&objects[0], 1);
    const uint64_t intf = alloc(&objects[1], 2);
    EXPECT_NE(route, intf);
    void *object = nullptr;
    uint32_t type = 0;
    EXPECT_EQ(fib_obj_id_get_object_from_id(domain, route, &object, &type), 0U);
    EXPECT_EQ(object, &objects[0]);
    EXPECT_EQ(type, 1U);
    EXPECT_EQ(fib_obj_id_get_object_from_id(domain, intf, &object, nullptr), 0U);
    EXPECT_EQ(object, &objects[1]);
    EXPECT_EQ(in_use(), 2U);
    EXPECT_EQ(errors, 0);
}

TEST_F(obj_id_test, ids_are_neither_zero_nor_reserved) {
    for (int i = 0; i < 10000; ++i) {
        const uint64_t id = alloc(&objects[0], static_cast<uint32_t>(i) % 8);
        EXPECT_NE(id, 0U);
        EXPECT_LT(id, 0xFFFFFFFFFFFFFFFEU);
    }
    void *object = nullptr;
    for (const uint64_t bad : {uint64_t{0}, uint64_t{1}, 0xFFFFFFFFFFFFFFFE, UINT64_MAX}) {
        EXPECT_EQ(find(bad, &object), FIB_OBJ_ID_MALFORMED);
        EXPECT_EQ(fib_obj_id_free(domain, bad), FIB_OBJ_ID_MALFORMED);
    }
}

TEST_F(obj_id_test, the_type_is_the_only_output_that_must_be_asked_for) {
    const uint64_t id = alloc(&objects[0], 2);
    uint32_t type = 0;
    EXPECT_EQ(fib_obj_id_decode(domain, id, NULL, &type, NULL, NULL, NULL, NULL, NULL), 0U);
    EXPECT_EQ(type, 2U);
}

TEST_F(obj_id_test, decoding_gives_all_parts) {
    uint64_t id = 0;
    for (int i = 0; i < 4100; ++i) {
        id = alloc(&objects[0], 7);
    }
    uint64_t index = 0;
    uint32_t type = 0;
    uint32_t version = 9;
    uint32_t instance = 9;
    uint32_t table = 9;
    uint32_t entry = 9;
    uint32_t live = 9;
    EXPECT_EQ(
        fib_obj_id_decode(domain, id, &index, &type, &version, &instance, &table, &entry, &live),
        0U);
    EXPECT_EQ(index, 4099U);
    EXPECT_EQ(type, 7U);
    EXPECT_EQ(version, 0U);
    EXPECT_EQ(instance, 0U);
    EXPECT_EQ(table, 1U);
    EXPECT_EQ(entry, 3U);
    EXPECT_EQ(live, 1U);
}

TEST_F(obj_id_test, a_stale_id_decodes_but_finds_nothing) {
    const uint64_t id = alloc(&objects[0], 1);
    ASSERT_EQ(fib_obj_id_free(domain, id), 0U);
    uint32_t type = 0;
    uint32_t live = 9;
    EXPECT_EQ(fib_obj_id_decode(domain, id, NULL, &type, NULL, NULL, NULL, NULL, &live), 0U);
    EXPECT_EQ(type, 1U);
    EXPECT_EQ(live, 0U);
    void *object = &objects[5];
    EXPECT_EQ(find(id, &object), FIB_OBJ_ID_STALE);
    EXPECT_EQ(object, &objects[5]);
    EXPECT_EQ(errors, 1);
    EXPECT_EQ(fib_obj_id_free(domain, id), FIB_OBJ_ID_STALE);
    EXPECT_EQ(in_use(), 0U);
}

TEST_F(obj_id_test, an_id_that_was_never_given_out_is_unknown) {
    const uint64_t id = alloc(&objects[0], 1);
    void *object = nullptr;
    EXPECT_EQ(find(id + 1, &object), FIB_OBJ_ID_UNKNOWN);        // the next index
    EXPECT_EQ(find(id + 1000000, &object), FIB_OBJ_ID_UNKNOWN);  // of a table that is not there
    EXPECT_EQ(find(id | 0xffffffff, &object), FIB_OBJ_ID_UNKNOWN);
    const uint64_t other_instance = id | uint64_t{1} << 42;
    EXPECT_EQ(find(other_instance, &object), FIB_OBJ_ID_UNKNOWN);
    const uint64_t other_type = id ^ uint64_t { 3 } << 52;
    EXPECT_EQ(find(other_type, &object), FIB_OBJ_ID_UNKNOWN);
    EXPECT_EQ(fib_obj_id_free(domain, other_type), FIB_OBJ_ID_UNKNOWN);
    EXPECT_EQ(find(id, &object), 0U);
}

TEST_F(obj_id_test, versions_wrap_after_their_count) {
    remake({1, 16, 1, 1024, 8});
    std::vector<uint64_t> given;
    for (int i = 0; i < 1024; ++i) {
        given.push_back(alloc(&objects[0], 1));
        for (size_t old = 0; old + 1 < given.size(); old += 100) {
            void *object = nullptr;
            ASSERT_EQ(find(given[old], &object), FIB_OBJ_ID_STALE);
        }
        ASSERT_EQ(fib_obj_id_free(domain, given.back()), 0U);
    }
    std::sort(given.begin(), given.end());
    EXPECT_EQ(std::unique(given.begin(), given.end()), given.end());
    EXPECT_EQ(alloc(&objects[0], 1), given[0]);
}

TEST_F(obj_id_test, indices_are_taken_again_in_the_order_in_which_they_were_freed) {
    remake({16, 16, 1, 1024, 8});
    std::vector<uint64_t> ids;
    for (int i = 0; i < 16; ++i) {
        ids.push_back(alloc(&objects[0], 0));
    }
    for (const size_t i : {7U, 3U, 11U}) {
        ASSERT_EQ(fib_obj_id_free(domain, ids[i]), 0U);
    }
    for (const uint64_t expected : {7U, 3U, 11U}) {
        uint64_t index = 0;
        fib_obj_id_decode(domain, alloc(&objects[0], 0), &index, NULL, NULL, NULL, NULL, NULL,
                          NULL);
        EXPECT_EQ(index, expected);
    }
}

TEST_F(obj_id_test, a_full_domain_says_so_and_changes_nothing) {
    remake({20, 16, 1, 4, 8});
    for (int i = 0; i < 20; ++i) {
        alloc(&objects[0], 1);
    }
    uint64_t id = 77;
    EXPECT_EQ(fib_obj_id_alloc(domain, &id, &objects[0], 1), FIB_OBJ_ID_FULL);
    EXPECT_EQ(id, 77U);
    EXPECT_EQ(in_use(), 20U);
    EXPECT_EQ(errors, 1);
}

TEST_F(obj_id_test, without_memory_for_a_table_nothing_is_given_out) {
    uint64_t id = 77;
    for (const long succeed : {0L, 1L}) {
        alloc_left = succeed;
        EXPECT_EQ(fib_obj_id_alloc(domain, &id, &objects[0], 1), static_cast<cerrno>(ENOMEM));
        EXPECT_EQ(id, 77U);
        EXPECT_EQ(in_use(), 0U);
    }
    alloc_left = -1;
    EXPECT_EQ(fib_obj_id_alloc(domain, &id, &objects[0], 1), 0U);
    // Ids that need no table still come.
    alloc_left = 0;
    EXPECT_EQ(fib_obj_id_alloc(domain, &id, &objects[0], 1), 0U);
    alloc_left = -1;
}

TEST_F(obj_id_test, tables_are_allocated_on_demand) {
    EXPECT_EQ(blocks, 1);
    alloc(&objects[0], 1);
    EXPECT_EQ(blocks, 3);
    for (int i = 1; i < 4096; ++i) {
        alloc(&objects[0], 1);
    }
    EXPECT_EQ(blocks, 3);
    alloc(&objects[0], 1);
    EXPECT_EQ(blocks, 4);
}

TEST_F(obj_id_test, refuses_bad_arguments) {
    uint64_t id = 77;
    void *object = nullptr;
    EXPECT_EQ(fib_obj_id_alloc(nullptr, &id, &objects[0], 1), einval);
    EXPECT_EQ(fib_obj_id_alloc(domain, nullptr, &objects[0], 1), einval);
    EXPECT_EQ(fib_obj_id_alloc(domain, &id, nullptr, 1), einval);
    EXPECT_EQ(fib_obj_id_alloc(domain, &id, &objects[0], 8), einval);
    EXPECT_EQ(id, 77U);
    EXPECT_EQ(fib_obj_id_free(nullptr, id), einval);
    EXPECT_EQ(fib_obj_id_get_object_from_id(nullptr, id, &object, NULL), einval);
    EXPECT_EQ(fib_obj_id_get_object_from_id(domain, id, nullptr, NULL), einval);
    EXPECT_EQ(fib_obj_id_decode(nullptr, id, NULL, NULL, NULL, NULL, NULL, NULL, NULL), einval);
    EXPECT_EQ(fib_obj_id_in_use(domain, nullptr), einval);
    EXPECT_EQ(fib_obj_id_in_use(nullptr, &id), einval);
}

TEST_F(obj_id_test, what_is_no_domain_is_refused) {
    alignas(16) static char zero[16384] = {};
    auto *const none = reinterpret_cast<fib_obj_id_domain_t *>(zero);
    uint64_t id = 0;
    void *object = nullptr;
    const params p;
    EXPECT_EQ(fib_obj_id_alloc(none, &id, &objects[0], 1), FIB_OBJ_ID_NO_DOMAIN);
    EXPECT_EQ(fib_obj_id_free(none, id), FIB_OBJ_ID_NO_DOMAIN);
    EXPECT_EQ(fib_obj_id_get_object_from_id(none, id, &object, NULL), FIB_OBJ_ID_NO_DOMAIN);
    EXPECT_EQ(fib_obj_id_decode(none, id, NULL, NULL, NULL, NULL, NULL, NULL, NULL),
              FIB_OBJ_ID_NO_DOMAIN);
    EXPECT_EQ(fib_obj_id_domain_reinit(p.domain, p.all, none), FIB_OBJ_ID_NO_DOMAIN);
    EXPECT_EQ(fib_obj_id_domain_destroy(none), FIB_OBJ_ID_NO_DOMAIN);
    EXPECT_EQ(fib_obj_id_in_use(none, &id), FIB_OBJ_ID_NO_DOMAIN);
}

int other_allocs = 0;

void *take_other(size_t count, size_t size) {
    ++other_allocs;
    return take(count, size);
}

TEST_F(obj_id_test, reinit_replaces_the_functions_and_keeps_the_ids) {
    const uint64_t id = alloc(&objects[3], 1);
    const params p;
    ASSERT_EQ(fib_obj_id_params_set_mem_alloc_fn(p.all, take_other), 0U);
    ASSERT_EQ(fib_obj_id_domain_reinit(p.domain, p.all, domain), 0U);
    void *object = nullptr;
    EXPECT_EQ(find(id, &object), 0U);
    EXPECT_EQ(object, &objects[3]);
    for (int i = 0; i < 4096; ++i) {
        alloc(&objects[0], 1);
    }
    EXPECT_EQ(other_allocs, 1);
}

TEST_F(obj_id_test, reinit_with_other_numbers_is_refused) {
    for (const numbers &n : {numbers{1 << 20}, numbers{uint64_t{1} << 32, 8192}}) {
        const params p(n);
        EXPECT_EQ(fib_obj_id_domain_reinit(p.domain, p.all, domain), FIB_OBJ_ID_SHAPE);
    }
    const params same(numbers{});
    EXPECT_EQ(fib_obj_id_domain_reinit(same.domain, same.all, domain), 0U);
    EXPECT_EQ(fib_obj_id_domain_reinit(nullptr, same.all, domain), einval);
    EXPECT_EQ(fib_obj_id_domain_reinit(same.domain, nullptr, domain), einval);
    EXPECT_EQ(fib_obj_id_domain_reinit(same.domain, same.all, nullptr), einval);
}

TEST_F(obj_id_test, agrees_with_a_plain_map_over_a_random_run) {
    remake({300, 16, 1024, 8, 8});
    std::unordered_map<uint64_t, void *> plain;
    std::vector<uint64_t> ids;
    std::mt19937 random(3);
    for (int i = 0; i < 20000; ++i) {
        const bool want_more = ids.size() < (i / 4000 % 2 == 0 ? 300U : 20U);
        if (want_more ? random() % 4 != 0 : random() % 4 == 0) {
            uint64_t id = 0;
            void *const object = &objects[random() % 16];
            const cerrno rc = fib_obj_id_alloc(domain, &id, object, random() % 8);
            ASSERT_EQ(rc, ids.size() == 300 ? FIB_OBJ_ID_FULL : 0U);
            if (rc == 0) {
                ASSERT_TRUE(plain.emplace(id, object).second);
                ids.push_back(id);
            }
        } else if (!ids.empty()) {
            std::swap(ids[random() % ids.size()], ids.back());
            const uint64_t gone = ids.back();
            ASSERT_EQ(fib_obj_id_free(domain, gone), 0U);
            ASSERT_EQ(fib_obj_id_free(domain, gone), FIB_OBJ_ID_STALE);
            plain.erase(gone);
            ids.pop_back();
        }
        ASSERT_EQ(in_use(), plain.size());
    }
    for (const auto &[id, expected] : plain) {
        void *object = nullptr;
        EXPECT_EQ(find(id, &object), 0U);
        EXPECT_EQ(object, expected);
    }
}

}  // namespace
