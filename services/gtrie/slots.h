// Slots of a bucket: their words, and the search among them.
#ifndef MFWD6_SERVICES_GTRIE_SLOTS_H
#define MFWD6_SERVICES_GTRIE_SLOTS_H

#include <atomic>

#include "services/gtrie/layout.h"
#include "services/journal/journal.h"

#if defined(__SANITIZE_THREAD__)
#define MFWD6_GTRIE_VECTOR 0
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define MFWD6_GTRIE_VECTOR 0
#endif
#endif
#if !defined(MFWD6_GTRIE_VECTOR) && defined(__SSE2__)
#define MFWD6_GTRIE_VECTOR 1
#include <emmintrin.h>
#endif

namespace mfwd6::gtrie {

// The hash bits that stand in the upper 20 bits of a slot. From 2^12 to 2^32 buckets they have the
// bit by which the next split divides a bucket, so that it need not look at the leaves; those
// above that bit tell the leaves of a bucket apart.
inline constexpr uint32_t first_tag_bit = 12;
inline constexpr uint32_t tag_bits = 20;

inline uint64_t make_slot(uint64_t hash, const leaf *l) {
    return hash >> first_tag_bit << 44 | reinterpret_cast<uint64_t>(l) >> 3;
}
inline leaf *slot_leaf(uint64_t slot) {
    return reinterpret_cast<leaf *>((slot & ((uint64_t{1} << 44) - 1)) << 3);
}

// Bit `bit` of the hash in a slot, which must be one of the tag.
inline bool slot_bit(uint64_t slot, uint32_t bit) {
    return (slot >> (44 - first_tag_bit + bit) & 1U) != 0;
}

// Compares with what another process may be changing. Written out, and not gathered into one
// difference, as a lookup has few registers to spare; a slot with the tag is nearly always the one.
inline bool reads_as(const leaf *l, const key &k) {
    return journal::observe(l->word[0]) == k.word[0] && journal::observe(l->word[1]) == k.word[1] &&
           journal::observe(l->word[2]) == k.word[2] && journal::observe(l->word[3]) == k.word[3] &&
           l->length == k.length && l->table == k.table;
}

// The slots that may be those of a leaf with this hash, bit by bit: all that are, and seldom
// another. Without a branch, as where the match is cannot be foretold, and a wrong guess would cost
// more than all the comparisons.
#if MFWD6_GTRIE_VECTOR
inline uint32_t slots_with(const bucket *b, uint64_t hash) {
    // The upper 16 bits of a slot are compared, which are the upper 16 of the tag. Each half of a
    // vector is a word that is read whole, and what is found is read again by whoever uses it.
    const auto *pair = reinterpret_cast<const __m128i *>(b);
    const __m128i tag = _mm_set1_epi64x(static_cast<int64_t>(hash >> first_tag_bit << 44));
    const auto equal = [&](int i) {
        return _mm_castsi128_ps(_mm_cmpeq_epi16(_mm_load_si128(pair + i), tag));
    };
    constexpr int upper_halves = _MM_SHUFFLE(3, 1, 3, 1);
    const int low = _mm_movemask_ps(_mm_shuffle_ps(equal(0), equal(1), upper_halves));
    const int high = _mm_movemask_ps(_mm_shuffle_ps(equal(2), equal(3), upper_halves));
    // The processor reads in order; the compiler has to be told.
    std::atomic_signal_fence(std::memory_order_seq_cst);
    return static_cast<uint32_t>(low | high << 4) & ((1U << bucket_slots) - 1);
}
#else
inline uint32_t slots_with(const bucket *b, uint64_t hash) {
    uint32_t found = 0;
    for (uint32_t i = 0; i < bucket_slots; ++i) {
        const uint64_t differ = journal::observe(b->slot[i]) ^ hash >> first_tag_bit << 44;
        found |= static_cast<uint32_t>(differ >> 48 == 0) << i;
    }
    return found;
}
#endif

// The leaf of a slot if it has this key. The slot is read once more behind the key: if it is still
// the same, the key was that of its leaf.
inline leaf *leaf_in_slot(const bucket *b, uint32_t i, const key &k) {
    const uint64_t word = journal::observe(b->slot[i]);
    leaf *l = slot_leaf(word);
    return l != nullptr && reads_as(l, k) && journal::observe(b->slot[i]) == word ? l : nullptr;
}

}  // namespace mfwd6::gtrie

#endif
