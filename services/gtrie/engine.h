// A whole trie: ordered structure and hash index as one. Lookups are in lookup.h.
#ifndef MFWD6_SERVICES_GTRIE_ENGINE_H
#define MFWD6_SERVICES_GTRIE_ENGINE_H

#include "services/gtrie/layout.h"
#include "services/gtrie/memory.h"

namespace mfwd6::gtrie {

struct trie_form {
    uint32_t kind;
    uint32_t key_bits;
    bool may_share;
    bool constant_hash;
};

// Makes an empty trie. Null: no memory, nothing kept. Inside a group of the caller, like all that
// writes here.
trie *make_trie(const memory &m, const trie_form &form);
void free_trie(trie *t, const memory &m);

// A detached leaf; null: no memory.
leaf *make_leaf(trie *t, const key &k, size_t size, const memory &m);

// 0, GTRIE_E_EXISTS or ENOMEM; on an error nothing has changed.
cerrno insert_leaf(trie *t, leaf *l, const memory &m);
void delete_leaf(trie *t, leaf *l, const memory &m);

uint64_t random_word();

}  // namespace mfwd6::gtrie

#endif
