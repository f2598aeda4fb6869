// Walks in steps over a trie that changes between them.
#include "apps/mfwd6ctl/window/trie_walk.h"

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <set>
#include <vector>

#include "services/gtrie/gtrie.h"

namespace {

using ctl::trie_place;

struct leaf {
    trie_place::key key;
    uint32_t bits;
};

void *take(size_t size, uint32_t) {
    return calloc(1, size);
}
cerrno give(void *block, uint32_t) {
    free(block);
    return 0;
}

// A trie in process memory, with short keys so that chance hits prefixes of one another.
class TrieWalk : public testing::TestWithParam<uint32_t> {
  protected:
    TrieWalk() {
        ip6mc_gtrie_params_t params{};
        params.gtrie_kind =
            GetParam() == GTRIE_TABLE_KEY_BITS ? GTRIE_KIND_TABLE : GTRIE_KIND_ENCAP;
        params.tid_decoded = 5;
        params.flags = 1;
        params.key_bits = GetParam();
        params.alloc_fn = take;
        params.free_fn = give;
        cerrno error = 0;
        trie_ = ip6mc_gtrie_init(&params, &error);
        if (trie_ == nullptr) {
            throw std::runtime_error("trie");
        }
    }

    ~TrieWalk() override {
        while (!records_.empty()) {
            remove(*records_.begin());
        }
        ip6mc_gtrie_close(&trie_);
    }

    uint32_t in_trie(uint32_t bits) {
        ip6mc_gtrie_get_pfx_len_adjusted(trie_, &bits);
        return bits;
    }

    // Of four bits and fewer in the first byte, and some of the last ones.
    leaf random_leaf() {
        leaf l{};
        l.bits = static_cast<uint32_t>(random_() % 9);
        l.key[0] = static_cast<uint8_t>(random_() << (8 - l.bits));
        if (l.bits == 0) {
            l.key[0] = 0;
        }
        return l;
    }

    bool add(const leaf &l) {
        void *record = nullptr;
        int created = 0;
        ip6mc_gtrie_leaf_create(trie_, l.key.data(), in_trie(l.bits), &record, sizeof(leaf),
                                &created);
        if (created == 0) {
            return false;
        }
        *static_cast<leaf *>(record) = l;
        records_.insert(record);
        return ip6mc_gtrie_leaf_insert(trie_, record, nullptr) == 0;
    }

    void remove(void *record) {
        records_.erase(record);
        ip6mc_gtrie_leaf_delete(trie_, record, nullptr);
        ip6mc_gtrie_leaf_free(trie_, record);
    }

    void *find(const leaf &l) {
        cerrno error = 0;
        return ip6mc_gtrie_lookup_exact(trie_, l.key.data(), in_trie(l.bits), &error);
    }

    std::pair<uint8_t, uint32_t> name(const leaf &l) const { return {l.key[0], l.bits}; }

    std::mt19937 random_{4711};
    void *trie_ = nullptr;
    std::set<void *> records_;
};

TEST_P(TrieWalk, GivesEveryLeafOnceInOrder) {
    std::set<std::pair<uint8_t, uint32_t>> there;
    for (int n = 0; n < 200; ++n) {
        const leaf l = random_leaf();
        if (add(l)) {
            there.insert(name(l));
        }
    }
    std::vector<std::pair<uint8_t, uint32_t>> seen;
    trie_place place;
    while (auto *l = static_cast<leaf *>(place.resume(trie_))) {
        seen.push_back(name(*l));
        place.reach(l->key, l->bits);
    }
    // By key, a shorter one first: the order of the pairs.
    EXPECT_EQ(seen, std::vector(there.begin(), there.end()));
}

TEST_P(TrieWalk, GoesOnBehindLeavesThatAreGone) {
    for (int round = 0; round < 300; ++round) {
        std::map<std::pair<uint8_t, uint32_t>, bool> stayed;  // false: came or went during the walk
        for (int n = 0; n < 60; ++n) {
            const leaf l = random_leaf();
            if (add(l)) {
                stayed[name(l)] = true;
            }
        }
        std::vector<std::pair<uint8_t, uint32_t>> seen;
        trie_place place;
        while (auto *record = static_cast<leaf *>(place.resume(trie_))) {
            const leaf l = *record;
            seen.push_back(name(l));
            place.reach(l.key, l.bits);
            if (random_() % 2 == 0) {
                remove(record);  // the one that the walk stands on
                stayed[name(l)] = false;
            }
            const leaf other = random_leaf();
            if (void *there = find(other); there != nullptr) {
                remove(there);
                stayed[name(other)] = false;
            } else if (random_() % 2 == 0 && add(other)) {
                stayed[name(other)] = false;
            }
        }
        EXPECT_TRUE(std::is_sorted(seen.begin(), seen.end()));
        EXPECT_EQ(std::set(seen.begin(), seen.end()).size(), seen.size());
        for (const auto &[key, was_there] : stayed) {
            if (was_there) {
                EXPECT_NE(std::find(seen.begin(), seen.end(), key), seen.end())
                    << int{key.first} << "/" << key.second;
            }
        }
        trie_place all;
        while (void *record = all.resume(trie_)) {
            remove(record);
        }
    }
}

TEST_P(TrieWalk, StaysBelowAPrefix) {
    for (int n = 0; n < 300; ++n) {
        add(random_leaf());
    }
    trie_place::key prefix{};
    prefix[0] = 0xa0;
    trie_place place(prefix, 3);
    uint32_t seen = 0;
    while (auto *l = static_cast<leaf *>(place.resume(trie_))) {
        if (place.beyond(l->key, l->bits)) {
            break;
        }
        EXPECT_EQ(l->key[0] & 0xe0, 0xa0);
        EXPECT_GE(l->bits, 3U);
        place.reach(l->key, l->bits);
        ++seen;
    }
    EXPECT_GT(seen, 10U);
}

INSTANTIATE_TEST_SUITE_P(Keys, TrieWalk, testing::Values(GTRIE_TABLE_KEY_BITS, 20U));

}  // namespace
