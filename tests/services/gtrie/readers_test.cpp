// Readers beside a writer that inserts, deletes, grows and shrinks: leaves that stay are never
// missed, whatever is found proves itself, walks stay in order and end.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "services/gtrie/gtrie.h"
#include "tests/services/gtrie/model.h"

using namespace gtrie_test;

namespace {

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr uint32_t changes = 20000;
#else
constexpr uint32_t changes = 150000;
#endif

struct scene {
    void *handle;
    std::vector<record *> staying;
    std::atomic<uint32_t> *stop;
    std::atomic<uint64_t> *rounds;
};

// One look at everything; the text of what was wrong, or null.
const char *look(const scene &s, std::mt19937_64 &random) {
    for (int i = 0; i < 50; ++i) {
        const record *want = s.staying[random() % s.staying.size()];
        cerrno error = 0;
        if (ip6mc_gtrie_lookup_exact(s.handle, want->key.bytes.data(), want->key.length, &error) !=
            want) {
            return "leaf that stays was not found";
        }
        auto *longest =
            static_cast<record *>(ip6mc_gtrie_lookup(s.handle, want->key.bytes.data(), &error));
        if (longest == nullptr || !proves(longest) || longest->key.length < want->key.length) {
            return "longest match is shorter than a leaf that stays";
        }
        prefix probe = want->key;
        probe.length = 256;
        if (!longest->key.covers(probe)) {
            return "longest match does not match";
        }
        auto *less = static_cast<record *>(
            ip6mc_gtrie_less_specific_of_leaf(s.handle, const_cast<record *>(want), &error));
        if (less != nullptr &&
            (!proves(less) || !less->key.covers(want->key) || less->key == want->key)) {
            return "less specific leaf does not cover";
        }
        auto *first = static_cast<record *>(
            ip6mc_gtrie_first_leaf(s.handle, want->key.bytes.data(), want->key.length, &error));
        if (first != want) {
            return "first leaf below a prefix is not the one of that prefix";
        }
    }
    const record *last = nullptr;
    size_t met = 0;
    const prefix all{};
    for (void *l = ip6mc_gtrie_first_leaf(s.handle, all.bytes.data(), 0, nullptr); l != nullptr;
         l = ip6mc_gtrie_next_leaf(s.handle, l, nullptr)) {
        const auto *r = static_cast<record *>(l);
        if (!proves(r)) {
            return "leaf in a walk does not prove itself";
        }
        if (last != nullptr && !before(last->key, r->key)) {
            return "walk out of order";
        }
        met += met < s.staying.size() && s.staying[met] == r ? 1 : 0;
        last = r;
    }
    return met == s.staying.size() ? nullptr : "walk missed a leaf that stays";
}

const char *read_until_stopped(const scene &s, uint64_t seed) {
    std::mt19937_64 random(seed);
    while (s.stop->load() == 0) {
        if (const char *wrong = look(s, random); wrong != nullptr) {
            return wrong;
        }
        s.rounds->fetch_add(1);
    }
    return nullptr;
}

record *put(void *handle, const prefix &p) {
    void *leaf = nullptr;
    int created = 0;
    EXPECT_EQ(
        ip6mc_gtrie_leaf_create(handle, p.bytes.data(), p.length, &leaf, sizeof(record), &created),
        0u);
    if (created == 0) {
        return nullptr;
    }
    fill(static_cast<record *>(leaf), p, 0);
    EXPECT_EQ(ip6mc_gtrie_leaf_insert(handle, leaf, nullptr), 0u);
    return static_cast<record *>(leaf);
}

void prepare(scene *s, bool constant) {
    open_arena(uint64_t{2} << 30, true);
    ip6mc_gtrie_set_hash_for_tests(constant ? 1 : 0);
    const ip6mc_gtrie_params_t p = params(0, 256);
    s->handle = ip6mc_gtrie_init(&p, nullptr);
    ASSERT_NE(s->handle, nullptr);
    s->stop = new (&the_arena->notes[0]) std::atomic<uint32_t>(0);
    s->rounds = new (&the_arena->notes[1]) std::atomic<uint64_t>(0);
    key_source keys(1, 256);
    for (int i = 0; i < 150; ++i) {
        if (record *r = put(s->handle, keys.next()); r != nullptr) {
            s->staying.push_back(r);
        }
    }
    std::sort(s->staying.begin(), s->staying.end(),
              [](const record *a, const record *b) { return before(a->key, b->key); });
}

// The number of leaves swings between none and some thousand beside those that stay.
void churn(const scene &s) {
    key_source near(1, 256);
    std::mt19937_64 random(8);
    std::vector<record *> mine;
    for (uint32_t i = 0; i < changes; ++i) {
        const bool up = i / 3000 % 2 == 0;
        if (mine.empty() || random() % 8 < (up ? 7U : 1U)) {
            prefix p = near.next();
            if (i % 3 == 0) {
                for (uint32_t b = 60; b < 256; ++b) {
                    p.set(b, random() % 2 != 0);
                }
                p.cut(256);
            }
            if (record *r = put(s.handle, p); r != nullptr) {
                mine.push_back(r);
            }
        } else {
            std::swap(mine[random() % mine.size()], mine.back());
            ASSERT_EQ(ip6mc_gtrie_leaf_delete(s.handle, mine.back(), nullptr), 0u);
            ASSERT_EQ(ip6mc_gtrie_leaf_free(s.handle, mine.back()), 0u);
            mine.pop_back();
        }
    }
    while (s.rounds->load() < 20) {
        std::this_thread::yield();
    }
}

void finish(scene *s) {
    ASSERT_EQ(ip6mc_gtrie_verify(s->handle), nullptr);
    ip6mc_gtrie_set_hash_for_tests(0);
    ip6mc_gtrie_reset_handle_db(0);
    close_arena();
}

class Readers : public testing::TestWithParam<bool> {};

TEST_P(Readers, InOtherThreads) {
    scene s{};
    ASSERT_NO_FATAL_FAILURE(prepare(&s, GetParam()));
    const char *wrong[2] = {};
    std::thread first([&] { wrong[0] = read_until_stopped(s, 1); });
    std::thread second([&] { wrong[1] = read_until_stopped(s, 2); });
    churn(s);
    s.stop->store(1);
    first.join();
    second.join();
    EXPECT_STREQ(wrong[0], nullptr);
    EXPECT_STREQ(wrong[1], nullptr);
    ASSERT_NO_FATAL_FAILURE(finish(&s));
}

TEST_P(Readers, InOtherProcesses) {
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "processes are not followed by the thread sanitizer";
#endif
    scene s{};
    ASSERT_NO_FATAL_FAILURE(prepare(&s, GetParam()));
    const pid_t child = fork();
    if (child == 0) {
        const char *wrong = read_until_stopped(s, 3);
        if (wrong != nullptr) {
            fprintf(stderr, "%s\n", wrong);
            s.rounds->store(1000);
        }
        _exit(wrong == nullptr ? 0 : 1);
    }
    churn(s);
    s.stop->store(1);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    ASSERT_NO_FATAL_FAILURE(finish(&s));
}

INSTANTIATE_TEST_SUITE_P(Hash, Readers, testing::Bool(),
                         [](const auto &one) { return one.param ? "constant" : "real"; });

}  // namespace
