#include "services/gtrie/node.h"

namespace mfwd6::gtrie {

namespace {

// Small nodes of 64, 128 and 256 bytes; side nodes go on to all 63 codes that can end inside a
// stride.
constexpr uint32_t small_shapes[] = {5, 13, 29};
constexpr uint32_t side_shapes[] = {5, 13, 29, 63};

uint32_t next_capacity(const uint32_t *shapes, uint32_t count, uint32_t present) {
    for (uint32_t i = 0; i < count; ++i) {
        if (shapes[i] > present) {
            return shapes[i];
        }
    }
    return 0;
}

entry smallest_from(const node *n, uint32_t code) {
    const entry *e = entries_of(n);
    entry best = 0;
    for (uint32_t i = 0; i < n->capacity; ++i) {
        const entry found = journal::observe(e[i]);
        if (found != 0 && code_of(found) >= code && (best == 0 || code_of(found) < code_of(best))) {
            best = found;
        }
    }
    return best;
}

// A bit of `present` may be set for an entry that is not there yet or not any more, never the other
// way.
entry smallest_child_from(const wide_part *w, uint32_t symbol) {
    while (symbol < 64) {
        const uint64_t left = journal::observe(w->present) & (~uint64_t{0} >> symbol);
        if (left == 0) {
            return 0;
        }
        symbol = static_cast<uint32_t>(std::countl_zero(left));
        if (const entry e = journal::observe(w->child[symbol]); e != 0) {
            return e;
        }
        ++symbol;
    }
    return 0;
}

uint64_t present_bit(uint32_t symbol) {
    return uint64_t{1} << (63 - symbol);
}

entry *free_place(node *n) {
    entry *e = entries_of(n);
    for (uint32_t i = 0; i < n->capacity; ++i) {
        if (e[i] == 0) {
            return &e[i];
        }
    }
    return nullptr;
}

node *copy_list(const memory &m, const node *n, uint32_t capacity) {
    node *copy = make_node(m, n->kind, capacity, n);
    if (copy != nullptr) {
        for_entries(n, [&](entry e) { put_private(copy, e); });
    }
    return copy;
}

bool is_full(uint32_t code) {
    return (code & 7U) == stride;
}

}  // namespace

entry find_from(const node *n, uint32_t code) {
    if (n->kind != node_kind::wide) {
        return smallest_from(n, code);
    }
    // A code behind the full one of its symbol (bits 7) means the next symbol.
    const entry child = smallest_child_from(wide_of(n), (code + 1) >> 3);
    const node *side = side_of(n);
    const entry ending = side == nullptr ? 0 : smallest_from(side, code);
    if (ending == 0 || child == 0) {
        return ending == 0 ? child : ending;
    }
    return code_of(ending) < code_of(child) ? ending : child;
}

entry find_cover(const node *n, uint32_t symbol, uint32_t below) {
    const node *list = n->kind == node_kind::wide ? side_of(n) : n;
    if (list == nullptr) {
        return 0;
    }
    const entry *e = entries_of(list);
    entry best = 0;
    uint32_t best_bits = 0;
    for (uint32_t i = 0; i < list->capacity; ++i) {
        const entry found = journal::observe(e[i]);
        const uint32_t bits = code_of(found) & 7U;
        if (found == 0 || bits >= below || bits >= stride || (best != 0 && bits < best_bits)) {
            continue;
        }
        if (((code_of(found) >> 3) ^ symbol) >> (stride - bits) == 0) {
            best = found;
            best_bits = bits;
        }
    }
    return best;
}

node *make_node(const memory &m, node_kind kind, uint32_t capacity, const node *like) {
    auto *n = static_cast<node *>(m.alloc(node_bytes(kind, capacity), GTRIE_ALLOC_NODE));
    if (n == nullptr) {
        return nullptr;
    }
    if (like != nullptr) {
        n->up = like->up;
        n->path = like->path;
        n->pos = like->pos;
        n->from = like->from;
    }
    n->kind = kind;
    n->capacity = static_cast<uint8_t>(capacity);
    return n;
}

void put_private(node *n, entry e) {
    if (n->kind == node_kind::wide) {
        wide_of(n)->present |= present_bit(code_of(e) >> 3);
        wide_of(n)->child[code_of(e) >> 3] = e;
    } else {
        *free_place(n) = e;
    }
    ++n->count;
}

entry *place_of(node *n, uint32_t code) {
    if (n->kind == node_kind::wide) {
        if (is_full(code)) {
            return &wide_of(n)->child[code >> 3];
        }
        n = reinterpret_cast<node *>(wide_of(n)->side);
    }
    entry *e = entries_of(n);
    while (*e == 0 || code_of(*e) != code) {
        ++e;
    }
    return e;
}

bool has_room(const node *n, uint32_t code) {
    if (n->kind != node_kind::wide) {
        return n->count < n->capacity;
    }
    const node *side = side_of(n);
    return is_full(code) || (side != nullptr && side->count < side->capacity);
}

void add_entry(node *n, entry e) {
    journal::store(n->count, static_cast<uint16_t>(n->count + 1));
    if (n->kind != node_kind::wide) {
        journal::publish(*free_place(n), e);
        return;
    }
    wide_part *w = wide_of(n);
    const uint32_t code = code_of(e);
    if (is_full(code)) {
        journal::publish(w->present, w->present | present_bit(code >> 3));
        journal::publish(w->child[code >> 3], e);
    } else {
        auto *side = reinterpret_cast<node *>(w->side);
        journal::store(side->count, static_cast<uint16_t>(side->count + 1));
        journal::publish(*free_place(side), e);
    }
}

node *copy_node(const memory &m, const node *n, node_kind kind, uint32_t capacity) {
    if (n->kind == kind && kind != node_kind::wide) {
        return copy_list(m, n, capacity);
    }
    uint32_t ending = 0;
    for_entries(n, [&](entry e) { ending += is_full(code_of(e)) ? 0 : 1; });
    node *copy = make_node(m, kind, capacity, n);
    if (copy == nullptr) {
        return nullptr;
    }
    node *side = nullptr;
    if (kind == node_kind::wide && ending != 0) {
        side = make_node(m, node_kind::side, next_capacity(side_shapes, 4, ending - 1), n);
        if (side == nullptr) {
            free_node(m, copy);
            return nullptr;
        }
        side->up = copy;
        wide_of(copy)->side = reinterpret_cast<uint64_t>(side);
    }
    for_entries(n, [&](entry e) {
        if (side != nullptr && !is_full(code_of(e))) {
            put_private(side, e);
            ++copy->count;
        } else {
            put_private(copy, e);
        }
    });
    return copy;
}

namespace {

bool make_larger_side(const memory &m, const node *n, entry e, larger *result) {
    const node *side = side_of(n);
    result->side = side == nullptr
                       ? make_node(m, node_kind::side, side_shapes[0], n)
                       : copy_list(m, side, next_capacity(side_shapes, 4, side->capacity));
    if (result->side == nullptr) {
        return false;
    }
    result->side->up = const_cast<node *>(n);
    put_private(result->side, e);
    return true;
}

}  // namespace

bool make_larger(const memory &m, const node *n, entry e, larger *result) {
    if (n->kind == node_kind::wide) {
        return make_larger_side(m, n, e, result);
    }
    const uint32_t capacity = next_capacity(small_shapes, 3, n->capacity);
    node *copy = capacity != 0 ? copy_node(m, n, node_kind::small, capacity)
                               : copy_node(m, n, node_kind::wide, 64);
    if (copy == nullptr) {
        return false;
    }
    if (has_room(copy, code_of(e))) {
        if (copy->kind == node_kind::wide && !is_full(code_of(e))) {
            put_private(reinterpret_cast<node *>(wide_of(copy)->side), e);
            ++copy->count;
        } else {
            put_private(copy, e);
        }
    } else {
        // A wide copy whose side node is missing or full.
        larger inner;
        auto *old_side = reinterpret_cast<node *>(wide_of(copy)->side);
        if (!make_larger_side(m, copy, e, &inner)) {
            free_node(m, copy);
            return false;
        }
        wide_of(copy)->side = reinterpret_cast<uint64_t>(inner.side);
        ++copy->count;
        if (old_side != nullptr) {
            m.free(old_side, GTRIE_ALLOC_NODE);
        }
    }
    result->whole = copy;
    return true;
}

bool smaller_shape(const node *n, node_kind *kind, uint32_t *capacity) {
    // A third of the smaller shape stays free, so that a leaf that comes and goes does not turn it
    // over.
    constexpr struct {
        uint32_t at_most;
        uint32_t capacity;
    } steps[] = {{3, 5}, {9, 13}, {20, 29}};
    for (const auto &s : steps) {
        if (n->count <= s.at_most && (n->kind == node_kind::wide || s.capacity < n->capacity)) {
            *kind = node_kind::small;
            *capacity = s.capacity;
            return true;
        }
    }
    return false;
}

void remove_entry(node *n, uint32_t code, const memory &m) {
    journal::publish(*place_of(n, code), entry{0});
    journal::store(n->count, static_cast<uint16_t>(n->count - 1));
    if (n->kind != node_kind::wide) {
        return;
    }
    wide_part *w = wide_of(n);
    if (is_full(code)) {
        journal::publish(w->present, w->present & ~present_bit(code >> 3));
        return;
    }
    auto *side = reinterpret_cast<node *>(w->side);
    journal::store(side->count, static_cast<uint16_t>(side->count - 1));
    if (side->count == 0) {
        journal::publish(w->side, uint64_t{0});
        m.free(side, GTRIE_ALLOC_NODE);
    }
}

void free_node(const memory &m, node *n) {
    if (n->kind == node_kind::wide && wide_of(n)->side != 0) {
        m.free(reinterpret_cast<node *>(wide_of(n)->side), GTRIE_ALLOC_NODE);
    }
    m.free(n, GTRIE_ALLOC_NODE);
}

}  // namespace mfwd6::gtrie
