// Proof of the invariants, statistics and the enumeration of blocks. All of it reads a trie at
// rest.
#include <cerrno>

#include "services/gtrie/gtrie.h"
#include "services/gtrie/index.h"
#include "services/gtrie/lengths.h"
#include "services/gtrie/node.h"
#include "services/gtrie/ordered.h"

namespace {

using namespace mfwd6::gtrie;

struct checker {
    const trie *on;
    const leaf *previous = nullptr;
    uint64_t leaves = 0;
    uint64_t waiting = 0;
    uint64_t nodes = 0;
    uint64_t node_bytes_used = 0;
    uint64_t depth = 0;
    uint32_t lengths[257] = {};
    const char *wrong = nullptr;

    void expect(bool holds, const char *what) {
        if (!holds && wrong == nullptr) {
            wrong = what;
        }
    }
    void check_node(const node *n, const node *parent, uint64_t level);
    void check_head(const node *n, const node *parent);
    void check_leaf(leaf *l, const node *n);
    void check_indexed(leaf *l);
    void check_counts();
    void check_detached(const handle *h);
    void check_index();
};

void checker::check_indexed(leaf *l) {
    const uint64_t hash = hash_for(on, l);
    const bucket *b = bucket_at(on, bucket_number(hash, on->shape));
    uint32_t found = 0;
    for (uint32_t i = 0; i < bucket_slots; ++i) {
        if (b->slot[i] != 0 && slot_leaf(b->slot[i]) == l) {
            ++found;
            expect(b->slot[i] == make_slot(hash, l), "slot with a wrong tag");
        }
    }
    if (l->waiting_at != nullptr) {
        ++waiting;
        expect(found == 0, "leaf in a bucket and in a waiting list");
        expect((*l->waiting_at & address_mask) == reinterpret_cast<uint64_t>(l),
               "waiting list broken");
        expect(b->waiting != 0, "bucket does not know of a leaf that waits");
    } else {
        expect(found == 1, "leaf not in its bucket");
    }
}

void checker::check_leaf(leaf *l, const node *n) {
    expect(l->magic == leaf_magic && l->owner == on, "not a leaf of this trie");
    expect(l->state == static_cast<uint32_t>(leaf_state::linked),
           "leaf in the trie that is not linked");
    expect(l->up == n, "leaf does not point to its node");
    expect(previous == nullptr || before(previous, l), "leaves out of order");
    expect(l->length >= table_bits && l->length <= max_length, "leaf with an impossible length");
    if (wrong == nullptr) {
        key k = key_of(l);
        cut(k, l->length);
        expect(same_key(l, k), "leaf with bits behind its length");
        check_indexed(l);
        ++lengths[l->length - table_bits];
    }
    previous = l;
    ++leaves;
}

void checker::check_head(const node *n, const node *parent) {
    ++nodes;
    node_bytes_used += node_bytes(n->kind, n->capacity);
    expect(n->up == parent, "node does not point to its parent");
    expect(n->pos % stride == 0 && n->from <= n->pos, "node at an impossible position");
    expect(parent == nullptr || n->from == parent->pos + stride,
           "path does not begin at the parent");
    uint32_t entries = 0;
    uint32_t ending = 0;
    for_entries(n, [&](entry e) {
        ++entries;
        ending += (code_of(e) & 7U) != stride ? 1 : 0;
        expect(is_leaf(e) || (code_of(e) & 7U) == stride, "node that hangs inside a stride");
    });
    expect(entries == n->count, "entries of a node miscounted");
    expect(parent == nullptr || entries >= 2, "node with less than two entries");
    if (n->kind == node_kind::wide) {
        for (uint32_t i = 0; i < 64; ++i) {
            const bool bit = (wide_of(n)->present >> (63 - i) & 1U) != 0;
            expect(bit == (wide_of(n)->child[i] != 0), "presence bits differ from the children");
        }
        const node *side = side_of(n);
        expect((side != nullptr) == (ending != 0), "side node without use, or missing");
        if (side != nullptr) {
            ++nodes;
            node_bytes_used += node_bytes(side->kind, side->capacity);
            expect(side->count == ending && side->kind == node_kind::side, "side node miscounted");
        }
    }
    if (const leaf *sample = any_leaf(n); parent != nullptr && sample != nullptr) {
        expect(n->path == path_bits(sample->word, sample->table, n->from, n->pos),
               "wrong path of a node");
    }
}

void checker::check_node(const node *n, const node *parent, uint64_t level) {
    depth = level > depth ? level : depth;
    check_head(n, parent);
    const leaf *sample = any_leaf(n);
    for (uint32_t code = 0; wrong == nullptr && code <= last_code;) {
        const entry e = find_from(n, code);
        if (e == 0) {
            break;
        }
        code = code_of(e) + 1;
        const leaf *below = is_leaf(e) ? leaf_of(e) : any_leaf(node_of(e));
        expect(below != nullptr && code_at(below, n->pos) == code_of(e), "entry with a wrong code");
        if (wrong != nullptr) {
            break;
        }
        expect(
            common_bits(below->word, below->table, sample->word, sample->table, n->pos) == n->pos,
            "leaf below a node with another prefix");
        if (is_leaf(e)) {
            check_leaf(leaf_of(e), n);
        } else {
            expect(node_of(e)->pos >= n->pos + stride, "child above its parent");
            check_node(node_of(e), n, level + 1);
        }
    }
}

void checker::check_detached(const handle *h) {
    const uint64_t *at = &h->detached;
    while (*at != 0 && wrong == nullptr) {
        const auto *l = reinterpret_cast<const leaf *>(*at);
        expect(l->magic == leaf_magic && l->owner == on && l->table == h->table,
               "detached leaf of another trie");
        expect(l->state == static_cast<uint32_t>(leaf_state::detached),
               "leaf on the list of detached ones that is none");
        expect(l->waiting_at == at, "list of detached leaves broken");
        at = &l->waiting_next;
    }
}

void checker::check_counts() {
    expect(leaves == on->leaves, "leaves miscounted");
    expect(waiting == on->waiting, "waiting leaves miscounted");
    for (uint32_t i = 0; i <= 256; ++i) {
        const bool bit = (on->length_map[i / 64] >> (63 - i % 64) & 1U) != 0;
        expect(lengths[i] == on->length_count[i], "leaves of a length miscounted");
        expect(bit == (lengths[i] != 0), "map of lengths differs from their counts");
    }
    expect(on->lengths == pack_lengths(on->length_map), "packed lengths differ from their map");
    uint64_t of_handles = 0;
    for (const handle *h = on->handles; h != nullptr; h = h->next) {
        check_detached(h);
    }
    const handle *previous_handle = nullptr;
    for (const handle *h = on->handles; h != nullptr; h = h->next) {
        expect(h->magic == handle_magic && h->on == on && h->prev == previous_handle,
               "list of handles broken");
        of_handles += h->leaves;
        previous_handle = h;
    }
    expect(of_handles == on->leaves, "leaves of the handles do not add up");
}

void checker::check_index() {
    expect(on->shape == index_shape(buckets_of(on->shape)), "mask of the index is wrong");
    uint64_t in_slots = 0;
    uint64_t listed = 0;
    for (uint64_t i = 0; i < buckets_of(on->shape); ++i) {
        const bucket *b = bucket_at(on, i);
        for (const uint64_t slot : b->slot) {
            in_slots += slot != 0 ? 1 : 0;
        }
        for (uint64_t w = b->waiting & address_mask; w != 0 && listed <= on->waiting;
             w = reinterpret_cast<const leaf *>(w)->waiting_next) {
            ++listed;
        }
    }
    expect(listed == on->waiting, "waiting lists hold another number of leaves");
    expect(in_slots + on->waiting == on->leaves, "buckets hold another number of leaves");
}

struct block_walk {
    void (*fn)(const void *block, uint32_t type, void *context);
    void *context;

    void walk_node(const node *n) const {
        fn(n, GTRIE_ALLOC_NODE, context);
        if (n->kind == node_kind::wide && side_of(n) != nullptr) {
            fn(side_of(n), GTRIE_ALLOC_NODE, context);
        }
        for_entries(n, [&](entry e) {
            if (is_leaf(e)) {
                fn(leaf_of(e), GTRIE_ALLOC_LEAF, context);
            } else {
                walk_node(node_of(e));
            }
        });
    }
};

const handle *checked(const void *given) {
    const auto *h = static_cast<const handle *>(given);
    const bool good = h != nullptr && (reinterpret_cast<uintptr_t>(given) & 7U) == 0 &&
                      h->magic == handle_magic && h->on != nullptr && h->on->magic == trie_magic &&
                      h->on->cookie == h->cookie;
    return good ? h : nullptr;
}

uint64_t index_bytes(const trie *t) {
    uint64_t bytes = sizeof(directory) + t->segments->capacity * sizeof(uint64_t);
    for (uint64_t i = 0; i < segment_count(buckets_of(t->shape)); ++i) {
        bytes += segment_bytes(i);
    }
    return bytes;
}

}  // namespace

extern "C" {

const char *ip6mc_gtrie_verify(void *given) {
    const handle *h = checked(given);
    if (h == nullptr) {
        return "not a handle";
    }
    checker c{h->on};
    c.check_node(h->on->root, nullptr, 1);
    if (c.wrong == nullptr) {
        c.check_counts();
        c.check_index();
    }
    return c.wrong;
}

cerrno ip6mc_gtrie_get_stats(void *given, ip6mc_gtrie_stats_t *stats) {
    const handle *h = checked(given);
    if (h == nullptr || stats == nullptr) {
        return h == nullptr ? static_cast<cerrno>(GTRIE_E_BAD_HANDLE) : EINVAL;
    }
    checker c{h->on};
    c.check_node(h->on->root, nullptr, 1);
    *stats = {};
    stats->leaves = h->leaves;
    stats->trie_leaves = h->on->leaves;
    for (const handle *s = h->on->handles; s != nullptr; s = s->next) {
        ++stats->handles;
    }
    stats->nodes = c.nodes;
    stats->node_bytes = c.node_bytes_used;
    stats->index_bytes = index_bytes(h->on);
    stats->leaf_header = sizeof(leaf);
    stats->not_indexed = h->on->waiting;
    stats->depth = c.depth;
    return 0;
}

cerrno ip6mc_gtrie_walk_blocks(void *given, void (*fn)(const void *, uint32_t, void *),
                               void *context) {
    const handle *h = checked(given);
    if (h == nullptr || fn == nullptr) {
        return h == nullptr ? static_cast<cerrno>(GTRIE_E_BAD_HANDLE) : EINVAL;
    }
    const trie *t = h->on;
    fn(t, GTRIE_ALLOC_HANDLE, context);
    for (const handle *s = t->handles; s != nullptr; s = s->next) {
        fn(s, GTRIE_ALLOC_HANDLE, context);
        for (uint64_t l = s->detached; l != 0;
             l = reinterpret_cast<const leaf *>(l)->waiting_next) {
            fn(reinterpret_cast<const leaf *>(l), GTRIE_ALLOC_LEAF, context);
        }
    }
    fn(t->segments, GTRIE_ALLOC_INDEX, context);
    const auto *segments = reinterpret_cast<const uint64_t *>(t->segments + 1);
    for (uint64_t i = 0; i < t->segments->capacity && segments[i] != 0; ++i) {
        fn(reinterpret_cast<const void *>(segments[i]), GTRIE_ALLOC_INDEX, context);
    }
    block_walk{fn, context}.walk_node(t->root);
    return 0;
}

}  // extern "C"
