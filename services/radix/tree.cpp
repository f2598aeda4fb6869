#include "services/radix/tree.h"

#include <sys/random.h>
#include <time.h>

#include <boost/intrusive/avltree_algorithms.hpp>
#include <cerrno>
#include <cstring>

#include "services/journal/journal.h"

namespace mfwd6::radix {

namespace {

// Stores of a tree in the window are journaled. Those of a tree in process memory must not be: the
// log would be run backwards by a process in which these addresses are something else.
struct journaled {
    template <class T>
    static void put(T &field, std::type_identity_t<T> value) {
        journal::store(field, value);
    }
};

struct direct {
    template <class T>
    static void put(T &field, std::type_identity_t<T> value) {
        field = value;
    }
};

template <class Store>
struct node_traits {
    using node = rn_node_t;
    using node_ptr = rn_node_t *;
    using const_node_ptr = const rn_node_t *;
    using balance = int32_t;

    static node_ptr get_parent(const_node_ptr n) { return n->parent; }
    static void set_parent(node_ptr n, node_ptr to) { Store::put(n->parent, to); }
    static node_ptr get_left(const_node_ptr n) { return n->left; }
    static void set_left(node_ptr n, node_ptr to) { Store::put(n->left, to); }
    static node_ptr get_right(const_node_ptr n) { return n->right; }
    static void set_right(node_ptr n, node_ptr to) { Store::put(n->right, to); }
    static balance get_balance(const_node_ptr n) { return n->balance; }
    static void set_balance(node_ptr n, balance b) { Store::put(n->balance, b); }
    static balance negative() { return -1; }
    static balance zero() { return 0; }
    static balance positive() { return 1; }
};

template <class Store>
using algorithms = boost::intrusive::avltree_algorithms<node_traits<Store>>;
using reading = algorithms<direct>;

struct order {
    const rn_root_t *root;

    bool operator()(const bits &k, const rn_node_t *n) const {
        return compare(k, key_of(root, n)) < 0;
    }
    bool operator()(const rn_node_t *n, const bits &k) const {
        return compare(key_of(root, n), k) < 0;
    }
};

template <class Store>
cerrno insert_with(rn_root_t *root, rn_node_t *record, const bits &key) {
    using tree = algorithms<Store>;
    typename tree::insert_commit_data place;
    if (!tree::insert_unique_check(&root->header, key, order{root}, place).second) {
        return EEXIST;
    }
    tree::insert_unique_commit(&root->header, record, place);
    Store::put(record->tree, root->id);
    Store::put(root->count, root->count + 1);
    return 0;
}

template <class Store>
void erase_with(rn_root_t *root, rn_node_t *record) {
    algorithms<Store>::erase(&root->header, record);
    Store::put(record->parent, nullptr);
    Store::put(record->left, nullptr);
    Store::put(record->right, nullptr);
    Store::put(record->balance, 0);
    Store::put(record->tree, 0);
    Store::put(root->count, root->count - 1);
}

uint64_t make_identity() {
    uint64_t word = 0;
    if (getrandom(&word, sizeof(word), GRND_NONBLOCK) != static_cast<ssize_t>(sizeof(word))) {
        timespec now{};
        clock_gettime(CLOCK_MONOTONIC, &now);
        word = static_cast<uint64_t>(now.tv_sec) << 32 ^ static_cast<uint64_t>(now.tv_nsec) ^
               reinterpret_cast<uint64_t>(&now);
    }
    return word | 1U;
}

// Tells trees apart in the records that they hold.
uint32_t make_id() {
    static uint32_t given = static_cast<uint32_t>(make_identity() >> 32);
    const uint32_t id = std::atomic_ref<uint32_t>(given).fetch_add(1, std::memory_order_relaxed);
    return id != 0 ? id : make_id();
}

}  // namespace

uint64_t this_process() {
    static const uint64_t identity = make_identity();
    return identity;
}

bits key_of(const rn_root_t *root, const rn_node_t *record) {
    if (root->mode == indirect) {
        const auto *n = reinterpret_cast<const rt_node_t *>(record);
        return {static_cast<const uint8_t *>(n->key), static_cast<uint32_t>(n->key_bits)};
    }
    const auto *bytes = reinterpret_cast<const uint8_t *>(record);
    uint32_t length = 0;
    std::memcpy(&length, bytes + root->length_offset, root->mode);
    return {bytes + root->key_offset, length};
}

bool is_tree(const rn_root_t *root) {
    return root != nullptr && (reinterpret_cast<uintptr_t>(root) & 7U) == 0 &&
           root->magic == root_magic;
}

void make_tree(rn_root_t *root, uint32_t key_offset, uint32_t length_offset, uint32_t mode,
               bool from_heap) {
    std::memset(static_cast<void *>(root), 0, sizeof(*root));
    reading::init_header(&root->header);
    root->id = make_id();
    root->key_offset = key_offset;
    root->length_offset = length_offset;
    root->mode = mode;
    root->from_heap = from_heap ? 1 : 0;
    root->magic = root_magic;
}

cerrno insert(rn_root_t *root, rn_node_t *record, const bits &key) {
    return root->from_heap != 0 ? insert_with<direct>(root, record, key)
                                : insert_with<journaled>(root, record, key);
}

void erase(rn_root_t *root, rn_node_t *record) {
    if (root->from_heap != 0) {
        erase_with<direct>(root, record);
    } else {
        erase_with<journaled>(root, record);
    }
}

rn_node_t *find(const rn_root_t *root, const bits &key) {
    rn_node_t *n = reading::lower_bound(&root->header, key, order{root});
    return n != &root->header && compare(key, key_of(root, n)) == 0 ? n : nullptr;
}

// The last record not behind the key either covers it, or shows how many bits of it any covering
// record can have at most: one with more of them would lie between the two. Each round is shorter
// by a bit at least.
rn_node_t *find_longest(const rn_root_t *root, bits key) {
    while (true) {
        rn_node_t *behind = reading::upper_bound(&root->header, key, order{root});
        if (behind == root->header.left) {
            return nullptr;
        }
        rn_node_t *n = reading::prev_node(behind);
        const bits found = key_of(root, n);
        const uint32_t same = common_bits(found, key);
        if (same == found.length) {
            return n;
        }
        key.length = same;
    }
}

rn_node_t *first(const rn_root_t *root) {
    return root->count == 0 ? nullptr : root->header.left;
}

rn_node_t *next(const rn_root_t *root, const rn_node_t *record) {
    rn_node_t *n = reading::next_node(const_cast<rn_node_t *>(record));
    return n == &root->header ? nullptr : n;
}

}  // namespace mfwd6::radix
