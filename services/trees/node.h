// What the balanced trees of shared and private memory have in common: the node, the comparison,
// the codes.
//
// Trees are intrusive: the links lie in the caller's record, the tree owns no record. They are AVL
// trees; every change is one journal group (services/journal) and joins the caller's, so that a
// writer killed at any instruction leaves the tree as it was before the call or as it is after it.
//
// Locks. A change needs the writer's side of the lock that covers the tree; a search, a walk, a
// step to the next record needs its reader's side. The trees take no lock themselves.
//
// Private memory. A tree in memory of the process alone works the same, without a journal. Change
// it where no log is bound (see services/journal): a log in a window would keep addresses that mean
// nothing to the process that recovers it.
//
// Functions. No function pointer is ever kept in a tree: it would belong to the process that stored
// it. Comparisons come with each call.
#ifndef MFWD6_SERVICES_TREES_NODE_H
#define MFWD6_SERVICES_TREES_NODE_H

#include <stddef.h>
#include <stdint.h>

#include "services/cerrno.h"
#include "services/export.h"

// Links of one record in one ordering. Zero before its first insertion, and zero again in `up`
// after each removal: a node whose `up` is not zero is in a tree and is refused by insertion. 24
// bytes.
struct tree_node {
    uintptr_t up;  // the parent's address; in its two low bits 0 even, 1 left higher, 2 right
                   // higher, 3 head
    struct tree_node *left;   // in a head: the first node
    struct tree_node *right;  // in a head: the last node
};

// Compares two nodes of the same ordering: 0 when `a` is less than `b`, 1 when equal, 2 when
// greater. Gets the address of the node of that ordering, not of the record. A search key is a
// record (or enough of one) with the key fields filled in, so it has such a node too; its links are
// not looked at.
typedef int (*tree_compare_fn)(const void *a, const void *b);

enum { tree_less = 0, tree_equal = 1, tree_greater = 2 };

// Codes of this service, with texts in cerr_strerror. Besides: EINVAL for null or impossible
// arguments, EEXIST for a key that the tree holds already, EBUSY for a node that is in a tree,
// ENOMEM.
#define TREE_E_NOT_RUNNING \
    ((cerrno)0x44024100) /* no tree was made at this address, or it was finished */
#define TREE_E_NOT_FOUND                                                                     \
    ((cerrno)0x44024600)                  /* no record fits, or the node is not in this tree \
                                           */
#define TREE_E_ORDER ((cerrno)0x44024701) /* verify: two neighbours are not in ascending order */
#define TREE_E_BALANCE \
    ((cerrno)0x44024702)                  /* verify: heights differ by more than noted or allowed */
#define TREE_E_LINKS ((cerrno)0x44024703) /* verify: a parent, first or last link is wrong */
#define TREE_E_COUNT ((cerrno)0x44024704) /* verify: the head counts other than there are */

// True while `node` is in some tree.
static inline int tree_node_linked(const struct tree_node *node) {
    return node->up != 0;
}

#ifdef __cplusplus
#include <type_traits>
static_assert(sizeof(tree_node) == 24 && alignof(tree_node) == 8,
              "records of other processes embed it");
static_assert(std::is_standard_layout_v<tree_node> && std::is_trivially_copyable_v<tree_node>);
#endif

#endif
