// Entries of one node: finding, adding, removing, changing its size.
#ifndef MFWD6_SERVICES_GTRIE_NODE_H
#define MFWD6_SERVICES_GTRIE_NODE_H

#include "services/gtrie/layout.h"
#include "services/gtrie/memory.h"
#include "services/journal/journal.h"

namespace mfwd6::gtrie {

inline const node *side_of(const node *n) {
    return reinterpret_cast<const node *>(journal::observe(wide_of(n)->side));
}

// --- readers ---

inline entry find_in_list(const node *n, uint32_t code) {
    const entry *e = entries_of(n);
    for (uint32_t i = 0; i < n->capacity; ++i) {
        const entry found = journal::observe(e[i]);
        if (found != 0 && code_of(found) == code) {
            return found;
        }
    }
    return 0;
}

// The entry with this code, or 0.
inline entry find_entry(const node *n, uint32_t code) {
    if (n->kind != node_kind::wide) {
        return find_in_list(n, code);
    }
    if ((code & 7U) == stride) {
        return journal::observe(wide_of(n)->child[code >> 3]);
    }
    const node *side = side_of(n);
    return side == nullptr ? 0 : find_in_list(side, code);
}

// The entry with the smallest code that is at least `code`, or 0.
entry find_from(const node *n, uint32_t code);

// The leaf with the most bits of those that end inside the stride of n, have fewer than `below`
// bits of it and agree with `symbol` in these; or 0.
entry find_cover(const node *n, uint32_t symbol, uint32_t below);

// --- writer ---

// A node that no reader sees yet; null when there is no memory.
node *make_node(const memory &m, node_kind kind, uint32_t capacity, const node *like);

// Puts an entry in a node that no reader sees yet. There is room, except for the side node of a
// wide one.
void put_private(node *n, entry e);

// The place of an entry that is there.
entry *place_of(node *n, uint32_t code);

// True if an entry with this code fits without another node.
bool has_room(const node *n, uint32_t code);

// Adds an entry to a node with room.
void add_entry(node *n, entry e);

// Nodes that an addition to a node without room needs, allocated before the first store.
struct larger {
    node *whole = nullptr;  // takes the place of the node
    node *side = nullptr;   // takes the place of its side node
};

// Copies of n (or of its side node) with the entry added; false: no memory, nothing kept.
bool make_larger(const memory &m, const node *n, entry e, larger *result);

// A copy with another shape, side node included; null: no memory.
node *copy_node(const memory &m, const node *n, node_kind kind, uint32_t capacity);

// The next smaller shape if the entries of n leave enough of it free; false when n stays as it is.
bool smaller_shape(const node *n, node_kind *kind, uint32_t *capacity);

// Removes an entry; an empty side node is given back.
void remove_entry(node *n, uint32_t code, const memory &m);

// Gives a node and its side node back.
void free_node(const memory &m, node *n);

// Calls fn(entry) for each entry.
template <class F>
void for_entries(const node *n, F &&fn) {
    const entry *e = n->kind == node_kind::wide ? wide_of(n)->child : entries_of(n);
    const uint32_t count = n->kind == node_kind::wide ? 64 : n->capacity;
    for (uint32_t i = 0; i < count; ++i) {
        if (const entry found = journal::observe(e[i]); found != 0) {
            fn(found);
        }
    }
    if (n->kind == node_kind::wide && side_of(n) != nullptr) {
        for_entries(side_of(n), fn);
    }
}

}  // namespace mfwd6::gtrie

#endif
