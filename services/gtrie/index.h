// The hash index: buckets of one cache line, grown one bucket at a time.
//
// A bucket that is full sends its leaves to a waiting list, and readers that miss in such a bucket
// ask the ordered structure: the worst hash costs a search there, never a long chain here.
#ifndef MFWD6_SERVICES_GTRIE_INDEX_H
#define MFWD6_SERVICES_GTRIE_INDEX_H

#include "services/gtrie/layout.h"
#include "services/gtrie/memory.h"

namespace mfwd6::gtrie {

inline constexpr uint64_t first_buckets = 16;
inline constexpr uint64_t segment_buckets = 1024;  // of a segment, when there are that many
inline constexpr uint64_t leaves_per_bucket = 4;   // on average, at most

// Makes the first buckets. False: no memory.
bool index_init(trie *t, const memory &m);
// Gives all memory of the index back.
void index_finish(trie *t, const memory &m);

inline uint64_t hash_for(const trie *t, const key &k) {
    return t->constant_hash != 0 ? 0x1234567890abcdefU
                                 : hash_of(k.word, k.table, k.length, t->seed);
}

// Number of the bucket for a hash when `buckets` are in use.
inline uint64_t bucket_number(uint64_t hash, uint64_t buckets) {
    const uint64_t mask = std::bit_ceil(buckets) - 1;
    const uint64_t number = hash & mask;
    return number < buckets ? number : number & (mask >> 1);
}

bucket *bucket_at(const trie *t, uint64_t number);

inline uint64_t hash_tag(uint64_t hash) {
    return hash & 0xffff000000000000U;
}

void index_prefetch(const trie *t, uint64_t hash);

// The linked leaf with this key, or null.
leaf *index_find(const trie *t, const key &k, uint64_t hash);

// For the writer inside a group. Growth that finds no memory is put off: the leaf is added all the
// same.
void index_add(trie *t, leaf *l, uint64_t hash, const memory &m);
void index_remove(trie *t, leaf *l, uint64_t hash);

// Segments and the directory, for the checker.
uint64_t segment_count(uint64_t buckets);
uint64_t segment_bytes(uint64_t segment);

}  // namespace mfwd6::gtrie

#endif
