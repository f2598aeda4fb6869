#include "services/locks/robust_mutex.h"

#include <thread>
#include <vector>

#include "tests/services/locks/shared_page.h"

namespace mfwd6 {
namespace {

using locks::outcome;
using test::child;
using test::shared_page;

TEST(RobustMutex, LocksAndUnlocksInPrivateMemory) {
    locks::robust_mutex m{};
    EXPECT_EQ(locks::lock(&m, {}), outcome::taken);
    EXPECT_EQ(locks::holder_of(&m).peer, peers::private_peer);
    EXPECT_EQ(locks::holder_of(&m).thread, static_cast<uint32_t>(gettid()));
    EXPECT_EQ(locks::unlock(&m, {}), 0U);
    EXPECT_EQ(m.word, 0U);
}

TEST(RobustMutex, UnlockByAStrangerIsRefused) {
    locks::robust_mutex m{};
    EXPECT_EQ(locks::unlock(&m, {}), static_cast<cerrno>(EPERM));
    ASSERT_EQ(locks::lock(&m, {}), outcome::taken);
    std::thread([&] {
        EXPECT_EQ(locks::unlock(&m, {}), static_cast<cerrno>(EPERM));
        EXPECT_EQ(locks::try_lock(&m, {}), outcome::busy);
    }).join();
    EXPECT_NE(m.word, 0U);
    EXPECT_EQ(locks::unlock(&m, {}), 0U);
}

TEST(RobustMutex, RecursiveHoldsAreCounted) {
    locks::robust_mutex m{};
    const locks::mutex_options how = {.recursive = true};
    EXPECT_EQ(locks::lock(&m, how), outcome::taken);
    EXPECT_EQ(locks::lock(&m, how), outcome::taken_again);
    EXPECT_EQ(locks::try_lock(&m, how), outcome::taken_again);
    EXPECT_EQ(m.depth, 3U);
    EXPECT_EQ(locks::unlock(&m, how), 0U);
    EXPECT_EQ(locks::unlock(&m, how), 0U);
    EXPECT_NE(m.word, 0U);
    EXPECT_EQ(locks::unlock(&m, how), 0U);
    EXPECT_EQ(m.word, 0U);
    EXPECT_EQ(locks::unlock(&m, how), static_cast<cerrno>(EPERM));
}

TEST(RobustMutex, NotRecursiveIsBusyForItsOwnHolder) {
    locks::robust_mutex m{};
    ASSERT_EQ(locks::lock(&m, {}), outcome::taken);
    EXPECT_EQ(locks::try_lock(&m, {}), outcome::busy);
    EXPECT_EQ(locks::unlock(&m, {}), 0U);
}

TEST(RobustMutex, BindsItsLogWhileHeld) {
    shared_page p;
    ASSERT_EQ(p.open(), 0);
    journal::log *log = p.log(peers::domain::window_mutex);
    const locks::mutex_options how = {.window = p.env, .log = log, .recursive = true};
    ASSERT_TRUE(locks::is_taken(locks::lock(&p.at->mutex, how)));
    ASSERT_TRUE(locks::is_taken(locks::lock(&p.at->mutex, how)));
    EXPECT_EQ(journal::choose(), log);
    EXPECT_EQ(journal::self.bound_count, 1U);
    EXPECT_EQ(locks::unlock(&p.at->mutex, how), 0U);
    EXPECT_EQ(journal::choose(), log);
    EXPECT_EQ(locks::unlock(&p.at->mutex, how), 0U);
    EXPECT_EQ(journal::choose(), nullptr);
}

TEST(RobustMutex, WithNoRoomForItsLogItIsNotTaken) {
    shared_page p;
    ASSERT_EQ(p.open(), 0);
    journal::log *log = p.log(peers::domain::window_mutex);
    for (int i = 0; i < 6; ++i) {
        ASSERT_TRUE(journal::bind_thread(p.log(peers::domain::owner), 1));
    }
    EXPECT_EQ(locks::lock(&p.at->mutex, {.window = p.env, .log = log}), outcome::no_binding);
    EXPECT_EQ(p.at->mutex.word, 0U);
    for (int i = 0; i < 6; ++i) {
        journal::unbind_thread(p.log(peers::domain::owner));
    }
}

TEST(RobustMutex, ThreadsExcludeEachOther) {
    locks::robust_mutex m{};
    uint64_t counter = 0;
    std::vector<std::thread> all;
    for (int t = 0; t < 4; ++t) {
        all.emplace_back([&] {
            for (int i = 0; i < 20000; ++i) {
                EXPECT_TRUE(locks::is_taken(locks::lock(&m, {})));
                ++counter;
                EXPECT_EQ(locks::unlock(&m, {}), 0U);
            }
        });
    }
    for (std::thread &t : all) {
        t.join();
    }
    EXPECT_EQ(counter, 80000U);
    EXPECT_EQ(m.word, 0U);
}

TEST(RobustMutex, ProcessesExcludeEachOther) {
    shared_page p;
    constexpr int processes = 3;
    constexpr uint64_t rounds = 5000;
    std::vector<std::unique_ptr<child>> all;
    for (int i = 0; i < processes; ++i) {
        all.push_back(std::make_unique<child>([&](child &) {
            if (p.open() != 0) {
                _exit(1);
            }
            for (uint64_t k = 0; k < rounds; ++k) {
                locks::lock(&p.at->mutex, {.window = p.env});
                p.at->words[0] = p.at->words[0] + 1;
                locks::unlock(&p.at->mutex, {.window = p.env});
            }
        }));
    }
    for (auto &c : all) {
        EXPECT_TRUE(test::exited_with(c->wait(), 0));
    }
    EXPECT_EQ(p.at->words[0], processes * rounds);
}

TEST(RobustMutex, DeadHolderIsRecoveredBeforeTheNextHasIt) {
    shared_page p;
    p.at->words[0] = 5;
    child holder([&](child &c) {
        p.open();
        locks::lock(
            &p.at->mutex,
            {.window = p.env, .log = p.log(peers::domain::window_mutex), .recursive = true});
        locks::lock(
            &p.at->mutex,
            {.window = p.env, .log = p.log(peers::domain::window_mutex), .recursive = true});
        journal::group g;
        journal::store(p.at->words[0], 6);
        c.tell_and_hang('h');
    });
    ASSERT_EQ(holder.hear(), 'h');
    ASSERT_EQ(p.open(), 0);
    EXPECT_EQ(locks::try_lock(&p.at->mutex, {.window = p.env}), outcome::busy);
    EXPECT_EQ(p.at->words[0], 6U);
    holder.kill();
    EXPECT_EQ(locks::lock(&p.at->mutex, {.window = p.env}), outcome::taken_after_death);
    EXPECT_EQ(p.at->words[0], 5U);
    EXPECT_EQ(p.at->mutex.deaths, 1U);
    EXPECT_EQ(p.at->mutex.depth, 1U);
    EXPECT_EQ(p.at->recovered, 1U);
    EXPECT_EQ(locks::unlock(&p.at->mutex, {.window = p.env}), 0U);
    EXPECT_EQ(locks::lock(&p.at->mutex, {.window = p.env}), outcome::taken);
}

TEST(RobustMutex, SleepingWaitersNoticeTheDeathAndAllProceed) {
    shared_page p;
    child holder([&](child &c) {
        p.open();
        locks::lock(&p.at->mutex, {.window = p.env});
        c.tell_and_hang('h');
    });
    ASSERT_EQ(holder.hear(), 'h');
    std::vector<std::unique_ptr<child>> waiters;
    for (int i = 0; i < 3; ++i) {
        waiters.push_back(std::make_unique<child>([&](child &c) {
            p.open();
            c.tell('w');
            const outcome got = locks::lock(&p.at->mutex, {.window = p.env});
            if (!locks::is_taken(got)) {
                _exit(1);
            }
            p.at->words[0] += got == outcome::taken_after_death ? 0x100 : 1;
            locks::unlock(&p.at->mutex, {.window = p.env});
        }));
        ASSERT_EQ(waiters.back()->hear(), 'w');
    }
    while ((std::atomic_ref<uint64_t>(p.at->mutex.word).load() & 0x80000000U) == 0) {
        sched_yield();
    }
    holder.kill();
    for (auto &w : waiters) {
        EXPECT_TRUE(test::exited_with(w->wait(), 0));
    }
    EXPECT_EQ(p.at->mutex.deaths, 1U);
    EXPECT_EQ(p.at->words[0], 0x102U);
}

TEST(RobustMutex, WaiterKilledWhileItRecoversHidesNothing) {
    shared_page p;
    p.at->words[0] = 5;
    child holder([&](child &c) {
        p.open();
        locks::lock(&p.at->mutex, {.window = p.env, .log = p.log(peers::domain::window_mutex)});
        journal::group g;
        journal::store(p.at->words[0], 6);
        c.tell_and_hang('h');
    });
    ASSERT_EQ(holder.hear(), 'h');
    holder.kill();
    child first([&](child &) {
        p.recover = [](peers::env *, peers::peer_id) { _exit(7); };
        p.open();
        locks::lock(&p.at->mutex, {.window = p.env});
    });
    EXPECT_TRUE(test::exited_with(first.wait(), 7));
    EXPECT_EQ(p.at->words[0], 6U);
    ASSERT_EQ(p.open(), 0);
    EXPECT_EQ(locks::try_lock(&p.at->mutex, {.window = p.env}), outcome::taken_after_death);
    EXPECT_EQ(p.at->words[0], 5U);
}

TEST(RobustMutex, KilledAtAnyStepTheNextOneProceeds) {
    int deaths = 0;
    for (int n = 1;; ++n) {
        shared_page p;
        child dies([&](child &) {
            p.open();
            const locks::mutex_options how = {
                .window = p.env, .log = p.log(peers::domain::window_mutex), .recursive = true};
            test::die_at_point(n);
            locks::lock(&p.at->mutex, how);
            locks::lock(&p.at->mutex, how);
            {
                journal::group g;
                journal::store(p.at->words[0], 1);
                journal::store(p.at->words[1], 1);
            }
            locks::unlock(&p.at->mutex, how);
            locks::unlock(&p.at->mutex, how);
        });
        const int status = dies.wait();
        // The second dies while it takes the mutex over; the third must still find all in order.
        child also([&](child &) {
            p.open();
            test::die_at_point(n);
            locks::lock(&p.at->mutex, {.window = p.env});
        });
        also.wait();
        ASSERT_EQ(p.open(), 0);
        ASSERT_TRUE(locks::is_taken(locks::try_lock(&p.at->mutex, {.window = p.env})));
        EXPECT_EQ(p.at->words[0], p.at->words[1]) << "killed at " << n;
        EXPECT_EQ(locks::unlock(&p.at->mutex, {.window = p.env}), 0U);
        if (!test::killed(status)) {
            break;
        }
        ++deaths;
    }
    EXPECT_GT(deaths, 10);
}

TEST(RobustMutex, RecoveryLockIsTakenFromADeadRecovererAsItIs) {
    shared_page p;
    child holder([&](child &c) {
        p.open();
        locks::lock(&p.at->recovery, {.window = p.env, .recovers = false});
        c.tell_and_hang('h');
    });
    ASSERT_EQ(holder.hear(), 'h');
    holder.kill();
    p.recover = [](peers::env *, peers::peer_id) { _exit(9); };
    ASSERT_EQ(p.open(), 0);
    EXPECT_EQ(locks::lock(&p.at->recovery, {.window = p.env, .recovers = false}),
              outcome::taken_after_death);
}

TEST(RobustMutex, StuckHolderIsReportedOncePerPeriodAndMayBeKilled) {
    shared_page p;
    child holder([&](child &c) {
        p.open();
        locks::lock(&p.at->mutex, {.window = p.env});
        c.tell_and_hang('h');
    });
    ASSERT_EQ(holder.hear(), 'h');
    ASSERT_EQ(p.open(), 0);
    struct seen {
        int calls;
        pid_t pid;
        peers::table *peers;
        child *holder;
    } s = {0, 0, &p.at->peers, &holder};
    const locks::mutex_options how = {
        .window = p.env,
        .stuck_after = 3'000'000,
        .on_stuck =
            [](void *context, locks::robust_mutex *, locks::holder who) {
                auto *to = static_cast<seen *>(context);
                to->pid = to->peers->slots[peers::slot_of(who.peer)].pid;
                if (++to->calls == 3) {
                    to->holder->kill();
                }
            },
        .context = &s};
    const pid_t pid = holder.pid();
    const timespec before = test::in_ms(0);
    EXPECT_EQ(locks::lock(&p.at->mutex, how), outcome::taken_after_death);
    const timespec after = test::in_ms(0);
    const int64_t took =
        (after.tv_sec - before.tv_sec) * 1'000'000'000L + (after.tv_nsec - before.tv_nsec);
    EXPECT_EQ(s.pid, pid);
    EXPECT_GE(s.calls, 3);
    EXPECT_GE(took, int64_t{s.calls} * 3'000'000);
}

TEST(RobustMutex, ReleaseForTheDeadLeavesOthersAlone) {
    shared_page p;
    ASSERT_EQ(p.open(), 0);
    EXPECT_FALSE(locks::release_dead(&p.at->mutex, 0x777));
    EXPECT_FALSE(locks::release_dead(&p.at->mutex, 0));
    locks::lock(&p.at->mutex, {.window = p.env});
    EXPECT_FALSE(locks::release_dead(&p.at->mutex, 0x777));
    EXPECT_EQ(locks::unlock(&p.at->mutex, {.window = p.env}), 0U);
    p.at->mutex.word = (uint64_t{0x777} << 32) | 5;
    EXPECT_TRUE(locks::release_dead(&p.at->mutex, 0x777));
    EXPECT_EQ(p.at->mutex.word, 0U);
}

}  // namespace
}  // namespace mfwd6
