#include <cerrno>
#include <cstdlib>

#include "services/journal/journal.h"
#include "services/radix/tree.h"

namespace {

using namespace mfwd6::radix;
namespace journal = mfwd6::journal;

bool functions_known(const rn_root_t *root) {
    return root->functions_of == this_process();
}

void set_destructor(rn_root_t *root, rn_destructor_fn destructor) {
    if (root->from_heap != 0) {
        root->destructor = destructor;
        root->functions_of = this_process();
        return;
    }
    const journal::group group;
    journal::store(root->functions_of, uint64_t{0});
    journal::store(root->destructor, destructor);
    journal::store(root->functions_of, this_process());
}

void erase_and_destroy(rn_root_t *root, rn_node_t *record) {
    // Read before the call, which may free the record and, with its last one, the tree.
    rn_destructor_fn destructor = root->destructor;
    if (root->from_heap != 0) {
        erase(root, record);
        if (destructor != nullptr) {
            destructor(record);
        }
        return;
    }
    const journal::group group;
    erase(root, record);
    if (destructor != nullptr) {
        destructor(record);
    }
}

uint32_t height_of(const rn_root_t *root, const rn_node_t *n, const rn_node_t *parent,
                   const char **wrong) {
    if (n == nullptr) {
        return 0;
    }
    if (n->parent != parent || n->tree != root->id) {
        *wrong =
            n->tree != root->id ? "record of another tree" : "record does not point to its parent";
        return 0;
    }
    const uint32_t left = height_of(root, n->left, n, wrong);
    const uint32_t right = height_of(root, n->right, n, wrong);
    if (*wrong == nullptr &&
        static_cast<int32_t>(right) - static_cast<int32_t>(left) != n->balance) {
        *wrong = "balance of a record is wrong";
    }
    if (*wrong == nullptr && (n->balance < -1 || n->balance > 1)) {
        *wrong = "tree out of balance";
    }
    return 1 + (left > right ? left : right);
}

}  // namespace

extern "C" {

rn_root_t *rn_tree_init(uint32_t key_offset, uint32_t length_offset, rn_destructor_fn destructor) {
    auto *root = static_cast<rn_root_t *>(std::calloc(1, sizeof(rn_root_t)));
    if (root != nullptr) {
        make_tree(root, key_offset, length_offset, 2, true);
        set_destructor(root, destructor);
    }
    return root;
}

rn_root_t *rn_tree_init_v2(uint32_t key_offset, uint32_t length_offset, rn_destructor_fn destructor,
                           rn_alloc_fn allocator, int mode) {
    if (allocator == nullptr || (mode != 1 && mode != 2 && mode != 4)) {
        return nullptr;
    }
    auto *root = static_cast<rn_root_t *>(allocator(sizeof(rn_root_t)));
    if (root != nullptr) {
        // Nobody knows the block yet: what is written here needs no log.
        make_tree(root, key_offset, length_offset, static_cast<uint32_t>(mode), false);
        root->destructor = destructor;
        root->functions_of = this_process();
    }
    return root;
}

int rn_set_fns(rn_root_t *root, rn_destructor_fn destructor, int mode) {
    if (!is_tree(root)) {
        return root == nullptr ? EINVAL : RADIX_E_BAD_TREE;
    }
    if (mode < 0 || static_cast<uint32_t>(mode) != root->mode) {
        return EINVAL;
    }
    set_destructor(root, destructor);
    return 0;
}

int rn_insert(rn_root_t *root, void *record) {
    if (record == nullptr || !is_tree(root)) {
        return root == nullptr || record == nullptr ? EINVAL : RADIX_E_BAD_TREE;
    }
    auto *n = static_cast<rn_node_t *>(record);
    if (n->tree != 0) {
        return RADIX_E_LINKED;
    }
    const bits key = key_of(root, n);
    if (key.length > RADIX_MAX_BITS) {
        return RADIX_E_LENGTH;
    }
    if (root->from_heap != 0) {
        return static_cast<int>(insert(root, n, key));
    }
    const journal::group group;
    return static_cast<int>(insert(root, n, key));
}

int rn_delete(rn_root_t *root, void *record) {
    if (record == nullptr || !is_tree(root)) {
        return root == nullptr || record == nullptr ? EINVAL : RADIX_E_BAD_TREE;
    }
    auto *n = static_cast<rn_node_t *>(record);
    if (n->tree != root->id) {
        return RADIX_E_NOT_LINKED;
    }
    if (!functions_known(root)) {
        return RADIX_E_NO_FUNCTIONS;
    }
    erase_and_destroy(root, n);
    return 0;
}

rn_node_t *rn_search(const rn_root_t *root, const void *key, uint32_t length) {
    const bool good = is_tree(root) && key != nullptr && length <= RADIX_MAX_BITS;
    return good ? find(root, {static_cast<const uint8_t *>(key), length}) : nullptr;
}

rn_node_t *rn_lookup(const rn_root_t *root, const void *key, uint32_t length) {
    const bool good = is_tree(root) && key != nullptr && length <= RADIX_MAX_BITS;
    return good ? find_longest(root, {static_cast<const uint8_t *>(key), length}) : nullptr;
}

rn_node_t *rn_preorder_firstnode(const rn_root_t *root) {
    return is_tree(root) ? first(root) : nullptr;
}

rn_node_t *rn_preorder_successor(const rn_root_t *root, const rn_node_t *record) {
    const bool good = is_tree(root) && record != nullptr && record->tree == root->id;
    return good ? next(root, record) : nullptr;
}

int rn_walktree(rn_root_t *root, rn_walk_fn fn, ...) {
    if (fn == nullptr || !is_tree(root)) {
        return root == nullptr || fn == nullptr ? EINVAL : RADIX_E_BAD_TREE;
    }
    int result = 0;
    va_list arguments;
    va_start(arguments, fn);
    for (rn_node_t *n = first(root); n != nullptr && result == 0;) {
        rn_node_t *after = next(root, n);
        va_list copy;
        va_copy(copy, arguments);
        result = fn(n, copy);
        va_end(copy);
        n = after;
    }
    va_end(arguments);
    return result;
}

int rn_tree_destroy(rn_root_t *root) {
    if (!is_tree(root)) {
        return root == nullptr ? EINVAL : RADIX_E_BAD_TREE;
    }
    if (root->count != 0 && !functions_known(root)) {
        return RADIX_E_NO_FUNCTIONS;
    }
    while (rn_node_t *n = first(root)) {
        erase_and_destroy(root, n);
    }
    if (root->from_heap != 0) {
        root->magic = 0;
        std::free(root);
        return 0;
    }
    const journal::group group;
    journal::store(root->magic, 0);
    return 0;
}

uint64_t rn_count(const rn_root_t *root) {
    return is_tree(root) ? root->count : 0;
}

const char *rn_verify(const rn_root_t *root) {
    if (!is_tree(root)) {
        return "not a tree";
    }
    const char *wrong = nullptr;
    height_of(root, root->header.parent, &root->header, &wrong);
    uint64_t count = 0;
    for (const rn_node_t *n = first(root); n != nullptr && wrong == nullptr; ++count) {
        const rn_node_t *after = next(root, n);
        if (after != nullptr && compare(key_of(root, n), key_of(root, after)) >= 0) {
            wrong = "records out of order";
        }
        n = after;
    }
    if (wrong == nullptr && count != root->count) {
        wrong = "records miscounted";
    }
    return wrong;
}

}  // extern "C"
