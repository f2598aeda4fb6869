// Records that the tests of the trees are made of.
#ifndef MFWD6_TESTS_SERVICES_TREES_RECORDS_H
#define MFWD6_TESTS_SERVICES_TREES_RECORDS_H

#include <cstddef>
#include <cstdint>

#include "services/trees/avl.h"
#include "services/trees/wavl.h"

namespace trees_test {

// The node stands at the front, as in objects of a tree in a window.
struct object {
    avl_node node;
    uint32_t key;
    uint32_t tag;
};

inline int compare_objects(const void *a, const void *b) {
    const uint32_t x = static_cast<const object *>(a)->key;
    const uint32_t y = static_cast<const object *>(b)->key;
    return x < y ? tree_less : x == y ? tree_equal : tree_greater;
}

// The node stands in the middle, as in records of a route's tree.
struct entry {
    uint64_t before;
    avl_node node;
    uint32_t key;
};

inline entry *entry_of(const avl_node *n) {
    return reinterpret_cast<entry *>(reinterpret_cast<uintptr_t>(n) - offsetof(entry, node));
}

inline int compare_entries(const void *a, const void *b) {
    const uint32_t x = entry_of(static_cast<const avl_node *>(a))->key;
    const uint32_t y = entry_of(static_cast<const avl_node *>(b))->key;
    return x < y ? tree_less : x == y ? tree_equal : tree_greater;
}

// Three orderings: by `a`, by `b`, by `c`.
struct record {
    wavl_node nodes[3];
    uint32_t a;
    uint32_t b;
    uint32_t c;
};

template <uint32_t thread, uint32_t record::*key>
int compare_records(const void *left, const void *right) {
    const auto *x = reinterpret_cast<const record *>(static_cast<const wavl_node *>(left) - thread);
    const auto *y =
        reinterpret_cast<const record *>(static_cast<const wavl_node *>(right) - thread);
    return x->*key < y->*key ? tree_less : x->*key == y->*key ? tree_equal : tree_greater;
}

inline const tree_compare_fn record_compares[3] = {
    compare_records<0, &record::a>, compare_records<1, &record::b>, compare_records<2, &record::c>};

inline void *same(void *node) {
    return node;
}

inline const shm_wavl_fns record_fns = {nullptr, nullptr, same, record_compares, nullptr};

}  // namespace trees_test

#endif
