// The ordered structure: a tree of 64-way strides with path compression.
//
// Readers go down by entries alone and compare keys only at the leaf that they reach; they go up by
// `up`. Both work from nodes that were replaced meanwhile, whose entries stay as they were at that
// moment: a leaf that is in the trie during the whole read is in each of them.
#ifndef MFWD6_SERVICES_GTRIE_ORDERED_H
#define MFWD6_SERVICES_GTRIE_ORDERED_H

#include "services/gtrie/layout.h"
#include "services/gtrie/memory.h"

namespace mfwd6::gtrie {

// Makes the root: a wide node at `pos` (0, or table_bits when all keys have table part 0). Null: no
// memory.
node *make_root(const memory &m, uint32_t pos);

// --- readers. Each gives a linked leaf or null. ---

leaf *find_exact(const trie *t, const key &k);
// The longest leaf that covers `k`.
leaf *find_longest(const trie *t, const key &k);
// First leaf that `prefix` covers.
leaf *find_first(const trie *t, const key &prefix);
// Leaf behind l in order; l itself may be detached or removed.
leaf *find_next(const trie *t, const leaf *l);
leaf *find_less_specific(const trie *t, const leaf *l);

// --- writer, inside a group ---

// Links the leaf. EEXIST with the leaf that is in its place, which may be one that readers do not
// see yet; ENOMEM. On an error no store was made.
cerrno link(trie *t, leaf *l, const memory &m);

// Takes a linked leaf out. Needs no memory; gives unused nodes back.
void unlink(trie *t, leaf *l, const memory &m);

// The first entry below n that is a leaf.
leaf *any_leaf(const node *n);

// The bits of a key from `from` to `pos`, right-aligned; 0 when they are more than max_path.
uint64_t path_bits(const uint64_t *word, uint32_t table, uint32_t from, uint32_t pos);

}  // namespace mfwd6::gtrie

#endif
