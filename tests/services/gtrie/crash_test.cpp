// The writer dies at every journaled store of every operation. What is found afterwards is the
// state before or the state after, to the byte, also when recovery itself dies on its way.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <bit>

#include "services/gtrie/gtrie.h"
#include "services/peers/peers.h"
#include "tests/services/gtrie/model.h"

using namespace gtrie_test;

namespace {

long points_left = -1;

void count_down() {
    if (points_left >= 0 && points_left-- == 0) {
        _exit(77);
    }
}

// Runs `work` in a process of its own that dies at its n-th crash point. True if it came to its
// end.
template <class F>
bool dies_at(long n, F &&work) {
    const pid_t child = fork();
    if (child == 0) {
        points_left = n;
        journal::crash_hook = count_down;
        work();
        _exit(0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_TRUE(WIFEXITED(status));
    return WEXITSTATUS(status) == 0;
}

void recover(long died_at) {
    if (died_at % 5 == 0) {
        dies_at(died_at / 2, [] { journal::recover(&the_arena->log); });
    }
    ASSERT_NE(journal::recover(&the_arena->log), journal::recovery::damaged);
    ASSERT_EQ(the_arena->log.holder, 0u);
}

std::string image() {
    return {start_of(the_arena), the_arena->taken};
}

struct run {
    void *handle = nullptr;
    uint32_t bits = 256;
    std::vector<record *> linked;
    uint64_t tried = 0;

    // Every point in the plain builds; a fork under the address sanitizer costs fifty times as
    // much, and every eleventh point serves to look for bad accesses.
#if defined(__SANITIZE_ADDRESS__)
    static constexpr long stride = 11;
#else
    static constexpr long stride = 1;
#endif

    const char *verify() const {
        return ip6mc_gtrie_verify(handle);
    }

    // Kills `operation` at each of its points; at the end it is done.
    template <class F>
    void at_every_point(F &&operation) {
        const std::string before = image();
        for (long n = 0;; n += stride) {
            ++tried;
            const bool finished = dies_at(n, operation);
            ASSERT_NO_FATAL_FAILURE(recover(n));
            ASSERT_EQ(verify(), nullptr) << verify() << " after point " << n;
            const bool undone = image() == before;
            if (finished) {
                ASSERT_FALSE(undone);
                return;
            }
            if (!undone) {
                return;  // dead behind the commit: the caller finds the state after it
            }
        }
    }

    record *made(const prefix &p) {
        int created = 0;
        void *leaf = nullptr;
        EXPECT_EQ(ip6mc_gtrie_leaf_create(handle, p.bytes.data(), p.length, &leaf, sizeof(record),
                                          &created),
                  0u);
        if (created == 0) {
            return nullptr;
        }
        fill(static_cast<record *>(leaf), p, 0);
        return static_cast<record *>(leaf);
    }

    void insert(const prefix &p) {
        record *r = made(p);
        if (r == nullptr) {
            return;
        }
        ASSERT_NO_FATAL_FAILURE(
            at_every_point([&] { ip6mc_gtrie_leaf_insert(handle, r, nullptr); }));
        ASSERT_EQ(ip6mc_gtrie_lookup_exact(handle, p.bytes.data(), p.length, nullptr), r);
        linked.push_back(r);
    }

    void remove(size_t i) {
        record *r = linked[i];
        linked.erase(linked.begin() + static_cast<long>(i));
        ASSERT_NO_FATAL_FAILURE(at_every_point([&] {
            // Out of the trie and given back as one change, as its program would do it.
            const journal::group group;
            ip6mc_gtrie_leaf_delete(handle, r, nullptr);
            ip6mc_gtrie_leaf_free(handle, r);
        }));
        ASSERT_EQ(ip6mc_gtrie_lookup_exact(handle, r->key.bytes.data(), r->key.length, nullptr),
                  nullptr);
    }

    // No block is lost and none is used twice.
    void account() {
        std::map<const void *, uint32_t> live = live_blocks();
        const auto found = [](const void *block, uint32_t type, void *context) {
            auto *left = static_cast<std::map<const void *, uint32_t> *>(context);
            ASSERT_EQ(left->count(block), 1u);
            ASSERT_EQ((*left)[block], type);
            left->erase(block);
        };
        ASSERT_EQ(ip6mc_gtrie_walk_blocks(handle, found, &live), 0u);
        ASSERT_TRUE(live.empty());
    }
};

class Crash : public testing::TestWithParam<bool> {
  protected:
    void SetUp() override {
        open_arena(uint64_t{256} << 20, true);
        ip6mc_gtrie_set_hash_for_tests(GetParam() ? 1 : 0);
        const ip6mc_gtrie_params_t p = params(0, 256);
        at_.handle = ip6mc_gtrie_init(&p, nullptr);
        ASSERT_NE(at_.handle, nullptr);
    }
    void TearDown() override {
        ip6mc_gtrie_reset_handle_db(0);
        ip6mc_gtrie_set_hash_for_tests(0);
        close_arena();
    }
    run at_;
};

TEST_P(Crash, RandomKeysThatNest) {
    key_source keys(11, 256);
    for (int i = 0; i < 90; ++i) {
        if (at_.linked.size() < 12 || (i < 45 && keys.pick(4) != 0)) {
            ASSERT_NO_FATAL_FAILURE(at_.insert(keys.next())) << i;
        } else {
            ASSERT_NO_FATAL_FAILURE(at_.remove(keys.pick(static_cast<uint32_t>(at_.linked.size()))))
                << i;
        }
        ASSERT_NO_FATAL_FAILURE(at_.account());
    }
    RecordProperty("crashes", static_cast<int>(at_.tried));
}

// Fills one stride quietly, and crashes where nodes change their shape.
TEST_P(Crash, NodesThatGrowAndShrink) {
    std::vector<prefix> all;
    for (uint32_t value = 0; value < 64; ++value) {
        prefix p;
        for (uint32_t i = 0; i < 6; ++i) {
            p.set(6 + i, (value * 37 % 64 >> (5 - i) & 1) != 0);
        }
        p.cut(value % 3 == 0 ? 10 : 12);
        all.push_back(p);
    }
    const auto changes_shape = [](size_t i) {
        for (const uint32_t edge : {0U, 1U, 3U, 5U, 9U, 13U, 20U, 29U}) {
            if (i + 1 >= edge && i <= edge + 1) {
                return true;
            }
        }
        return false;
    };
    for (const prefix &p : all) {
        if (changes_shape(at_.linked.size())) {
            ASSERT_NO_FATAL_FAILURE(at_.insert(p));
        } else if (record *r = at_.made(p); r != nullptr) {
            ASSERT_EQ(ip6mc_gtrie_leaf_insert(at_.handle, r, nullptr), 0u);
            at_.linked.push_back(r);
        }
    }
    while (!at_.linked.empty()) {
        if (changes_shape(at_.linked.size())) {
            ASSERT_NO_FATAL_FAILURE(at_.remove(at_.linked.size() / 2));
        } else {
            record *r = at_.linked.back();
            at_.linked.pop_back();
            ASSERT_EQ(ip6mc_gtrie_leaf_delete(at_.handle, r, nullptr), 0u);
            ASSERT_EQ(ip6mc_gtrie_leaf_free(at_.handle, r), 0u);
        }
        ASSERT_EQ(at_.verify(), nullptr);
    }
    ASSERT_NO_FATAL_FAILURE(at_.account());
}

// The steps at which the index gets a bucket, a segment, a larger directory.
TEST_P(Crash, IndexThatGrows) {
    std::mt19937_64 random(5);
    const uint32_t count = GetParam() ? 300 : 1200;
    for (uint32_t i = 0; i < count; ++i) {
        prefix p;
        for (uint8_t &b : p.bytes) {
            b = static_cast<uint8_t>(random());
        }
        p.cut(256);
        // Two leaves to a bucket: these insertions add the first bucket of a segment, the last of
        // them a larger directory too.
        const bool first_bucket_of_segment = i % 2 == 0 && std::has_single_bit(i / 2) && i >= 8;
        if (first_bucket_of_segment || (i < 200 && i % 20 == 4)) {
            ASSERT_NO_FATAL_FAILURE(at_.insert(p));
        } else {
            record *r = at_.made(p);
            ASSERT_EQ(ip6mc_gtrie_leaf_insert(at_.handle, r, nullptr), 0u);
        }
    }
    ASSERT_NO_FATAL_FAILURE(at_.account());
    EXPECT_EQ(the_arena->log.overflowed, 0u);
}

INSTANTIATE_TEST_SUITE_P(Hash, Crash, testing::Bool(),
                         [](const auto &one) { return one.param ? "constant" : "real"; });

TEST(CrashOfLife, InitAndCloseAreWholeOrNot) {
    open_arena(uint64_t{64} << 20, true);
    ip6mc_gtrie_set_sharing(1);
    const ip6mc_gtrie_params_t first = params(2, 269, 1);
    const ip6mc_gtrie_params_t second = params(2, 269, 2);
    void *keeper = ip6mc_gtrie_init(&first, nullptr);
    ASSERT_NE(keeper, nullptr);
    const auto handles = [&] {
        ip6mc_gtrie_stats_t stats{};
        EXPECT_EQ(ip6mc_gtrie_get_stats(keeper, &stats), 0u);
        return stats.handles;
    };
    // The handle is kept in shared memory, as the record of a table does.
    void **place = &the_arena->notes[0];
    for (long n = 0;; ++n) {
        const std::string before = image();
        const bool finished = dies_at(n, [&] {
            const journal::group group;
            journal::store(*place, ip6mc_gtrie_init(&second, nullptr));
        });
        ASSERT_NO_FATAL_FAILURE(recover(n));
        ASSERT_EQ(ip6mc_gtrie_verify(keeper), nullptr);
        if (finished || *place != nullptr) {
            ASSERT_EQ(handles(), 2u);
            break;
        }
        ASSERT_EQ(handles(), 1u);
        ASSERT_TRUE(before == image());
    }
    // The process that made it is gone: this one is told of it anew.
    ASSERT_EQ(ip6mc_gtrie_re_init(*place, &second), 0u);
    for (long n = 0;; ++n) {
        void *mine = *place;
        const bool finished = dies_at(n, [&] { ip6mc_gtrie_close(&mine); });
        ASSERT_NO_FATAL_FAILURE(recover(n));
        ASSERT_EQ(ip6mc_gtrie_verify(keeper), nullptr);
        if (finished || handles() == 1) {
            break;
        }
    }
    ASSERT_EQ(handles(), 1u);
    ASSERT_EQ(ip6mc_gtrie_close(&keeper), 0u);
    ASSERT_TRUE(live_blocks().empty());
    ip6mc_gtrie_set_sharing(0);
    close_arena();
}

}  // namespace
