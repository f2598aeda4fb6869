#include "services/gtrie/gtrie.h"

#include <atomic>
#include <cerrno>

#include "services/gtrie/engine.h"
#include "services/gtrie/lookup.h"
#include "services/gtrie/ordered.h"
#include "services/journal/journal.h"
#include "services/peers/peers.h"

namespace {

using namespace mfwd6::gtrie;
namespace journal = mfwd6::journal;

std::atomic<int> sharing{0};
std::atomic<int> constant_hash{0};
std::atomic<cerrno> last_init_failure{0};

cerrno tell(cerrno *error, cerrno code) {
    if (error != nullptr) {
        *error = code;
    }
    return code;
}

handle *handle_of(void *given) {
    auto *h = static_cast<handle *>(given);
    const bool aligned = (reinterpret_cast<uintptr_t>(given) & 7U) == 0;
    return h != nullptr && aligned && h->magic == handle_magic ? h : nullptr;
}

// The leaf of a record, if it is one of this trie.
leaf *leaf_on(const handle *h, void *record) {
    if (record == nullptr || (reinterpret_cast<uintptr_t>(record) & 7U) != 0) {
        return nullptr;
    }
    leaf *l = leaf_of_record(record);
    return l->magic == leaf_magic && l->owner == h->on ? l : nullptr;
}

bool has_table_part(const handle *h) {
    return h->table_part != 0;
}

// The length inside the engine, or 0 when the handle's keys cannot have it.
uint32_t engine_length(const handle *h, uint32_t length) {
    return length > h->key_bits || length < h->table_part ? 0 : length + table_bits - h->table_part;
}

bool table_is_free(const trie *t, uint32_t table) {
    for (const handle *h = t->handles; h != nullptr; h = h->next) {
        if (h->table == table) {
            return false;
        }
    }
    return true;
}

bool good_params(const ip6mc_gtrie_params_t *p) {
    return p != nullptr && p->key_bits != 0 &&
           (p->key_bits <= GTRIE_KEY_BITS || p->key_bits == GTRIE_TABLE_KEY_BITS) &&
           p->gtrie_kind <= GTRIE_KIND_ENCAP && p->alloc_fn != nullptr && p->free_fn != nullptr &&
           (p->node_size == 0 || p->node_size >= GTRIE_NODE_SIZE);
}

handle *make_handle(trie *t, const ip6mc_gtrie_params_t *p, uint32_t table) {
    auto *h = static_cast<handle *>(p->alloc_fn(sizeof(handle), GTRIE_ALLOC_HANDLE));
    if (h == nullptr) {
        return nullptr;
    }
    h->table = table;
    h->cookie = t->cookie;
    h->on = t;
    h->leaf_position = p->leaf_position;
    h->kind = p->gtrie_kind;
    h->usage = p->gtrie_usage;
    h->key_bits = p->key_bits;
    h->table_part = p->key_bits == GTRIE_TABLE_KEY_BITS ? GTRIE_TABLE_BITS : 0;
    h->tid = p->tid_decoded;
    h->next = t->handles;
    h->magic = handle_magic;
    return h;
}

void add_handle(trie *t, handle *h) {
    if (t->handles != nullptr) {
        journal::store(t->handles->prev, h);
    }
    journal::store(t->handles, h);
}

void remove_handle(trie *t, handle *h) {
    if (h->next != nullptr) {
        journal::store(h->next->prev, h->prev);
    }
    if (h->prev != nullptr) {
        journal::store(h->prev->next, h->next);
    } else {
        journal::store(t->handles, h->next);
    }
}

handle *init_in_group(const ip6mc_gtrie_params_t *p, cerrno *code) {
    const memory m{p->alloc_fn, p->free_fn};
    const bool tables = p->key_bits == GTRIE_TABLE_KEY_BITS;
    const uint32_t table = tables ? p->tid_decoded & ((1U << GTRIE_TABLE_BITS) - 1) : 0;
    const bool share = tables && sharing.load() != 0;
    trie *t = share ? find_shared(p->shmwin_id, p->gtrie_kind, table_is_free, table) : nullptr;
    const bool fresh = t == nullptr;
    if (fresh) {
        t = make_trie(m, {p->gtrie_kind, p->key_bits, share, constant_hash.load() != 0});
    }
    handle *h = t == nullptr ? nullptr : make_handle(t, p, table);
    // Remembered before the first store, as it may fail; a trie that is not made after all is
    // forgotten.
    if (h == nullptr || !remember(t, p->shmwin_id, m)) {
        if (h != nullptr) {
            m.free(h, GTRIE_ALLOC_HANDLE);
        }
        if (t != nullptr && fresh) {
            free_trie(t, m);
        }
        *code = ENOMEM;
        return nullptr;
    }
    add_handle(t, h);
    return h;
}

void *init(const ip6mc_gtrie_params_t *params, cerrno *error) {
    cerrno code = params == nullptr ? EINVAL : 0;
    void *made = nullptr;
    if (code == 0 && !good_params(params)) {
        code = GTRIE_E_PARAMS;
    }
    if (code == 0) {
        const journal::group group;
        made = init_in_group(params, &code);
    }
    if (code != 0) {
        last_init_failure.store(code);
    }
    tell(error, code);
    return made;
}

cerrno re_init(void *given, const ip6mc_gtrie_params_t *params) {
    handle *h = handle_of(given);
    if (h == nullptr) {
        return GTRIE_E_BAD_HANDLE;
    }
    if (!good_params(params)) {
        return params == nullptr ? static_cast<cerrno>(EINVAL)
                                 : static_cast<cerrno>(GTRIE_E_PARAMS);
    }
    if (params->key_bits != h->key_bits || params->gtrie_kind != h->kind ||
        params->leaf_position != h->leaf_position) {
        return GTRIE_E_MISMATCH;
    }
    if (!remember(h->on, params->shmwin_id, {params->alloc_fn, params->free_fn})) {
        return ENOMEM;
    }
    const journal::group group;
    journal::store(h->usage, params->gtrie_usage);
    return 0;
}

cerrno close_handle(void **given) {
    if (given == nullptr) {
        return EINVAL;
    }
    if (*given == nullptr) {
        return 0;
    }
    handle *h = handle_of(*given);
    if (h == nullptr) {
        return GTRIE_E_BAD_HANDLE;
    }
    if (h->leaves != 0 || h->detached != 0) {
        return GTRIE_E_NOT_EMPTY;
    }
    trie *t = h->on;
    const memory m = memory_of(t);
    if (!m.known()) {
        return GTRIE_E_NO_FUNCTIONS;
    }
    const journal::group group;
    // A pointer in the window goes with the handle or stays with it; one of this process is no
    // matter of a log that another process may run backwards.
    if (mfwd6::peers::env_of(given) != nullptr) {
        journal::store(*given, nullptr);
    } else {
        *given = nullptr;
    }
    remove_handle(t, h);
    journal::store(h->magic, 0);
    m.free(h, GTRIE_ALLOC_HANDLE);
    if (t->handles == nullptr) {
        free_trie(t, m);
        forget(t);
    }
    return 0;
}

cerrno make_prefix(void *given, uint8_t *bytes, const void *source, const void *group) {
    const handle *h = handle_of(given);
    if (h == nullptr) {
        return GTRIE_E_BAD_HANDLE;
    }
    if (bytes == nullptr || source == nullptr || group == nullptr) {
        return EINVAL;
    }
    std::memcpy(bytes, group, 16);
    std::memcpy(bytes + 16, source, 16);
    if (has_table_part(h)) {
        bytes[32] = static_cast<uint8_t>(h->table >> 8);
        bytes[33] = static_cast<uint8_t>(h->table);
    }
    return 0;
}

cerrno adjust_length(void *given, uint32_t *length) {
    const handle *h = handle_of(given);
    if (h == nullptr) {
        return GTRIE_E_BAD_HANDLE;
    }
    if (length == nullptr) {
        return EINVAL;
    }
    *length += h->table_part;
    return 0;
}

// The handle and its key for a call with a prefix; false with the code told.
bool take_prefix(void *given, const uint8_t *bytes, uint32_t length, handle **h, key *k,
                 cerrno *error) {
    *h = handle_of(given);
    if (*h == nullptr || bytes == nullptr) {
        tell(error, *h == nullptr ? static_cast<cerrno>(GTRIE_E_BAD_HANDLE) : EINVAL);
        return false;
    }
    const uint32_t inside = engine_length(*h, length);
    if (inside == 0) {
        tell(error, GTRIE_E_LENGTH);
        return false;
    }
    *k = load_key(bytes, (*h)->table, inside);
    tell(error, 0);
    return true;
}

// The two lookups by all bits of group and source are what the system does most. They answer from
// one look at one bucket, and what that leaves open begins anew in a function of its own: so
// nothing is saved for it.
bool has_full_keys(const handle *h) {
    return h->key_bits - h->table_part == GTRIE_KEY_BITS;
}

[[gnu::noinline]] void *exact_any(void *given, const uint8_t *bytes, uint32_t length,
                                  cerrno *error) {
    handle *h = nullptr;
    key k;
    return take_prefix(given, bytes, length, &h, &k, error) ? record_of(lookup_exact(h->on, k))
                                                            : nullptr;
}

inline void *exact(void *given, const uint8_t *bytes, uint32_t length, cerrno *error) {
    const handle *h = handle_of(given);
    if (h != nullptr && bytes != nullptr && length == h->key_bits && has_full_keys(h)) [[likely]] {
        const key k = load_full(bytes, h->table);
        const answer at_once = find_at_once(h->on, k, hash_for(h->on, k));
        if (at_once.sure) [[likely]] {
            tell(error, 0);
            return record_of(at_once.found);
        }
    }
    return exact_any(given, bytes, length, error);
}

// `lengths` are those which are still to be asked for.
[[gnu::noinline]] void *longest_any(const handle *h, const uint8_t *bytes, uint64_t lengths,
                                    cerrno *error) {
    const key k = load_key(bytes, h->table, engine_length(h, h->key_bits));
    tell(error, 0);
    return record_of(lookup_longest(h->on, k, lengths));
}

inline void *longest(void *given, const uint8_t *bytes, cerrno *error) {
    const handle *h = handle_of(given);
    if (h == nullptr || bytes == nullptr) [[unlikely]] {
        tell(error, h == nullptr ? static_cast<cerrno>(GTRIE_E_BAD_HANDLE) : EINVAL);
        return nullptr;
    }
    bool asked = false;
    if (longest_length(lengths_in_use(h->on)) == GTRIE_KEY_BITS) [[likely]] {
        const key k = load_full(bytes, h->table);
        const answer at_once = find_at_once(h->on, k, hash_for(h->on, k));
        if (at_once.found != nullptr) [[likely]] {
            tell(error, 0);
            return record_of(at_once.found);
        }
        asked = at_once.sure;
    }
    uint64_t lengths = lengths_in_use(h->on);
    if (asked && longest_length(lengths) == GTRIE_KEY_BITS) {
        lengths = without_longest(lengths);
    }
    return longest_any(h, bytes, lengths, error);
}

void *first_leaf(void *given, const uint8_t *bytes, uint32_t length, cerrno *error) {
    handle *h = handle_of(given);
    if (h != nullptr && length < h->table_part) {
        tell(error, 0);
        return record_of(find_first(h->on, key{{0, 0, 0, 0}, 0, 0}));
    }
    key k;
    return take_prefix(given, bytes, length, &h, &k, error) ? record_of(find_first(h->on, k))
                                                            : nullptr;
}

// Handle and leaf of a call, or the code told.
bool take_leaf(void *given, void *record, handle **h, leaf **l, cerrno *error) {
    *h = handle_of(given);
    *l = *h == nullptr ? nullptr : leaf_on(*h, record);
    const cerrno code = *h == nullptr ? GTRIE_E_BAD_HANDLE : *l == nullptr ? GTRIE_E_BAD_LEAF : 0;
    return tell(error, code) == 0;
}

void *next_leaf(void *given, void *record, cerrno *error) {
    handle *h = nullptr;
    leaf *l = nullptr;
    return take_leaf(given, record, &h, &l, error) ? record_of(find_next(h->on, l)) : nullptr;
}

void *less_specific(void *given, void *record, cerrno *error) {
    handle *h = nullptr;
    leaf *l = nullptr;
    return take_leaf(given, record, &h, &l, error) ? record_of(find_less_specific(h->on, l))
                                                   : nullptr;
}

void tell_record(const handle *h, leaf *l, uint64_t linked) {
    if (h->leaf_position == 0) {
        return;
    }
    auto *field = reinterpret_cast<ip6mc_gtrie_leaf_t *>(static_cast<char *>(record_of(l)) +
                                                         h->leaf_position);
    journal::store(field->trie, h->on);
    journal::store(field->linked, linked);
}

// Detached leaves are on a list of their handle, so that who comes behind a killed writer finds
// what it had begun. They use the links by which leaves wait for a slot: a leaf does one or the
// other.
void list_detached(handle *h, leaf *l) {
    const auto head = reinterpret_cast<leaf *>(h->detached);
    journal::store(l->waiting_next, h->detached);
    journal::store(l->waiting_at, &h->detached);
    if (head != nullptr) {
        journal::store(head->waiting_at, &l->waiting_next);
    }
    journal::store(h->detached, reinterpret_cast<uint64_t>(l));
}

void unlist_detached(leaf *l) {
    if (l->waiting_at == nullptr) {
        return;
    }
    if (l->waiting_next != 0) {
        journal::store(reinterpret_cast<leaf *>(l->waiting_next)->waiting_at, l->waiting_at);
    }
    journal::store(*l->waiting_at, l->waiting_next);
    journal::store(l->waiting_at, nullptr);
    journal::store(l->waiting_next, uint64_t{0});
}

cerrno create(void *given, const uint8_t *bytes, uint32_t length, void **record, size_t size,
              int *created) {
    if (created != nullptr) {
        *created = 0;
    }
    if (record == nullptr || created == nullptr) {
        return EINVAL;
    }
    *record = nullptr;
    handle *h = nullptr;
    key k;
    cerrno code = 0;
    if (!take_prefix(given, bytes, length, &h, &k, &code)) {
        return code;
    }
    if (size > UINT32_MAX ||
        (h->leaf_position != 0 && h->leaf_position + sizeof(ip6mc_gtrie_leaf_t) > size)) {
        return EINVAL;
    }
    if (leaf *found = lookup_exact(h->on, k); found != nullptr) {
        *record = record_of(found);
        return 0;
    }
    const memory m = memory_of(h->on);
    if (!m.known()) {
        return GTRIE_E_NO_FUNCTIONS;
    }
    const journal::group group;
    leaf *made = make_leaf(h->on, k, size, m);
    if (made == nullptr) {
        return ENOMEM;
    }
    tell_record(h, made, 0);
    list_detached(h, made);
    *record = record_of(made);
    *created = 1;
    return 0;
}

cerrno insert(void *given, void *record, cerrno *error) {
    handle *h = nullptr;
    leaf *l = nullptr;
    cerrno code = 0;
    if (!take_leaf(given, record, &h, &l, &code)) {
        return tell(error, code);
    }
    if (l->state != static_cast<uint32_t>(leaf_state::detached)) {
        const bool linked = l->state == static_cast<uint32_t>(leaf_state::linked);
        return tell(error, linked ? GTRIE_E_LINKED : GTRIE_E_REMOVED);
    }
    const memory m = memory_of(h->on);
    if (l->table != h->table || !m.known()) {
        return tell(error, l->table != h->table ? GTRIE_E_BAD_LEAF : GTRIE_E_NO_FUNCTIONS);
    }
    const journal::group group;
    // What names the leaf in its record is no reader's: it may come before the leaf is there.
    unlist_detached(l);
    code = insert_leaf(h->on, l, m);
    if (code == 0) {
        journal::store(h->leaves, h->leaves + 1);
        tell_record(h, l, 1);
    } else {
        list_detached(h, l);
    }
    return tell(error, code);
}

cerrno remove(void *given, void *record, cerrno *error) {
    handle *h = nullptr;
    leaf *l = nullptr;
    cerrno code = 0;
    if (!take_leaf(given, record, &h, &l, &code)) {
        return tell(error, code);
    }
    const memory m = memory_of(h->on);
    if (l->state != static_cast<uint32_t>(leaf_state::linked)) {
        code = GTRIE_E_DETACHED;
    } else if (l->table != h->table) {
        code = GTRIE_E_BAD_LEAF;
    } else if (!m.known()) {
        code = GTRIE_E_NO_FUNCTIONS;
    } else {
        const journal::group group;
        delete_leaf(h->on, l, m);
        journal::store(h->leaves, h->leaves - 1);
        tell_record(h, l, 0);
    }
    return tell(error, code);
}

cerrno free_leaf(void *given, void *record) {
    handle *h = nullptr;
    leaf *l = nullptr;
    cerrno code = 0;
    if (!take_leaf(given, record, &h, &l, &code)) {
        return code;
    }
    if (l->state == static_cast<uint32_t>(leaf_state::linked)) {
        return GTRIE_E_LINKED;
    }
    const memory m = memory_of(h->on);
    if (!m.known()) {
        return GTRIE_E_NO_FUNCTIONS;
    }
    // The block stays as it is for readers that hold it until free_fn says otherwise: nothing is
    // marked.
    const journal::group group;
    if (l->state == static_cast<uint32_t>(leaf_state::detached)) {
        unlist_detached(l);
    }
    return m.free(l, GTRIE_ALLOC_LEAF);
}

void *first_detached(void *given) {
    const handle *h = handle_of(given);
    return h == nullptr ? nullptr : record_of(reinterpret_cast<leaf *>(h->detached));
}

void *next_detached(void *given, void *record) {
    const handle *h = handle_of(given);
    const leaf *l = h == nullptr ? nullptr : leaf_on(h, record);
    const bool on_the_list = l != nullptr && l->table == h->table &&
                             l->state == static_cast<uint32_t>(leaf_state::detached);
    return on_the_list ? record_of(reinterpret_cast<leaf *>(l->waiting_next)) : nullptr;
}

}  // namespace

extern "C" {

cerrno ip6mc_gtrie_platform_lib_init(void *, int) {
    return 0;
}

cerrno ip6mc_gtrie_platform_lib_terminate(int) {
    forget_all();
    return 0;
}

void ip6mc_gtrie_platform_err_init(void) {
    last_init_failure.store(0);
}

cerrno ip6mc_gtrie_last_error(void) {
    return last_init_failure.load();
}

void *ip6mc_gtrie_init(const ip6mc_gtrie_params_t *params, cerrno *error) {
    return init(params, error);
}

void *ip6mc_gtrie_platform_init(const ip6mc_gtrie_params_t *params, cerrno *error) {
    return init(params, error);
}

cerrno ip6mc_gtrie_re_init(void *handle, const ip6mc_gtrie_params_t *params) {
    return re_init(handle, params);
}

cerrno ip6mc_gtrie_platform_re_init(void *handle, const ip6mc_gtrie_params_t *params) {
    return re_init(handle, params);
}

void ip6mc_gtrie_set_memory(ip6mc_gtrie_alloc_fn alloc_fn, ip6mc_gtrie_free_fn free_fn) {
    set_default({alloc_fn, free_fn});
}

cerrno ip6mc_gtrie_close(void **handle) {
    return close_handle(handle);
}
cerrno ip6mc_gtrie_platform_close(void **handle) {
    return close_handle(handle);
}

cerrno ip6mc_gtrie_reset_handle_db(int) {
    forget_all();
    return 0;
}

int ip6mc_gtrie_set_sharing(int on) {
    return sharing.exchange(on != 0 ? 1 : 0);
}

cerrno ip6mc_gtrie_make_prefix(void *handle, uint8_t *key, const void *source, const void *group) {
    return make_prefix(handle, key, source, group);
}

cerrno ip6mc_gtrie_platform_make_prefix(void *handle, uint8_t *key, const void *source,
                                        const void *group) {
    return make_prefix(handle, key, source, group);
}

cerrno ip6mc_gtrie_get_pfx_len_adjusted(void *handle, uint32_t *length) {
    return adjust_length(handle, length);
}

cerrno ip6mc_gtrie_platform_get_pfx_len_adjusted(void *handle, uint32_t *length) {
    return adjust_length(handle, length);
}

void *ip6mc_gtrie_lookup(void *handle, const uint8_t *key, cerrno *error) {
    return longest(handle, key, error);
}

void *ip6mc_gtrie_platform_lookup(void *handle, const uint8_t *key, cerrno *error) {
    return longest(handle, key, error);
}

void *ip6mc_gtrie_lookup_exact(void *handle, const uint8_t *key, uint32_t length, cerrno *error) {
    return exact(handle, key, length, error);
}

void *ip6mc_gtrie_platform_lookup_exact(void *handle, const uint8_t *key, uint32_t length,
                                        cerrno *error) {
    return exact(handle, key, length, error);
}

void *ip6mc_gtrie_first_leaf(void *handle, const uint8_t *key, uint32_t length, cerrno *error) {
    return first_leaf(handle, key, length, error);
}

void *ip6mc_gtrie_platform_first_leaf(void *handle, const uint8_t *key, uint32_t length,
                                      cerrno *error) {
    return first_leaf(handle, key, length, error);
}

void *ip6mc_gtrie_next_leaf(void *handle, void *leaf, cerrno *error) {
    return next_leaf(handle, leaf, error);
}

void *ip6mc_gtrie_platform_next_leaf(void *handle, void *leaf, cerrno *error) {
    return next_leaf(handle, leaf, error);
}

void *ip6mc_gtrie_less_specific_of_leaf(void *handle, void *leaf, cerrno *error) {
    return less_specific(handle, leaf, error);
}

void *ip6mc_gtrie_platform_less_specific_of_leaf(void *handle, void *leaf, cerrno *error) {
    return less_specific(handle, leaf, error);
}

cerrno ip6mc_gtrie_leaf_create(void *handle, const uint8_t *key, uint32_t length, void **leaf,
                               size_t size, int *created) {
    return create(handle, key, length, leaf, size, created);
}

cerrno ip6mc_gtrie_platform_leaf_create(void *handle, const uint8_t *key, uint32_t length,
                                        void **leaf, size_t size, int *created) {
    return create(handle, key, length, leaf, size, created);
}

cerrno ip6mc_gtrie_leaf_create_shmem(void *handle, uint32_t, const uint8_t *key, uint32_t length,
                                     void **leaf, size_t size, cerrno *error) {
    int created = 0;
    cerrno code = create(handle, key, length, leaf, size, &created);
    if (code == 0 && created == 0) {
        code = GTRIE_E_EXISTS;
    }
    return tell(error, code);
}

cerrno ip6mc_gtrie_leaf_insert(void *handle, void *leaf, cerrno *error) {
    return insert(handle, leaf, error);
}

cerrno ip6mc_gtrie_leaf_insert_shmem(void *handle, uint32_t, void *leaf, cerrno *error) {
    return insert(handle, leaf, error);
}

cerrno ip6mc_gtrie_platform_leaf_insert(void *handle, void *leaf, cerrno *error) {
    return insert(handle, leaf, error);
}

cerrno ip6mc_gtrie_leaf_delete(void *handle, void *leaf, cerrno *error) {
    return remove(handle, leaf, error);
}

cerrno ip6mc_gtrie_leaf_delete_shmem(void *handle, uint32_t, void *leaf, cerrno *error) {
    return remove(handle, leaf, error);
}

cerrno ip6mc_gtrie_platform_leaf_delete(void *handle, void *leaf, cerrno *error) {
    return remove(handle, leaf, error);
}

cerrno ip6mc_gtrie_leaf_free(void *handle, void *leaf) {
    return free_leaf(handle, leaf);
}
cerrno ip6mc_gtrie_platform_leaf_free(void *handle, void *leaf) {
    return free_leaf(handle, leaf);
}

void *ip6mc_gtrie_first_detached(void *handle) {
    return first_detached(handle);
}

void *ip6mc_gtrie_next_detached(void *handle, void *leaf) {
    return next_detached(handle, leaf);
}

void ip6mc_gtrie_set_hash_for_tests(int constant) {
    constant_hash.store(constant != 0 ? 1 : 0);
}

}  // extern "C"
