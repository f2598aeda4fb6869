// The window mutex: who may unlock, what happens when its holder dies or is stuck, and the monitor.
#include <chrono>
#include <thread>
#include <vector>

#include "services/journal/journal.h"
#include "services/window/layout.h"
#include "tests/services/window/support.h"

namespace {

using namespace window_test;
namespace journal = mfwd6::journal;
namespace locks = mfwd6::locks;

constexpr int killed = 77;
long steps_left = 0;

void count_down() {
    if (--steps_left == 0) {
        _exit(killed);
    }
}

void die_at(long step) {
    steps_left = step;
    journal::crash_hook = count_down;
}

struct header {
    uint64_t words[2];  // equal, except inside a group
    uint64_t dead_events;
    uint64_t turns;
};

uint64_t word_of_mutex() {
    void *base = nullptr;
    size_t size = 0;
    EXPECT_EQ(shmwin_platform_info("test", &base, &size), 0U);
    auto &m = static_cast<mfwd6::window::superblock *>(base)->window_mutex;
    return std::atomic_ref<uint64_t>(m.word).load();
}

// Waits until some thread sleeps for the mutex. The test's alarm ends a wait for nobody.
void await_waiter() {
    while ((word_of_mutex() & (uint64_t{1} << 31)) == 0) {
        std::this_thread::yield();
    }
}

// Adds one to both words.
void change(header *h) {
    const journal::group g;
    journal::store(h->words[0], h->words[0] + 1);
    journal::store(h->words[1], h->words[1] + 1);
}

struct events {
    uint32_t dead = 0;
    uint32_t stuck = 0;
};

cerrno count_event(uint32_t, uint32_t event, void *context) {
    auto *e = static_cast<events *>(context);
    ++(event == SHMWIN_EVENT_DEAD ? e->dead : e->stuck);
    return 0;
}

class WindowMutex : public WindowTest {
  protected:
    WindowMutex() {
        shmwin_set_wait_limit(10000);
        o_ = open_as(true);
        EXPECT_EQ(o_.code, 0U);
        h_ = static_cast<header *>(o_.header);
        EXPECT_EQ(shmwin_monitor_lock(o_.id, count_event, &seen_), 0U);
    }
    ~WindowMutex() override { o_.close(); }

    // A process that takes the mutex, begins a change, says so and waits to be killed, or let go.
    pid_t hold(gate &holds, gate &let_go, bool ignore_term = false) {
        return start([&, ignore_term] {
            if (ignore_term) {
                signal(SIGTERM, SIG_IGN);
            }
            const opened o = open_as(false);
            if (o.code != 0 || shmwin_lock(o.id) != 0) {
                return 1;
            }
            auto *h = static_cast<header *>(o.header);
            {
                const journal::group g;
                journal::store(h->words[0], h->words[0] + 1);
                holds.open();
                let_go.wait();
                journal::store(h->words[1], h->words[1] + 1);
            }
            return shmwin_unlock(o.id) == 0 ? 0 : 2;
        });
    }

    opened o_;
    header *h_ = nullptr;
    events seen_;
};

TEST_F(WindowMutex, OnlyTheHoldingThreadUnlocks) {
    EXPECT_EQ(shmwin_unlock(o_.id), static_cast<cerrno>(EPERM));
    EXPECT_EQ(shmwin_lock(o_.id), 0U);
    const auto other = [&] { EXPECT_EQ(shmwin_unlock(o_.id), static_cast<cerrno>(EPERM)); };
    std::thread(other).join();
    EXPECT_EQ(shmwin_unlock(o_.id), 0U);
    EXPECT_EQ(shmwin_unlock(o_.id), static_cast<cerrno>(EPERM));
    EXPECT_EQ(shmwin_lock(o_.id + 1), SHMWIN_ERR_BAD_ID);
    EXPECT_EQ(shmwin_unlock(o_.id + 1), SHMWIN_ERR_BAD_ID);
    EXPECT_EQ(seen_.dead + seen_.stuck, 0U);
}

TEST_F(WindowMutex, PassesOnWhereverItsHolderIsKilled) {
    uint64_t finished = 0;
    for (long step = 1;; ++step) {
        SCOPED_TRACE("killed at point " + std::to_string(step));
        const int end = in_child([&] {
            const opened o = open_as(false);
            die_at(step);
            if (o.code != 0 || shmwin_lock(o.id) != 0) {
                return 1;
            }
            change(static_cast<header *>(o.header));
            const int result = shmwin_unlock(o.id) == 0 ? 0 : 2;
            journal::crash_hook = nullptr;
            return result;
        });
        const bool was_held = word_of_mutex() != 0;
        const uint32_t before = seen_.dead;
        ASSERT_EQ(shmwin_lock(o_.id), 0U);
        EXPECT_EQ(seen_.dead - before, was_held ? 1U : 0U);
        ASSERT_EQ(h_->words[0], h_->words[1]);
        ASSERT_GE(h_->words[0], finished);
        finished = h_->words[0];
        change(h_);
        ASSERT_EQ(shmwin_unlock(o_.id), 0U);
        if (end != killed) {
            ASSERT_EQ(end, 0);
            break;
        }
    }
    EXPECT_GT(seen_.dead, 5U);
    EXPECT_TRUE(whole(o_.id));
}

TEST_F(WindowMutex, EveryWaiterGetsItsTurnAfterADeath) {
    gate holds, never;
    const pid_t holder = hold(holds, never);
    holds.wait();
    std::vector<pid_t> waiters;
    for (int i = 0; i < 3; ++i) {
        waiters.push_back(start([&] {
            const opened o = open_as(false);
            events seen;
            shmwin_monitor_lock(o.id, count_event, &seen);
            if (o.code != 0 || shmwin_lock(o.id) != 0) {
                return 1;
            }
            auto *h = static_cast<header *>(o.header);
            const bool whole_change = h->words[0] == h->words[1];
            h->dead_events += seen.dead;
            ++h->turns;
            return shmwin_unlock(o.id) == 0 && whole_change ? 0 : 2;
        }));
    }
    await_waiter();
    kill(holder, SIGKILL);
    EXPECT_EQ(end_of(holder), -SIGKILL);
    for (const pid_t w : waiters) {
        EXPECT_EQ(end_of(w), 0);
    }
    EXPECT_EQ(h_->turns, 3U);
    EXPECT_GE(h_->dead_events, 1U) << "somebody found out and told its monitor";
    EXPECT_EQ(h_->words[0], 0U);
}

TEST_F(WindowMutex, MonitorOfADeathMayTakeTheMutexItself) {
    gate holds, never;
    const pid_t holder = hold(holds, never);
    holds.wait();
    kill(holder, SIGKILL);
    EXPECT_EQ(end_of(holder), -SIGKILL);
    static header *h = nullptr;
    h = h_;
    const auto lock_and_work = [](uint32_t id, uint32_t event, void *context) -> cerrno {
        EXPECT_EQ(event, SHMWIN_EVENT_DEAD);
        EXPECT_EQ(shmwin_unlock(id), static_cast<cerrno>(EPERM)) << "held during the call";
        EXPECT_EQ(shmwin_lock(id), 0U);
        EXPECT_EQ(h->words[0], h->words[1]) << "the change was not run back yet";
        change(h);
        EXPECT_EQ(shmwin_unlock(id), 0U);
        void *block = nullptr;
        EXPECT_EQ(shmwin_malloc(id, 100, &block), 0U);
        EXPECT_EQ(shmwin_free(block), 0U);
        EXPECT_EQ(shmwin_kill_and_reset(id, SIGKILL), 0U);
        ++*static_cast<uint32_t *>(context);
        return 0;
    };
    uint32_t calls = 0;
    EXPECT_EQ(shmwin_monitor_lock(o_.id, lock_and_work, &calls), 0U);
    EXPECT_EQ(shmwin_lock(o_.id), 0U);
    EXPECT_EQ(calls, 1U);
    EXPECT_EQ(h_->words[1], 1U) << "what the monitor changed stays";
    EXPECT_EQ(shmwin_unlock(o_.id), 0U);
}

struct stuck_watch {
    gate *let_go;
    std::vector<std::chrono::steady_clock::time_point> calls;
};

TEST_F(WindowMutex, StuckHolderIsToldOncePerLimit) {
    constexpr auto limit = std::chrono::milliseconds(40);
    shmwin_set_wait_limit(static_cast<uint32_t>(limit.count()));
    gate holds, let_go;
    const pid_t holder = hold(holds, let_go);
    holds.wait();
    stuck_watch watch{&let_go, {}};
    const auto third_lets_go = [](uint32_t, uint32_t event, void *context) -> cerrno {
        EXPECT_EQ(event, SHMWIN_EVENT_STUCK);
        auto *w = static_cast<stuck_watch *>(context);
        w->calls.push_back(std::chrono::steady_clock::now());
        if (w->calls.size() == 3) {
            w->let_go->open();
        }
        return 0;
    };
    EXPECT_EQ(shmwin_monitor_lock(o_.id, third_lets_go, &watch), 0U);
    const auto from = std::chrono::steady_clock::now();
    EXPECT_EQ(shmwin_lock(o_.id), 0U);
    EXPECT_EQ(end_of(holder), 0);
    EXPECT_EQ(h_->words[1], 1U) << "its change stays";
    EXPECT_EQ(shmwin_unlock(o_.id), 0U);
    ASSERT_GE(watch.calls.size(), 3U);
    EXPECT_GE(watch.calls[0] - from, limit);
    EXPECT_GE(watch.calls[1] - watch.calls[0], limit);
    EXPECT_GE(watch.calls[2] - watch.calls[1], limit);
}

TEST_F(WindowMutex, WithoutAMonitorAWaiterJustWaits) {
    shmwin_set_wait_limit(5);
    EXPECT_EQ(shmwin_monitor_lock(o_.id, nullptr, nullptr), 0U);
    gate holds, let_go;
    const pid_t holder = hold(holds, let_go);
    holds.wait();
    const pid_t waiter = start([&] {
        const opened o = open_as(false);
        return o.code == 0 && shmwin_lock(o.id) == 0 && shmwin_unlock(o.id) == 0 ? 0 : 1;
    });
    await_waiter();
    let_go.open();
    EXPECT_EQ(end_of(waiter), 0);
    EXPECT_EQ(end_of(holder), 0);
    EXPECT_EQ(seen_.stuck, 0U);
}

TEST_F(WindowMutex, MonitorThatKillsAStuckHolderEndsTheWait) {
    shmwin_set_wait_limit(20);
    gate holds, never;
    const pid_t holder = hold(holds, never);
    holds.wait();
    const auto kill_it = [](uint32_t id, uint32_t event, void *context) -> cerrno {
        if (event == SHMWIN_EVENT_STUCK) {
            ++*static_cast<uint32_t *>(context);
            EXPECT_EQ(shmwin_kill_and_reset(id, SIGKILL), 0U);
        }
        return 0;
    };
    uint32_t calls = 0;
    EXPECT_EQ(shmwin_monitor_lock(o_.id, kill_it, &calls), 0U);
    EXPECT_EQ(shmwin_lock(o_.id), 0U);
    EXPECT_EQ(calls, 1U);
    EXPECT_EQ(h_->words[0], 0U) << "the open change is run back";
    EXPECT_EQ(shmwin_unlock(o_.id), 0U);
    EXPECT_EQ(end_of(holder), -SIGKILL);
}

TEST_F(WindowMutex, KillAndResetOfNobodySucceeds) {
    EXPECT_EQ(shmwin_kill_and_reset(o_.id, SIGKILL), 0U);
    EXPECT_EQ(shmwin_kill_and_reset(o_.id + 1, SIGKILL), SHMWIN_ERR_BAD_ID);
}

TEST_F(WindowMutex, KillAndResetOfOneselfIsRefused) {
    EXPECT_EQ(shmwin_lock(o_.id), 0U);
    EXPECT_EQ(shmwin_kill_and_reset(o_.id, SIGKILL), static_cast<cerrno>(EDEADLK));
    EXPECT_EQ(shmwin_unlock(o_.id), 0U);
}

TEST_F(WindowMutex, KillAndResetOfADeadHolderFreesTheMutex) {
    gate holds, never;
    const pid_t holder = hold(holds, never);
    holds.wait();
    kill(holder, SIGKILL);
    EXPECT_EQ(end_of(holder), -SIGKILL);
    EXPECT_EQ(shmwin_kill_and_reset(o_.id, SIGKILL), 0U);
    EXPECT_EQ(word_of_mutex(), 0U);
    EXPECT_EQ(h_->words[0], 0U);
    EXPECT_EQ(shmwin_lock(o_.id), 0U);
    EXPECT_EQ(seen_.dead, 0U) << "whoever reset it knows already";
    EXPECT_EQ(shmwin_unlock(o_.id), 0U);
}

TEST_F(WindowMutex, HolderThatOutlivesTheSignalKeepsTheMutex) {
    gate holds, let_go;
    const pid_t holder = hold(holds, let_go, true);
    holds.wait();
    EXPECT_EQ(shmwin_kill_and_reset(o_.id, SIGTERM), static_cast<cerrno>(ETIMEDOUT));
    EXPECT_NE(word_of_mutex(), 0U);
    let_go.open();
    EXPECT_EQ(end_of(holder), 0);
    EXPECT_EQ(h_->words[0], 1U);
    EXPECT_EQ(word_of_mutex(), 0U);
}

}  // namespace
