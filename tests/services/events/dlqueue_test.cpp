#include "services/events/dlqueue.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>
#include <list>
#include <random>
#include <vector>

#include "services/journal/journal.h"
#include "tests/services/crash/arena.h"

namespace {

namespace journal = mfwd6::journal;

using nodes = std::vector<const dlqueue_node_t *>;

// What a reader sees that goes forward from `at` until the head. A broken or endless way gives a
// NULL at the end.
nodes forward(const dlqueue_node_t *head, const dlqueue_node_t *at) {
    nodes seen;
    for (at = journal::observe(at->next); at != head; at = journal::observe(at->next)) {
        if (at == nullptr || seen.size() > 100) {
            seen.push_back(nullptr);
            break;
        }
        seen.push_back(at);
    }
    return seen;
}

nodes backward(const dlqueue_node_t *head) {
    nodes seen;
    for (const dlqueue_node_t *at = head->prev; at != head && seen.size() < 100; at = at->prev) {
        seen.insert(seen.begin(), at);
    }
    return seen;
}

// Head and some elements that lie in shared memory.
struct queue {
    dlqueue_node_t head;
    dlqueue_node_t at[6];

    void init() {
        dlqueue_init(&head, nullptr);
        for (dlqueue_node_t &n : at) {
            dlqueue_init(&n, &n);
        }
    }
};

TEST(dlqueue, a_new_queue_is_empty) {
    queue q;
    q.init();
    EXPECT_EQ(q.head.next, &q.head);
    EXPECT_EQ(q.head.data, nullptr);
    EXPECT_EQ(q.at[0].data, &q.at[0]);
}

TEST(dlqueue, elements_stand_in_the_order_of_insertion) {
    queue q;
    q.init();
    for (dlqueue_node_t &n : q.at) {
        EXPECT_EQ(dlqueue_insert(&n, &q.head), 0U);
    }
    const nodes all{&q.at[0], &q.at[1], &q.at[2], &q.at[3], &q.at[4], &q.at[5]};
    EXPECT_EQ(forward(&q.head, &q.head), all);
    EXPECT_EQ(backward(&q.head), all);
}

TEST(dlqueue, elements_leave_from_any_place) {
    queue q;
    q.init();
    for (dlqueue_node_t &n : q.at) {
        dlqueue_insert(&n, &q.head);
    }
    for (const int i : {0, 5, 2}) {
        EXPECT_EQ(dlqueue_remove(&q.at[i]), 0U);
    }
    const nodes left{&q.at[1], &q.at[3], &q.at[4]};
    EXPECT_EQ(forward(&q.head, &q.head), left);
    EXPECT_EQ(backward(&q.head), left);
    EXPECT_EQ(dlqueue_insert(&q.at[0], &q.head), 0U);
    EXPECT_EQ(backward(&q.head).back(), &q.at[0]);
}

TEST(dlqueue, an_element_is_on_one_queue_once) {
    queue q;
    q.init();
    dlqueue_node_t other;
    dlqueue_init(&other, nullptr);
    EXPECT_EQ(dlqueue_insert(&q.at[0], &q.head), 0U);
    EXPECT_EQ(dlqueue_insert(&q.at[0], &q.head), static_cast<cerrno>(EEXIST));
    EXPECT_EQ(dlqueue_insert(&q.at[0], &other), static_cast<cerrno>(EEXIST));
    EXPECT_EQ(dlqueue_remove(&q.at[0]), 0U);
    EXPECT_EQ(dlqueue_remove(&q.at[0]), static_cast<cerrno>(ENOENT));
    EXPECT_EQ(dlqueue_remove(&q.at[1]), static_cast<cerrno>(ENOENT));
    EXPECT_TRUE(forward(&q.head, &q.head).empty());
    EXPECT_EQ(q.head.prev, &q.head);
}

TEST(dlqueue, refuses_null_and_a_queue_in_itself) {
    queue q;
    q.init();
    EXPECT_EQ(dlqueue_insert(nullptr, &q.head), static_cast<cerrno>(EINVAL));
    EXPECT_EQ(dlqueue_insert(&q.at[0], nullptr), static_cast<cerrno>(EINVAL));
    EXPECT_EQ(dlqueue_insert(&q.head, &q.head), static_cast<cerrno>(EINVAL));
    EXPECT_EQ(dlqueue_remove(nullptr), static_cast<cerrno>(EINVAL));
    EXPECT_EQ(q.head.next, &q.head);
}

TEST(dlqueue, a_reader_on_a_removed_element_finds_the_way_on) {
    queue q;
    q.init();
    for (dlqueue_node_t &n : q.at) {
        dlqueue_insert(&n, &q.head);
    }
    dlqueue_remove(&q.at[2]);
    EXPECT_EQ(forward(&q.head, &q.at[2]), (nodes{&q.at[3], &q.at[4], &q.at[5]}));
}

TEST(dlqueue, agrees_with_a_plain_list_over_a_random_run) {
    queue q;
    q.init();
    std::list<const dlqueue_node_t *> plain;
    std::mt19937 random(7);
    for (int i = 0; i < 5000; ++i) {
        dlqueue_node_t *const n = &q.at[random() % 6];
        const bool there = std::find(plain.begin(), plain.end(), n) != plain.end();
        if (random() % 2 == 0) {
            EXPECT_EQ(dlqueue_insert(n, &q.head), there ? EEXIST : 0U);
            if (!there) {
                plain.push_back(n);
            }
        } else {
            EXPECT_EQ(dlqueue_remove(n), there ? 0U : ENOENT);
            plain.remove(n);
        }
        const nodes expected(plain.begin(), plain.end());
        ASSERT_EQ(forward(&q.head, &q.head), expected);
        ASSERT_EQ(backward(&q.head), expected);
    }
}

// One change, and the queues before and after it.
struct change {
    const char *name;
    std::function<void(queue *)> before;
    std::function<void(queue *)> work;
};

void fill(queue *q, int count) {
    for (int i = 0; i < count; ++i) {
        dlqueue_insert(&q->at[i], &q->head);
    }
}

const change changes[] = {
    {"insert into an empty queue", [](queue *) {},
     [](queue *q) { dlqueue_insert(&q->at[0], &q->head); }},
    {"insert at the back", [](queue *q) { fill(q, 3); },
     [](queue *q) { dlqueue_insert(&q->at[3], &q->head); }},
    {"insert again", [](queue *q) { fill(q, 3), dlqueue_remove(&q->at[1]); },
     [](queue *q) { dlqueue_insert(&q->at[1], &q->head); }},
    {"remove the only one", [](queue *q) { fill(q, 1); },
     [](queue *q) { dlqueue_remove(&q->at[0]); }},
    {"remove the first", [](queue *q) { fill(q, 3); }, [](queue *q) { dlqueue_remove(&q->at[0]); }},
    {"remove from the middle", [](queue *q) { fill(q, 3); },
     [](queue *q) { dlqueue_remove(&q->at[1]); }},
    {"remove the last", [](queue *q) { fill(q, 3); }, [](queue *q) { dlqueue_remove(&q->at[2]); }},
    {"move to the back in one group", [](queue *q) { fill(q, 3); },
     [](queue *q) {
         const journal::group both;
         dlqueue_remove(&q->at[0]);
         dlqueue_insert(&q->at[0], &q->head);
     }},
};

// A reader may start at the head, or stand on any element that it saw.
void expect_whole_for_readers(const queue &q, const char *name, uint64_t point) {
    const nodes seen = forward(&q.head, &q.head);
    ASSERT_TRUE(seen.empty() || seen.back() != nullptr) << name << " at " << point;
    for (const dlqueue_node_t &n : q.at) {
        if (n.next == &n) {
            continue;  // never was on the queue, so no reader is here
        }
        const nodes rest = forward(&q.head, &n);
        ASSERT_TRUE(rest.empty() || rest.back() != nullptr) << name << " at " << point;
    }
}

// Takes back the log's entries one by one, as recovery does, and looks after each.
void undo_step_by_step(journal::log *l, const queue &q, const char *name, uint64_t point) {
    while (l->used > 0) {
        const journal::entry e = journal::entries(l)[l->used - 1];
        ASSERT_EQ(e.where >> 56, static_cast<uint64_t>(journal::kind::word8));
        void *const where = reinterpret_cast<void *>(e.where & ((uint64_t{1} << 56) - 1));
        std::memcpy(where, &e.old, sizeof e.old);
        --l->used;
        expect_whole_for_readers(q, name, point);
    }
}

TEST(dlqueue, killed_at_any_store_a_change_is_done_or_not_begun) {
    for (const change &c : changes) {
        for (const bool by_hand : {false, true}) {
            uint64_t point = 1;
            uint64_t undone = 0;
            for (bool killed = true; killed; ++point) {
                crash::arena a(65536);
                queue *const q = a.make<queue>();
                q->init();
                c.before(q);
                const nodes before = forward(&q->head, &q->head);
                queue *const copy = a.make<queue>();
                copy->init();
                c.before(copy);
                c.work(copy);
                killed = crash::killed_at(&a, point, [&] { c.work(q); });
                expect_whole_for_readers(*q, c.name, point);
                if (by_hand) {
                    undo_step_by_step(a.log(), *q, c.name, point);
                }
                const journal::recovery r = journal::recover(a.log());
                undone += r == journal::recovery::undone ? 1 : 0;
                nodes after;
                for (const dlqueue_node_t *n : forward(&copy->head, &copy->head)) {
                    after.push_back(q->at + (n - copy->at));
                }
                const nodes now = forward(&q->head, &q->head);
                EXPECT_TRUE(now == before || now == after) << c.name << " at " << point;
                EXPECT_EQ(backward(&q->head), now) << c.name << " at " << point;
                expect_whole_for_readers(*q, c.name, point);
                // Each element knows whether it is on the queue.
                for (dlqueue_node_t &n : q->at) {
                    const bool on = std::find(now.begin(), now.end(), &n) != now.end();
                    EXPECT_EQ(dlqueue_remove(&n), on ? 0U : ENOENT) << c.name << " at " << point;
                }
            }
            EXPECT_GT(point, 9U) << c.name << ": too few places to be killed at";
            EXPECT_TRUE(by_hand || undone > 3) << c.name << ": recovery had nothing to undo";
        }
    }
}

}  // namespace
