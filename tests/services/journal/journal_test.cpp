#include "services/journal/journal.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <bit>
#include <functional>
#include <string>

namespace mfwd6 {
namespace {

using journal::recovery;

constexpr uint32_t peer = 0x101;
constexpr uint32_t dead_peer = 0x102;

struct memory {
    alignas(64) unsigned char outer[journal::log_bytes(32)];
    alignas(64) unsigned char inner[journal::log_bytes(32)];
    uint64_t words[8];
    uint32_t halves[4];
    uint16_t quarters[4];
    uint8_t bytes[64];
    uint64_t taken;  // the toy allocator: a bit for each block
    uint64_t blocks[64];
};

memory *shared = nullptr;
journal::log *outer() {
    return reinterpret_cast<journal::log *>(shared->outer);
}
journal::log *inner() {
    return reinterpret_cast<journal::log *>(shared->inner);
}

uint64_t bit_of(const void *block) {
    return uint64_t{1} << (static_cast<const uint64_t *>(block) - shared->blocks);
}

uint64_t *take_block() {
    journal::log *const around = journal::self.current;
    journal::group g(inner());
    const int i = std::countr_one(shared->taken);
    journal::store(shared->taken, shared->taken | (uint64_t{1} << i));
    journal::note_allocation(around, &shared->blocks[i]);
    return &shared->blocks[i];
}

void give_block(journal::log *around, void *block) {
    journal::group g(inner());
    journal::store(shared->taken, shared->taken & ~bit_of(block));
    journal::store(around->used, around->used - 1);
}

const journal::block_hooks toy = {.release = give_block};

int points = 0;
int last_point = 0;
void stop_at_last_point() {
    if (++points == last_point) {
        _exit(42);
    }
}

class Journal : public testing::Test {
  protected:
    void SetUp() override {
        shared = static_cast<memory *>(mmap(nullptr, sizeof(memory), PROT_READ | PROT_WRITE,
                                            MAP_SHARED | MAP_ANONYMOUS, -1, 0));
        reset();
        journal::bind_process(outer(), peer);
        journal::set_block_hooks(&toy);
    }
    void TearDown() override {
        journal::crash_hook = nullptr;
        journal::bind_process(nullptr, 0);
        journal::set_block_hooks(nullptr);
        munmap(shared, sizeof(memory));
    }

    static void reset() {
        *shared = memory{};
        journal::format(shared->outer, sizeof shared->outer);
        journal::format(shared->inner, sizeof shared->inner);
    }

    // Runs `body` in a process of its own that dies at its crash point `n`. True when it did.
    static bool killed_at(int n, const std::function<void()> &body) {
        const pid_t pid = fork();
        if (pid == 0) {
            points = 0;
            last_point = n;
            journal::bind_process(outer(), dead_peer);
            journal::crash_hook = stop_at_last_point;
            body();
            _exit(0);
        }
        int status = 0;
        waitpid(pid, &status, 0);
        EXPECT_TRUE(WIFEXITED(status));
        return WEXITSTATUS(status) == 42;
    }

    static void recover_both() {
        journal::recover(inner());
        journal::recover(outer());
    }

    // `body` must leave what `whole` accepts (told whether the group was committed), wherever it is
    // killed, and wherever the recovery is killed after it.
    static void kill_everywhere(const std::function<void()> &before,
                                const std::function<void()> &body,
                                const std::function<bool()> &old_state,
                                const std::function<bool()> &new_state) {
        int olds = 0;
        int news = 0;
        for (int n = 1;; ++n) {
            bool once_killed = false;
            for (int m = 0;; ++m) {
                reset();
                before();
                once_killed = killed_at(n, body);
                const bool again = m != 0 && killed_at(m, recover_both);
                recover_both();
                ASSERT_TRUE(old_state() || new_state())
                    << "killed at " << n << ", recovery at " << m;
                olds += old_state() ? 1 : 0;
                news += new_state() ? 1 : 0;
                ASSERT_EQ(outer()->holder, 0U);
                ASSERT_EQ(inner()->holder, 0U);
                ASSERT_EQ(outer()->used, 0U);
                ASSERT_EQ(inner()->used, 0U);
                ASSERT_EQ(outer()->committing, 0U);
                if (m != 0 && !again) {
                    break;
                }
            }
            if (!once_killed) {
                break;
            }
        }
        EXPECT_GT(olds, 1);
        EXPECT_GT(news, 1);
    }
};

TEST_F(Journal, CommittedGroupKeepsItsStores) {
    {
        journal::group g;
        EXPECT_TRUE(g.journaled());
        journal::store(shared->words[0], 1);
        journal::publish(shared->words[1], 2);
        EXPECT_EQ(outer()->used, 2U);
        EXPECT_EQ(outer()->holder, peer);
    }
    EXPECT_EQ(outer()->used, 0U);
    EXPECT_EQ(outer()->holder, 0U);
    EXPECT_EQ(outer()->commits, 1U);
    EXPECT_EQ(shared->words[0], 1U);
    EXPECT_EQ(journal::observe(shared->words[1]), 2U);
}

TEST_F(Journal, UndoRestoresEverySizeAndOnlyThat) {
    std::memset(shared->bytes, 0xee, sizeof shared->bytes);
    journal::group g;
    journal::store(shared->bytes[1], 0x11);
    journal::store(shared->quarters[1], 0x2222);
    journal::store(shared->halves[1], 0x33333333);
    journal::store(shared->words[1], 0x4444444444444444);
    shared->bytes[0] = 1;
    shared->bytes[2] = 3;
    EXPECT_TRUE(g.undo());
    EXPECT_EQ(shared->bytes[0], 1);
    EXPECT_EQ(shared->bytes[1], 0xee);
    EXPECT_EQ(shared->bytes[2], 3);
    EXPECT_EQ(shared->quarters[1], 0);
    EXPECT_EQ(shared->halves[1], 0U);
    EXPECT_EQ(shared->words[1], 0U);
    journal::store(shared->words[2], 5);
    EXPECT_EQ(outer()->used, 1U);
}

TEST_F(Journal, SeveralStoresToOneWordAreUndoneToTheFirst) {
    shared->words[0] = 9;
    journal::group g;
    for (uint64_t i = 0; i < 5; ++i) {
        journal::store(shared->words[0], i);
    }
    g.undo();
    EXPECT_EQ(shared->words[0], 9U);
}

TEST_F(Journal, InnerUndoKeepsTheOuterPart) {
    journal::group g;
    journal::store(shared->words[0], 1);
    {
        journal::group h;
        journal::store(shared->words[0], 2);
        journal::store(shared->words[1], 2);
        {
            journal::group i;
            journal::store(shared->words[2], 3);
        }
        EXPECT_TRUE(h.undo());
    }
    EXPECT_EQ(shared->words[0], 1U);
    EXPECT_EQ(shared->words[1], 0U);
    EXPECT_EQ(shared->words[2], 0U);
    EXPECT_EQ(outer()->used, 1U);
    EXPECT_EQ(outer()->holder, peer);
    EXPECT_TRUE(g.undo());
    EXPECT_EQ(shared->words[0], 0U);
}

TEST_F(Journal, WithoutALogStoresAreDirect) {
    journal::bind_process(nullptr, 0);
    journal::group g;
    EXPECT_FALSE(g.journaled());
    EXPECT_TRUE(g.room(1000));
    journal::store(shared->words[0], 7);
    EXPECT_EQ(shared->words[0], 7U);
    EXPECT_FALSE(g.undo());
    EXPECT_EQ(shared->words[0], 7U);
    EXPECT_EQ(outer()->used, 0U);
}

TEST_F(Journal, InnermostBindingOfTheThreadIsChosen) {
    EXPECT_EQ(journal::choose(), outer());
    ASSERT_TRUE(journal::bind_thread(inner(), 0x201));
    EXPECT_EQ(journal::choose(), inner());
    {
        journal::group g;
        journal::store(shared->words[0], 1);
        EXPECT_EQ(inner()->holder, 0x201U);
        EXPECT_EQ(outer()->holder, 0U);
    }
    ASSERT_TRUE(journal::bind_thread(outer(), 0x202));
    EXPECT_EQ(journal::choose(), outer());
    journal::unbind_thread(inner());
    EXPECT_EQ(journal::choose(), outer());
    EXPECT_EQ(journal::self.bound_count, 1U);
    journal::unbind_thread(outer());
    EXPECT_EQ(journal::self.bound_count, 0U);
}

TEST_F(Journal, SeventhBindingIsRefused) {
    for (int i = 0; i < 6; ++i) {
        EXPECT_TRUE(journal::bind_thread(inner(), peer));
    }
    EXPECT_FALSE(journal::bind_thread(inner(), peer));
    for (int i = 0; i < 6; ++i) {
        journal::unbind_thread(inner());
    }
    EXPECT_EQ(journal::choose(), outer());
}

TEST_F(Journal, ExplicitGroupHasTheIdentityOfTheProcess) {
    journal::group g(inner());
    EXPECT_EQ(inner()->holder, peer);
    EXPECT_EQ(outer()->holder, 0U);
}

TEST_F(Journal, ExplicitGroupInsideAnotherCommitsAloneAndRestoresTheOuter) {
    journal::group g;
    journal::store(shared->words[0], 1);
    {
        journal::group h(inner());
        journal::store(shared->words[1], 2);
        EXPECT_EQ(inner()->used, 1U);
        EXPECT_EQ(outer()->used, 1U);
    }
    EXPECT_EQ(inner()->commits, 1U);
    journal::store(shared->words[2], 3);
    EXPECT_EQ(outer()->used, 2U);
    g.undo();
    EXPECT_EQ(shared->words[0], 0U);
    EXPECT_EQ(shared->words[1], 2U);
    EXPECT_EQ(shared->words[2], 0U);
}

TEST_F(Journal, GroupUnderAHeldLockHasTheGivenIdentity) {
    journal::group g;
    {
        journal::group h(inner(), 0x333);
        EXPECT_EQ(inner()->holder, 0x333U);
        journal::store(shared->words[0], 1);
        EXPECT_EQ(inner()->used, 1U);
    }
    EXPECT_EQ(inner()->holder, 0U);
    EXPECT_EQ(inner()->used, 0U);
    EXPECT_EQ(journal::self.current, outer());
    EXPECT_EQ(journal::self.depth, 1U);
}

TEST_F(Journal, AllocationGoesBackOnUndoAndStaysOnCommit) {
    {
        journal::group g;
        take_block();
        EXPECT_EQ(shared->taken, 1U);
        g.undo();
        EXPECT_EQ(shared->taken, 0U);
        take_block();
    }
    EXPECT_EQ(shared->taken, 1U);
    EXPECT_EQ(outer()->used, 0U);
}

TEST_F(Journal, FreeIsDoneAtCommitOnly) {
    shared->taken = 3;
    {
        journal::group g;
        journal::note_free(outer(), &shared->blocks[0]);
        EXPECT_EQ(shared->taken, 3U);
        {
            journal::group h;
            journal::note_free(outer(), &shared->blocks[1]);
            h.undo();
        }
        EXPECT_EQ(outer()->frees, 1U);
    }
    EXPECT_EQ(shared->taken, 2U);
    EXPECT_EQ(outer()->frees, 0U);
    EXPECT_EQ(outer()->committing, 0U);
    EXPECT_EQ(outer()->commits, 1U);
}

// A group that the hook opens without naming a log joins the one that is being committed.
void give_block_in_a_joined_group(journal::log *around, void *block) {
    { journal::group joined; }
    give_block(around, block);
}

TEST_F(Journal, GroupOpenedWhileCommittingDoesNotCommitAgain) {
    const journal::block_hooks joining = {.release = give_block_in_a_joined_group};
    journal::set_block_hooks(&joining);
    shared->taken = 3;
    {
        journal::group g;
        journal::note_free(outer(), &shared->blocks[0]);
        journal::note_free(outer(), &shared->blocks[1]);
    }
    EXPECT_EQ(shared->taken, 0U);
    EXPECT_EQ(outer()->commits, 1U);
    EXPECT_EQ(journal::self.current, nullptr);
}

TEST_F(Journal, BlockTakenAndFreedInOneGroupIsFreedOnce) {
    {
        journal::group g;
        uint64_t *b = take_block();
        journal::note_free(outer(), b);
    }
    EXPECT_EQ(shared->taken, 0U);
    {
        journal::group g;
        uint64_t *b = take_block();
        journal::note_free(outer(), b);
        g.undo();
    }
    EXPECT_EQ(shared->taken, 0U);
}

TEST_F(Journal, OutgrownGroupCannotBeUndoneButCommits) {
    {
        journal::group g;
        EXPECT_TRUE(g.room(32));
        EXPECT_FALSE(g.room(33));
        for (uint64_t i = 0; i < 40; ++i) {
            journal::store(shared->words[0], i);
        }
        EXPECT_FALSE(g.room(0));
        EXPECT_FALSE(g.undo());
        EXPECT_EQ(shared->words[0], 39U);
        EXPECT_EQ(outer()->overflowed, 1U);
    }
    EXPECT_EQ(outer()->used, 0U);
    journal::group g;
    journal::store(shared->words[0], 100);
    EXPECT_TRUE(g.undo());
    EXPECT_EQ(shared->words[0], 39U);
}

TEST_F(Journal, OutgrownGroupOfTheDeadIsDamage) {
    const auto body = [] {
        journal::group g;
        for (uint64_t i = 0; i < 40; ++i) {
            journal::store(shared->words[0], i);
        }
        _exit(42);
    };
    ASSERT_TRUE(killed_at(0, body));
    EXPECT_EQ(journal::recover(outer()), recovery::damaged);
    EXPECT_EQ(journal::recover(outer()), recovery::clean);
    EXPECT_EQ(outer()->holder, 0U);
}

TEST_F(Journal, OutgrownGroupStillFreesWhatItNoted) {
    shared->taken = 1;
    {
        journal::group g;
        journal::note_free(outer(), &shared->blocks[0]);
        for (uint64_t i = 0; i < 40; ++i) {
            journal::store(shared->words[0], i);
        }
    }
    EXPECT_EQ(shared->taken, 0U);
    EXPECT_EQ(outer()->used, 0U);
}

TEST_F(Journal, AllocationNoteThatDoesNotFitMarksTheGroup) {
    journal::group g;
    for (uint64_t i = 0; i < 32; ++i) {
        journal::store(shared->words[0], i);
    }
    take_block();
    EXPECT_FALSE(g.undo());
    EXPECT_EQ(shared->taken, 1U);
}

TEST_F(Journal, OutgrownGroupThatWasCommittedIsNotDamage) {
    const auto body = [] {
        journal::group g;
        for (uint64_t i = 1; i <= 40; ++i) {
            journal::store(shared->words[0], i);
        }
    };
    int committed = 0;
    int damaged = 0;
    for (int n = 1; killed_at(n, body); ++n) {
        if (outer()->used == 0 && shared->words[0] == 40) {
            EXPECT_EQ(journal::recover(outer()), recovery::clean);
            ++committed;
        } else if (shared->words[0] > 32) {
            EXPECT_EQ(journal::recover(outer()), recovery::damaged);
            ++damaged;
        } else {
            EXPECT_NE(journal::recover(outer()), recovery::finished);
        }
        reset();
    }
    EXPECT_GT(committed, 0);
    EXPECT_GT(damaged, 0);
}

TEST_F(Journal, LogThatIsNoLogIsDamage) {
    outer()->magic = 0;
    EXPECT_EQ(journal::recover(outer()), recovery::damaged);
}

TEST_F(Journal, PrivateMemoryOfTheDeadIsPassedOver) {
    const journal::block_hooks careful = {
        .release = give_block, .covers = [](const journal::log *, const void *address) {
            return address >= static_cast<const void *>(shared) &&
                   address < static_cast<const void *>(shared + 1);
        }};
    journal::set_block_hooks(&careful);
    static uint64_t own = 5;
    own = 5;
    const auto body = [] {
        journal::group g;
        journal::store(shared->words[0], 1);
        journal::store(own, 6);
        journal::store(shared->words[1], 1);
        _exit(42);
    };
    ASSERT_TRUE(killed_at(0, body));
    own = 7;
    EXPECT_EQ(journal::recover(outer()), recovery::undone);
    EXPECT_EQ(own, 7U);
    EXPECT_EQ(shared->words[0], 0U);
    EXPECT_EQ(shared->words[1], 0U);
}

TEST_F(Journal, CopyIsUndoneByteForByte) {
    std::memset(shared->bytes, 'a', sizeof shared->bytes);
    for (size_t from = 0; from < 9; ++from) {
        for (size_t length = 0; length < 24; ++length) {
            const std::string text(length, 'x');
            journal::group g;
            journal::copy(shared->bytes + from, text.data(), length);
            const std::string all(reinterpret_cast<char *>(shared->bytes), sizeof shared->bytes);
            EXPECT_EQ(all, std::string(from, 'a') + text + std::string(64 - from - length, 'a'));
            EXPECT_TRUE(g.undo());
            EXPECT_EQ(std::string(reinterpret_cast<char *>(shared->bytes), 64),
                      std::string(64, 'a'));
        }
    }
}

TEST_F(Journal, ForgettingLeavesTheParentsGroupAlone) {
    {
        journal::group g;
        journal::store(shared->words[0], 1);
        const pid_t pid = fork();
        if (pid == 0) {
            journal::forget_after_fork();
            journal::store(shared->words[1], 1);
            g.~group();
            _exit(journal::self.depth == 0 ? 0 : 1);
        }
        int status;
        waitpid(pid, &status, 0);
        EXPECT_EQ(status, 0);
        EXPECT_EQ(shared->words[1], 1U);
        EXPECT_EQ(outer()->used, 1U);
        EXPECT_EQ(outer()->holder, peer);
    }
    EXPECT_EQ(outer()->commits, 1U);
}

TEST_F(Journal, GroupKilledAtAnyPointIsWhole) {
    kill_everywhere(
        [] {
            shared->words[0] = 10;
            shared->halves[0] = 10;
        },
        [] {
            journal::group g;
            journal::store(shared->words[0], 20);
            journal::publish(shared->halves[0], 20);
            {
                journal::group h;
                journal::store(shared->words[1], 99);
                h.undo();
            }
            journal::store(shared->words[0], 30);
        },
        [] { return shared->words[0] == 10 && shared->halves[0] == 10 && shared->words[1] == 0; },
        [] { return shared->words[0] == 30 && shared->halves[0] == 20 && shared->words[1] == 0; });
}

TEST_F(Journal, AllocationsAndFreesKilledAtAnyPointNeitherLeakNorDouble) {
    kill_everywhere(
        [] {
            shared->taken = 7;
            shared->words[0] = 1;
        },
        [] {
            journal::group g;
            uint64_t *b = take_block();
            *b = 4;
            journal::note_free(outer(), &shared->blocks[1]);
            journal::store(shared->words[0], reinterpret_cast<uint64_t>(b));
            journal::note_free(outer(), &shared->blocks[2]);
            uint64_t *c = take_block();
            journal::note_free(outer(), c);
        },
        [] { return shared->taken == 7 && shared->words[0] == 1; },
        [] {
            return shared->taken == 9 &&
                   shared->words[0] == reinterpret_cast<uint64_t>(&shared->blocks[3]);
        });
}

TEST_F(Journal, UndoKilledAtAnyPointIsWhole) {
    kill_everywhere(
        [] { shared->taken = 1; },
        [] {
            {
                journal::group g;
                take_block();
                journal::store(shared->words[0], 5);
                journal::note_free(outer(), &shared->blocks[0]);
                g.undo();
            }
            journal::store(shared->words[1], 1);
        },
        [] { return shared->taken == 1 && shared->words[0] == 0 && shared->words[1] == 0; },
        [] { return shared->taken == 1 && shared->words[0] == 0 && shared->words[1] == 1; });
}

}  // namespace
}  // namespace mfwd6
