// The one tree behind both forms: Boost.Intrusive's AVL algorithms over nodes whose stores are
// journaled. Private to this folder. Changes happen in a group that the caller has open.
#ifndef MFWD6_SERVICES_TREES_TREE_H
#define MFWD6_SERVICES_TREES_TREE_H

#include <boost/intrusive/avltree_algorithms.hpp>

#include "services/journal/journal.h"
#include "services/trees/node.h"

namespace mfwd6::trees {

inline constexpr uintptr_t balance_bits = 3;
inline constexpr uintptr_t head_mark = 3;

// No node of an AVL tree that fits in memory lies deeper; what does is a damaged tree.
inline constexpr unsigned max_depth = 96;

// A store that would change nothing costs no log entry.
template <class T>
inline void put(T &field, std::type_identity_t<T> value) {
    if (field != value) {
        journal::store(field, value);
    }
}

struct node_traits {
    using node = tree_node;
    using node_ptr = tree_node *;
    using const_node_ptr = const tree_node *;
    using balance = uintptr_t;

    static node_ptr get_parent(const_node_ptr n) {
        return reinterpret_cast<node_ptr>(n->up & ~balance_bits);
    }
    static void set_parent(node_ptr n, node_ptr p) {
        put(n->up, reinterpret_cast<uintptr_t>(p) | (n->up & balance_bits));
    }
    static node_ptr get_left(const_node_ptr n) { return n->left; }
    static void set_left(node_ptr n, node_ptr l) { put(n->left, l); }
    static node_ptr get_right(const_node_ptr n) { return n->right; }
    static void set_right(node_ptr n, node_ptr r) { put(n->right, r); }
    static balance get_balance(const_node_ptr n) { return n->up & balance_bits; }
    static void set_balance(node_ptr n, balance b) { put(n->up, (n->up & ~balance_bits) | b); }
    static constexpr balance zero() { return 0; }
    static constexpr balance negative() { return 1; }
    static constexpr balance positive() { return 2; }
};

using algorithms = boost::intrusive::avltree_algorithms<node_traits>;
using place = algorithms::insert_commit_data;

inline tree_node *parent_of(const tree_node *n) {
    return node_traits::get_parent(n);
}
inline bool is_head(const tree_node *n) {
    return (n->up & balance_bits) == head_mark;
}

// Both ways down are asked for before the comparison tells which one is taken: the wait for memory
// and the comparison then run side by side. Halves the time of a search that does not fit the
// caches.
inline void ask_for_children(const tree_node *n) {
    __builtin_prefetch(n->left);
    __builtin_prefetch(n->right);
}

// The node equal to `key`, or null.
inline tree_node *find(const tree_node *head, const void *key, tree_compare_fn compare) {
    tree_node *n = parent_of(head);
    while (n != nullptr) {
        ask_for_children(n);
        const int side = compare(key, n);
        if (side == tree_equal) {
            break;
        }
        n = side == tree_less ? n->left : n->right;
    }
    return n;
}

// The least node greater than `key`; with `or_equal` the node equal to it is taken too.
inline tree_node *find_above(const tree_node *head, const void *key, tree_compare_fn compare,
                             bool or_equal) {
    tree_node *best = nullptr;
    tree_node *n = parent_of(head);
    while (n != nullptr) {
        ask_for_children(n);
        const int side = compare(key, n);
        if (side == tree_equal && or_equal) {
            return n;
        }
        if (side == tree_less) {
            best = n;
            n = n->left;
        } else {
            n = n->right;
        }
    }
    return best;
}

// Where a node with this key belongs; false when the key is there already.
inline bool find_place(tree_node *head, const void *key, tree_compare_fn compare, place &where) {
    where.node = head;
    where.link_left = true;
    tree_node *n = parent_of(head);
    while (n != nullptr) {
        ask_for_children(n);
        const int side = compare(key, n);
        if (side == tree_equal) {
            return false;
        }
        where.node = n;
        where.link_left = side == tree_less;
        n = where.link_left ? n->left : n->right;
    }
    return true;
}

inline tree_node *first(const tree_node *head) {
    return parent_of(head) != nullptr ? head->left : nullptr;
}

// The node behind `n`, which is in a tree; null for the last.
tree_node *next(const tree_node *n);

// True when `n` hangs in the tree of this head.
bool holds(const tree_node *head, const tree_node *n);

// A head of zeroes becomes one that the algorithms and `next` recognise.
void prepare(tree_node *head);

void link(tree_node *head, tree_node *n, const place &where);
void unlink(tree_node *head, tree_node *n);

// Order, balance and links; `*count` gets the number of nodes met.
cerrno verify(const tree_node *head, tree_compare_fn compare, uint64_t *count);

}  // namespace mfwd6::trees

#endif
