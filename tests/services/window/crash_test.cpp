// The owner is killed at every journaled store of what it does to a window; so is whoever recovers
// it. The next owner finds all of the change or nothing of it.
#include <algorithm>
#include <chrono>
#include <climits>
#include <functional>
#include <map>

#include "services/journal/journal.h"
#include "services/window/epochs.h"
#include "tests/services/window/support.h"

namespace {

using namespace window_test;
namespace journal = mfwd6::journal;

constexpr int killed = 77;
long steps_left = 0;

void count_down() {
    if (--steps_left == 0) {
        _exit(killed);
    }
}

// From here on the process ends at the `step`-th crash point.
void die_at(long step) {
    steps_left = step;
    journal::crash_hook = count_down;
}

void live_on() {
    journal::crash_hook = nullptr;
}

// Size of the blocks in which the service keeps deferred ones; the tests take none of that size.
constexpr size_t note_bytes = 4096;

struct header {
    uint64_t words[8];
    void *blocks[20];
};
static_assert(sizeof(header) <= header_bytes);

header *header_of(const opened &o) {
    return static_cast<header *>(o.header);
}

uint64_t mark_of(uint64_t address) {
    return address * 0x9e3779b97f4a7c15U;
}

// Takes a block that shows whose it is.
void *take(const opened &o, size_t size) {
    void *block = nullptr;
    EXPECT_EQ(shmwin_malloc(o.id, size, &block), 0U);
    *static_cast<uint64_t *>(block) = mark_of(reinterpret_cast<uint64_t>(block));
    return block;
}

// What an owner finds.
struct state {
    blocks live;
    uint64_t words[8];

    bool operator==(const state &other) const {
        return live == other.live && std::memcmp(words, other.words, sizeof(words)) == 0;
    }
};

using act = std::function<void(const opened &)>;

class WindowCrash : public WindowTest {
  protected:
    ~WindowCrash() override { EXPECT_GT(kills_, 0); }

    // Kills `change` at each of its crash points and looks at what the next owner finds. At
    // each `break_every`-th point that owner is killed as well, at each of its own points.
    void kill_everywhere(const act &prepare, const act &change, long break_every = 0) {
        const state before = outcome(prepare, [](const opened &) {});
        const state after = outcome(prepare, change);
        bool done = false;
        for (long step = 1;; ++step) {
            SCOPED_TRACE("killed at point " + std::to_string(step));
            make(prepare);
            const int end = in_child([&] { return work(change, step); });
            if (end != killed) {
                ASSERT_EQ(end, 0);
                ASSERT_EQ(look(before), after);
                return;
            }
            ++kills_;
            if (break_every != 0 && step % break_every == 0) {
                kill_recoverers();
            }
            const state found = look(before);
            ASSERT_TRUE(found == before || found == after) << "a change that is half there";
            ASSERT_TRUE(!done || found == after) << "a finished change came undone";
            done = found == after && !(before == after);
        }
    }

    // Recoverers are killed one after the other, each one step later, until one comes through.
    void kill_recoverers() {
        for (long step = 1;; ++step) {
            const int end = in_child([&] {
                die_at(step);
                const opened o = open_as(true);
                live_on();
                return o.code == 0 ? 0 : 1;
            });
            if (end != killed) {
                ASSERT_EQ(end, 0);
                return;
            }
            ++kills_;
        }
    }

    // A new window as `prepare` leaves it.
    void make(const act &prepare) {
        unlink(file().c_str());
        opened o = open_as(true);
        ASSERT_EQ(o.code, 0U);
        prepare(o);
        o.close();
    }

    static int work(const act &change, long step) {
        const opened o = open_as(true);
        if (o.code != 0) {
            return 1;
        }
        die_at(step);
        change(o);
        live_on();
        return testing::Test::HasFailure() ? 1 : 0;
    }

    state outcome(const act &prepare, const act &change) {
        make(prepare);
        EXPECT_EQ(in_child([&] { return work(change, LONG_MAX); }), 0);
        return look({});
    }

    // Opens as the next owner, which must find a heap that is whole and works.
    state look(const state &before) {
        state s = {};
        opened o = open_as(true);
        EXPECT_EQ(o.code, 0U);
        if (o.code != 0) {
            return s;
        }
        EXPECT_TRUE(whole(o.id));
        s.live = live_blocks(o.id);
        std::memcpy(s.words, header_of(o)->words, sizeof(s.words));
        for (const auto &b : before.live) {
            const bool is_marked = b.second != note_bytes;
            if (is_marked && std::find(s.live.begin(), s.live.end(), b) != s.live.end()) {
                EXPECT_EQ(*reinterpret_cast<uint64_t *>(b.first), mark_of(b.first));
            }
        }
        try_out(o);
        o.close();
        return s;
    }

    static void try_out(const opened &o) {
        for (const size_t size : {size_t{200}, size_t{100000}}) {
            void *block = nullptr;
            EXPECT_EQ(shmwin_malloc(o.id, size, &block), 0U);
            std::memset(block, 0xee, size);
            EXPECT_EQ(shmwin_free(block), 0U);
        }
        EXPECT_TRUE(whole(o.id));
    }

    int kills_ = 0;
};

// Slabs with room and without, large blocks, and free runs between them.
void furnish(const opened &o) {
    header *h = header_of(o);
    for (int i = 0; i < 6; ++i) {
        h->blocks[i] = take(o, 200);
    }
    h->blocks[6] = take(o, 1000);
    for (int i = 7; i < 15; ++i) {
        h->blocks[i] = take(o, 100000);
    }
    h->blocks[15] = take(o, 16000);
    h->blocks[16] = take(o, 16000);
    h->blocks[17] = take(o, 16000);
    h->words[0] = 1;
    EXPECT_EQ(shmwin_free(h->blocks[8]), 0U);
    EXPECT_EQ(shmwin_free(h->blocks[10]), 0U);
    EXPECT_EQ(shmwin_free(h->blocks[2]), 0U);
}

TEST_F(WindowCrash, SmallBlockIsTakenOrNot) {
    kill_everywhere(furnish, [](const opened &o) { take(o, 200); });
}

TEST_F(WindowCrash, FirstBlockOfItsSizeIsTakenOrNot) {
    kill_everywhere(
        furnish, [](const opened &o) { take(o, 333); }, 2);
}

TEST_F(WindowCrash, LargeBlockIsTakenFromAFreeRunOrNot) {
    kill_everywhere(
        furnish, [](const opened &o) { take(o, 40000); }, 2);
}

TEST_F(WindowCrash, LargeBlockIsTakenFromTheEndOrNot) {
    kill_everywhere(furnish, [](const opened &o) { take(o, 150000); });
}

TEST_F(WindowCrash, SmallBlockIsGivenBackOrNot) {
    kill_everywhere(
        furnish, [](const opened &o) { shmwin_free(header_of(o)->blocks[1]); }, 2);
}

TEST_F(WindowCrash, LastBlockOfASlabIsGivenBackOrNot) {
    // Two slots fit a span: blocks 15 and 16 fill one, 17 stands in the next.
    const auto prepare = [](const opened &o) {
        furnish(o);
        shmwin_free(header_of(o)->blocks[15]);
    };
    kill_everywhere(
        prepare, [](const opened &o) { shmwin_free(header_of(o)->blocks[16]); }, 2);
}

TEST_F(WindowCrash, LargeBlockBetweenFreeRunsIsGivenBackOrNot) {
    kill_everywhere(
        furnish, [](const opened &o) { shmwin_free(header_of(o)->blocks[9]); }, 2);
}

TEST_F(WindowCrash, LastLargeBlockIsGivenBackOrNot) {
    kill_everywhere(furnish, [](const opened &o) { shmwin_free(header_of(o)->blocks[14]); });
}

// What is taken, given back and stored in one group.
void rearrange(const opened &o) {
    header *h = header_of(o);
    const journal::group g;
    journal::store(h->words[0], 2);
    void *small = take(o, 200);
    journal::store(h->words[1], reinterpret_cast<uint64_t>(small));
    shmwin_free(h->blocks[0]);
    void *large = take(o, 120000);
    journal::store(h->words[2], reinterpret_cast<uint64_t>(large));
    shmwin_free(h->blocks[11]);
    shmwin_free(h->blocks[6]);
    void *passing = take(o, 700);
    shmwin_free(passing);
    journal::store(h->words[3], 3);
}

TEST_F(WindowCrash, GroupTakesAndGivesBackTogether) {
    kill_everywhere(furnish, rearrange);
}

TEST_F(WindowCrash, GroupTakesAndGivesBackTogetherThoughRecoverersDie) {
    kill_everywhere(furnish, rearrange, 7);
}

TEST_F(WindowCrash, GroupThatIsRunBackByItsProcessLeavesNothing) {
    kill_everywhere(
        furnish,
        [](const opened &o) {
            journal::group g;
            journal::store(header_of(o)->words[0], 9);
            take(o, 200);
            shmwin_free(header_of(o)->blocks[0]);
            take(o, 90000);
            EXPECT_TRUE(g.undo());
        },
        7);
}

TEST_F(WindowCrash, WindowGrowsOrNot) {
    kill_everywhere(
        furnish, [](const opened &o) { take(o, 20 << 20); }, 2);
}

TEST_F(WindowCrash, DeferredBlocksAreKeptAndEndedOnce) {
    const auto change = [](const opened &o) {
        header *h = header_of(o);
        const journal::group g;
        journal::store(h->words[4], 1);
        EXPECT_EQ(shmwin_defer(o.id, h->blocks[3]), 0U);
    };
    kill_everywhere(furnish, change);
    const auto prepare = [&](const opened &o) {
        furnish(o);
        change(o);
    };
    kill_everywhere(
        prepare, [](const opened &o) { shmwin_reclaim(o.id, 0, nullptr, nullptr, nullptr); }, 5);
}

// Stands in the window from its making until it is let go or killed.
class bystander {
  public:
    bystander() {
        pid_ = start([this] {
            const opened o = open_as(false);
            uint32_t reader = 0;
            if (o.code != 0 || shmwin_reader_enter(o.id, &reader) != 0) {
                return 1;
            }
            stands_.open();
            leaves_.wait();
            shmwin_reader_leave(o.id, reader);
            return 0;
        });
        stands_.wait();
    }
    ~bystander() {
        leaves_.open();
        EXPECT_EQ(end_of(pid_), 0);
    }
    bystander(const bystander &) = delete;
    bystander &operator=(const bystander &) = delete;

  private:
    gate stands_;
    gate leaves_;
    pid_t pid_ = -1;
};

// Words of the header that are not journaled: the blocks that readers may have found.
constexpr int shown_word = 6;

// Shows a small block and a large one in a change, and runs it back.
void show_and_run_back(const opened &o) {
    header *h = header_of(o);
    journal::group g;
    for (const size_t size : {size_t{200}, size_t{90000}}) {
        void *block = take(o, size);
        journal::publish(h->words[5], reinterpret_cast<uint64_t>(block));
        h->words[shown_word + (size > 1000 ? 1 : 0)] = reinterpret_cast<uint64_t>(block);
    }
    EXPECT_TRUE(g.undo());
}

uint64_t held_in(const opened &o) {
    shmwin_epoch_state s = {};
    EXPECT_EQ(shmwin_get_epochs(o.id, &s), 0U);
    return s.held;
}

// As the next owner beside the bystander: what readers may have found is whole, free, and not
// handed out.
void expect_kept(const blocks &live) {
    opened o = open_as(true);
    ASSERT_EQ(o.code, 0U);
    EXPECT_TRUE(whole(o.id));
    EXPECT_EQ(live_blocks(o.id), live);
    EXPECT_EQ(header_of(o)->words[5], 0U);
    EXPECT_EQ(shmwin_reclaim(o.id, 0, nullptr, nullptr, nullptr), 0U);
    uint64_t shown = 0;
    for (int i = 0; i < 2; ++i) {
        const uint64_t block = header_of(o)->words[shown_word + i];
        shown += block != 0 ? 1U : 0U;
        std::vector<void *> taken;
        for (int n = 0; n < 4; ++n) {
            void *other = nullptr;
            EXPECT_EQ(shmwin_malloc(o.id, i == 0 ? 200 : 90000, &other), 0U);
            EXPECT_NE(reinterpret_cast<uint64_t>(other), block);
            taken.push_back(other);
        }
        for (void *other : taken) {
            EXPECT_EQ(shmwin_free(other), 0U);
        }
        EXPECT_TRUE(block == 0 || *reinterpret_cast<uint64_t *>(block) == mark_of(block));
    }
    // A block may be taken by the dead and not shown yet.
    EXPECT_GE(held_in(o), shown);
    EXPECT_LE(held_in(o), shown + 1);
    EXPECT_TRUE(whole(o.id));
    o.close();
}

void expect_nothing_held(const blocks &live) {
    opened o = open_as(true);
    ASSERT_EQ(o.code, 0U);
    EXPECT_EQ(held_in(o), 0U);
    EXPECT_EQ(live_blocks(o.id), live);
    EXPECT_TRUE(whole(o.id));
    o.close();
}

TEST_F(WindowCrash, BlocksThatAreRunBackAreHeldWhoeverDies) {
    make(furnish);
    const blocks live = look({}).live;
    for (long step = 1;; ++step) {
        SCOPED_TRACE("killed at point " + std::to_string(step));
        make(furnish);
        int end = 0;
        {
            const bystander reader;
            end = in_child([&] { return work(show_and_run_back, step); });
            if (end == killed) {
                ++kills_;
                if (step % 5 == 0) {
                    kill_recoverers();
                }
            }
            expect_kept(live);
        }
        expect_nothing_held(live);
        if (end != killed) {
            ASSERT_EQ(end, 0);
            break;
        }
    }
}

// The change is cut off rather than run back by its own process, so all is done by recoverers, each
// killed one step later.
TEST_F(WindowCrash, RecoverersThatDieHoldEachBlockOnce) {
    make(furnish);
    const blocks live = look({}).live;
    for (long step = 1;; ++step) {
        SCOPED_TRACE("recoverer killed at point " + std::to_string(step));
        make(furnish);
        int end = 0;
        {
            const bystander reader;
            ASSERT_EQ(in_child([] {
                          const opened o = open_as(true);
                          const journal::group open;
                          header *h = header_of(o);
                          for (int i = 0; i < 2; ++i) {
                              void *block = take(o, i == 0 ? 200 : 90000);
                              journal::publish(h->words[5], reinterpret_cast<uint64_t>(block));
                              h->words[shown_word + i] = reinterpret_cast<uint64_t>(block);
                          }
                          die();
                          return 0;
                      }),
                      -SIGKILL);
            end = in_child([&] {
                die_at(step);
                const opened o = open_as(true);
                live_on();
                return o.code == 0 ? 0 : 1;
            });
            kills_ += end == killed ? 1 : 0;
            expect_kept(live);
        }
        expect_nothing_held(live);
        if (end != killed) {
            ASSERT_EQ(end, 0);
            break;
        }
    }
}

TEST_F(WindowCrash, HeldBlocksAreReusedOnceWhoeverDies) {
    make(furnish);
    const blocks live = look({}).live;
    for (long step = 1;; ++step) {
        SCOPED_TRACE("killed at point " + std::to_string(step));
        make(furnish);
        const int end = in_child([&] {
            opened o = open_as(true);
            uint32_t reader = 0;
            if (o.code != 0 || shmwin_reader_enter(o.id, &reader) != 0) {
                return 1;
            }
            show_and_run_back(o);
            show_and_run_back(o);
            shmwin_reader_leave(o.id, reader);
            if (held_in(o) != 4) {
                return 2;
            }
            die_at(step);
            shmwin_reclaim(o.id, 0, nullptr, nullptr, nullptr);
            live_on();
            return held_in(o) == 0 ? 0 : 3;
        });
        kills_ += end == killed ? 1 : 0;
        expect_nothing_held(live);
        ASSERT_EQ(look({}).live, live);
        if (end != killed) {
            ASSERT_EQ(end, 0);
            break;
        }
    }
}

// An owner that is stopped, at whatever point, holds nobody up who attaches: there is a window, or
// a reason why not.
TEST_F(WindowCrash, AttachingNeverWaitsForAStoppedOwner) {
    constexpr double bound_s = 2;  // of a loaded machine; a tenth of a second is what it may take
    double longest = 0;
    std::map<cerrno, int> codes;
    make(furnish);
    for (long step = 1;; ++step) {
        SCOPED_TRACE("stopped at point " + std::to_string(step));
        // It makes the window, or takes over one that is there.
        const bool is_new = step % 2 == 0;
        if (is_new) {
            unlink(file().c_str());
        }
        const pid_t owner = start([&] {
            steps_left = (step + 1) / 2;
            journal::crash_hook = [] {
                if (--steps_left == 0) {
                    raise(SIGSTOP);
                }
            };
            opened o = open_as(true);
            if (o.code == 0 && is_new) {
                furnish(o);
            }
            rearrange(o);
            return 0;
        });
        int status = 0;
        ASSERT_EQ(waitpid(owner, &status, WUNTRACED), owner);
        const auto begin = std::chrono::steady_clock::now();
        opened client = open_as(false);
        const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begin;
        longest = std::max(longest, took.count());
        ++codes[client.code];
        EXPECT_TRUE(client.code == 0 || client.code == SHMWIN_ERR_HALF_MADE ||
                    client.code == SHMWIN_ERR_NO_WINDOW)
            << client.code;
        if (client.code == 0) {
            client.close();
        }
        if (WIFEXITED(status)) {
            break;
        }
        ++kills_;
        kill(owner, SIGKILL);
        ASSERT_EQ(waitpid(owner, &status, 0), owner);
        make(furnish);
    }
    EXPECT_LT(longest, bound_s);
    EXPECT_GT(codes[0], 10);
    EXPECT_GT(codes[SHMWIN_ERR_HALF_MADE], 3);
}

TEST_F(WindowCrash, ResetLeavesAllOrAnEmptyWindow) {
    kill_everywhere(
        furnish, [](const opened &o) { shmwin_reset(o.id); }, 2);
}

TEST_F(WindowCrash, CloseChangesNothing) {
    kill_everywhere(furnish, [](const opened &o) {
        opened copy = o;
        copy.close();
    });
}

TEST_F(WindowCrash, HalfMadeWindowIsMadeAnew) {
    for (long step = 1;; ++step) {
        SCOPED_TRACE("killed at point " + std::to_string(step));
        unlink(file().c_str());
        const int end = in_child([&] {
            die_at(step);
            const opened o = open_as(true);
            live_on();
            return o.code == 0 ? 0 : 1;
        });
        opened client = open_as(false);
        if (client.code == 0) {
            client.close();
        } else {
            EXPECT_EQ(client.code, SHMWIN_ERR_HALF_MADE);
        }
        const state found = look({});
        EXPECT_TRUE(found.live.empty());
        EXPECT_EQ(found.words[0], 0U);
        if (end != killed) {
            ASSERT_EQ(end, 0);
            break;
        }
        ++kills_;
    }
}

TEST_F(WindowCrash, RecoveryIsKilledAtEachOfItsPoints) {
    // In the middle of a large group: about half of its points.
    long points = 0;
    make(furnish);
    while (in_child([&] { return work(rearrange, points + 20); }) == killed) {
        points += 20;
        make(furnish);
    }
    make(furnish);
    const state before = look({});
    for (long step = 1;; ++step) {
        SCOPED_TRACE("recoverer killed at point " + std::to_string(step));
        make(furnish);
        ASSERT_EQ(in_child([&] { return work(rearrange, points / 2); }), killed);
        const int end = in_child([&] {
            die_at(step);
            const opened o = open_as(true);
            live_on();
            return o.code == 0 ? 0 : 1;
        });
        ASSERT_EQ(look(before), before);
        if (end != killed) {
            ASSERT_EQ(end, 0);
            break;
        }
        ++kills_;
    }
}

}  // namespace
