// WAVL trees: up to three orderings, called threads, of the same records.
//
// The head lies in a record of the caller and is 96 bytes; all zero is "not running". A record
// carries one `tree_node` per thread, side by side, thread 0 first. "Node" in this header is the
// address of thread 0's node, which stands for the record in every call and every result, whatever
// the thread. Comparisons get the address of the node of their own thread: `(const tree_node *)node
// + thread`.
//
// A record may be in some threads and not in others. One record may be in two trees at once on
// different threads (a global tree on thread 0, a table's tree on thread 1).
//
// A head may be copied: a copy is another name for the same tree, good for everything until the
// tree is finished, whatever changes meanwhile. The tree itself stays where it was made.
//
// See services/trees/node.h for locks, crash safety, comparison and codes.
#ifndef MFWD6_SERVICES_TREES_WAVL_H
#define MFWD6_SERVICES_TREES_WAVL_H

#include "services/trees/node.h"

// Node area of a record: an array of these, one per thread.
typedef struct tree_node wavl_node;

enum { wavl_max_threads = 3 };

typedef struct wavl_tree {
    uint32_t state;                     // 0 is not running, else a mark with the number of threads
    uint32_t counts[wavl_max_threads];  // records in each thread
    struct wavl_tree *home;             // this head; in a copy the one it was copied from
    struct tree_node heads[wavl_max_threads];
} wavl_tree;

// What one process brings to a tree. Lies in process data and is given with each call. The service
// needs the comparisons only: a WAVL tree has no memory of its own. The rest is there for callers.
struct shm_wavl_fns {
    void *(*node_alloc)(size_t size);
    cerrno (*node_free)(void *memory);
    void *(*node_to_record)(void *node);
    const tree_compare_fn *compare;  // one per thread of the tree
    void *unused;                    // null
};

// Walk function: gets the node; non-zero goes on, 0 ends the walk. It may take the record that it
// was given out of the tree and free it; it must not take out any other.
typedef int (*wavl_walk_fn)(void *node, void *context);

MFWD6_BEGIN_C

// True while the tree at this head is running: between shm_wavl_init and finish, in this process or
// another, before a restart or after it. False for null and for zeroes.
MFWD6_EXPORT int wavl_running(const wavl_tree *tree);

// Starts an empty tree of `threads` threads (1 to 3) on memory that is zero or once held a finished
// tree. EINVAL; EEXIST when it is running. A process killed in here leaves it not running.
MFWD6_EXPORT cerrno shm_wavl_init(const struct shm_wavl_fns *fns, wavl_tree *tree,
                                  uint32_t threads);

// Ends the tree: the head becomes zero. Records that are still in it are not touched and not freed;
// their nodes must be zeroed before they go into a tree again. TREE_E_NOT_RUNNING, EINVAL. The two
// are the same; wavl_finish is for callers that have no functions at hand.
MFWD6_EXPORT cerrno shm_wavl_finish(const struct shm_wavl_fns *fns, wavl_tree *tree);
MFWD6_EXPORT cerrno wavl_finish(wavl_tree *tree);

// Puts a record into one thread. `node`, or null when that thread has its key, when the record is
// in a tree on this thread, when the tree is not running or an argument makes no sense: nothing
// changed.
MFWD6_EXPORT void *shm_wavl_insert_thread(const struct shm_wavl_fns *fns, wavl_tree *tree,
                                          void *node, uint32_t thread);

// Takes a record out of one thread. `node`, or null when it is not in this thread of this tree.
// Found by its links, not by its key, so that a record whose key was changed can still leave.
MFWD6_EXPORT void *shm_wavl_delete_thread(const struct shm_wavl_fns *fns, wavl_tree *tree,
                                          void *node, uint32_t thread);

// The node equal to `key`, or null. `key` is the node (thread 0) of a record with the key field
// filled in.
MFWD6_EXPORT void *shm_wavl_search(const struct shm_wavl_fns *fns, const wavl_tree *tree,
                                   const void *key, uint32_t thread);

// Steps in ascending order. Null at the end, and for a node that is in no tree on
// this thread.
MFWD6_EXPORT void *shm_wavl_get_first(const struct shm_wavl_fns *fns, const wavl_tree *tree,
                                      uint32_t thread);
MFWD6_EXPORT void *shm_wavl_get_next(const struct shm_wavl_fns *fns, const wavl_tree *tree,
                                     const void *node, uint32_t thread);

// Calls `fn` for each record of a thread in ascending order. 1 when all were visited, 0 when `fn`
// ended the walk or there is nothing to walk on (null, not running, no such thread). Needs no
// functions of the tree.
MFWD6_EXPORT int wavl_walk(const wavl_tree *tree, uint32_t thread, wavl_walk_fn fn, void *context);

// Records in one thread; 0 where there is nothing to count.
MFWD6_EXPORT uint32_t wavl_count(const wavl_tree *tree, uint32_t thread);

// Proves order, balance, links and count of one thread. 0, or what is wrong (see node.h); `*count`,
// where not null, gets the number of records seen.
MFWD6_EXPORT cerrno shm_wavl_verify(const struct shm_wavl_fns *fns, const wavl_tree *tree,
                                    uint32_t thread, uint64_t *count);

MFWD6_END_C

#ifdef __cplusplus
static_assert(sizeof(wavl_tree) == 96, "callers zero 96 bytes");
static_assert(std::is_standard_layout_v<wavl_tree> && std::is_trivially_copyable_v<wavl_tree>);
#endif

#endif
