// The hash index: buckets of four cache lines, grown one bucket at a time.
//
// A bucket that is full sends its leaves to a waiting list, and readers that miss in such a bucket
// ask the ordered structure: the worst hash costs a search there, never a long chain here.
#ifndef MFWD6_SERVICES_GTRIE_INDEX_H
#define MFWD6_SERVICES_GTRIE_INDEX_H

#include "services/gtrie/layout.h"
#include "services/gtrie/memory.h"

namespace mfwd6::gtrie {

inline constexpr uint64_t first_buckets = 4;
inline constexpr uint64_t segment_buckets = 256;  // of a segment, when there are that many
inline constexpr uint64_t leaves_per_bucket = 3;  // on average, at most

// Makes the first buckets. False: no memory.
bool index_init(trie *t, const memory &m);
// Gives all memory of the index back.
void index_finish(trie *t, const memory &m);

// Where one table has the trie to itself, its table part says nothing.
inline uint64_t hash_for(const trie *t, const uint64_t *word, uint32_t table, uint32_t length) {
    if (t->constant_hash != 0) {
        return 0x1234567890abcdefU;
    }
    return hash_of(word, t->may_share != 0 ? table : 0, length, t->seed);
}
inline uint64_t hash_for(const trie *t, const key &k) {
    return hash_for(t, k.word, k.table, k.length);
}
inline uint64_t hash_for(const trie *t, const leaf *l) {
    return hash_for(t, l->word, l->table, l->length);
}

// Number of the bucket for a hash when `buckets` are in use.
inline uint64_t bucket_number(uint64_t hash, uint64_t buckets) {
    const uint64_t mask = std::bit_ceil(buckets) - 1;
    const uint64_t number = hash & mask;
    return number < buckets ? number : number & (mask >> 1);
}

bucket *bucket_at(const trie *t, uint64_t number);

// The upper 20 bits of a slot.
inline uint64_t slot_tag(uint64_t hash, uint32_t length) {
    return (hash >> 53 | 1U) << 53 | uint64_t{length - table_bits} << 44;
}
inline leaf *slot_leaf(uint64_t slot) {
    return reinterpret_cast<leaf *>((slot & ((uint64_t{1} << 44) - 1)) << 3);
}

void index_prefetch(const trie *t, uint64_t hash);

// True if the leaf has its slot.
bool index_holds(const trie *t, const leaf *l);

// The leaf with this key that is in the trie, or null.
leaf *index_find(const trie *t, const key &k, uint64_t hash);

// For the writer inside a group. Adding is two steps, so that the one which makes the leaf visible
// can be last: index_grow makes room (growth that finds no memory is put off), index_add takes a
// slot; if there is none, the leaf waits for one.
void index_grow(trie *t, const memory &m);
void index_add(trie *t, leaf *l, uint64_t hash);
void index_remove(trie *t, leaf *l, uint64_t hash);

// Segments and the directory, for the checker.
uint64_t segment_count(uint64_t buckets);
uint64_t segment_bytes(uint64_t segment);

}  // namespace mfwd6::gtrie

#endif
