#include "apps/mfwd6ctl/window/trie_walk.h"

#include <algorithm>

namespace ctl {
namespace {

bool bit_of(const trie_place::key &key, uint32_t n) {
    return ((key[n / 8] >> (7 - n % 8)) & 1U) != 0;
}

trie_place::key with_bit(trie_place::key key, uint32_t n) {
    key[n / 8] = static_cast<uint8_t>(key[n / 8] | (0x80U >> (n % 8)));
    return key;
}

bool same_bits(const trie_place::key &a, const trie_place::key &b, uint32_t count) {
    for (uint32_t n = 0; n < count; ++n) {
        if (bit_of(a, n) != bit_of(b, n)) {
            return false;
        }
    }
    return true;
}

uint32_t in_trie(void *trie, uint32_t bits) {
    ip6mc_gtrie_get_pfx_len_adjusted(trie, &bits);
    return bits;
}

void *first_under(void *trie, const trie_place::key &key, uint32_t bits) {
    cerrno error = 0;
    return ip6mc_gtrie_first_leaf(trie, key.data(), in_trie(trie, bits), &error);
}

// The first leaf behind a key that has no leaf any more: below it, else in the nearest part of the
// trie that lies behind. The order is that of the keys, a shorter one first.
void *first_behind(void *trie, const trie_place::key &key, uint32_t bits) {
    void *leaf = first_under(trie, key, bits);
    for (uint32_t n = bits; leaf == nullptr && n-- > 0;) {
        if (!bit_of(key, n)) {
            leaf = first_under(trie, with_bit(key, n), n + 1);
        }
    }
    return leaf;
}

}  // namespace

void *trie_place::resume(void *trie) const {
    if (!begun_) {
        return first_under(trie, prefix_, prefix_bits_);
    }
    cerrno error = 0;
    void *leaf = ip6mc_gtrie_lookup_exact(trie, at_.data(), in_trie(trie, at_bits_), &error);
    return leaf != nullptr ? ip6mc_gtrie_next_leaf(trie, leaf, &error)
                           : first_behind(trie, at_, at_bits_);
}

void trie_place::reach(const key &at, uint32_t bits) {
    at_ = at;
    at_bits_ = bits;
    begun_ = true;
}

bool trie_place::beyond(const key &at, uint32_t bits) const {
    return bits < prefix_bits_ || !same_bits(at, prefix_, prefix_bits_);
}

}  // namespace ctl
