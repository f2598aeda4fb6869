/* Tries for routes, signals and encapsulation ids: exact and longest match, ordered walk, less
 * specific.
 *
 * Two families of names share one engine: ip6mc_gtrie_platform_* for tries that a platform may
 * mirror in hardware, ip6mc_gtrie_* for tries in software only. A handle of one family works with
 * the functions of the other.
 *
 * Keys. A key buffer holds the key bits most significant first; bits behind the length are ignored.
 *   256 bits  group in bytes 0-15, source in bytes 16-31.
 *   269 bits  the same bytes in front; the 13 bits more are the table's part of the key and stand
 * ahead of the group in the order of the trie. make_prefix writes them, low byte last, into bytes
 * 32 and 33; the functions below take them from the handle and not from the buffer.
 *             get_pfx_len_adjusted adds 13, and lengths given to the functions below are adjusted
 * ones. 1-256     any other length (20 for encapsulation ids): plain keys, lengths as they are. An
 * adjusted length below 13 of a 269-bit key means all tables of the trie, in first_leaf only.
 *
 * Sharing. With ip6mc_gtrie_set_sharing(1) in force, tables with 269-bit keys that have the same
 * window, and kind share one physical trie; without, each table has its own.
 * A handle stays with the trie it was made on, whatever the switch says later. In a shared trie
 *   - lookup, lookup_exact, leaf_create, leaf_insert, leaf_delete, less_specific_of_leaf see and
 * change the leaves of the handle's own table only;
 *   - first_leaf with a length of 13 or more gives leaves of the own table only;
 *   - next_leaf goes on into the leaves of the tables behind: the caller tests the table of the
 * leaf. Two tables with the same 13 bits do not share: the second one gets a trie of its own.
 *
 * Order of walks: by table part, then a less specific leaf before those that it covers, then by
 * key.
 *
 * Leaves. A leaf is named by the address of its record. The record is zeroed, of the size asked
 * for, aligned to 8 bytes; what the trie keeps for it stands in front of it in the same block.
 * leaf_create makes a detached leaf that no lookup finds; one store of leaf_insert makes it
 * visible, one of leaf_delete hides it; leaf_free gives the memory back through free_fn. A deleted
 * leaf cannot be inserted again.
 *
 * Thread-safety. One writer per physical trie at a time: the owner, or who holds the lock that
 * guards the trie (signal tries). Readers in any process run beside it without a lock and see each
 * leaf either whole or not at all; a leaf that is in the trie during the whole call is never
 * missed. Readers may see a block until it is reused: who has such readers delays frees inside
 * free_fn. Every change is one journal group.
 *
 * Errors. Functions with an `error` argument write 0 or a code there (NULL is allowed) and, where
 * they return a cerrno, return the same. Functions that return a leaf give NULL both when there is
 * none (code 0) and on an error. On an error nothing has changed.
 */
#ifndef MFWD6_SERVICES_GTRIE_H
#define MFWD6_SERVICES_GTRIE_H

#include <stddef.h>
#include <stdint.h>

#include "services/cerrno.h"
#include "services/export.h"

MFWD6_BEGIN_C

/* Codes beside EINVAL, ENOMEM and EEXIST (errno(3)). */
enum {
    GTRIE_E_BAD_HANDLE = 0x44a01001,   /* not a handle, or one that was closed */
    GTRIE_E_BAD_LEAF = 0x44a01002,     /* not a leaf of this trie */
    GTRIE_E_EXISTS = 0x44a01003,       /* a leaf with this key and length is in the trie */
    GTRIE_E_LINKED = 0x44a01004,       /* leaf_free or leaf_insert of a leaf that is in the trie */
    GTRIE_E_DETACHED = 0x44a01005,     /* leaf_delete of a leaf that is not in the trie */
    GTRIE_E_REMOVED = 0x44a01006,      /* leaf_insert of a leaf that was deleted */
    GTRIE_E_NOT_EMPTY = 0x44a01007,    /* close of a table that has leaves, detached ones too */
    GTRIE_E_NO_FUNCTIONS = 0x44a01008, /* this process has not said how to allocate: see re_init */
    GTRIE_E_MISMATCH = 0x44a01009, /* re_init with other parameters than the trie was made with */
    GTRIE_E_LENGTH = 0x44a0100a, /* length above the key length, or below 13 where it must not be */
    GTRIE_E_PARAMS = 0x44a0100b  /* parameter record with an impossible field */
};

/* Types given to alloc_fn and free_fn. */
enum {
    GTRIE_ALLOC_LEAF = 9,   /* leaf: the trie's part and the record */
    GTRIE_ALLOC_NODE = 21,  /* node of the ordered structure */
    GTRIE_ALLOC_INDEX = 22, /* part of the hash index */
    GTRIE_ALLOC_HANDLE = 23 /* handle, trie */
};

/* gtrie_kind */
enum {
    GTRIE_KIND_DEFAULT = 0,        /* routes of the default table */
    GTRIE_KIND_DEFAULT_SIGNAL = 1, /* signals of the default table */
    GTRIE_KIND_TABLE = 2,          /* routes of any other table */
    GTRIE_KIND_TABLE_SIGNAL = 3,   /* signals of any other table */
    GTRIE_KIND_ENCAP = 4           /* encapsulation ids */
};

enum {
    GTRIE_KEY_BITS = 256,
    GTRIE_TABLE_BITS = 13,
    GTRIE_TABLE_KEY_BITS = 269,
    GTRIE_PREFIX_BYTES = 256, /* size of a caller's key buffer */
    GTRIE_NODE_SIZE = 624     /* largest ordered node: 112 bytes and 64 children */
};

typedef void *(*ip6mc_gtrie_alloc_fn)(size_t size,
                                      uint32_t type); /* zeroed, 8-aligned; NULL: no memory */
typedef cerrno (*ip6mc_gtrie_free_fn)(void *block, uint32_t type);

typedef struct ip6mc_gtrie_params {
    uint64_t version_mark; /* 0 */
    void *evm;             /* event manager; kept by nobody */
    uint32_t shared;       /* 1: the trie lies in the window `shmwin_id` */
    uint32_t shmwin_id;
    uint32_t gtrie_kind;  /* GTRIE_KIND_* */
    uint32_t gtrie_usage; /* 0 software, 2 egress, 3 ingress and egress; kept for display */
    uint32_t tid_decoded; /* the low 13 bits are the table's part of a 269-bit key */
    uint32_t flags;       /* 1 */
    uint32_t key_bits;    /* 269, or 1 to 256 */
    uint32_t node_size;   /* bytes a node may have: 0 for no limit, else GTRIE_NODE_SIZE or more */
    ip6mc_gtrie_alloc_fn alloc_fn;
    ip6mc_gtrie_free_fn free_fn;
    uint64_t leaf_position; /* place of an ip6mc_gtrie_leaf_t in the record, or 0 for none */
} ip6mc_gtrie_params_t;

/* Field of a record that names its leaf_position: written by leaf_create, not to be touched. */
typedef struct ip6mc_gtrie_leaf {
    void *trie;      /* physical trie of the leaf */
    uint64_t linked; /* 1 from leaf_insert to leaf_delete */
} ip6mc_gtrie_leaf_t;

/* --- life
 * ------------------------------------------------------------------------------------------- */

/* Starts and stops the platform family in this process. Stopping forgets what the process knows of
   its handles (as reset_handle_db does); the tries stay. Both may be repeated. */
MFWD6_EXPORT cerrno ip6mc_gtrie_platform_lib_init(void *evm, int attach_only);
MFWD6_EXPORT cerrno ip6mc_gtrie_platform_lib_terminate(int attach_only);

/* Clears the process's record of the last failure of an init. */
MFWD6_EXPORT void ip6mc_gtrie_platform_err_init(void);
/* That record: the code of the last init of either family that failed since err_init, else 0. */
MFWD6_EXPORT cerrno ip6mc_gtrie_last_error(void);

/* Makes a trie, or a further share of one. Returns the handle, which lies in memory of alloc_fn and
   serves every process that maps it; NULL with the code in *error. */
MFWD6_EXPORT void *ip6mc_gtrie_init(const ip6mc_gtrie_params_t *params, cerrno *error);
MFWD6_EXPORT void *ip6mc_gtrie_platform_init(const ip6mc_gtrie_params_t *params, cerrno *error);

/* Gives a trie that outlived its owner the memory functions of this process. Until then (or until
   ip6mc_gtrie_set_memory) what allocates or frees on it in this process fails with
   GTRIE_E_NO_FUNCTIONS. */
MFWD6_EXPORT cerrno ip6mc_gtrie_re_init(void *handle, const ip6mc_gtrie_params_t *params);
MFWD6_EXPORT cerrno ip6mc_gtrie_platform_re_init(void *handle, const ip6mc_gtrie_params_t *params);

/* Memory functions for all handles that this process was not told of by init or re_init: an
   attached client that posts signals calls it once after the window is open. NULL, NULL takes them
   back. */
MFWD6_EXPORT void ip6mc_gtrie_set_memory(ip6mc_gtrie_alloc_fn alloc_fn,
                                         ip6mc_gtrie_free_fn free_fn);

/* Ends the handle and sets *handle to NULL; the trie ends with its last handle. A table that has
   leaves, in the trie or detached, is not closed (GTRIE_E_NOT_EMPTY). A NULL *handle is success. */
MFWD6_EXPORT cerrno ip6mc_gtrie_close(void **handle);
MFWD6_EXPORT cerrno ip6mc_gtrie_platform_close(void **handle);

/* Forgets all that this process knows of handles: their memory functions and the shared tries. For
   use when the window loses its contents. `notify` changes nothing here. */
MFWD6_EXPORT cerrno ip6mc_gtrie_reset_handle_db(int notify);

/* Whether tables made from now on share tries (see above). Default 0. Returns the value before. */
MFWD6_EXPORT int ip6mc_gtrie_set_sharing(int on);

/* --- keys
 * ------------------------------------------------------------------------------------------- */

/* Builds a key from two addresses of 16 bytes, in a zeroed buffer of GTRIE_PREFIX_BYTES. */
MFWD6_EXPORT cerrno ip6mc_gtrie_make_prefix(void *handle, uint8_t *key, const void *source,
                                            const void *group);
MFWD6_EXPORT cerrno ip6mc_gtrie_platform_make_prefix(void *handle, uint8_t *key, const void *source,
                                                     const void *group);

/* Turns a length in bits of group and source into one of the key: *length + 13 for 269-bit keys. */
MFWD6_EXPORT cerrno ip6mc_gtrie_get_pfx_len_adjusted(void *handle, uint32_t *length);
MFWD6_EXPORT cerrno ip6mc_gtrie_platform_get_pfx_len_adjusted(void *handle, uint32_t *length);

/* --- reading: any process, any time
 * -------------------------------------------------------------------- */

/* Longest match on the full key. */
MFWD6_EXPORT void *ip6mc_gtrie_lookup(void *handle, const uint8_t *key, cerrno *error);
MFWD6_EXPORT void *ip6mc_gtrie_platform_lookup(void *handle, const uint8_t *key, cerrno *error);

MFWD6_EXPORT void *ip6mc_gtrie_lookup_exact(void *handle, const uint8_t *key, uint32_t length,
                                            cerrno *error);
MFWD6_EXPORT void *ip6mc_gtrie_platform_lookup_exact(void *handle, const uint8_t *key,
                                                     uint32_t length, cerrno *error);

/* First leaf, in walk order, of those that the prefix covers (itself included); NULL when there is
 * none. */
MFWD6_EXPORT void *ip6mc_gtrie_first_leaf(void *handle, const uint8_t *key, uint32_t length,
                                          cerrno *error);
MFWD6_EXPORT void *ip6mc_gtrie_platform_first_leaf(void *handle, const uint8_t *key,
                                                   uint32_t length, cerrno *error);

/* The leaf behind `leaf` in walk order, NULL at the end of the trie. A detached or deleted leaf,
   whose memory is still there, has its successor too. */
MFWD6_EXPORT void *ip6mc_gtrie_next_leaf(void *handle, void *leaf, cerrno *error);
MFWD6_EXPORT void *ip6mc_gtrie_platform_next_leaf(void *handle, void *leaf, cerrno *error);

/* The longest leaf that covers `leaf` and is not `leaf`, or NULL. */
MFWD6_EXPORT void *ip6mc_gtrie_less_specific_of_leaf(void *handle, void *leaf, cerrno *error);
MFWD6_EXPORT void *ip6mc_gtrie_platform_less_specific_of_leaf(void *handle, void *leaf,
                                                              cerrno *error);

/* --- writing: one writer
 * -------------------------------------------------------------------------------- */

/* Finds the leaf of this key, or makes a detached one with a record of `size` bytes. *leaf gets it,
 *created 1 for a new one, else 0 (also on failure, with *leaf NULL). */
MFWD6_EXPORT cerrno ip6mc_gtrie_leaf_create(void *handle, const uint8_t *key, uint32_t length,
                                            void **leaf, size_t size, int *created);
MFWD6_EXPORT cerrno ip6mc_gtrie_platform_leaf_create(void *handle, const uint8_t *key,
                                                     uint32_t length, void **leaf, size_t size,
                                                     int *created);

/* The same for a caller that has made sure that the key is new: a leaf that exists is
 *GTRIE_E_EXISTS, with leaf set to it. The window id is compared with that of the trie
 *(GTRIE_E_MISMATCH), here and below. */
MFWD6_EXPORT cerrno ip6mc_gtrie_leaf_create_shmem(void *handle, uint32_t shmwin_id,
                                                  const uint8_t *key, uint32_t length, void **leaf,
                                                  size_t size, cerrno *error);

MFWD6_EXPORT cerrno ip6mc_gtrie_leaf_insert(void *handle, void *leaf, cerrno *error);
MFWD6_EXPORT cerrno ip6mc_gtrie_leaf_insert_shmem(void *handle, uint32_t shmwin_id, void *leaf,
                                                  cerrno *error);
MFWD6_EXPORT cerrno ip6mc_gtrie_platform_leaf_insert(void *handle, void *leaf, cerrno *error);

MFWD6_EXPORT cerrno ip6mc_gtrie_leaf_delete(void *handle, void *leaf, cerrno *error);
MFWD6_EXPORT cerrno ip6mc_gtrie_leaf_delete_shmem(void *handle, uint32_t shmwin_id, void *leaf,
                                                  cerrno *error);
MFWD6_EXPORT cerrno ip6mc_gtrie_platform_leaf_delete(void *handle, void *leaf, cerrno *error);

/* For detached and deleted leaves. */
MFWD6_EXPORT cerrno ip6mc_gtrie_leaf_free(void *handle, void *leaf);
MFWD6_EXPORT cerrno ip6mc_gtrie_platform_leaf_free(void *handle, void *leaf);

/* The detached leaf of this table that was made last, NULL when there is none: what a killed writer
   had made and not inserted. It is on this list until it is inserted or freed. */
MFWD6_EXPORT void *ip6mc_gtrie_first_detached(void *handle);

/* The one made before `leaf`; NULL when there is none, and for what is no detached leaf of it. */
MFWD6_EXPORT void *ip6mc_gtrie_next_detached(void *handle, void *leaf);

/* --- inspection
 * ---------------------------------------------------------------------------------------- */

typedef struct ip6mc_gtrie_stats {
    uint64_t leaves;      /* of the handle's table */
    uint64_t trie_leaves; /* of all tables of the trie */
    uint64_t handles;     /* of the trie */
    uint64_t nodes;       /* nodes of the ordered structure */
    uint64_t node_bytes;  /* their bytes */
    uint64_t index_bytes; /* bytes of the hash index */
    uint64_t leaf_header; /* bytes in front of each record */
    uint64_t not_indexed; /* leaves whose bucket was full: found through the ordered structure */
    uint64_t depth;       /* nodes from the root to the deepest leaf */
} ip6mc_gtrie_stats_t;

/* Walks the whole trie; not beside a writer. */
MFWD6_EXPORT cerrno ip6mc_gtrie_get_stats(void *handle, ip6mc_gtrie_stats_t *stats);

/* Proves the invariants of the physical trie: every link both ways, order, prefixes, counts, index.
   NULL when all hold, else a text that names what is wrong. Not beside a writer. */
MFWD6_EXPORT const char *ip6mc_gtrie_verify(void *handle);

/* Calls `fn` with every block that the physical trie and its handles use (leaves in it and detached
   ones included), with its type, for a checker that looks for orphans. Not beside a writer. */
MFWD6_EXPORT cerrno ip6mc_gtrie_walk_blocks(
    void *handle, void (*fn)(const void *block, uint32_t type, void *context), void *context);

/* Replaces the hash function in this process's inits from now on: 0 the real one, 1 a constant. The
   choice is kept in the trie. For tests of the worst case. */
MFWD6_EXPORT void ip6mc_gtrie_set_hash_for_tests(int constant);

MFWD6_END_C

#endif
