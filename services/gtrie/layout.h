// Records of the trie engine, as they lie in shared memory.
#ifndef MFWD6_SERVICES_GTRIE_LAYOUT_H
#define MFWD6_SERVICES_GTRIE_LAYOUT_H

#include <cstddef>
#include <type_traits>

#include "services/gtrie/gtrie.h"
#include "services/gtrie/key.h"

namespace mfwd6::gtrie {

struct node;
struct trie;

// One store makes a leaf appear or go for all readers. For a leaf with a slot in the hash index it
// is the store to that slot: while `arriving` or `leaving`, the leaf is in the trie if and only if
// the index has it. For a leaf that waits for a slot it is the store to its state.
enum class leaf_state : uint32_t { detached, arriving, linked, leaving, removed };

// In front of the caller's record. Key, length, table and trie never change; `state` decides
// whether the leaf exists for readers, whatever structure they found it through.
//
// The key is last: lookups read it, and their caller reads the record behind it next. What the
// writer changes for the sake of other leaves is first, as far from the key as it can be.
struct leaf {
    node *up;               // node with the entry for this leaf
    uint64_t waiting_next;  // address of a leaf: list of those that found their bucket full; of a
                            // detached leaf the next of its handle's list
    uint64_t
        *waiting_at;  // the word that points here in that list; null when the leaf is in a bucket
    trie *owner;
    uint32_t magic;
    uint32_t size;    // bytes of the record
    uint32_t state;   // leaf_state
    uint16_t length;  // as in `key`
    uint16_t table;
    uint64_t word[4];
};
static_assert(sizeof(leaf) == 80 && offsetof(leaf, word) == 48);

inline constexpr uint32_t leaf_magic = 0x6c656166;

// An entry of a node: one word, so that a reader never sees half of one. Code in the upper 16 bits,
// then the address of a node or leaf; bit 0 tells a leaf.
//
// The code is value * 8 + bits: the first `bits` (0 to 6) bits of a stride, left-aligned in 6. Six
// bits name what lies behind this stride; fewer, the leaf that ends inside it. Codes in order are
// the walk order.
using entry = uint64_t;

inline constexpr uint64_t address_mask = (uint64_t{1} << 48) - 8;
inline constexpr uint32_t last_code = 63 * 8 + stride;

inline uint32_t code_of(entry e) {
    return static_cast<uint32_t>(e >> 48);
}
inline bool is_leaf(entry e) {
    return (e & 1U) != 0;
}
inline leaf *leaf_of(entry e) {
    return reinterpret_cast<leaf *>(e & address_mask);
}
inline node *node_of(entry e) {
    return reinterpret_cast<node *>(e & address_mask);
}
inline entry make_entry(uint32_t code, const leaf *l) {
    return uint64_t{code} << 48 | reinterpret_cast<uint64_t>(l) | 1U;
}
inline entry make_entry(uint32_t code, const node *n) {
    return uint64_t{code} << 48 | reinterpret_cast<uint64_t>(n);
}
inline uint32_t full_code(uint32_t symbol) {
    return symbol * 8 + stride;
}

enum class node_kind : uint8_t {
    small,  // entries in any order
    wide,   // one place for each full symbol, leaves that end inside the stride in a `side` node
    side,
};

// All leaves below a node agree in their first `pos` bits. Neither `pos` nor those bits ever
// change; a node that needs another size is replaced, and the old one keeps its entries for readers
// that are still in it.
struct node {
    node *up;
    uint64_t path;  // the bits from `from` to `pos`, when at most max_path; for the writer only
    uint16_t pos;
    uint16_t from;     // end of the parent's stride; for the writer only
    uint16_t count;    // entries, those of the side node included; for the writer only
    uint8_t capacity;  // entries that fit
    node_kind kind;
    // entries follow: `capacity` of them
};
static_assert(sizeof(node) == 24);

// What follows the head of a wide node.
struct wide_part {
    uint64_t present;  // bit 63 - symbol; set before the entry, cleared after it
    uint64_t side;     // address of the side node, or 0
    entry child[64];
};

inline constexpr uint32_t max_path = 60;
inline constexpr size_t wide_bytes = sizeof(node) + sizeof(wide_part);
static_assert(wide_bytes <= GTRIE_NODE_SIZE);

inline entry *entries_of(node *n) {
    return reinterpret_cast<entry *>(n + 1);
}
inline const entry *entries_of(const node *n) {
    return reinterpret_cast<const entry *>(n + 1);
}
inline wide_part *wide_of(node *n) {
    return reinterpret_cast<wide_part *>(n + 1);
}
inline const wide_part *wide_of(const node *n) {
    return reinterpret_cast<const wide_part *>(n + 1);
}

inline constexpr size_t node_bytes(node_kind kind, uint32_t capacity) {
    return kind == node_kind::wide ? wide_bytes : sizeof(node) + capacity * sizeof(entry);
}

inline constexpr uint32_t bucket_slots = 7;

// Part of the hash index: one cache line, which tells of nearly every leaf that it is not the one.
struct alignas(64) bucket {
    // 20 bits of the hash, 44 of the address of the leaf; or 0. The key is compared in the leaf.
    uint64_t slot[bucket_slots];
    // Leaves that found the slots taken: the first of a list, which only the writer follows. Bit 0:
    // there may be more of them that are in no list of this bucket. Readers that see it non-zero
    // ask the ordered structure.
    uint64_t waiting;
};
static_assert(sizeof(bucket) == 64 && offsetof(bucket, waiting) == 56);

struct directory {
    uint64_t capacity;
    // addresses of segments follow
};

struct handle;

// Two cache lines: as much as one line that is read brings along.
inline constexpr size_t words_apart = 16;

// One physical trie. What a lookup reads stands together; what the writer changes at every turn
// lies apart from it, and from what follows in memory.
struct trie {
    uint64_t shape;  // of the index, see index_shape
    directory *segments;
    uint64_t lengths;    // in use, see lengths.h
    uint64_t hash_mask;  // all ones; 0 makes every hash the same
    uint64_t seed[4];

    node *root;
    uint64_t cookie;  // tells this trie from an earlier one at the same address
    uint32_t magic;
    uint32_t kind;
    uint32_t key_bits;
    uint32_t may_share;
    uint64_t apart[words_apart];
    handle *handles;
    uint64_t leaves;
    uint64_t waiting;  // leaves in no bucket
    uint64_t
        length_map[5];  // bit 63 - length % 64 of word length / 64: some leaf has `length` bits
    uint32_t length_count[257];
    uint32_t padding;
    uint64_t behind[words_apart];
};
static_assert(std::is_trivially_copyable_v<trie> && std::is_standard_layout_v<trie>);
static_assert(offsetof(trie, root) == 64);

inline constexpr uint32_t trie_magic = 0x67747269;

// One table's share of a trie; what callers hold.
struct handle {
    uint32_t magic;
    uint32_t table;  // table part of its keys
    trie *on;
    uint32_t key_bits;
    uint32_t table_part;  // how many of these are the table's: 0 or 13
    uint64_t cookie;      // of the trie
    uint64_t leaf_position;
    uint32_t kind;
    uint32_t usage;
    uint32_t tid;
    uint32_t reserved;
    handle *next;
    handle *prev;
    uint64_t apart[words_apart];
    uint64_t leaves;
    uint64_t detached;  // address of a leaf: list of those that were made and not inserted
    uint64_t behind[words_apart - 1];
};
static_assert(sizeof(handle) == 336 && offsetof(handle, leaves) == 200);

inline constexpr uint32_t handle_magic = 0x6774686e;

inline leaf *leaf_of_record(void *record) {
    return static_cast<leaf *>(record) - 1;
}
inline void *record_of(leaf *l) {
    return l == nullptr ? nullptr : l + 1;
}

inline key key_of(const leaf *l) {
    return {{l->word[0], l->word[1], l->word[2], l->word[3]}, l->table, l->length};
}

inline uint32_t symbol_at(const leaf *l, uint32_t pos) {
    return symbol_at(l->word, l->table, pos);
}

// Code under which a leaf or the way to it stands in a node at `pos`.
inline uint32_t code_at(const leaf *l, uint32_t pos) {
    const uint32_t bits = l->length < pos + stride ? l->length - pos : stride;
    return symbol_at(l, pos) * 8 + bits;
}

// Walk order.
inline bool before(const leaf *a, const leaf *b) {
    const uint32_t limit = a->length < b->length ? a->length : b->length;
    const uint32_t same = common_bits(a->word, a->table, b->word, b->table, limit);
    if (same == limit) {
        return a->length < b->length;
    }
    const uint32_t pos = same - same % stride;
    return symbol_at(a, pos) < symbol_at(b, pos);
}

inline bool covers(const leaf *l, const key &k) {
    return l->length <= k.length &&
           common_bits(l->word, l->table, k.word, k.table, l->length) == l->length;
}

inline bool same_key(const leaf *l, const key &k) {
    return ((l->word[0] ^ k.word[0]) | (l->word[1] ^ k.word[1]) | (l->word[2] ^ k.word[2]) |
            (l->word[3] ^ k.word[3]) | (l->table ^ k.table) | (l->length ^ k.length)) == 0;
}

}  // namespace mfwd6::gtrie

#endif
