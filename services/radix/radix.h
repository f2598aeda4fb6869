/* Ordered sets of bit-string keys whose linkage lies in the caller's record: exact search, longest
 * match, pre-order walk. Nothing is allocated to insert, so an insertion cannot run out of memory.
 *
 * Pre-order: a less specific record before those that it covers, then by key, bits compared most
 * significant first.
 *
 * Two families. rn_*: records begin with an rn_node_t and carry key and key length at places given
 * once per tree. rt_*: heads are placed by the caller, records begin with an rt_node_t and say
 * their key at insertion.
 *
 * Functions in trees. A tree may outlive its process, a function pointer does not. A tree remembers
 * which process set its functions; in any other process what would call one fails with
 * RADIX_E_NO_FUNCTIONS until rn_set_fns or rt_aux_init was called there. Such a pointer is never
 * called.
 *
 * Thread-safety: writers and readers of a tree need the caller's lock. Every change is one journal
 * group.
 *
 * Results: 0, EINVAL (NULL argument, impossible field), EEXIST (equal key of equal length in the
 * tree), or a code below. On an error nothing has changed.
 */
#ifndef MFWD6_SERVICES_RADIX_H
#define MFWD6_SERVICES_RADIX_H

#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>

#include "services/cerrno.h"
#include "services/export.h"

MFWD6_BEGIN_C

enum {
    RADIX_E_BAD_TREE = 0x44a01101, /* not a tree */
    RADIX_E_LINKED = 0x44a01102, /* insertion of a record that is in a tree: clear its node first */
    RADIX_E_NOT_LINKED = 0x44a01103,   /* deletion of a record that is not in this tree */
    RADIX_E_NO_FUNCTIONS = 0x44a01104, /* the functions of this tree were not set in this process */
    RADIX_E_LENGTH = 0x44a01105        /* key length above RADIX_MAX_BITS */
};

enum { RADIX_MAX_BITS = 2048 };

/* First member of a record; zeroed means in no tree. 32 bytes. */
typedef struct rn_node {
    struct rn_node *parent;
    struct rn_node *left;
    struct rn_node *right;
    uint32_t tree;   /* id of the tree that holds it, 0 for none */
    int32_t balance; /* height of the right side less that of the left */
} rn_node_t;

typedef void (*rn_destructor_fn)(rn_node_t *record);
typedef void *(*rn_alloc_fn)(size_t size);
/* Non-zero ends the walk and is its result. The arguments are those given to rn_walktree, from the
 * first. */
typedef int (*rn_walk_fn)(rn_node_t *record, va_list arguments);

typedef struct rn_root {
    uint32_t magic;
    uint32_t id;
    rn_node_t header; /* parent: root, left: first, right: last */
    uint64_t count;
    uint32_t key_offset;
    uint32_t length_offset;
    uint32_t mode;
    uint32_t from_heap;
    rn_destructor_fn destructor;
    uint64_t functions_of; /* identity of the process that set `destructor` */
} rn_root_t;

/* Makes a tree in process memory, for records with the key at `key_offset` and a key length of 2
   bytes, in bits, at `length_offset`, both counted from the start of the record: (32, 36) is a u32
   key right behind the node and its length behind it. `destructor` is called by rn_delete and
   rn_tree_destroy; NULL: none. */
MFWD6_EXPORT rn_root_t *rn_tree_init(uint32_t key_offset, uint32_t length_offset,
                                     rn_destructor_fn destructor);

/* Makes a tree in a block of `allocator`, which is called once with sizeof(rn_root_t). The block
   and the records lie in the window: changes are journaled. It belongs to the caller, who gives it
   back with an empty tree or after rn_tree_destroy. `mode` is the width of the record's key length
   in bytes: 1, 2 or 4. NULL on failure. */
MFWD6_EXPORT rn_root_t *rn_tree_init_v2(uint32_t key_offset, uint32_t length_offset,
                                        rn_destructor_fn destructor, rn_alloc_fn allocator,
                                        int mode);

/* Sets the destructor (of this process) and the mode, which must be that of the tree. */
MFWD6_EXPORT int rn_set_fns(rn_root_t *root, rn_destructor_fn destructor, int mode);

/* Key bits behind the length are ignored. */
MFWD6_EXPORT int rn_insert(rn_root_t *root, void *record);

/* Takes the record out, zeroes its node and calls the destructor with it, all in one journal group:
   memory that the destructor frees in the window goes if the record goes. */
MFWD6_EXPORT int rn_delete(rn_root_t *root, void *record);

/* Exact: the record with this key of this length, or NULL. */
MFWD6_EXPORT rn_node_t *rn_search(const rn_root_t *root, const void *key, uint32_t bits);

/* Longest match: the longest record that covers the first `bits` bits of key, or NULL. */
MFWD6_EXPORT rn_node_t *rn_lookup(const rn_root_t *root, const void *key, uint32_t bits);

/* First and next record in pre-order, or NULL. Take the successor before deleting the record at
 * hand. */
MFWD6_EXPORT rn_node_t *rn_preorder_firstnode(const rn_root_t *root);
MFWD6_EXPORT rn_node_t *rn_preorder_successor(const rn_root_t *root, const rn_node_t *record);

/* Calls `fn` for each record in pre-order. The next record is found before the call, so `fn` may
   delete the record that it is given, and no other. */
MFWD6_EXPORT int rn_walktree(rn_root_t *root, rn_walk_fn fn, ...);

/* Deletes all records, each with the destructor. A root made by rn_tree_init is freed; any other is
   emptied and no tree any more. Killed in the middle, the tree is whole and holds what was not
   deleted yet. */
MFWD6_EXPORT int rn_tree_destroy(rn_root_t *root);

MFWD6_EXPORT uint64_t rn_count(const rn_root_t *root);

/* Proves links, balance, order and count; NULL when all hold, else what is wrong. */
MFWD6_EXPORT const char *rn_verify(const rn_root_t *root);

/* --- heads placed by the caller
 * --------------------------------------------------------------------------- */

/* First member of a record; zeroed means in no tree. */
typedef struct rt_node {
    rn_node_t link;
    struct rt_head *head; /* the tree, while in one */
    const void *key;      /* as given to rt_insert: must stay where it is */
    uint64_t key_bits;
} rt_node_t;

typedef void (*rt_node_free_fn)(rt_node_t *record);
typedef void *(*rt_alloc_fn)(size_t size);
typedef void (*rt_free_fn)(void *block);
typedef int (*rt_walk_fn)(rt_node_t *record, void *argument);

/* Functions of a tree. The allocation functions are kept for structures with nodes besides those of
   the caller; this one has none and does not call them. */
typedef struct rt_aux {
    uint32_t magic;
    uint32_t flags;
    rt_node_free_fn node_free;
    rt_alloc_fn alloc;
    rt_free_fn free;
    uint64_t functions_of;
} rt_aux_t;

typedef struct rt_head {
    rn_root_t root;
    rt_aux_t *aux;
} rt_head_t;

/* Sets up `aux`; repeated in a new process for a tree that outlived the last one, whose records
   stay. `flags` is 0. Returns 1, or 0 on a bad argument. */
MFWD6_EXPORT int rt_aux_init(rt_aux_t *aux, rt_node_free_fn node_free, uint32_t flags);
MFWD6_EXPORT cerrno rt_mem_allocation_ext(rt_aux_t *aux, rt_alloc_fn alloc, rt_free_fn free);

/* Makes an empty tree of `head`. Not for a head that has records. Returns 1, or 0 on a bad
 * argument. */
MFWD6_EXPORT int rt_root_init(rt_head_t *head, rt_aux_t *aux);

MFWD6_EXPORT cerrno rt_insert(rt_head_t *head, void *record, uint32_t bits, const void *key);
/* Takes the record out of its tree and gives it to node_free. */
MFWD6_EXPORT cerrno rt_delete(void *record);
MFWD6_EXPORT rt_node_t *rt_search(const rt_head_t *head, const void *key, uint32_t bits);
MFWD6_EXPORT rt_node_t *rt_lookup(const rt_head_t *head, const void *key, uint32_t bits);
/* As rn_walktree; the first non-zero result ends the walk and is returned. */
MFWD6_EXPORT int rt_walktree(rt_head_t *head, rt_walk_fn fn, void *argument);
MFWD6_EXPORT const char *rt_verify(const rt_head_t *head);

MFWD6_END_C

#ifdef __cplusplus
static_assert(sizeof(rn_node_t) == 32, "records place their key right behind the node");
static_assert(sizeof(rn_root_t) == 80, "lies in shared memory");
static_assert(sizeof(rt_node_t) == 56, "lies in shared memory");
static_assert(sizeof(rt_head_t) == 88, "lies in shared memory");
#endif

#endif
