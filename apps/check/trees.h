// Balanced trees through records: order, balance, links both ways, ends and counts.
#ifndef MFWD6_APPS_CHECK_TREES_H
#define MFWD6_APPS_CHECK_TREES_H

#include <functional>

#include "apps/check/walk.h"
#include "services/radix/radix.h"
#include "services/trees/node.h"
#include "services/trees/wavl.h"

namespace mfwd6::check {

// Called with each record in ascending order.
using visit_record = std::function<void(const void *record)>;

// A tree of tree_nodes that lie `node_offset` bytes into records of this kind. `field` is the
// member of `owner` that holds the head. The number of records met.
uint64_t walk_tree(walk &w, const subject &owner, const char *field, const tree_node *head,
                   const kind &record, uint32_t node_offset, tree_compare_fn compare,
                   const visit_record &visit);

// One thread of a WAVL tree, its count included; a tree that is not running has no records. The
// node of thread 0 lies `node_offset` bytes into a record.
uint64_t walk_thread(walk &w, const subject &owner, const char *field, const wavl_tree *tree,
                     uint32_t thread, const kind &record, uint32_t node_offset,
                     tree_compare_fn compare, const visit_record &visit);

// A radix tree whose records begin with their node and keep their key where the root says. `root`
// is what the owner's field holds; its block is marked.
uint64_t walk_radix(walk &w, const subject &owner, const char *field, const rn_root_t *root,
                    const kind &head, const kind &record, const visit_record &visit);

// The same for a root that is known to be there.
uint64_t walk_radix_at(walk &w, const subject &owner, const char *field, const rn_root_t *root,
                       const kind &record, const visit_record &visit);

}  // namespace mfwd6::check

#endif
