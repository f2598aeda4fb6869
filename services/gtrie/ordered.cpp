#include "services/gtrie/ordered.h"

#include <cerrno>

#include "services/gtrie/index.h"
#include "services/gtrie/node.h"
#include "services/journal/journal.h"

namespace mfwd6::gtrie {

namespace {

bool linked(const leaf *l) {
    const auto state = static_cast<leaf_state>(journal::observe(l->state));
    if (state == leaf_state::arriving || state == leaf_state::leaving) [[unlikely]] {
        return index_holds(l->owner, l);
    }
    return state == leaf_state::linked;
}

node *up_of(const node *n) {
    return journal::observe(n->up);
}

// First leaf below an entry; null when all of them went while we looked.
leaf *leftmost(entry e) {
    while (!is_leaf(e)) {
        const node *n = node_of(e);
        for (e = find_from(n, 0); e != 0 && !is_leaf(e);) {
            n = node_of(e);
            e = find_from(n, 0);
        }
        if (e == 0) {
            return nullptr;
        }
    }
    return leaf_of(e);
}

// First leaf below the entries of n with codes from `code` to `last`. An entry below which nothing
// is left is passed over.
leaf *first_between(const node *n, uint32_t code, uint32_t last) {
    while (true) {
        const entry e = find_from(n, code);
        if (e == 0 || code_of(e) > last) {
            return nullptr;
        }
        if (leaf *l = leftmost(e); l != nullptr) {
            return l;
        }
        code = code_of(e) + 1;
    }
}

// Successor of l in order, linked or not; `n` holds or would hold it.
leaf *successor(const node *n, const leaf *l) {
    for (; n != nullptr; n = up_of(n)) {
        if (leaf *found = first_between(n, code_at(l, n->pos) + 1, last_code); found != nullptr) {
            return found;
        }
    }
    return nullptr;
}

struct path {
    const node *step[max_length / stride + 2];
    uint32_t length = 0;
    entry end =
        0;  // what the last step has for the key: 0, a leaf, or a node behind the end of the key
};

// Goes down along a key without comparing it.
void go_down(const trie *t, const key &k, path *p) {
    const node *n = t->root;
    do {
        p->step[p->length++] = n;
        if (k.length < n->pos + stride) {
            return;
        }
        p->end = find_entry(n, full_code(symbol_at(k.word, k.table, n->pos)));
        n = node_of(p->end);
    } while (p->end != 0 && !is_leaf(p->end) && n->pos <= k.length);
}

// Successor of a leaf that is in no node, or was taken out of one that knows nothing of what came
// since. The nodes on the way down need not have its first bits. The lowest that has them is where
// it would hang; what hangs there in its place lies as a whole before it or behind it.
leaf *next_by_key(const trie *t, const leaf *l) {
    path p;
    go_down(t, key_of(l), &p);
    uint32_t fitting = 0;
    entry in_place = p.end;
    for (uint32_t i = 1; i < p.length; ++i) {
        const leaf *sample = any_leaf(p.step[i]);
        if (sample != nullptr && common_bits(sample->word, sample->table, l->word, l->table,
                                             p.step[i]->pos) < p.step[i]->pos) {
            in_place = make_entry(0, p.step[i]);
            break;
        }
        fitting = i;
    }
    if (in_place != 0) {
        leaf *first = leftmost(in_place);
        if (first != nullptr && before(l, first)) {
            return first;
        }
    }
    return successor(p.step[fitting], l);
}

// The first linked leaf from l on.
leaf *skip_unlinked(const trie *t, leaf *l) {
    while (l != nullptr && !linked(l)) {
        l = next_by_key(t, l);
    }
    return l;
}

// The longest linked leaf that covers `k` with fewer than `below` bits, in the nodes of the path.
leaf *longest_on(const path &p, const key &k, uint32_t below) {
    if (is_leaf(p.end) && leaf_of(p.end)->length < below && covers(leaf_of(p.end), k) &&
        linked(leaf_of(p.end))) {
        return leaf_of(p.end);
    }
    for (uint32_t i = p.length; i > 0; --i) {
        const node *n = p.step[i - 1];
        uint32_t bits = below > n->pos ? below - n->pos : 0;
        // The longest of a node may be one that is not in the trie, or whose first bits are others.
        while (bits > 0) {
            const entry e = find_cover(n, symbol_at(k.word, k.table, n->pos), bits);
            if (e == 0) {
                break;
            }
            if (covers(leaf_of(e), k) && linked(leaf_of(e))) {
                return leaf_of(e);
            }
            bits = code_of(e) & 7U;
        }
    }
    return nullptr;
}

}  // namespace

leaf *find_exact(const trie *t, const key &k) {
    path p;
    go_down(t, k, &p);
    const node *n = p.step[p.length - 1];
    entry e = p.end;
    if (k.length < n->pos + stride) {
        e = find_entry(n, symbol_at(k.word, k.table, n->pos) * 8 + (k.length - n->pos));
    }
    return is_leaf(e) && same_key(leaf_of(e), k) && linked(leaf_of(e)) ? leaf_of(e) : nullptr;
}

leaf *find_longest(const trie *t, const key &k) {
    path p;
    go_down(t, k, &p);
    return longest_on(p, k, max_length + 1);
}

leaf *find_first(const trie *t, const key &prefix) {
    const node *n = t->root;
    leaf *found = nullptr;
    while (true) {
        if (prefix.length <= n->pos) {
            found = first_between(n, 0, last_code);
            break;
        }
        const uint32_t symbol = symbol_at(prefix.word, prefix.table, n->pos);
        if (prefix.length < n->pos + stride) {
            const uint32_t bits = prefix.length - n->pos;
            found = first_between(n, symbol * 8 + bits, full_code(symbol | (63U >> bits)));
            break;
        }
        const entry e = find_entry(n, full_code(symbol));
        if (e == 0 || is_leaf(e)) {
            found = e == 0 ? nullptr : leaf_of(e);
            break;
        }
        n = node_of(e);
    }
    // Down there all leaves agree in what lies above: one comparison speaks for all.
    const auto inside = [&](const leaf *l) {
        return l != nullptr && l->length >= prefix.length &&
               common_bits(l->word, l->table, prefix.word, prefix.table, prefix.length) ==
                   prefix.length;
    };
    if (!inside(found)) {
        return nullptr;
    }
    found = skip_unlinked(t, found);
    return inside(found) ? found : nullptr;
}

leaf *find_next(const trie *t, const leaf *l) {
    const node *n = journal::observe(l->up);
    if (n == nullptr || !linked(l)) {
        return skip_unlinked(t, next_by_key(t, l));
    }
    return skip_unlinked(t, successor(n, l));
}

leaf *find_less_specific(const trie *t, const leaf *l) {
    const key k = key_of(l);
    const node *n = journal::observe(l->up);
    if (n == nullptr || !linked(l)) {
        path p;
        go_down(t, k, &p);
        return longest_on(p, k, l->length);
    }
    for (; n != nullptr; n = up_of(n)) {
        uint32_t bits = l->length - n->pos;
        while (bits > 0) {
            const entry e = find_cover(n, symbol_at(l, n->pos), bits);
            if (e == 0) {
                break;
            }
            if (linked(leaf_of(e))) {
                return leaf_of(e);
            }
            bits = code_of(e) & 7U;
        }
    }
    return nullptr;
}

leaf *any_leaf(const node *n) {
    return first_between(n, 0, last_code);
}

// --- writer ---

uint64_t path_bits(const uint64_t *word, uint32_t table, uint32_t from, uint32_t pos) {
    if (pos - from > max_path) {
        return 0;
    }
    uint64_t bits = 0;
    for (; from < pos; from += stride) {
        bits = bits << stride | symbol_at(word, table, from);
    }
    return bits;
}

node *make_root(const memory &m, uint32_t pos) {
    node *n = make_node(m, node_kind::wide, 64, nullptr);
    if (n != nullptr) {
        n->pos = n->from = static_cast<uint16_t>(pos);
    }
    return n;
}

namespace {

// Where a new leaf goes. Exactly one of the three ways.
struct place {
    node *at = nullptr;      // into this node, or
    node *above = nullptr;   // into a new node above this one, or
    leaf *beside = nullptr;  // into a new node with this leaf, below `at`
    uint32_t branch = 0;     // position of the new node
    leaf *equal = nullptr;   // none of them: this one is there
};

// First bit in which `l` differs from the path of n, or n->pos.
uint32_t leaves_path(const node *n, const leaf *l) {
    const uint32_t length = l->length < n->pos ? l->length : n->pos;
    if (n->pos == n->from) {
        return length;
    }
    if (uint32_t{n->pos} - n->from > max_path) {
        const leaf *other = any_leaf(n);
        return common_bits(l->word, l->table, other->word, other->table, length);
    }
    const uint64_t differ = path_bits(l->word, l->table, n->from, n->pos) ^ n->path;
    if (differ == 0) {
        return length;
    }
    const uint32_t first = n->pos - (64 - static_cast<uint32_t>(std::countl_zero(differ)));
    return first < length ? first : length;
}

place find_place(trie *t, const leaf *l) {
    place p;
    node *n = t->root;
    while (true) {
        const uint32_t bit = leaves_path(n, l);
        if (bit < n->pos) {
            p.above = n;
            p.branch = bit - bit % stride;
            return p;
        }
        p.at = n;
        const entry e = find_entry(n, code_at(l, n->pos));
        if (e == 0) {
            return p;
        }
        if (is_leaf(e)) {
            leaf *other = leaf_of(e);
            const uint32_t limit = other->length < l->length ? other->length : l->length;
            const uint32_t same = common_bits(l->word, l->table, other->word, other->table, limit);
            if (same == l->length && same == other->length) {
                p.equal = other;
            } else {
                p.beside = other;
                p.branch = same - same % stride;
            }
            return p;
        }
        n = node_of(e);
    }
}

// The entry for n in its parent; `sample` is any leaf below n.
entry *place_in_parent(node *n, const leaf *sample) {
    return place_of(n->up, full_code(symbol_at(sample, n->up->pos)));
}

void set_path(node *n, uint32_t from, const leaf *sample) {
    journal::store(n->path, path_bits(sample->word, sample->table, from, n->pos));
    journal::store(n->from, static_cast<uint16_t>(from));
}

// Replaces n by a copy of another size. Readers in n keep what they see; those who come later find
// the copy.
void replace_node(node *n, node *copy, const leaf *sample, const memory &m) {
    entry *at = place_in_parent(n, sample);
    journal::publish(*at, make_entry(code_of(*at), copy));
    for_entries(copy, [&](entry e) {
        if (is_leaf(e)) {
            journal::publish(leaf_of(e)->up, copy);
        } else {
            journal::publish(node_of(e)->up, copy);
        }
    });
    free_node(m, n);
}

cerrno add_to(node *n, leaf *l, const memory &m) {
    const entry e = make_entry(code_at(l, n->pos), l);
    if (has_room(n, code_of(e))) {
        journal::store(l->up, n);
        add_entry(n, e);
        return 0;
    }
    larger bigger;
    if (!make_larger(m, n, e, &bigger)) {
        return ENOMEM;
    }
    if (bigger.whole != nullptr) {
        journal::store(l->up, bigger.whole);
        replace_node(n, bigger.whole, l, m);
        return 0;
    }
    journal::store(l->up, n);
    const uint64_t old = wide_of(n)->side;
    journal::store(n->count, static_cast<uint16_t>(n->count + 1));
    journal::publish(wide_of(n)->side, reinterpret_cast<uint64_t>(bigger.side));
    if (old != 0) {
        m.free(reinterpret_cast<node *>(old), GTRIE_ALLOC_NODE);
    }
    return 0;
}

node *make_branch(const memory &m, node *parent, uint32_t pos, const leaf *l) {
    node *n = make_node(m, node_kind::small, 5, nullptr);
    if (n == nullptr) {
        return nullptr;
    }
    n->up = parent;
    n->pos = static_cast<uint16_t>(pos);
    n->from = static_cast<uint16_t>(parent->pos + stride);
    n->path = path_bits(l->word, l->table, n->from, pos);
    put_private(n, make_entry(code_at(l, pos), l));
    return n;
}

cerrno add_above(node *below, uint32_t pos, leaf *l, const memory &m) {
    const leaf *sample = any_leaf(below);
    node *parent = below->up;
    node *branch = make_branch(m, parent, pos, l);
    if (branch == nullptr) {
        return ENOMEM;
    }
    put_private(branch, make_entry(full_code(symbol_at(sample, pos)), below));
    entry *at = place_in_parent(below, sample);
    journal::store(l->up, branch);
    journal::publish(*at, make_entry(code_of(*at), branch));
    journal::publish(below->up, branch);
    set_path(below, pos + stride, sample);
    return 0;
}

cerrno add_beside(node *parent, leaf *other, uint32_t pos, leaf *l, const memory &m) {
    node *branch = make_branch(m, parent, pos, l);
    if (branch == nullptr) {
        return ENOMEM;
    }
    put_private(branch, make_entry(code_at(other, pos), other));
    entry *at = place_of(parent, code_at(other, parent->pos));
    journal::store(l->up, branch);
    journal::publish(*at, make_entry(code_of(*at), branch));
    journal::publish(other->up, branch);
    return 0;
}

// A node with one entry gives its place to what that entry leads to.
void collapse(node *n, const leaf *sample, const memory &m) {
    entry only = 0;
    for_entries(n, [&](entry e) { only = e; });
    node *parent = n->up;
    entry *at = place_in_parent(n, sample);
    if (is_leaf(only)) {
        leaf *l = leaf_of(only);
        journal::publish(*at, make_entry(code_of(*at), l));
        journal::publish(l->up, parent);
    } else {
        node *below = node_of(only);
        const leaf *inside = any_leaf(below);
        journal::publish(*at, make_entry(code_of(*at), below));
        journal::publish(below->up, parent);
        set_path(below, parent->pos + stride, inside);
    }
    free_node(m, n);
}

}  // namespace

cerrno link(trie *t, leaf *l, const memory &m) {
    const place p = find_place(t, l);
    if (p.equal != nullptr) {
        return EEXIST;
    }
    if (p.above != nullptr) {
        return add_above(p.above, p.branch, l, m);
    }
    if (p.beside != nullptr) {
        return add_beside(p.at, p.beside, p.branch, l, m);
    }
    return add_to(p.at, l, m);
}

void unlink(trie *t, leaf *l, const memory &m) {
    node *n = l->up;
    remove_entry(n, code_at(l, n->pos), m);
    if (n == t->root) {
        return;
    }
    if (n->count == 1) {
        collapse(n, l, m);
        return;
    }
    node_kind kind{};
    uint32_t capacity = 0;
    if (smaller_shape(n, &kind, &capacity)) {
        // Without memory the node stays as large as it is.
        if (node *copy = copy_node(m, n, kind, capacity); copy != nullptr) {
            replace_node(n, copy, l, m);
        }
    }
}

}  // namespace mfwd6::gtrie
