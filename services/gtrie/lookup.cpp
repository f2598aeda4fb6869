#include "services/gtrie/lookup.h"

#include "services/gtrie/ordered.h"

namespace mfwd6::gtrie {

namespace {

key shortened(const key &k, uint32_t bits) {
    key cut_down = k;
    cut(cut_down, bits + table_bits);
    return cut_down;
}

}  // namespace

leaf *lookup_longest(const trie *t, const key &k, uint64_t lengths) {
    // A leaf with all bits of the key is the answer, whatever else is there.
    if (longest_length(lengths) == k.length - table_bits) {
        if (leaf *l = lookup_exact(t, k); l != nullptr) {
            return l;
        }
        lengths = without_longest(lengths);
    }
    if ((lengths & many_lengths) != 0) {
        return find_longest(t, k);
    }
    // All buckets are on their way before the first is read.
    uint64_t hash[most_probes];
    uint32_t count = 0;
    for (uint64_t left = lengths; left != 0; left = without_longest(left)) {
        hash[count] = hash_for(t, shortened(k, longest_length(left)));
        index_prefetch(t, hash[count++]);
    }
    for (uint32_t i = 0; i < count; ++i, lengths = without_longest(lengths)) {
        if (leaf *l = index_find(t, shortened(k, longest_length(lengths)), hash[i]); l != nullptr) {
            return l;
        }
    }
    return nullptr;
}

}  // namespace mfwd6::gtrie
