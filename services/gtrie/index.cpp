#include "services/gtrie/index.h"

#include "services/gtrie/ordered.h"

namespace mfwd6::gtrie {

namespace {

constexpr uint64_t first_directory = 8;
constexpr uint64_t not_listed = 1;      // bit of `waiting` of a bucket
constexpr uint32_t moved_at_once = 24;  // waiting leaves that one split looks at

leaf *leaf_in(uint64_t word) {
    return reinterpret_cast<leaf *>(word & address_mask);
}

}  // namespace

leaf *find_elsewhere(const trie *t, const key &k, uint64_t hash) {
    uint64_t number = bucket_number(hash, journal::observe(t->shape));
    while (true) {
        const bucket *b = bucket_at(t, number);
        const uint64_t waiting = journal::observe(b->waiting);
        for (uint32_t found = slots_with(b, hash); found != 0; found &= found - 1) {
            const auto i = static_cast<uint32_t>(std::countr_zero(found));
            if (leaf *l = leaf_in_slot(b, i, k); l != nullptr) {
                return l;
            }
        }
        if (waiting != 0) {
            return find_exact(t, k);
        }
        const uint64_t now = bucket_number(hash, journal::observe(t->shape));
        if (now == number) {
            return nullptr;
        }
        number = now;
    }
}

bool index_holds(const trie *t, const leaf *l) {
    const uint64_t hash = hash_for(t, l);
    const uint64_t word = make_slot(hash, l);
    uint64_t number = bucket_number(hash, journal::observe(t->shape));
    while (true) {
        for (const uint64_t &slot : bucket_at(t, number)->slot) {
            if (journal::observe(slot) == word) {
                return true;
            }
        }
        const uint64_t now = bucket_number(hash, journal::observe(t->shape));
        if (now == number) {
            return false;
        }
        number = now;
    }
}

// --- writer ---

bool index_init(trie *t, const memory &m) {
    const uint64_t bytes = sizeof(directory) + first_directory * sizeof(uint64_t);
    auto *d = static_cast<directory *>(m.alloc(bytes, GTRIE_ALLOC_INDEX));
    if (d == nullptr) {
        return false;
    }
    void *segment = m.alloc(segment_bytes(0), GTRIE_ALLOC_INDEX);
    if (segment == nullptr) {
        m.free(d, GTRIE_ALLOC_INDEX);
        return false;
    }
    d->capacity = first_directory;
    segments_of(d)[0] = reinterpret_cast<uint64_t>(segment);
    t->segments = d;
    t->shape = index_shape(first_buckets);
    return true;
}

void index_finish(trie *t, const memory &m) {
    uint64_t *segments = segments_of(t->segments);
    for (uint64_t i = 0; i < t->segments->capacity && segments[i] != 0; ++i) {
        m.free(reinterpret_cast<void *>(segments[i]), GTRIE_ALLOC_INDEX);
    }
    m.free(t->segments, GTRIE_ALLOC_INDEX);
}

namespace {

void wait_in(trie *t, bucket *b, leaf *l) {
    leaf *head = leaf_in(b->waiting);
    journal::store(l->waiting_next, reinterpret_cast<uint64_t>(head));
    journal::store(l->waiting_at, &b->waiting);
    if (head != nullptr) {
        journal::store(head->waiting_at, &l->waiting_next);
    }
    journal::publish(b->waiting, reinterpret_cast<uint64_t>(l) | (b->waiting & not_listed));
    journal::store(t->waiting, t->waiting + 1);
}

void stop_waiting(trie *t, leaf *l) {
    const uint64_t flag = *l->waiting_at & not_listed;
    if (l->waiting_next != 0) {
        journal::store(leaf_in(l->waiting_next)->waiting_at, l->waiting_at);
    }
    journal::publish(*l->waiting_at, l->waiting_next | flag);
    journal::store(l->waiting_at, nullptr);
    journal::store(l->waiting_next, uint64_t{0});
    journal::store(t->waiting, t->waiting - 1);
}

// bucket_slots when all are taken.
uint32_t free_slot(const bucket *b) {
    uint32_t i = 0;
    while (i < bucket_slots && b->slot[i] != 0) {
        ++i;
    }
    return i;
}

void take_slot(bucket *b, uint32_t i, const leaf *l, uint64_t hash) {
    journal::publish(b->slot[i], make_slot(hash, l));
}

// Whether a split that makes bucket `number` moves the leaf of this slot there.
bool moves_to(const trie *t, uint64_t number, uint64_t slot) {
    const auto bit = static_cast<uint32_t>(std::bit_width(number)) - 1;
    if (bit >= first_tag_bit && bit < first_tag_bit + tag_bits) [[likely]] {
        return slot_bit(slot, bit);
    }
    return (hash_for(t, slot_leaf(slot)) >> bit & 1U) != 0;
}

// Room for the bucket with this number. False: no memory, nothing changed.
bool make_room(trie *t, uint64_t number, const memory &m) {
    const position p = position_of(number);
    directory *d = t->segments;
    directory *larger = nullptr;
    if (p.segment >= d->capacity) {
        const uint64_t bytes = sizeof(directory) + 2 * d->capacity * sizeof(uint64_t);
        larger = static_cast<directory *>(m.alloc(bytes, GTRIE_ALLOC_INDEX));
        if (larger == nullptr) {
            return false;
        }
        larger->capacity = 2 * d->capacity;
        std::memcpy(segments_of(larger), segments_of(d), d->capacity * sizeof(uint64_t));
    }
    directory *use = larger != nullptr ? larger : d;
    if (segments_of(use)[p.segment] == 0) {
        void *segment = m.alloc(segment_bytes(p.segment), GTRIE_ALLOC_INDEX);
        if (segment == nullptr) {
            if (larger != nullptr) {
                m.free(larger, GTRIE_ALLOC_INDEX);
            }
            return false;
        }
        journal::publish(segments_of(use)[p.segment], reinterpret_cast<uint64_t>(segment));
    }
    if (larger != nullptr) {
        journal::publish(t->segments, larger);
        m.free(d, GTRIE_ALLOC_INDEX);
    }
    return true;
}

// Leaves of the old bucket's waiting list to where they belong, as many as one operation may move.
// The rest stays in the old list, and the new bucket says that it may miss some.
void split_waiting(trie *t, uint64_t number, bucket *old, bucket *fresh) {
    leaf *l = leaf_in(old->waiting);
    for (uint32_t i = 0; l != nullptr && i < moved_at_once; ++i) {
        leaf *next = leaf_in(l->waiting_next);
        const uint64_t hash = hash_for(t, l);
        const uint64_t belongs = bucket_number(hash, t->shape);
        bucket *to = belongs == number ? fresh : bucket_at(t, belongs);
        if (const uint32_t slot = free_slot(to); slot != bucket_slots) {
            take_slot(to, slot, l, hash);
            stop_waiting(t, l);
        } else if (to == fresh) {
            stop_waiting(t, l);
            wait_in(t, fresh, l);
        }
        l = next;
    }
}

// True if all leaves that wait in the list of the old bucket were looked at and belong there.
bool all_belong(const trie *t, const bucket *old, uint64_t from) {
    uint32_t seen = 0;
    for (const leaf *l = leaf_in(old->waiting); l != nullptr; l = leaf_in(l->waiting_next)) {
        if (++seen > moved_at_once || bucket_number(hash_for(t, l), t->shape) != from) {
            return false;
        }
    }
    return (old->waiting & not_listed) == 0;
}

// Adds one bucket and moves to it what belongs there: its slots and moved_at_once waiting leaves at
// most.
void split(trie *t, const memory &m) {
    const uint64_t number = buckets_of(t->shape);
    if (!make_room(t, number, m)) {
        return;
    }
    const uint64_t from = number - std::bit_floor(number);
    bucket *old = bucket_at(t, from);
    bucket *fresh = bucket_at(t, number);
    bool moves[bucket_slots];
    uint32_t count = 0;
    for (uint32_t i = 0; i < bucket_slots; ++i) {
        moves[i] = old->slot[i] != 0 && moves_to(t, number, old->slot[i]);
        if (moves[i]) {
            journal::store(fresh->slot[count++], old->slot[i]);
        }
    }
    // Until all have moved, who misses in the new bucket asks the ordered structure.
    const bool waited = old->waiting != 0;
    journal::store(fresh->waiting, waited ? not_listed : 0);
    journal::publish(t->shape, index_shape(number + 1));
    for (uint32_t i = 0; i < bucket_slots; ++i) {
        if (moves[i]) {
            journal::publish(old->slot[i], uint64_t{0});
        }
    }
    if (waited) {
        split_waiting(t, number, old, fresh);
        if (all_belong(t, old, from)) {
            journal::publish(fresh->waiting, fresh->waiting & ~not_listed);
        }
    }
}

}  // namespace

void index_grow(trie *t, const memory &m) {
    const uint64_t buckets = buckets_of(t->shape);
    if (t->leaves >= buckets * leaves_per_bucket) {
        split(t, m);
    } else if (t->leaves % leaves_per_bucket == 1) {
        // The next insertion may split: what it will read can be on its way.
        __builtin_prefetch(bucket_at(t, buckets - std::bit_floor(buckets)));
    }
}

void index_add(trie *t, leaf *l, uint64_t hash) {
    bucket *b = bucket_at(t, bucket_number(hash, t->shape));
    if (const uint32_t slot = free_slot(b); slot != bucket_slots) {
        take_slot(b, slot, l, hash);
    } else {
        wait_in(t, b, l);
    }
}

void index_remove(trie *t, leaf *l, uint64_t hash) {
    if (l->waiting_at != nullptr) {
        stop_waiting(t, l);
        return;
    }
    const uint64_t number = bucket_number(hash, t->shape);
    bucket *b = bucket_at(t, number);
    for (uint32_t i = 0; i < bucket_slots; ++i) {
        if (slot_leaf(b->slot[i]) != l) {
            continue;
        }
        journal::publish(b->slot[i], uint64_t{0});
        leaf *next = leaf_in(b->waiting);
        if (next != nullptr && bucket_number(hash_for(t, next), t->shape) == number) {
            take_slot(b, i, next, hash_for(t, next));
            stop_waiting(t, next);
        }
        return;
    }
}

}  // namespace mfwd6::gtrie
