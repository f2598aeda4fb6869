#include <gtest/gtest.h>

#include <cerrno>
#include <functional>
#include <vector>

#include "services/objid/obj_id.h"
#include "tests/services/crash/arena.h"
#include "tests/services/objid/domain_maker.h"

namespace {

namespace journal = mfwd6::journal;
using objid_test::numbers;

crash::arena *memory = nullptr;

void *take_shared(size_t count, size_t size) {
    return memory->take(count * size);
}
void give_shared(void *) {}

constexpr size_t most = 40;

// What stands in the window: the domain and the ids that its users hold.
struct world {
    fib_obj_id_domain_t *domain;
    uint64_t ids[most];
    size_t count;
    int objects[most];
};

world *make_world(uint64_t ids) {
    world *const w = memory->make<world>();
    objid_test::params p(numbers{ids, 16, 4, 4, 8});
    fib_obj_id_domain_params_t *d = nullptr;
    EXPECT_EQ(fib_obj_id_domain_params_init(&d, take_shared, give_shared), 0U);
    EXPECT_EQ(fib_obj_id_domain_init(d, p.all, &w->domain), 0U);
    EXPECT_EQ(fib_obj_id_domain_params_free(d), 0U);
    return w;
}

// The user's own note of the id is part of the change.
void add(world *w) {
    const journal::group both;
    uint64_t id = 0;
    if (fib_obj_id_alloc(w->domain, &id, &w->objects[w->count], w->count % 8) == 0) {
        journal::store(w->ids[w->count], id);
        journal::store(w->count, w->count + 1);
    }
}

// Frees the id at a place; the last one takes its place.
void drop(world *w, size_t place) {
    const journal::group both;
    EXPECT_EQ(fib_obj_id_free(w->domain, w->ids[place]), 0U);
    journal::store(w->ids[place], w->ids[w->count - 1]);
    journal::store(w->count, w->count - 1);
}

// All that can be known of a domain from outside: what each id means, and what it gives from now
// on.
struct picture {
    std::vector<cerrno> results;
    std::vector<uint64_t> next;
    uint64_t in_use = 0;
    bool operator==(const picture &) const = default;
};

picture look(world *w) {
    picture p;
    EXPECT_EQ(fib_obj_id_in_use(w->domain, &p.in_use), 0U);
    EXPECT_EQ(p.in_use, w->count);
    for (size_t i = 0; i < w->count; ++i) {
        void *object = nullptr;
        p.results.push_back(fib_obj_id_get_object_from_id(w->domain, w->ids[i], &object, nullptr));
        EXPECT_EQ(p.results.back(), 0U);
    }
    // Uses the domain up: the order of the free indices and their versions show.
    uint64_t id = 0;
    while (p.next.size() < most && fib_obj_id_alloc(w->domain, &id, w, 0) == 0) {
        p.next.push_back(id);
    }
    return p;
}

struct change {
    const char *name;
    uint64_t ids;
    std::function<void(world *)> before;
    std::function<void(world *)> work;
};

void fill(world *w, size_t count) {
    while (w->count < count) {
        add(w);
    }
}

const change changes[] = {
    {"the first id, with directory page and table", 32, [](world *) {}, add},
    {"an id of a table that is there", 32, [](world *w) { fill(w, 3); }, add},
    {"an id that needs a new table", 32, [](world *w) { fill(w, 16); }, add},
    {"the only freed index again", 16, [](world *w) { fill(w, 16), drop(w, 4); }, add},
    {"the first of freed indices again", 16,
     [](world *w) { fill(w, 16), drop(w, 4), drop(w, 1), drop(w, 9); }, add},
    {"the first free", 16, [](world *w) { fill(w, 5); }, [](world *w) { drop(w, 2); }},
    {"a further free", 16, [](world *w) { fill(w, 5), drop(w, 0); }, [](world *w) { drop(w, 2); }},
    {"a free whose version wraps", 1,
     [](world *w) {
         for (int i = 0; i < 3; ++i) {
             fill(w, 1), drop(w, 0);
         }
         fill(w, 1);
     },
     [](world *w) { drop(w, 0); }},
    {"a full domain", 16, [](world *w) { fill(w, 16); }, add},
};

picture picture_of(const change &c, bool with_work) {
    crash::arena a(1 << 20);
    memory = &a;
    world *const w = make_world(c.ids);
    c.before(w);
    if (with_work) {
        c.work(w);
    }
    return look(w);
}

TEST(objid_crash, killed_at_any_store_a_change_is_done_or_not_begun) {
    for (const change &c : changes) {
        const picture before = picture_of(c, false);
        const picture after = picture_of(c, true);
        uint64_t done = 0;
        uint64_t not_begun = 0;
        uint64_t point = 1;
        for (bool killed = true; killed; ++point) {
            crash::arena a(1 << 20);
            memory = &a;
            world *const w = make_world(c.ids);
            c.before(w);
            const size_t used = a.used();
            killed = crash::killed_at(&a, point, [&] { c.work(w); });
            const journal::recovery r = journal::recover(a.log());
            EXPECT_TRUE(r == journal::recovery::clean || r == journal::recovery::undone);
            if (r == journal::recovery::undone) {
                EXPECT_EQ(a.used(), used) << "memory of an undone change stays taken";
            }
            const picture now = look(w);
            EXPECT_TRUE(now == before || now == after) << c.name << " at " << point;
            done += now == after ? 1 : 0;
            not_begun += now == before ? 1 : 0;
        }
        EXPECT_GE(done, 1U) << c.name;
        EXPECT_GE(not_begun, 1U) << c.name;
    }
}

TEST(objid_crash, the_making_of_a_domain_is_done_or_leaves_no_memory_taken) {
    bool killed = true;
    for (uint64_t point = 1; killed; ++point) {
        crash::arena a(1 << 20);
        memory = &a;
        auto **const handle = a.make<fib_obj_id_domain_t *>();
        const size_t used = a.used();
        killed = crash::killed_at(&a, point, [&] {
            const journal::group both;
            journal::store(*handle, make_world(16)->domain);
        });
        journal::recover(a.log());
        EXPECT_TRUE(*handle != nullptr || a.used() == used) << point;
    }
}

// The pointers that the dead process gave are not those of the next one.
TEST(objid_crash, the_next_process_gives_its_own_functions) {
    crash::arena a(1 << 20);
    memory = &a;
    world *const w = memory->make<world>();
    ASSERT_FALSE(crash::killed_at(&a, UINT64_MAX, [&] {
        world *const made = make_world(64);
        fill(made, 3);
        *w = *made;
        for (size_t i = 0; i < 3; ++i) {
            w->objects[i] = static_cast<int>(i);
        }
    }));
    journal::recover(a.log());
    // Reading needs no functions, nor does an id of a table that is there.
    void *object = nullptr;
    ASSERT_EQ(fib_obj_id_get_object_from_id(w->domain, w->ids[1], &object, nullptr), 0U);
    EXPECT_EQ(fib_obj_id_get_object_from_id(w->domain, w->ids[1] ^ 1U << 4, &object, nullptr),
              FIB_OBJ_ID_UNKNOWN);
    uint64_t id = 0;
    for (int i = 3; i < 16; ++i) {
        ASSERT_EQ(fib_obj_id_alloc(w->domain, &id, w, 1), 0U);
    }
    EXPECT_EQ(fib_obj_id_alloc(w->domain, &id, w, 1), FIB_OBJ_ID_NOT_CONNECTED);
    EXPECT_EQ(fib_obj_id_domain_destroy(w->domain), FIB_OBJ_ID_NOT_CONNECTED);
    const objid_test::params p;
    ASSERT_EQ(fib_obj_id_params_set_mem_alloc_fn(p.all, take_shared), 0U);
    ASSERT_EQ(fib_obj_id_domain_reinit(p.domain, p.all, w->domain), 0U);
    EXPECT_EQ(fib_obj_id_alloc(w->domain, &id, w, 1), 0U);
}

TEST(objid_crash, a_table_that_finds_no_memory_leaves_the_domain_as_it_was) {
    for (const int64_t succeed : {0, 1}) {
        crash::arena a(1 << 20);
        memory = &a;
        world *const w = make_world(32);
        journal::bind_process(a.log(), 7);
        a.fail_after(succeed);
        uint64_t id = 77;
        EXPECT_EQ(fib_obj_id_alloc(w->domain, &id, w, 1), static_cast<cerrno>(ENOMEM));
        a.fail_after(-1);
        journal::bind_process(nullptr, 0);
        EXPECT_EQ(id, 77U);
        EXPECT_EQ(a.log()->used, 0U);
        EXPECT_EQ(look(w).next.size(), 32U);
    }
}

}  // namespace
