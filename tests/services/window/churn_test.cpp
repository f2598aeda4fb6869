// Several processes allocate and free at random, and are killed at random while they do. Nothing is
// lost, nothing is handed out twice.
#include <algorithm>
#include <chrono>
#include <random>

#include "services/diag/errors.h"
#include "services/journal/journal.h"
#include "tests/services/window/support.h"

namespace {

using namespace window_test;

constexpr uint32_t workers = 4;
constexpr uint32_t places = 64;
constexpr auto duration = std::chrono::milliseconds(2500);

// One slot of a worker's shelf: the block that it keeps there. It lies in the window's first block,
// and is written by its worker alone (or whoever replaces it).
struct shelf {
    void *kept[places];
    uint64_t rounds;
};

struct root {
    shelf *shelves;
};

// The contents of a block follow from its address and from who took it.
struct contents {
    uint64_t worker;
    uint64_t size;
    uint64_t check;
};

uint64_t check_of(const contents *c) {
    return (reinterpret_cast<uint64_t>(c) ^ (c->worker << 56) ^ c->size) * 0x9e3779b97f4a7c15U;
}

void fill(void *block, uint64_t worker, uint64_t size) {
    auto *c = static_cast<contents *>(block);
    c->worker = worker;
    c->size = size;
    c->check = check_of(c);
    std::memset(c + 1, static_cast<int>(c->check & 0xff), size - sizeof(contents));
}

bool proves_itself(const void *block, uint64_t worker) {
    const auto *c = static_cast<const contents *>(block);
    if (c->worker != worker || c->check != check_of(c)) {
        return false;
    }
    const auto *bytes = reinterpret_cast<const unsigned char *>(c + 1);
    return std::all_of(bytes, bytes + c->size - sizeof(contents),
                       [&](unsigned char b) { return b == (c->check & 0xff); });
}

size_t random_size(std::mt19937 &random) {
    const size_t most = random() % 30 == 0 ? 150000 : random() % 5 == 0 ? 6000 : 800;
    return sizeof(contents) + random() % most;
}

// One block comes or goes. An attached process has no log of its own: it takes the window mutex, so
// that the place on the shelf and the block change together.
bool step(const opened &o, shelf &s, uint64_t worker, std::mt19937 &random) {
    void *&place = s.kept[random() % places];
    if (place != nullptr && !proves_itself(place, worker)) {
        return false;
    }
    const mfwd6::journal::group g;
    if (!g.journaled()) {
        return false;
    }
    if (place != nullptr) {
        void *old = place;
        mfwd6::journal::store(place, nullptr);
        return shmwin_free(old) == 0;
    }
    const size_t size = random_size(random);
    void *block = nullptr;
    if (shmwin_malloc(o.id, size, &block) != 0) {
        return false;
    }
    fill(block, worker, size);
    mfwd6::journal::publish(place, block);
    return true;
}

// A block without a group around it: at most the one that was under way when its worker was killed
// is left over.
bool step_alone(const opened &o, uint64_t worker, std::mt19937 &random) {
    const size_t size = random_size(random);
    void *block = nullptr;
    if (shmwin_malloc(o.id, size, &block) != 0) {
        return false;
    }
    fill(block, worker, size);
    return proves_itself(block, worker) && shmwin_free(block) == 0;
}

int work(bool owner, uint64_t worker, unsigned seed) {
    const opened o = open_as(owner);
    if (o.code != 0) {
        fprintf(stderr, "worker %u cannot open: 0x%x %s\n", static_cast<unsigned>(worker), o.code,
                cerr_strerror(o.code));
        return 1;
    }
    shelf &s = static_cast<root *>(o.header)->shelves[worker];
    std::mt19937 random(seed);
    for (;;) {
        if (!owner && shmwin_lock(o.id) != 0) {
            return 2;
        }
        const bool good = step(o, s, worker, random);
        if (!owner && shmwin_unlock(o.id) != 0) {
            return 3;
        }
        if (!good || !step_alone(o, worker, random)) {
            return 4;
        }
        ++s.rounds;
    }
}

class WindowChurn : public WindowTest {
  protected:
    WindowChurn() {
        opened o = open_as(true);
        void *block = nullptr;
        EXPECT_EQ(shmwin_malloc(o.id, sizeof(shelf) * workers, &block), 0U);
        std::memset(block, 0, sizeof(shelf) * workers);
        static_cast<root *>(o.header)->shelves = static_cast<shelf *>(block);
        o.close();
    }
};

TEST_F(WindowChurn, BlocksOfKilledProcessesAreAllAccountedFor) {
    std::mt19937 random(20);
    pid_t running[workers];
    unsigned seed = 1;
    const auto launch = [&](uint32_t i) {
        // Worker 0 is the owner, one after the other.
        const unsigned its_seed = seed++;
        running[i] = start([=] { return work(i == 0, i, its_seed); });
    };
    for (uint32_t i = 0; i < workers; ++i) {
        launch(i);
    }
    uint32_t kills = 0;
    const auto end = std::chrono::steady_clock::now() + duration;
    while (std::chrono::steady_clock::now() < end && kills < 400) {
        usleep(static_cast<useconds_t>(random() % 12000));  // let them come to any point
        const auto victim = static_cast<uint32_t>(random() % workers);
        kill(running[victim], SIGKILL);
        ASSERT_EQ(end_of(running[victim]), -SIGKILL) << "worker " << victim << " gave up";
        ++kills;
        launch(victim);
    }
    for (uint32_t i = 0; i < workers; ++i) {
        kill(running[i], SIGKILL);
        ASSERT_EQ(end_of(running[i]), -SIGKILL) << "worker " << i << " gave up";
        ++kills;
    }

    opened o = open_as(true);
    ASSERT_EQ(o.code, 0U);
    ASSERT_TRUE(whole(o.id));
    blocks live = live_blocks(o.id);
    const auto claim = [&](const void *block) {
        const auto at = std::find_if(live.begin(), live.end(), [&](const auto &b) {
            return b.first == reinterpret_cast<uint64_t>(block);
        });
        ASSERT_NE(at, live.end()) << "a kept block was lost, or given out twice";
        live.erase(at);
    };
    shelf *shelves = static_cast<root *>(o.header)->shelves;
    claim(shelves);
    uint64_t rounds = 0;
    for (uint32_t i = 0; i < workers; ++i) {
        rounds += shelves[i].rounds;
        for (void *block : shelves[i].kept) {
            if (block != nullptr) {
                ASSERT_TRUE(proves_itself(block, i));
                claim(block);
            }
        }
    }
    EXPECT_LE(live.size(), size_t{kills}) << "more left over than one for each kill";
    for (const auto &b : live) {
        EXPECT_EQ(shmwin_free(reinterpret_cast<void *>(b.first)), 0U);
    }
    EXPECT_TRUE(whole(o.id));
    shmwin_usage u = {};
    ASSERT_EQ(shmwin_get_usage(o.id, &u), 0U);
    std::printf("%u kills, %lu rounds, %lu changes run back, %zu blocks left over\n", kills, rounds,
                u.undone, live.size());
    EXPECT_GT(rounds, uint64_t{workers});
    o.close();
}

}  // namespace
