// Lookups by key, for any reader at any time.
#ifndef MFWD6_SERVICES_GTRIE_LOOKUP_H
#define MFWD6_SERVICES_GTRIE_LOOKUP_H

#include "services/gtrie/index.h"
#include "services/gtrie/lengths.h"

namespace mfwd6::gtrie {

inline leaf *lookup_exact(const trie *t, const key &k) {
    return index_find(t, k, hash_for(t, k));
}

inline uint64_t lengths_in_use(const trie *t) {
    return journal::observe(t->lengths);
}

// The longest leaf that covers `k`, of those with the lengths in `lengths` (see lengths.h).
leaf *lookup_longest(const trie *t, const key &k, uint64_t lengths);

}  // namespace mfwd6::gtrie

#endif
