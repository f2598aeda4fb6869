// The tree below both families: a height-balanced tree in pre-order of the keys, linked through the
// records.
#ifndef MFWD6_SERVICES_RADIX_TREE_H
#define MFWD6_SERVICES_RADIX_TREE_H

#include "services/radix/bits.h"
#include "services/radix/radix.h"

namespace mfwd6::radix {

inline constexpr uint32_t root_magic = 0x726e7274;
inline constexpr uint32_t indirect = 8;  // mode of rt trees: the node says where its key is

// Names this process (and its forks) among all that may have set the functions of a tree.
uint64_t this_process();

bits key_of(const rn_root_t *root, const rn_node_t *record);
bool is_tree(const rn_root_t *root);

// Writes an empty tree over *root.
void make_tree(rn_root_t *root, uint32_t key_offset, uint32_t length_offset, uint32_t mode,
               bool from_heap);

cerrno insert(rn_root_t *root, rn_node_t *record, const bits &key);
// `record` is in the tree.
void erase(rn_root_t *root, rn_node_t *record);
rn_node_t *find(const rn_root_t *root, const bits &key);
rn_node_t *find_longest(const rn_root_t *root, bits key);
rn_node_t *first(const rn_root_t *root);
rn_node_t *next(const rn_root_t *root, const rn_node_t *record);

}  // namespace mfwd6::radix

#endif
