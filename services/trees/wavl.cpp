#include "services/trees/wavl.h"

#include <cerrno>

#include "services/trees/tree.h"

using namespace mfwd6;

namespace {

constexpr uint32_t thread_bits = 0xff;
constexpr uint32_t running_mark = 0x7761766c & ~thread_bits;

bool marked(uint32_t state) {
    const uint32_t threads = state & thread_bits;
    return (state & ~thread_bits) == running_mark && threads >= 1 && threads <= wavl_max_threads;
}

// The tree itself, whether called by its own name or by a copy; null when it is not running.
wavl_tree *home_of(const wavl_tree *tree) {
    if (tree == nullptr || !marked(tree->state) || tree->home == nullptr) {
        return nullptr;
    }
    return tree->home->state == tree->state ? tree->home : nullptr;
}

// The same, if it has this thread.
wavl_tree *home_of(const wavl_tree *tree, uint32_t thread) {
    wavl_tree *home = home_of(tree);
    return home != nullptr && thread < (home->state & thread_bits) ? home : nullptr;
}

tree_compare_fn compare_of(const shm_wavl_fns *fns, uint32_t thread) {
    return fns != nullptr && fns->compare != nullptr ? fns->compare[thread] : nullptr;
}

tree_node *on_thread(void *node, uint32_t thread) {
    return static_cast<tree_node *>(node) + thread;
}

const tree_node *on_thread(const void *node, uint32_t thread) {
    return static_cast<const tree_node *>(node) + thread;
}

void *node_of(tree_node *n, uint32_t thread) {
    return n != nullptr ? n - thread : nullptr;
}

}  // namespace

int wavl_running(const wavl_tree *tree) {
    return home_of(tree) != nullptr;
}

cerrno shm_wavl_init(const shm_wavl_fns *fns, wavl_tree *tree, uint32_t threads) {
    if (tree == nullptr || threads == 0 || threads > wavl_max_threads) {
        return EINVAL;
    }
    for (uint32_t thread = 0; thread < threads; ++thread) {
        if (compare_of(fns, thread) == nullptr) {
            return EINVAL;
        }
    }
    if (wavl_running(tree)) {
        return EEXIST;
    }
    journal::group change;
    // Without a journal the order counts: a half-made tree must not look like a running one.
    journal::publish(tree->state, 0);
    std::atomic_signal_fence(std::memory_order_seq_cst);
    for (uint32_t thread = 0; thread < wavl_max_threads; ++thread) {
        tree_node *head = &tree->heads[thread];
        trees::put(tree->counts[thread], 0);
        trees::put(head->up, trees::head_mark);
        trees::put(head->left, head);
        trees::put(head->right, head);
    }
    trees::put(tree->home, tree);
    journal::publish(tree->state, running_mark | threads);
    return 0;
}

cerrno wavl_finish(wavl_tree *tree) {
    if (tree == nullptr) {
        return EINVAL;
    }
    wavl_tree *home = home_of(tree);
    if (home == nullptr) {
        return TREE_E_NOT_RUNNING;
    }
    journal::group change;
    journal::publish(home->state, 0);
    std::atomic_signal_fence(std::memory_order_seq_cst);
    for (uint32_t thread = 0; thread < wavl_max_threads; ++thread) {
        trees::put(home->counts[thread], 0);
        trees::put(home->heads[thread].up, 0);
        trees::put(home->heads[thread].left, nullptr);
        trees::put(home->heads[thread].right, nullptr);
    }
    trees::put(home->home, nullptr);
    return 0;
}

cerrno shm_wavl_finish(const shm_wavl_fns * /*fns*/, wavl_tree *tree) {
    return wavl_finish(tree);
}

void *shm_wavl_insert_thread(const shm_wavl_fns *fns, wavl_tree *tree, void *node,
                             uint32_t thread) {
    wavl_tree *home = home_of(tree, thread);
    tree_compare_fn compare = compare_of(fns, thread);
    if (home == nullptr || node == nullptr || compare == nullptr) {
        return nullptr;
    }
    tree_node *n = on_thread(node, thread);
    trees::place where;
    if (tree_node_linked(n) || !trees::find_place(&home->heads[thread], n, compare, where)) {
        return nullptr;
    }
    journal::group change;
    trees::link(&home->heads[thread], n, where);
    journal::store(home->counts[thread], home->counts[thread] + 1);
    return node;
}

void *shm_wavl_delete_thread(const shm_wavl_fns * /*fns*/, wavl_tree *tree, void *node,
                             uint32_t thread) {
    wavl_tree *home = home_of(tree, thread);
    if (home == nullptr || node == nullptr) {
        return nullptr;
    }
    tree_node *n = on_thread(node, thread);
    if (!trees::holds(&home->heads[thread], n)) {
        return nullptr;
    }
    journal::group change;
    trees::unlink(&home->heads[thread], n);
    journal::store(home->counts[thread], home->counts[thread] - 1);
    return node;
}

void *shm_wavl_search(const shm_wavl_fns *fns, const wavl_tree *tree, const void *key,
                      uint32_t thread) {
    const wavl_tree *home = home_of(tree, thread);
    tree_compare_fn compare = compare_of(fns, thread);
    if (home == nullptr || key == nullptr || compare == nullptr) {
        return nullptr;
    }
    return node_of(trees::find(&home->heads[thread], on_thread(key, thread), compare), thread);
}

void *shm_wavl_get_first(const shm_wavl_fns * /*fns*/, const wavl_tree *tree, uint32_t thread) {
    const wavl_tree *home = home_of(tree, thread);
    return home != nullptr ? node_of(trees::first(&home->heads[thread]), thread) : nullptr;
}

void *shm_wavl_get_next(const shm_wavl_fns * /*fns*/, const wavl_tree *tree, const void *node,
                        uint32_t thread) {
    if (home_of(tree, thread) == nullptr || node == nullptr) {
        return nullptr;
    }
    const tree_node *n = on_thread(node, thread);
    return tree_node_linked(n) ? node_of(trees::next(n), thread) : nullptr;
}

int wavl_walk(const wavl_tree *tree, uint32_t thread, wavl_walk_fn fn, void *context) {
    const wavl_tree *home = home_of(tree, thread);
    if (home == nullptr || fn == nullptr) {
        return 0;
    }
    tree_node *n = trees::first(&home->heads[thread]);
    while (n != nullptr) {
        tree_node *behind = trees::next(n);
        if (fn(node_of(n, thread), context) == 0) {
            return 0;
        }
        n = behind;
    }
    return 1;
}

uint32_t wavl_count(const wavl_tree *tree, uint32_t thread) {
    const wavl_tree *home = home_of(tree, thread);
    return home != nullptr ? home->counts[thread] : 0;
}

cerrno shm_wavl_verify(const shm_wavl_fns *fns, const wavl_tree *tree, uint32_t thread,
                       uint64_t *count) {
    tree_compare_fn compare = compare_of(fns, thread);
    if (tree == nullptr || thread >= wavl_max_threads || compare == nullptr) {
        return EINVAL;
    }
    const wavl_tree *home = home_of(tree, thread);
    if (home == nullptr) {
        return TREE_E_NOT_RUNNING;
    }
    uint64_t seen = 0;
    const cerrno fault = trees::verify(&home->heads[thread], compare, &seen);
    if (count != nullptr) {
        *count = seen;
    }
    if (fault != 0) {
        return fault;
    }
    return seen == home->counts[thread] ? 0 : TREE_E_COUNT;
}
