// AVL trees: one ordering for a record.
//
// Two forms. `avl_*` works on a root that lies in a record of the caller, in shared or private
// memory, on nodes anywhere inside the caller's records. `shm_avl_*` works on a head that the
// service allocates in a window, whose objects carry their node at offset 0, so that object, record
// and node are one address.
//
// See services/trees/node.h for locks, crash safety, comparison and codes.
#ifndef MFWD6_SERVICES_TREES_AVL_H
#define MFWD6_SERVICES_TREES_AVL_H

#include "services/trees/node.h"

// Node of a record in an `avl_tree` or a `shm_avl_tree`.
typedef struct tree_node avl_node;

// Root of a tree in the caller's record. All zero is an empty tree; no set-up, nothing to give
// back. Stays where it is while it has nodes: the topmost one points back to it.
typedef struct avl_tree {
    struct tree_node head;
} avl_tree;

// Head of a tree in a window. Made by shm_avl_tree_init; private to the service.
typedef struct shm_avl_tree shm_avl_tree;

// Memory for heads and objects: `count` times `size` bytes, zeroed, aligned to 8; null when there
// is none.
typedef void *(*shm_avl_alloc_fn)(size_t count, size_t size);
typedef cerrno (*shm_avl_free_fn)(void *memory);

// What one process brings to a tree in a window. Lies in process data and is given with each call;
// where it is null, the functions count that this process named with avl_tree_init_fns_shm.
struct shm_avl_fns {
    shm_avl_alloc_fn node_alloc;
    shm_avl_free_fn node_free;
    void *unused1;  // null
    void *unused2;  // null
    tree_compare_fn compare;
};

// What shm_avl_tree_search looks for. Other numbers are refused.
enum shm_avl_search_mode {
    shm_avl_exact = 1,
    shm_avl_next = 4,           // the least that is greater than the key
    shm_avl_next_or_equal = 5,  // the least that is not less than the key
    shm_avl_first = 6,          // the least of all; the key may be null
};

// Walk function: 0 goes on, any other code ends the walk and is its result. It may take the object
// that it was given out of the tree and free it; it must not take out any other.
typedef cerrno (*avl_walk_fn)(void *object, void *context);

MFWD6_BEGIN_C

// Allocates an empty tree with `fns->node_alloc` and stores its head in `*root`, which must be null
// before. `threads` is the number of orderings, of which this form has 1; `flags` is 0. EINVAL,
// EEXIST (`*root` is set), ENOMEM: `*root` unchanged. A process killed in here leaves `*root` null.
MFWD6_EXPORT cerrno shm_avl_tree_init(const struct shm_avl_fns *fns, shm_avl_tree **root,
                                      uint32_t threads, uint32_t flags);

// Memory for an object of `size` bytes (at least a node), zeroed, in no tree; belongs to the
// caller. Serves also as a search key. EINVAL, TREE_E_NOT_RUNNING, ENOMEM: `*object` unchanged.
MFWD6_EXPORT cerrno shm_avl_tree_allocate_object(const struct shm_avl_fns *fns, shm_avl_tree *root,
                                                 size_t size, void **object);

// Gives back an object. EBUSY while it is in a tree; else the result of `fns->node_free`.
MFWD6_EXPORT cerrno shm_avl_tree_free_object(const struct shm_avl_fns *fns, shm_avl_tree *root,
                                             void *object);

// Puts an object in its place. EEXIST when the tree has its key, EBUSY when the object is in a
// tree: nothing changed.
MFWD6_EXPORT cerrno shm_avl_tree_insert(const struct shm_avl_fns *fns, shm_avl_tree *root,
                                        void *object);

// Takes an object out; its memory stays the caller's. Found by its links, not by its key, so that
// an object whose key was changed can still leave. TREE_E_NOT_FOUND when it is not in this tree.
MFWD6_EXPORT cerrno shm_avl_tree_delete(const struct shm_avl_fns *fns, shm_avl_tree *root,
                                        void *object);

// Finds by `mode` (enum shm_avl_search_mode). 0 and `*found`; TREE_E_NOT_FOUND; EINVAL,
// TREE_E_NOT_RUNNING.
// `*found` is null after any failure.
MFWD6_EXPORT cerrno shm_avl_tree_search(const struct shm_avl_fns *fns, const shm_avl_tree *root,
                                        uint32_t mode, const void *key, void **found);

// Calls `fn` for each object in ascending order. The result of the walk; EINVAL for a null `root`
// or `fn`.
MFWD6_EXPORT cerrno avl_tree_walk(const shm_avl_tree *root, avl_walk_fn fn, void *context);

// Names the functions that this process uses on `root` in calls whose `fns` is null. Kept in
// process memory, again from each process after each start; naming them again replaces them.
// `node_alloc` and `node_free` may be null where they are not needed. At most 16 trees a process:
// ENOSPC. EINVAL for a null `root` or `compare`. Any thread.
MFWD6_EXPORT cerrno avl_tree_init_fns_shm(shm_avl_tree *root, tree_compare_fn compare,
                                          shm_avl_alloc_fn node_alloc, shm_avl_free_fn node_free);

// Objects in the tree; 0 for null.
MFWD6_EXPORT uint64_t shm_avl_tree_count(const shm_avl_tree *root);

// Proves order, balance, links and count. 0, or what is wrong (see node.h); `*count`, where not
// null, gets the number of objects seen.
MFWD6_EXPORT cerrno shm_avl_tree_verify(const struct shm_avl_fns *fns, const shm_avl_tree *root,
                                        uint64_t *count);

// Puts `node` in its place. `node`, or null when the key is there already, when the node is in a
// tree, or when an argument is null: nothing changed.
MFWD6_EXPORT avl_node *avl_insert(avl_tree *root, avl_node *node, tree_compare_fn compare);

// Takes `node` out. `node`, or null when it is not in this tree. Needs no comparison.
MFWD6_EXPORT avl_node *avl_delete(avl_tree *root, avl_node *node);

// The node equal to `key`, or null.
MFWD6_EXPORT avl_node *avl_search(const avl_tree *root, const avl_node *key,
                                  tree_compare_fn compare);

// Steps in ascending order; null at the end, and for a node that is in no tree.
MFWD6_EXPORT avl_node *avl_first(const avl_tree *root);
MFWD6_EXPORT avl_node *avl_next(const avl_node *node);

// Like shm_avl_tree_verify.
MFWD6_EXPORT cerrno avl_verify(const avl_tree *root, tree_compare_fn compare, uint64_t *count);

MFWD6_END_C

#ifdef __cplusplus
static_assert(sizeof(avl_tree) == 24, "records of other processes embed it");
#endif

#endif
