// Delayed frees: what readers hold back, who counts as a reader, and what survives the owner.
#include "services/window/epochs.h"

#include <algorithm>
#include <atomic>
#include <random>
#include <thread>
#include <vector>

#include "services/journal/journal.h"
#include "tests/services/window/support.h"

namespace {

using namespace window_test;
namespace journal = mfwd6::journal;

struct header {
    uint64_t *current;  // the record that readers look at
    uint64_t finals;
    uint64_t stop;
};

constexpr uint64_t poison = 0xdeaddeaddeaddeadU;
constexpr uint32_t record_words = 8;

class WindowEpochs : public WindowTest {
  protected:
    WindowEpochs() {
        o_ = open_as(true);
        EXPECT_EQ(o_.code, 0U);
        h_ = static_cast<header *>(o_.header);
    }
    ~WindowEpochs() override {
        if (o_.id != 0) {
            o_.close();
        }
    }

    void *take(size_t size = 100) {
        void *block = nullptr;
        EXPECT_EQ(shmwin_malloc(o_.id, size, &block), 0U);
        return block;
    }

    uint32_t reclaim(uint32_t most = 0) {
        uint32_t ended = 77;
        EXPECT_EQ(shmwin_reclaim(o_.id, most, nullptr, nullptr, &ended), 0U);
        return ended;
    }

    uint32_t enter() {
        uint32_t reader = 0;
        EXPECT_EQ(shmwin_reader_enter(o_.id, &reader), 0U);
        return reader;
    }

    shmwin_epoch_state state() {
        shmwin_epoch_state s = {};
        EXPECT_EQ(shmwin_get_epochs(o_.id, &s), 0U);
        return s;
    }

    std::vector<void *> deferred() {
        std::vector<void *> found;
        const auto add = [](void *block, void *context) {
            static_cast<std::vector<void *> *>(context)->push_back(block);
            return 0;
        };
        EXPECT_EQ(shmwin_each_deferred(o_.id, add, &found), 0U);
        return found;
    }

    opened o_;
    header *h_ = nullptr;
};

bool is_live(const void *block) {
    shmwin_block b;
    return shmwin_find_block(block, &b) == 0;
}

TEST_F(WindowEpochs, WithoutReadersADeferredBlockGoesAtOnce) {
    void *block = take();
    ASSERT_EQ(shmwin_defer(o_.id, block), 0U);
    EXPECT_TRUE(is_live(block));
    EXPECT_EQ(state().deferred, 1U);
    EXPECT_EQ(reclaim(), 1U);
    EXPECT_FALSE(is_live(block));
    EXPECT_EQ(state().deferred, 0U);
    EXPECT_EQ(reclaim(), 0U);
    EXPECT_TRUE(whole(o_.id));
}

TEST_F(WindowEpochs, ReaderHoldsBackWhatWasDeferredSinceItWasQuiescent) {
    const uint32_t reader = enter();
    void *block = take();
    ASSERT_EQ(shmwin_defer(o_.id, block), 0U);
    EXPECT_EQ(reclaim(), 0U);
    EXPECT_EQ(reclaim(), 0U);
    EXPECT_EQ(state().readers, 1U);
    EXPECT_EQ(state().waiting, 1U);
    shmwin_reader_quiescent(o_.id, reader);
    EXPECT_EQ(state().waiting, 0U);
    void *later = take();
    ASSERT_EQ(shmwin_defer(o_.id, later), 0U);
    EXPECT_EQ(reclaim(), 1U);
    EXPECT_FALSE(is_live(block));
    EXPECT_TRUE(is_live(later));
    shmwin_reader_leave(o_.id, reader);
    EXPECT_EQ(reclaim(), 1U);
    EXPECT_EQ(state().readers, 0U);
}

TEST_F(WindowEpochs, SlowestReaderDecides) {
    const uint32_t slow = enter();
    const uint32_t fast = enter();
    ASSERT_EQ(shmwin_defer(o_.id, take()), 0U);
    EXPECT_EQ(reclaim(), 0U);
    shmwin_reader_quiescent(o_.id, fast);
    EXPECT_EQ(reclaim(), 0U);
    EXPECT_EQ(state().waiting, 1U);
    shmwin_reader_quiescent(o_.id, slow);
    EXPECT_EQ(reclaim(), 1U);
    shmwin_reader_leave(o_.id, slow);
    shmwin_reader_leave(o_.id, fast);
}

TEST_F(WindowEpochs, NobodyWaitsForAnIdleReader) {
    const uint32_t reader = enter();
    ASSERT_EQ(shmwin_defer(o_.id, take()), 0U);
    EXPECT_EQ(reclaim(), 0U);
    shmwin_reader_idle(o_.id, reader);
    EXPECT_EQ(state().readers, 0U);
    EXPECT_EQ(reclaim(), 1U);
    shmwin_reader_quiescent(o_.id, reader);
    EXPECT_EQ(state().readers, 1U);
    ASSERT_EQ(shmwin_defer(o_.id, take()), 0U);
    EXPECT_EQ(reclaim(), 0U);
    shmwin_reader_leave(o_.id, reader);
}

TEST_F(WindowEpochs, HandleOfAReaderThatLeftDoesNothing) {
    const uint32_t old = enter();
    shmwin_reader_leave(o_.id, old);
    const uint32_t reader = enter();
    EXPECT_NE(old, reader);
    ASSERT_EQ(shmwin_defer(o_.id, take()), 0U);
    EXPECT_EQ(reclaim(), 0U);
    shmwin_reader_quiescent(o_.id, old);
    shmwin_reader_idle(o_.id, old);
    shmwin_reader_leave(o_.id, old);
    shmwin_reader_leave(o_.id, 0);
    EXPECT_EQ(reclaim(), 0U);
    shmwin_reader_leave(o_.id, reader);
    EXPECT_EQ(reclaim(), 1U);
}

TEST_F(WindowEpochs, AllPlacesForReadersCanBeTaken) {
    std::vector<uint32_t> readers;
    for (uint32_t i = 0; i < SHMWIN_READERS; ++i) {
        readers.push_back(enter());
    }
    uint32_t reader = 0;
    EXPECT_EQ(shmwin_reader_enter(o_.id, &reader), SHMWIN_ERR_PEERS_FULL);
    shmwin_reader_leave(o_.id, readers[100]);
    EXPECT_EQ(shmwin_reader_enter(o_.id, &reader), 0U);
    EXPECT_EQ(shmwin_reader_enter(o_.id, nullptr), static_cast<cerrno>(EINVAL));
    for (const uint32_t r : readers) {
        shmwin_reader_leave(o_.id, r);
    }
    shmwin_reader_leave(o_.id, reader);
    EXPECT_EQ(state().readers, 0U);
}

TEST_F(WindowEpochs, BlocksGoInTheirOrderAndNoMoreThanAsked) {
    std::vector<void *> taken;
    for (int i = 0; i < 600; ++i) {  // more than two lists of them
        taken.push_back(take(32));
        ASSERT_EQ(shmwin_defer(o_.id, taken.back()), 0U);
    }
    EXPECT_EQ(deferred(), taken);
    EXPECT_EQ(reclaim(255), 255U);
    EXPECT_EQ(deferred(), std::vector<void *>(taken.begin() + 255, taken.end()));
    EXPECT_EQ(state().deferred, 345U);
    EXPECT_EQ(reclaim(), 345U);
    EXPECT_TRUE(deferred().empty());
    EXPECT_TRUE(live_blocks(o_.id).empty());
    EXPECT_TRUE(whole(o_.id));
}

TEST_F(WindowEpochs, GroupThatIsUndoneDefersAndReclaimsNothing) {
    void *kept = take();
    ASSERT_EQ(shmwin_defer(o_.id, kept), 0U);
    void *block = take();
    const blocks before = live_blocks(o_.id);
    {
        journal::group g;
        ASSERT_EQ(shmwin_defer(o_.id, block), 0U);
        EXPECT_EQ(reclaim(1), 1U);
        EXPECT_TRUE(g.undo());
    }
    EXPECT_EQ(deferred(), std::vector<void *>{kept});
    EXPECT_EQ(live_blocks(o_.id), before);
    EXPECT_EQ(reclaim(), 1U);
    EXPECT_TRUE(is_live(block));
}

TEST_F(WindowEpochs, FinalEndsTheBlockInAGroupOfItsOwn) {
    void *block = take();
    ASSERT_EQ(shmwin_defer(o_.id, block), 0U);
    struct note {
        header *h;
        void *ended;
    } seen = {h_, nullptr};
    const auto final = [](void *ended, void *context) {
        auto *n = static_cast<note *>(context);
        EXPECT_NE(journal::self.current, nullptr) << "no group is open";
        journal::store(n->h->finals, n->h->finals + 1);
        n->ended = ended;
        shmwin_free(ended);
    };
    uint32_t ended = 0;
    EXPECT_EQ(shmwin_reclaim(o_.id, 0, final, &seen, &ended), 0U);
    EXPECT_EQ(ended, 1U);
    EXPECT_EQ(seen.ended, block);
    EXPECT_EQ(h_->finals, 1U);
    EXPECT_FALSE(is_live(block));
}

TEST_F(WindowEpochs, OnlyLiveBlocksOfTheWindowAreDeferredAndOnlyByTheOwner) {
    void *block = take();
    int local = 0;
    EXPECT_EQ(shmwin_defer(o_.id, &local), SHMWIN_ERR_BAD_BLOCK);
    EXPECT_EQ(shmwin_defer(o_.id, static_cast<char *>(block) + 16), SHMWIN_ERR_BAD_BLOCK);
    EXPECT_EQ(shmwin_defer(o_.id, nullptr), SHMWIN_ERR_BAD_BLOCK);
    EXPECT_EQ(shmwin_defer(o_.id + 1, block), SHMWIN_ERR_BAD_ID);
    EXPECT_EQ(shmwin_free(block), 0U);
    EXPECT_EQ(shmwin_defer(o_.id, block), SHMWIN_ERR_BAD_BLOCK);
    EXPECT_EQ(in_child([&] {
                  const opened o = open_as(false);
                  return o.code == 0 && shmwin_defer(o.id, block) == SHMWIN_ERR_NOT_OWNER &&
                                 shmwin_reclaim(o.id, 0, nullptr, nullptr, nullptr) ==
                                     SHMWIN_ERR_NOT_OWNER
                             ? 0
                             : 1;
              }),
              0);
    EXPECT_EQ(state().deferred, 0U);
}

TEST_F(WindowEpochs, FullWindowRefusesToDeferAndChangesNothing) {
    void *block = take();
    ASSERT_EQ(shmwin_set_growth_limit(o_.id, 1), 0U);
    void *filler = nullptr;
    while (shmwin_malloc(o_.id, 4000, &filler) == 0) {
    }
    EXPECT_EQ(shmwin_defer(o_.id, block), SHMWIN_ERR_SPACE);
    EXPECT_EQ(state().deferred, 0U);
    EXPECT_TRUE(is_live(block));
    EXPECT_EQ(shmwin_free(filler), 0U);
    EXPECT_EQ(shmwin_defer(o_.id, block), 0U);
    EXPECT_EQ(reclaim(), 1U);
}

TEST_F(WindowEpochs, NobodyWaitsForADeadReader) {
    gate stands;
    const pid_t reader = start([&] {
        const opened o = open_as(false);
        uint32_t r = 0;
        if (o.code != 0 || shmwin_reader_enter(o.id, &r) != 0) {
            return 1;
        }
        stands.open();
        for (;;) {
            pause();
        }
    });
    stands.wait();
    void *block = take();
    ASSERT_EQ(shmwin_defer(o_.id, block), 0U);
    EXPECT_EQ(reclaim(), 0U);
    EXPECT_EQ(state().readers, 1U);
    kill(reader, SIGKILL);
    EXPECT_EQ(end_of(reader), -SIGKILL);
    EXPECT_EQ(state().readers, 0U);
    EXPECT_EQ(reclaim(), 1U);
}

TEST_F(WindowEpochs, DeferredBlocksOutliveTheirOwner) {
    o_.close();
    constexpr uint32_t many = 300;
    EXPECT_EQ(in_child([&] {
                  const opened o = open_as(true);
                  for (uint32_t i = 0; i < many; ++i) {
                      void *block = nullptr;
                      if (shmwin_malloc(o.id, 64, &block) != 0 || shmwin_defer(o.id, block) != 0) {
                          return 1;
                      }
                  }
                  die();
              }),
              -SIGKILL);
    o_ = open_as(true);
    ASSERT_EQ(o_.code, 0U);
    EXPECT_EQ(state().deferred, uint64_t{many});
    EXPECT_EQ(deferred().size(), size_t{many});
    EXPECT_EQ(reclaim(), many);
    EXPECT_TRUE(live_blocks(o_.id).empty());
    EXPECT_TRUE(whole(o_.id));
}

// ---- blocks whose change is run back

// Takes a block in a group, fills and shows it, and runs the group back. What readers may have
// found.
void *take_and_run_back(uint32_t id, header *h, size_t size) {
    journal::group g;
    void *block = nullptr;
    EXPECT_EQ(shmwin_malloc(id, size, &block), 0U);
    std::memset(block, 0x5a, size);
    journal::publish(h->current, static_cast<uint64_t *>(block));
    EXPECT_TRUE(g.undo());
    EXPECT_EQ(h->current, nullptr);
    return block;
}

bool is_filled(const void *block, size_t size) {
    const auto *bytes = static_cast<const unsigned char *>(block);
    return std::all_of(bytes, bytes + size, [](unsigned char b) { return b == 0x5a; });
}

TEST_F(WindowEpochs, ABlockThatIsRunBackIsHeldUntilEveryReaderHasPassed) {
    for (const size_t size : {size_t{100}, size_t{16000}, size_t{100000}}) {
        const uint32_t reader = enter();
        void *block = take_and_run_back(o_.id, h_, size);
        EXPECT_EQ(state().held, 1U);
        // Free to everybody who asks, and not handed out.
        EXPECT_FALSE(is_live(block));
        EXPECT_TRUE(live_blocks(o_.id).empty());
        EXPECT_EQ(shmwin_free(block), SHMWIN_ERR_BAD_BLOCK);
        EXPECT_EQ(shmwin_defer(o_.id, block), SHMWIN_ERR_BAD_BLOCK);
        shmwin_usage usage;
        EXPECT_EQ(shmwin_get_usage(o_.id, &usage), 0U);
        EXPECT_EQ(usage.used, 0U);
        EXPECT_EQ(usage.undone, 0U);
        void *other = take(size);
        EXPECT_NE(other, block);
        std::memset(other, 0, size);
        EXPECT_EQ(shmwin_free(other), 0U);
        EXPECT_EQ(reclaim(), 0U);
        EXPECT_TRUE(is_filled(block, size));
        EXPECT_EQ(state().held, 1U);
        EXPECT_TRUE(whole(o_.id));
        shmwin_reader_quiescent(o_.id, reader);
        EXPECT_EQ(reclaim(), 0U);  // it was not deferred
        EXPECT_EQ(state().held, 0U);
        EXPECT_TRUE(whole(o_.id));
        shmwin_reader_leave(o_.id, reader);
        void *again = take(size);
        EXPECT_EQ(again, block);
        EXPECT_EQ(shmwin_free(again), 0U);
    }
}

TEST_F(WindowEpochs, WithoutReadersABlockThatIsRunBackIsFreeAtOnce) {
    take_and_run_back(o_.id, h_, 100);
    EXPECT_EQ(state().held, 0U);
    const uint32_t reader = enter();
    shmwin_reader_idle(o_.id, reader);
    take_and_run_back(o_.id, h_, 100);
    EXPECT_EQ(state().held, 0U);
    shmwin_reader_leave(o_.id, reader);
}

TEST_F(WindowEpochs, WhatIsFreedByItsOwnChangeIsNotHeld) {
    const uint32_t reader = enter();
    {
        const journal::group g;
        EXPECT_EQ(shmwin_free(take()), 0U);
    }
    EXPECT_EQ(state().held, 0U);
    shmwin_reader_leave(o_.id, reader);
    EXPECT_TRUE(whole(o_.id));
}

// Far more than any list of fixed size, slabs that are held as a whole, and every kind of block.
TEST_F(WindowEpochs, AnyNumberOfBlocksIsHeld) {
    const uint32_t reader = enter();
    std::vector<std::pair<void *, size_t>> held;
    std::mt19937 random(6);
    for (int round = 0; round < 400; ++round) {
        journal::group g;
        for (int i = 0; i < 20; ++i) {
            const size_t size = random() % 50 == 0 ? 40000 : 40 + random() % 700;
            void *block = take(size);
            std::memset(block, 0x5a, size);
            held.emplace_back(block, size);
        }
        ASSERT_TRUE(g.undo());
    }
    EXPECT_EQ(state().held, held.size());
    EXPECT_TRUE(whole(o_.id));
    std::vector<void *> taken;
    for (int i = 0; i < 2000; ++i) {
        taken.push_back(take(40 + random() % 700));
        std::memset(taken.back(), 0, 40);
    }
    for (const auto &[block, size] : held)
        ASSERT_TRUE(is_filled(block, size));
    EXPECT_EQ(reclaim(100), 0U);
    shmwin_reader_quiescent(o_.id, reader);
    EXPECT_EQ(reclaim(100), 0U);
    EXPECT_EQ(state().held, held.size() - 100);
    EXPECT_TRUE(whole(o_.id));
    EXPECT_EQ(reclaim(), 0U);
    EXPECT_EQ(state().held, 0U);
    EXPECT_TRUE(whole(o_.id));
    for (void *block : taken)
        ASSERT_EQ(shmwin_free(block), 0U);
    shmwin_reader_leave(o_.id, reader);
    EXPECT_TRUE(whole(o_.id));
}

TEST_F(WindowEpochs, LaterBlocksWaitForTheReadersThatCameWithThem) {
    const uint32_t first = enter();
    take_and_run_back(o_.id, h_, 100);
    EXPECT_EQ(reclaim(), 0U);
    const uint32_t second = enter();
    void *late = take_and_run_back(o_.id, h_, 5000);
    shmwin_reader_leave(o_.id, first);
    EXPECT_EQ(reclaim(), 0U);
    EXPECT_EQ(state().held, 1U);
    EXPECT_TRUE(is_filled(late, 5000));
    shmwin_reader_leave(o_.id, second);
    EXPECT_EQ(reclaim(), 0U);
    EXPECT_EQ(state().held, 0U);
}

TEST_F(WindowEpochs, AShortageLetsWhatReadersHavePassedBeUsed) {
    const uint32_t reader = enter();
    ASSERT_EQ(shmwin_set_growth_limit(o_.id, 1), 0U);
    {
        journal::group g;
        void *block = nullptr;
        while (shmwin_malloc(o_.id, 4000, &block) == 0) {
        }
        ASSERT_TRUE(g.undo());
    }
    EXPECT_GT(state().held, 5U);
    void *block = nullptr;
    EXPECT_EQ(shmwin_malloc(o_.id, 4000, &block), SHMWIN_ERR_SPACE);
    shmwin_reader_leave(o_.id, reader);
    EXPECT_EQ(shmwin_malloc(o_.id, 4000, &block), 0U);
    EXPECT_EQ(state().held, 0U);
    EXPECT_EQ(shmwin_free(block), 0U);
    EXPECT_TRUE(whole(o_.id));
}

TEST_F(WindowEpochs, AResetHoldsNothing) {
    const uint32_t reader = enter();
    take_and_run_back(o_.id, h_, 100);
    ASSERT_EQ(shmwin_reset(o_.id), 0U);
    EXPECT_EQ(state().held, 0U);
    EXPECT_TRUE(whole(o_.id));
    shmwin_reader_leave(o_.id, reader);
}

// A reader in another process. It stands on the record that it finds until it is told to pass, and
// says each time that it is asked whether the record is what it was.
class standing_reader {
  public:
    explicit standing_reader(size_t size) {
        EXPECT_EQ(pipe(to_), 0);
        EXPECT_EQ(pipe(from_), 0);
        pid_ = start([&] { return work(size); });
        EXPECT_EQ(ask('s'), 'y');
    }
    ~standing_reader() {
        for (const int end : {to_[0], to_[1], from_[0], from_[1]})
            ::close(end);
        if (pid_ > 0) {
            kill();
        }
    }
    standing_reader(const standing_reader &) = delete;
    standing_reader &operator=(const standing_reader &) = delete;

    bool still_sees_it() { return ask('c') == 'y'; }
    void pass() { EXPECT_EQ(ask('p'), 'y'); }
    void kill() {
        ::kill(pid_, SIGKILL);
        EXPECT_EQ(end_of(pid_), -SIGKILL);
        pid_ = -1;
    }

  private:
    char ask(char what) {
        char c = 0;
        EXPECT_EQ(write(to_[1], &what, 1), 1);
        EXPECT_EQ(read(from_[0], &c, 1), 1);
        return c;
    }
    int work(size_t size) {
        const opened o = open_as(false);
        uint32_t reader = 0;
        if (o.code != 0 || shmwin_reader_enter(o.id, &reader) != 0)
            return 1;
        const uint64_t *record = nullptr;
        for (char c = 0; read(to_[0], &c, 1) == 1;) {
            if (c == 's')
                record = journal::observe(static_cast<header *>(o.header)->current);
            if (c == 'p')
                shmwin_reader_quiescent(o.id, reader);
            const bool good = c == 'p' || (record != nullptr && is_filled(record, size));
            if (write(from_[1], good ? "y" : "n", 1) != 1)
                return 2;
        }
        return 0;
    }

    int to_[2];
    int from_[2];
    pid_t pid_ = -1;
};

// The next owner allocates at once all that it can get of the size, and writes over it.
class WindowEpochsOwnerDies : public WindowEpochs, public testing::WithParamInterface<size_t> {
  protected:
    WindowEpochsOwnerDies() { o_.close(); }
    ~WindowEpochsOwnerDies() override {
        if (owner_ > 0) {
            kill(owner_, SIGKILL);
            end_of(owner_);
        }
    }

    // Starts an owner that shows a record in a change that it does not end.
    void start_owner() {
        owner_ = start([this] {
            const opened o = open_as(true);
            auto *h = static_cast<header *>(o.header);
            const journal::group g;
            void *block = nullptr;
            if (o.code != 0 || shmwin_malloc(o.id, GetParam(), &block) != 0)
                return 1;
            std::memset(block, 0x5a, GetParam());
            journal::publish(h->current, static_cast<uint64_t *>(block));
            shown_.open();
            for (;;) {
                pause();
            }
        });
        shown_.wait();
    }

    void become_next_owner() {
        kill(owner_, SIGKILL);
        EXPECT_EQ(end_of(std::exchange(owner_, -1)), -SIGKILL);
        o_ = open_as(true);
        ASSERT_EQ(o_.code, 0U);
        h_ = static_cast<header *>(o_.header);
        EXPECT_EQ(h_->current, nullptr);
        EXPECT_TRUE(live_blocks(o_.id).empty());
    }

    void write_over_free_memory() {
        std::vector<void *> all;
        for (int i = 0; i < 800; ++i) {
            all.push_back(take(GetParam()));
            std::memset(all.back(), 0, GetParam());
        }
        for (void *block : all)
            EXPECT_EQ(shmwin_free(block), 0U);
        EXPECT_TRUE(whole(o_.id));
    }

    gate shown_;
    pid_t owner_ = -1;
};

TEST_P(WindowEpochsOwnerDies, ReadersKeepTheRecordThatTheyStandOn) {
    start_owner();
    standing_reader reader(GetParam());
    become_next_owner();
    EXPECT_EQ(state().held, 1U);
    write_over_free_memory();
    EXPECT_EQ(reclaim(), 0U);
    write_over_free_memory();
    EXPECT_TRUE(reader.still_sees_it());
    reader.pass();
    EXPECT_EQ(reclaim(), 0U);
    EXPECT_EQ(state().held, 0U);
    write_over_free_memory();
    EXPECT_FALSE(reader.still_sees_it());
}

TEST_P(WindowEpochsOwnerDies, NobodyWaitsForAReaderThatDiedToo) {
    start_owner();
    standing_reader reader(GetParam());
    become_next_owner();
    EXPECT_EQ(state().held, 1U);
    reader.kill();
    EXPECT_EQ(reclaim(), 0U);
    EXPECT_EQ(state().held, 0U);
    EXPECT_TRUE(whole(o_.id));
}

TEST_P(WindowEpochsOwnerDies, ReadersThatDiedBeforeHoldNothing) {
    start_owner();
    standing_reader reader(GetParam());
    reader.kill();
    become_next_owner();
    EXPECT_EQ(reclaim(), 0U);
    EXPECT_EQ(state().held, 0U);
    EXPECT_TRUE(whole(o_.id));
}

TEST_P(WindowEpochsOwnerDies, OneOwnerBehindTheOtherTheRecordIsKept) {
    start_owner();
    standing_reader reader(GetParam());
    become_next_owner();
    o_.close();
    for (int i = 0; i < 5; ++i) {
        start_owner();
        become_next_owner();
        EXPECT_EQ(state().held, 2U + static_cast<uint64_t>(i));
        write_over_free_memory();
        EXPECT_TRUE(reader.still_sees_it());
        o_.close();
    }
    reader.pass();
    o_ = open_as(true);
    EXPECT_EQ(o_.code, 0U);
    EXPECT_EQ(state().held, 0U);  // looked at when the window was opened
    EXPECT_TRUE(whole(o_.id));
}

INSTANTIATE_TEST_SUITE_P(Sizes, WindowEpochsOwnerDies, testing::Values(100U, 600U, 40000U));

// ---- readers beside an owner that replaces what they read

// Looks at the current record until told to stop. False: it saw one that had been ended.
bool read_records(uint32_t id, header *h, const std::atomic<bool> *stop) {
    uint32_t reader = 0;
    if (shmwin_reader_enter(id, &reader) != 0) {
        return false;
    }
    bool good = true;
    while (good && journal::observe(h->stop) == 0 && (stop == nullptr || !stop->load())) {
        for (int i = 0; good && i < 8; ++i) {
            const uint64_t *r = journal::observe(h->current);
            const uint64_t value = r[0];
            for (uint32_t k = 1; k < record_words; ++k) {
                good = good && r[k] == value;
            }
            good = good && value != poison;
        }
        shmwin_reader_quiescent(id, reader);
    }
    shmwin_reader_leave(id, reader);
    return good;
}

void spoil(void *block, void *) {
    auto *r = static_cast<uint64_t *>(block);
    for (uint32_t k = 0; k < record_words; ++k) {
        r[k] = poison;
    }
    shmwin_free(block);
}

// Replaces the current record `times` times. Returns how many were ended meanwhile.
uint32_t replace_records(uint32_t id, header *h, uint32_t times) {
    uint32_t total = 0;
    for (uint32_t i = 0; i < times; ++i) {
        const journal::group g;
        void *block = nullptr;
        EXPECT_EQ(shmwin_malloc(id, record_words * sizeof(uint64_t), &block), 0U);
        auto *r = static_cast<uint64_t *>(block);
        std::fill(r, r + record_words, uint64_t{i});
        uint64_t *old = h->current;
        journal::publish(h->current, r);
        if (old != nullptr) {
            EXPECT_EQ(shmwin_defer(id, old), 0U);
        }
        if (i % 16 == 15) {
            uint32_t ended = 0;
            EXPECT_EQ(shmwin_reclaim(id, 64, spoil, nullptr, &ended), 0U);
            total += ended;
        }
    }
    return total;
}

TEST_F(WindowEpochs, ThreadsNeverSeeAnEndedRecord) {
    replace_records(o_.id, h_, 1);
    std::atomic<bool> stop{false};
    std::atomic<int> bad{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i) {
        threads.emplace_back([&] { bad += read_records(o_.id, h_, &stop) ? 0 : 1; });
    }
    // Until the readers have had their turns: one that is not scheduled holds everything back.
    uint32_t ended = 0;
    for (int round = 0; round < 2000 && (round < 10 || ended < 1000); ++round) {
        ended += replace_records(o_.id, h_, 2000);
        std::this_thread::yield();
    }
    stop = true;
    for (std::thread &t : threads) {
        t.join();
    }
    EXPECT_EQ(bad.load(), 0);
    EXPECT_GT(ended, 0U);
    reclaim();
    EXPECT_EQ(live_blocks(o_.id).size(), 1U);
    EXPECT_TRUE(whole(o_.id));
}

TEST_F(WindowEpochs, ProcessesThatAreKilledNeverSeeAnEndedRecord) {
    replace_records(o_.id, h_, 1);
    const auto launch = [&] {
        return start([] {
            const opened o = open_as(false);
            return o.code == 0 && read_records(o.id, static_cast<header *>(o.header), nullptr) ? 0
                                                                                               : 1;
        });
    };
    std::vector<pid_t> readers = {launch(), launch(), launch()};
    uint32_t ended = 0;
    std::mt19937 random(4);
    for (int round = 0; round < 60; ++round) {
        ended += replace_records(o_.id, h_, 300);
        pid_t &victim = readers[random() % readers.size()];
        kill(victim, SIGKILL);
        ASSERT_EQ(end_of(victim), -SIGKILL) << "a reader saw an ended record";
        victim = launch();
    }
    std::atomic_ref<uint64_t>(h_->stop).store(1);
    for (const pid_t r : readers) {
        EXPECT_EQ(end_of(r), 0);
    }
    EXPECT_GT(ended, 0U);
    reclaim();
    EXPECT_EQ(live_blocks(o_.id).size(), 1U);
    EXPECT_TRUE(whole(o_.id));
}

}  // namespace
