// A writer dies with the reader-writer lock of a window and an open change. Whoever finds out runs
// the change back, and nobody reads before that is done.
#include <thread>
#include <vector>

#include "services/journal/journal.h"
#include "services/locks/rrw_lock.h"
#include "services/window/layout.h"
#include "tests/services/window/support.h"

namespace {

using namespace window_test;
namespace journal = mfwd6::journal;

constexpr int killed = 77;
constexpr uint32_t word_count = 300;

struct header {
    rrw_lock_t lock;
    uint64_t words[word_count];  // all equal, except inside a group
    uint32_t reads;
    uint32_t early;  // a recoverer was still at work when the gate was open
    uint32_t breaks;
};

opened open_gate_window(bool owner) {
    shmwin_open_record r = record(owner);
    r.hdr_size = sizeof(header);
    opened o;
    o.code = shmwin_open_win(&r, &o.header, &o.id);
    return o;
}

header *shared = nullptr;
const journal::log *owner_log = nullptr;
long steps_left = 0;

// At every step of a recovery: as long as the dead owner's log is not empty, the gate is closed.
void watch_gate() {
    if (journal::observe(owner_log->used) != 0 && journal::observe(shared->lock.gate) == 0) {
        std::atomic_ref<uint32_t>(shared->early).fetch_add(1);
    }
    if (--steps_left == 0) {
        _exit(killed);
    }
    std::this_thread::yield();
}

timespec in_ten_seconds() {
    timespec t;
    clock_gettime(CLOCK_REALTIME, &t);
    t.tv_sec += 10;
    return t;
}

bool attach(const opened &o) {
    if (o.code != 0) {
        return false;
    }
    void *base = nullptr;
    size_t size = 0;
    shmwin_platform_info("test", &base, &size);
    shared = static_cast<header *>(o.header);
    const auto owner = static_cast<uint32_t>(mfwd6::peers::domain::owner);
    owner_log = reinterpret_cast<const journal::log *>(static_cast<std::byte *>(base) +
                                                       mfwd6::window::log_offset(owner));
    return true;
}

bool all_equal() {
    for (const uint64_t &w : shared->words) {
        if (journal::observe(w) != journal::observe(shared->words[0])) {
            return false;
        }
    }
    return true;
}

// Reads `times` times. 0 when all was whole each time.
int read_words(int times) {
    const timespec deadline = in_ten_seconds();
    for (int i = 0; i < times; ++i) {
        if (rrw_lock_get_timedrdlock(&shared->lock, &deadline) != 0) {
            return 2;
        }
        const bool good = all_equal();
        std::atomic_ref<uint32_t>(shared->reads).fetch_add(1);
        if (rrw_lock_unlock(&shared->lock, __LINE__, 1) != 0) {
            return 3;
        }
        if (!good) {
            std::atomic_ref<uint32_t>(shared->breaks).fetch_add(1);
            return 4;
        }
    }
    return 0;
}

// The owner: opens a group, takes the write lock inside it as an outer operation does, changes
// everything, tells, and stays in the middle for ever.
int write_and_stay(gate &changed) {
    if (!attach(open_gate_window(true))) {
        return 1;
    }
    const journal::group outer;
    const timespec deadline = in_ten_seconds();
    if (rrw_lock_get_timedwrlock(&shared->lock, &deadline) != 0) {
        return 2;
    }
    for (uint64_t &w : shared->words) {
        journal::store(w, w + 1);
        if (&w == &shared->words[word_count / 2]) {
            changed.open();
            std::this_thread::yield();
        }
    }
    for (;;) {
        pause();
    }
}

class WindowGate : public WindowTest {
  protected:
    WindowGate() {
        opened o = open_gate_window(true);
        EXPECT_TRUE(attach(o));
        EXPECT_EQ(rrw_lock_init(&shared->lock, RRW_LOCK_MODE_SHARED, 0, nullptr, 0), 0U);
        o.close();
    }

    // A reader with the recovery in it watched, and killed at `step` if that is not 0.
    pid_t reader(gate &ready, long step = 0) {
        return start([&, step] {
            if (!attach(open_gate_window(false))) {
                return 1;
            }
            ready.open();
            steps_left = step;
            journal::crash_hook = watch_gate;
            return read_words(5);
        });
    }

    static pid_t next_owner() {
        return start([] {
            journal::crash_hook = std::this_thread::yield;
            if (!attach(open_gate_window(true))) {
                return 1;
            }
            return read_words(5);
        });
    }

    void expect_whole(uint32_t least_reads) {
        opened o = open_gate_window(true);
        ASSERT_TRUE(attach(o));
        EXPECT_TRUE(all_equal());
        EXPECT_EQ(shared->words[0], 0U);
        EXPECT_EQ(shared->early, 0U) << "the gate opened before the change was run back";
        EXPECT_EQ(shared->breaks, 0U) << "a reader saw half of the change";
        EXPECT_GE(shared->reads, least_reads);
        EXPECT_TRUE(whole(o.id));
        o.close();
    }
};

TEST_F(WindowGate, WaitingReadersRunTheChangeBackBeforeTheyRead) {
    gate changed, ready;
    const pid_t writer = start([&] { return write_and_stay(changed); });
    changed.wait();
    std::vector<pid_t> readers;
    for (int i = 0; i < 4; ++i) {
        readers.push_back(reader(ready));
        ready.wait();
    }
    kill(writer, SIGKILL);
    EXPECT_EQ(end_of(writer), -SIGKILL);
    for (const pid_t r : readers) {
        EXPECT_EQ(end_of(r), 0);
    }
    expect_whole(20);
}

TEST_F(WindowGate, NextOwnerRunsTheChangeBackAtOpen) {
    gate changed;
    const pid_t writer = start([&] { return write_and_stay(changed); });
    changed.wait();
    kill(writer, SIGKILL);
    EXPECT_EQ(end_of(writer), -SIGKILL);
    EXPECT_EQ(end_of(next_owner()), 0);
    expect_whole(5);
}

TEST_F(WindowGate, ReadersAndTheNextOwnerFindOutTogether) {
    for (int round = 0; round < 20; ++round) {
        gate changed, ready;
        const pid_t writer = start([&] { return write_and_stay(changed); });
        changed.wait();
        std::vector<pid_t> all;
        for (int i = 0; i < 3; ++i) {
            all.push_back(reader(ready));
            ready.wait();
        }
        kill(writer, SIGKILL);
        EXPECT_EQ(end_of(writer), -SIGKILL);
        all.push_back(next_owner());
        for (const pid_t p : all) {
            EXPECT_EQ(end_of(p), 0);
        }
    }
    expect_whole(20U * 20U);
}

TEST_F(WindowGate, ReaderKilledInTheMiddleOfTheRecoveryLeavesTheGateClosed) {
    int kills = 0;
    for (long step = 1;; step += 5) {
        SCOPED_TRACE("recoverer killed at point " + std::to_string(step));
        gate changed, ready;
        const pid_t writer = start([&] { return write_and_stay(changed); });
        changed.wait();
        kill(writer, SIGKILL);
        EXPECT_EQ(end_of(writer), -SIGKILL);
        const int end = end_of(reader(ready, step));
        const pid_t second = reader(ready);
        const pid_t owner = next_owner();
        EXPECT_EQ(end_of(second), 0);
        EXPECT_EQ(end_of(owner), 0);
        if (end != killed) {
            ASSERT_EQ(end, 0);
            break;
        }
        ++kills;
    }
    EXPECT_GT(kills, 30) << "the change has more words than that";
    expect_whole(10);
}

}  // namespace
