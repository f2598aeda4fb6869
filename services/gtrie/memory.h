// The memory functions by which this process allocates for tries.
#ifndef MFWD6_SERVICES_GTRIE_MEMORY_H
#define MFWD6_SERVICES_GTRIE_MEMORY_H

#include "services/gtrie/layout.h"

namespace mfwd6::gtrie {

struct memory {
    ip6mc_gtrie_alloc_fn alloc;
    ip6mc_gtrie_free_fn free;

    bool known() const { return alloc != nullptr && free != nullptr; }
};

// Remembers the functions for the trie, and the window it lies in if it may be shared. False: out
// of memory.
bool remember(const trie *t, uint32_t window, const memory &functions);
void forget(const trie *t);
void forget_all();
void set_default(const memory &functions);

// Of this trie in this process, else the process's default; not `known` when there are neither.
memory memory_of(const trie *t);

// Calls `accept` with each trie of the kind that this process knows in that window and that may be
// shared; the first that is accepted, or null.
trie *find_shared(uint32_t window, uint32_t kind, bool (*accept)(const trie *, uint32_t),
                  uint32_t table);

}  // namespace mfwd6::gtrie

#endif
