// Recovery of a peer that held several locks and logs, with an allocator that journals for itself.
#include <bit>
#include <vector>

#include "tests/services/locks/shared_page.h"

namespace mfwd6 {
namespace {

using test::child;
using test::shared_page;

shared_page *page_in_use = nullptr;

// Blocks are words 32 to 63; word 31 has a bit for each that is taken.
uint64_t &taken() {
    return page_in_use->at->words[31];
}

locks::mutex_options allocator_lock() {
    return {.window = page_in_use->env, .log = page_in_use->log(peers::domain::allocator)};
}

void *take_block() {
    journal::log *const around = journal::self.current;
    locks::lock(&page_in_use->at->allocator, allocator_lock());
    void *block;
    {
        journal::group g(page_in_use->log(peers::domain::allocator));
        const int i = std::countr_one(taken());
        journal::store(taken(), taken() | (uint64_t{1} << i));
        block = &page_in_use->at->words[32 + i];
        journal::note_allocation(around, block);
    }
    locks::unlock(&page_in_use->at->allocator, allocator_lock());
    return block;
}

void give_block(journal::log *around, void *block) {
    locks::lock(&page_in_use->at->allocator, allocator_lock());
    {
        journal::group g(page_in_use->log(peers::domain::allocator));
        const auto i = static_cast<uint64_t *>(block) - &page_in_use->at->words[32];
        journal::store(taken(), taken() & ~(uint64_t{1} << i));
        journal::store(around->used, around->used - 1);
    }
    locks::unlock(&page_in_use->at->allocator, allocator_lock());
}

const journal::block_hooks hooks = {.release = give_block};

class Recovery : public testing::Test {
  protected:
    void SetUp() override { journal::set_block_hooks(&hooks); }
    void TearDown() override { journal::set_block_hooks(nullptr); }

    static void work(shared_page &p) {
        const locks::mutex_options window = {.window = p.env,
                                             .log = p.log(peers::domain::window_mutex)};
        locks::lock(&p.at->mutex, window);
        {
            journal::group g;
            journal::store(p.at->words[0], 1);
            void *b = take_block();
            journal::store(p.at->words[1], reinterpret_cast<uint64_t>(b));
        }
        const timespec t = test::in_ms(5000);
        rrw_lock_get_timedwrlock(&p.at->rw, &t);
        {
            journal::group g;
            journal::note_free(journal::self.current, reinterpret_cast<void *>(p.at->words[1]));
            journal::store(p.at->words[1], 0);
            void *b = take_block();
            journal::store(p.at->words[2], reinterpret_cast<uint64_t>(b));
        }
        rrw_lock_unlock(&p.at->rw, 1, 0);
        locks::unlock(&p.at->mutex, window);
    }

    // As many blocks are taken as words name.
    static void expect_whole(const shared_page &p) {
        uint64_t named = 0;
        for (const int word : {1, 2}) {
            if (p.at->words[word] != 0) {
                named |= uint64_t{1}
                         << ((p.at->words[word] - reinterpret_cast<uint64_t>(&p.at->words[32])) /
                             8);
            }
        }
        EXPECT_EQ(taken(), named);
        for (uint32_t i = 0; i < peers::domains; ++i) {
            const auto *l = reinterpret_cast<const journal::log *>(p.at->logs[i]);
            EXPECT_EQ(l->holder, 0U);
            EXPECT_EQ(l->used, 0U);
        }
        EXPECT_EQ(p.at->damaged, 0U);
    }
};

TEST_F(Recovery, LivePeerIsLeftAlone) {
    shared_page p;
    page_in_use = &p;
    ASSERT_EQ(p.open(), 0);
    locks::recover_peer(p.plan(), p.env->self);
    EXPECT_EQ(p.at->recovered, 0U);
    EXPECT_TRUE(peers::alive(p.env, p.env->self));
    locks::recover_peer(p.plan(), 0);
    EXPECT_EQ(p.at->recovered, 0U);
}

TEST_F(Recovery, WorkerKilledAnywhereLeavesAWholePage) {
    for (int n = 1;; ++n) {
        shared_page p;
        page_in_use = &p;
        child dies([&](child &) {
            p.open();
            test::die_at_point(n);
            work(p);
        });
        const int status = dies.wait();
        ASSERT_EQ(p.open(), 0);
        locks::recover_peer(p.plan(), 0x101);
        expect_whole(p);
        ASSERT_FALSE(HasFailure()) << "killed at " << n;
        work(p);
        expect_whole(p);
        if (!test::killed(status)) {
            EXPECT_GT(n, 40);
            break;
        }
    }
}

// The worker is killed at every third point, the process that recovers it at every point, and the
// next recoverer two points on.
TEST_F(Recovery, RecoverersKilledOneAfterTheOtherLeaveAWholePage) {
    for (int n = 1;; n += 3) {
        bool worker_died = true;
        for (int m = 1;; ++m) {
            shared_page p;
            page_in_use = &p;
            child worker([&](child &) {
                p.open();
                test::die_at_point(n);
                work(p);
            });
            worker_died = test::killed(worker.wait());
            bool any = false;
            for (const int point : {m, m + 2}) {
                child recoverer([&](child &) {
                    p.open();
                    test::die_at_point(point);
                    locks::recover_peer(p.plan(), 0x101);
                });
                any = test::killed(recoverer.wait()) || any;
            }
            ASSERT_EQ(p.open(), 0);
            locks::recover_peer(p.plan(), 0x101);
            work(p);
            expect_whole(p);
            ASSERT_FALSE(HasFailure()) << "killed at " << n << ", recoverer at " << m;
            if (!any) {
                break;
            }
        }
        if (!worker_died) {
            break;
        }
    }
}

TEST_F(Recovery, OutgrownLogIsToldAsDamageEvenIfTheFirstRecovererDies) {
    shared_page p;
    page_in_use = &p;
    child dies([&](child &c) {
        p.open();
        journal::bind_process(p.log(peers::domain::owner), p.env->self);
        journal::group g;
        for (uint64_t i = 0; i < 100; ++i) {
            journal::store(p.at->words[0], i);
        }
        c.tell_and_hang('d');
    });
    ASSERT_EQ(dies.hear(), 'd');
    dies.kill();
    ASSERT_EQ(p.open(), 0);
    locks::recover_peer(p.plan(), 0x101);
    EXPECT_EQ(p.at->damaged, 1U);
    EXPECT_EQ(p.at->recovered, 1U);
    EXPECT_EQ(p.at->peers.slots[0].id, 0U);
}

}  // namespace
}  // namespace mfwd6
