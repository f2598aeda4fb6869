// Lookups beside the writer.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "services/objid/obj_id.h"
#include "tests/services/objid/domain_maker.h"

namespace {

using namespace objid_test;

// The object of a type says which type it is; a reader must never get one for the other.
TEST(objid_reader, gets_the_right_object_or_a_stale_id) {
    static uint32_t objects[8];
    for (uint32_t i = 0; i < 8; ++i) {
        objects[i] = i;
    }
    fib_obj_id_domain_t *const domain = make({4, 16, 1, 1 << 20, 8});
    std::atomic<uint64_t> shared{0};
    std::atomic<bool> done{false};
    uint64_t found = 0;
    std::thread reader([&] {
        // Once more after the writer's end, when the last id is still live.
        for (bool last = false; !last;) {
            last = done.load();
            const uint64_t id = shared.load();
            void *object = nullptr;
            uint32_t type = 99;
            const cerrno rc = fib_obj_id_get_object_from_id(domain, id, &object, &type);
            if (rc == 0) {
                ++found;
                EXPECT_EQ(*static_cast<uint32_t *>(object), type);
            } else if (id != 0) {
                EXPECT_EQ(rc, FIB_OBJ_ID_STALE);
            }
        }
    });
    uint64_t id = 0;
    for (uint32_t i = 0; i < 100000; ++i) {
        if (id != 0) {
            EXPECT_EQ(fib_obj_id_free(domain, id), 0U);
        }
        ASSERT_EQ(fib_obj_id_alloc(domain, &id, &objects[i % 8], i % 8), 0U);
        shared.store(id);
    }
    done.store(true);
    reader.join();
    EXPECT_GT(found, 0U);
    EXPECT_EQ(fib_obj_id_domain_destroy(domain), 0U);
}

}  // namespace
