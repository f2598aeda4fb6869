#include "services/gtrie/engine.h"

#include <sys/random.h>
#include <time.h>

#include <cerrno>

#include "services/gtrie/index.h"
#include "services/gtrie/lengths.h"
#include "services/gtrie/ordered.h"
#include "services/journal/journal.h"

namespace mfwd6::gtrie {

namespace {

uint64_t length_bit(uint32_t bits) {
    return uint64_t{1} << (63 - bits % 64);
}

void count_length(trie *t, uint32_t bits, bool more) {
    const uint32_t count = t->length_count[bits];
    uint64_t &map = t->length_map[bits / 64];
    journal::store(t->length_count[bits], more ? count + 1 : count - 1);
    if (count == (more ? 0 : 1)) {
        journal::store(map, map ^ length_bit(bits));
        journal::publish(t->lengths, pack_lengths(t->length_map));
    }
}

}  // namespace

uint64_t random_word() {
    uint64_t word = 0;
    if (getrandom(&word, sizeof(word), GRND_NONBLOCK) != static_cast<ssize_t>(sizeof(word))) {
        timespec now{};
        clock_gettime(CLOCK_MONOTONIC, &now);
        word = mix(static_cast<uint64_t>(now.tv_nsec) ^ 0x9e3779b97f4a7c15U,
                   reinterpret_cast<uint64_t>(&now));
    }
    return word | 1U;
}

trie *make_trie(const memory &m, const trie_form &form) {
    auto *t = static_cast<trie *>(m.alloc(sizeof(trie), GTRIE_ALLOC_HANDLE));
    if (t == nullptr) {
        return nullptr;
    }
    t->cookie = random_word();
    for (uint64_t &seed : t->seed) {
        seed = random_word();
    }
    t->hash_mask = form.constant_hash ? 0 : ~uint64_t{0};
    t->kind = form.kind;
    t->key_bits = form.key_bits;
    t->may_share = form.may_share ? 1 : 0;
    t->root = make_root(m, form.may_share ? 0 : table_bits);
    if (t->root == nullptr) {
        m.free(t, GTRIE_ALLOC_HANDLE);
        return nullptr;
    }
    if (!index_init(t, m)) {
        m.free(t->root, GTRIE_ALLOC_NODE);
        m.free(t, GTRIE_ALLOC_HANDLE);
        return nullptr;
    }
    t->magic = trie_magic;
    return t;
}

void free_trie(trie *t, const memory &m) {
    journal::store(t->magic, 0);
    journal::store(t->cookie, 0);
    index_finish(t, m);
    if (const uint64_t side = reinterpret_cast<wide_part *>(t->root + 1)->side; side != 0) {
        m.free(reinterpret_cast<node *>(side), GTRIE_ALLOC_NODE);
    }
    m.free(t->root, GTRIE_ALLOC_NODE);
    m.free(t, GTRIE_ALLOC_HANDLE);
}

leaf *make_leaf(trie *t, const key &k, size_t size, const memory &m) {
    auto *l = static_cast<leaf *>(m.alloc(sizeof(leaf) + size, GTRIE_ALLOC_LEAF));
    if (l == nullptr) {
        return nullptr;
    }
    std::memcpy(l->word, k.word, sizeof(l->word));
    l->length = static_cast<uint16_t>(k.length);
    l->table = static_cast<uint16_t>(k.table);
    l->state = static_cast<uint32_t>(leaf_state::detached);
    l->owner = t;
    l->size = static_cast<uint32_t>(size);
    l->magic = leaf_magic;
    return l;
}

cerrno insert_leaf(trie *t, leaf *l, const memory &m) {
    const uint64_t hash = hash_for(t, l);
    index_prefetch(t, hash);
    if (const cerrno failure = link(t, l, m); failure != 0) {
        return failure == EEXIST ? static_cast<cerrno>(GTRIE_E_EXISTS) : failure;
    }
    index_grow(t, m);
    journal::store(t->leaves, t->leaves + 1);
    count_length(t, l->length - table_bits, true);
    journal::publish(l->state, static_cast<uint32_t>(leaf_state::arriving));
    index_add(t, l, hash);
    journal::publish(l->state, static_cast<uint32_t>(leaf_state::linked));
    return 0;
}

void delete_leaf(trie *t, leaf *l, const memory &m) {
    const uint64_t hash = hash_for(t, l);
    index_prefetch(t, hash);
    const bool waits = l->waiting_at != nullptr;
    journal::publish(l->state,
                     static_cast<uint32_t>(waits ? leaf_state::removed : leaf_state::leaving));
    index_remove(t, l, hash);
    journal::publish(l->state, static_cast<uint32_t>(leaf_state::removed));
    unlink(t, l, m);
    count_length(t, l->length - table_bits, false);
    journal::store(t->leaves, t->leaves - 1);
}

}  // namespace mfwd6::gtrie
