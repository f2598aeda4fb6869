// A slow plain trie, and keys that nest, to compare with.
#ifndef MFWD6_TESTS_GTRIE_MODEL_H
#define MFWD6_TESTS_GTRIE_MODEL_H

#include <array>
#include <random>
#include <string>
#include <vector>

#include "tests/services/gtrie/arena.h"

namespace gtrie_test {

struct prefix {
    std::array<uint8_t, 32> bytes{};
    uint32_t length = 0;

    bool bit(uint32_t i) const { return (bytes[i / 8] >> (7 - i % 8) & 1) != 0; }
    void set(uint32_t i, bool on) {
        const auto mask = static_cast<uint8_t>(0x80 >> (i % 8));
        bytes[i / 8] = static_cast<uint8_t>(on ? bytes[i / 8] | mask : bytes[i / 8] & ~mask);
    }
    void cut(uint32_t to) {
        length = to;
        for (uint32_t i = to; i < 256; ++i) {
            set(i, false);
        }
    }
    bool covers(const prefix &other) const {
        if (length > other.length) {
            return false;
        }
        for (uint32_t i = 0; i < length; ++i) {
            if (bit(i) != other.bit(i)) {
                return false;
            }
        }
        return true;
    }
    bool operator==(const prefix &o) const { return length == o.length && bytes == o.bytes; }
};

// Walk order: bit by bit, the shorter of two that agree first.
inline bool before(const prefix &a, const prefix &b) {
    for (uint32_t i = 0; i < a.length && i < b.length; ++i) {
        if (a.bit(i) != b.bit(i)) {
            return b.bit(i);
        }
    }
    return a.length < b.length;
}

// What the tests keep in a leaf: a value that proves itself.
struct record {
    prefix key;
    uint32_t table;
    uint32_t unused;
    uint64_t proof;
    ip6mc_gtrie_leaf_t link;
};

inline uint64_t proof_of(const prefix &p, uint32_t table) {
    uint64_t sum = p.length * 1315423911U + table;
    for (const uint8_t b : p.bytes) {
        sum = sum * 31 + b;
    }
    return sum | 1;
}

inline void fill(record *r, const prefix &p, uint32_t table) {
    r->key = p;
    r->table = table;
    r->proof = proof_of(p, table);
}

inline bool proves(const record *r) {
    return r->proof == proof_of(r->key, r->table);
}

// Random keys of up to `bits` bits that share their beginnings, so that they nest and branch
// everywhere.
class key_source {
  public:
    key_source(uint64_t seed, uint32_t bits) : random_(seed), bits_(bits) {}

    prefix next() {
        prefix p;
        if (!made_.empty() && pick(4) != 0) {
            p = made_[pick(static_cast<uint32_t>(made_.size()))];
        }
        const uint32_t from = pick(bits_ + 1);
        // Short tails, so that many keys share a stride.
        const uint32_t tail = pick(3) == 0 ? bits_ : pick(9);
        for (uint32_t i = from; i < bits_ && i < from + tail; ++i) {
            p.set(i, pick(2) != 0);
        }
        p.cut(pick(3) == 0 ? bits_ : pick(bits_ + 1));
        if (made_.size() < 40) {
            made_.push_back(p);
        } else {
            made_[pick(40)] = p;
        }
        return p;
    }

    uint32_t pick(uint32_t below) { return static_cast<uint32_t>(random_() % below); }

  private:
    std::mt19937_64 random_;
    uint32_t bits_;
    std::vector<prefix> made_;
};

// One table: sorted, searched from end to end.
class model {
  public:
    std::vector<record *> leaves;

    record *exact(const prefix &p) const {
        for (record *r : leaves) {
            if (r->key == p) {
                return r;
            }
        }
        return nullptr;
    }
    record *longest(const prefix &p, uint32_t below = 257) const {
        record *best = nullptr;
        for (record *r : leaves) {
            if (r->key.length < below && r->key.covers(p) &&
                (best == nullptr || best->key.length < r->key.length)) {
                best = r;
            }
        }
        return best;
    }
    record *first(const prefix &p) const {
        for (record *r : leaves) {
            if (p.covers(r->key)) {
                return r;
            }
        }
        return nullptr;
    }
    void add(record *r) {
        auto at = leaves.begin();
        while (at != leaves.end() && before((*at)->key, r->key)) {
            ++at;
        }
        leaves.insert(at, r);
    }
    void remove(record *r) { std::erase(leaves, r); }
};

}  // namespace gtrie_test

#endif
