// The hash index: buckets of one cache line, grown one bucket at a time.
//
// A bucket that is full sends its leaves to a waiting list, and readers that miss in such a bucket
// ask the ordered structure: the worst hash costs a search there, never a long chain here.
#ifndef MFWD6_SERVICES_GTRIE_INDEX_H
#define MFWD6_SERVICES_GTRIE_INDEX_H

#include "services/gtrie/layout.h"
#include "services/gtrie/memory.h"
#include "services/gtrie/slots.h"
#include "services/journal/journal.h"

namespace mfwd6::gtrie {

inline constexpr uint64_t first_buckets = 4;
inline constexpr uint64_t segment_buckets = 256;  // of a segment, when there are that many
// On average, at most: a third of the slots, so that hardly a leaf waits, also where a bucket not
// yet split has twice the average.
inline constexpr uint64_t leaves_per_bucket = 2;

// Segments: first_buckets, then as many as all before, until segment_buckets is reached, then that
// many each.
inline constexpr uint64_t doubling_segments = 7;
static_assert(first_buckets << (doubling_segments - 1) == segment_buckets);

// Makes the first buckets. False: no memory.
bool index_init(trie *t, const memory &m);
// Gives all memory of the index back.
void index_finish(trie *t, const memory &m);

inline uint64_t hash_for(const trie *t, const key &k) {
    return hash_of(k.word, k.table, k.length, t->seed) & t->hash_mask;
}
inline uint64_t hash_for(const trie *t, const leaf *l) {
    return hash_of(l->word, l->table, l->length, t->seed) & t->hash_mask;
}

// Number of buckets in use and, in the upper half, the mask for a hash: both change in one store.
inline uint64_t index_shape(uint64_t buckets) {
    return (std::bit_ceil(buckets) - 1) << 32 | buckets;
}
inline uint64_t buckets_of(uint64_t shape) {
    return shape & 0xffffffffU;
}

// Number of the bucket for a hash.
inline uint64_t bucket_number(uint64_t hash, uint64_t shape) {
    const uint64_t mask = shape >> 32;
    const uint64_t number = hash & mask;
    const uint64_t half = hash & mask >> 1;
    return number < buckets_of(shape) ? number : half;
}

struct position {
    uint64_t segment;
    uint64_t offset;
};

inline position position_of(uint64_t number) {
    if (number >= segment_buckets) [[likely]] {
        return {doubling_segments - 1 + number / segment_buckets, number % segment_buckets};
    }
    if (number < first_buckets) {
        return {0, number};
    }
    const auto segment = static_cast<uint64_t>(std::bit_width(number / first_buckets));
    return {segment, number - (first_buckets << (segment - 1))};
}

inline uint64_t *segments_of(directory *d) {
    return reinterpret_cast<uint64_t *>(d + 1);
}

// Buckets are aligned to cache lines inside their block.
inline bucket *bucket_at(const trie *t, uint64_t number) {
    const position p = position_of(number);
    const uint64_t block = journal::observe(segments_of(journal::observe(t->segments))[p.segment]);
    return reinterpret_cast<bucket *>((block + 63) & ~uint64_t{63}) + p.offset;
}

inline void index_prefetch(const trie *t, uint64_t hash) {
    __builtin_prefetch(bucket_at(t, bucket_number(hash, journal::observe(t->shape))));
}

// True if the leaf has its slot.
bool index_holds(const trie *t, const leaf *l);

// A leaf, or the certainty that there is none, or neither.
struct answer {
    leaf *found;
    bool sure;
};

// The leaf with this key if one look at its bucket tells. What it leaves open is for
// find_elsewhere: a bucket that is full or was just split, or two slots that look alike.
inline answer find_at_once(const trie *t, const key &k, uint64_t hash) {
    const uint64_t number = bucket_number(hash, journal::observe(t->shape));
    const bucket *b = bucket_at(t, number);
    // Before the slots: a leaf goes into a slot before it leaves the waiting list.
    const uint64_t waiting = journal::observe(b->waiting);
    const uint32_t found = slots_with(b, hash);
    if (found != 0) [[likely]] {
        leaf *l = leaf_in_slot(b, static_cast<uint32_t>(std::countr_zero(found)), k);
        return {l, l != nullptr};
    }
    // A split moves leaves to a new bucket, which counts before they go from the old one.
    return {nullptr, waiting == 0 && bucket_number(hash, journal::observe(t->shape)) == number};
}

// The leaf with this key that is in the trie, or null.
leaf *find_elsewhere(const trie *t, const key &k, uint64_t hash);

inline leaf *index_find(const trie *t, const key &k, uint64_t hash) {
    const answer at_once = find_at_once(t, k, hash);
    return at_once.found != nullptr || at_once.sure ? at_once.found : find_elsewhere(t, k, hash);
}

// For the writer inside a group. Adding is two steps, so that the one which makes the leaf visible
// can be last: index_grow makes room (growth that finds no memory is put off), index_add takes a
// slot; if there is none, the leaf waits for one.
void index_grow(trie *t, const memory &m);
void index_add(trie *t, leaf *l, uint64_t hash);
void index_remove(trie *t, leaf *l, uint64_t hash);

// Segments that so many buckets need, and bytes of the block of one.
inline uint64_t segment_count(uint64_t buckets) {
    return position_of(buckets - 1).segment + 1;
}
inline uint64_t segment_bytes(uint64_t segment) {
    const uint64_t buckets = segment == 0                  ? first_buckets
                             : segment < doubling_segments ? first_buckets << (segment - 1)
                                                           : segment_buckets;
    return buckets * sizeof(bucket) + 56;
}

}  // namespace mfwd6::gtrie

#endif
