#include "services/trees/avl.h"

#include <cerrno>

#include "services/trees/registered_fns.h"
#include "services/trees/tree.h"

using namespace mfwd6;

// Lies in the window.
struct shm_avl_tree {
    uint32_t magic;
    uint32_t threads;  // always 1
    uint64_t count;
    tree_node head;
    uint64_t reserved;  // zero
};
static_assert(sizeof(shm_avl_tree) == 48 && std::is_standard_layout_v<shm_avl_tree>);

namespace {

constexpr uint32_t head_magic = 0x61766c31;

bool live(const shm_avl_tree *root) {
    return root->magic == head_magic;
}

// The functions for this call: those given, else those that this process named; null members where
// there are none.
shm_avl_fns functions(const shm_avl_fns *fns, const shm_avl_tree *root) {
    return fns != nullptr ? *fns : trees::registered_fns(root);
}

cerrno search(const tree_node *head, uint32_t mode, const void *key, tree_compare_fn compare,
              void **found) {
    tree_node *n = nullptr;
    switch (mode) {
        case shm_avl_exact:
            n = trees::find(head, key, compare);
            break;
        case shm_avl_next:
            n = trees::find_above(head, key, compare, false);
            break;
        case shm_avl_next_or_equal:
            n = trees::find_above(head, key, compare, true);
            break;
        default:
            n = trees::first(head);
            break;
    }
    *found = n;
    return n != nullptr ? 0 : TREE_E_NOT_FOUND;
}

bool needs_key(uint32_t mode) {
    return mode == shm_avl_exact || mode == shm_avl_next || mode == shm_avl_next_or_equal;
}

}  // namespace

cerrno shm_avl_tree_init(const shm_avl_fns *fns, shm_avl_tree **root, uint32_t threads,
                         uint32_t flags) {
    if (fns == nullptr || fns->node_alloc == nullptr || root == nullptr || threads != 1 ||
        flags != 0) {
        return EINVAL;
    }
    if (*root != nullptr) {
        return EEXIST;
    }
    journal::group change;
    auto *tree = static_cast<shm_avl_tree *>(fns->node_alloc(1, sizeof(shm_avl_tree)));
    if (tree == nullptr) {
        return ENOMEM;
    }
    // Nobody sees the new head before it is published, and an undone change gives it back: plain
    // stores do.
    *tree = {head_magic, 1, 0, {trees::head_mark, &tree->head, &tree->head}, 0};
    journal::publish(*root, tree);
    return 0;
}

cerrno shm_avl_tree_allocate_object(const shm_avl_fns *fns, shm_avl_tree *root, size_t size,
                                    void **object) {
    if (root == nullptr || object == nullptr || size < sizeof(avl_node)) {
        return EINVAL;
    }
    const shm_avl_fns use = functions(fns, root);
    if (use.node_alloc == nullptr) {
        return EINVAL;
    }
    if (!live(root)) {
        return TREE_E_NOT_RUNNING;
    }
    void *memory = use.node_alloc(1, size);
    if (memory == nullptr) {
        return ENOMEM;
    }
    *object = memory;
    return 0;
}

cerrno shm_avl_tree_free_object(const shm_avl_fns *fns, shm_avl_tree *root, void *object) {
    if (root == nullptr || object == nullptr) {
        return EINVAL;
    }
    const shm_avl_fns use = functions(fns, root);
    if (use.node_free == nullptr) {
        return EINVAL;
    }
    if (tree_node_linked(static_cast<tree_node *>(object))) {
        return EBUSY;
    }
    return use.node_free(object);
}

cerrno shm_avl_tree_insert(const shm_avl_fns *fns, shm_avl_tree *root, void *object) {
    if (root == nullptr || object == nullptr) {
        return EINVAL;
    }
    const shm_avl_fns use = functions(fns, root);
    if (use.compare == nullptr) {
        return EINVAL;
    }
    if (!live(root)) {
        return TREE_E_NOT_RUNNING;
    }
    auto *n = static_cast<tree_node *>(object);
    if (tree_node_linked(n)) {
        return EBUSY;
    }
    trees::place where;
    if (!trees::find_place(&root->head, n, use.compare, where)) {
        return EEXIST;
    }
    journal::group change;
    trees::link(&root->head, n, where);
    journal::store(root->count, root->count + 1);
    return 0;
}

cerrno shm_avl_tree_delete(const shm_avl_fns * /*fns*/, shm_avl_tree *root, void *object) {
    if (root == nullptr || object == nullptr) {
        return EINVAL;
    }
    if (!live(root)) {
        return TREE_E_NOT_RUNNING;
    }
    auto *n = static_cast<tree_node *>(object);
    if (!trees::holds(&root->head, n)) {
        return TREE_E_NOT_FOUND;
    }
    journal::group change;
    trees::unlink(&root->head, n);
    journal::store(root->count, root->count - 1);
    return 0;
}

cerrno shm_avl_tree_search(const shm_avl_fns *fns, const shm_avl_tree *root, uint32_t mode,
                           const void *key, void **found) {
    if (found == nullptr) {
        return EINVAL;
    }
    *found = nullptr;
    const bool keyed = needs_key(mode);
    if (root == nullptr || (!keyed && mode != shm_avl_first) || (keyed && key == nullptr)) {
        return EINVAL;
    }
    if (!live(root)) {
        return TREE_E_NOT_RUNNING;
    }
    const shm_avl_fns use = functions(fns, root);
    if (keyed && use.compare == nullptr) {
        return EINVAL;
    }
    return search(&root->head, mode, key, use.compare, found);
}

cerrno avl_tree_walk(const shm_avl_tree *root, avl_walk_fn fn, void *context) {
    if (root == nullptr || fn == nullptr) {
        return EINVAL;
    }
    if (!live(root)) {
        return TREE_E_NOT_RUNNING;
    }
    tree_node *n = trees::first(&root->head);
    while (n != nullptr) {
        tree_node *behind = trees::next(n);
        const cerrno code = fn(n, context);
        if (code != 0) {
            return code;
        }
        n = behind;
    }
    return 0;
}

cerrno avl_tree_init_fns_shm(shm_avl_tree *root, tree_compare_fn compare,
                             shm_avl_alloc_fn node_alloc, shm_avl_free_fn node_free) {
    if (root == nullptr || compare == nullptr) {
        return EINVAL;
    }
    if (!live(root)) {
        return TREE_E_NOT_RUNNING;
    }
    return trees::register_fns(root, {node_alloc, node_free, nullptr, nullptr, compare});
}

uint64_t shm_avl_tree_count(const shm_avl_tree *root) {
    return root != nullptr && live(root) ? root->count : 0;
}

cerrno shm_avl_tree_verify(const shm_avl_fns *fns, const shm_avl_tree *root, uint64_t *count) {
    if (root == nullptr) {
        return EINVAL;
    }
    if (!live(root)) {
        return TREE_E_NOT_RUNNING;
    }
    const shm_avl_fns use = functions(fns, root);
    if (use.compare == nullptr) {
        return EINVAL;
    }
    uint64_t seen = 0;
    const cerrno fault = trees::verify(&root->head, use.compare, &seen);
    if (count != nullptr) {
        *count = seen;
    }
    if (fault != 0) {
        return fault;
    }
    return seen == root->count ? 0 : TREE_E_COUNT;
}

avl_node *avl_insert(avl_tree *root, avl_node *node, tree_compare_fn compare) {
    if (root == nullptr || node == nullptr || compare == nullptr || tree_node_linked(node)) {
        return nullptr;
    }
    trees::place where;
    if (!trees::find_place(&root->head, node, compare, where)) {
        return nullptr;
    }
    journal::group change;
    trees::link(&root->head, node, where);
    return node;
}

avl_node *avl_delete(avl_tree *root, avl_node *node) {
    if (root == nullptr || node == nullptr || !trees::holds(&root->head, node)) {
        return nullptr;
    }
    journal::group change;
    trees::unlink(&root->head, node);
    return node;
}

avl_node *avl_search(const avl_tree *root, const avl_node *key, tree_compare_fn compare) {
    if (root == nullptr || key == nullptr || compare == nullptr) {
        return nullptr;
    }
    return trees::find(&root->head, key, compare);
}

avl_node *avl_first(const avl_tree *root) {
    return root != nullptr ? trees::first(&root->head) : nullptr;
}

avl_node *avl_next(const avl_node *node) {
    return node != nullptr && tree_node_linked(node) ? trees::next(node) : nullptr;
}

cerrno avl_verify(const avl_tree *root, tree_compare_fn compare, uint64_t *count) {
    if (root == nullptr || compare == nullptr) {
        return EINVAL;
    }
    return trees::verify(&root->head, compare, count);
}
