// Routes and their interfaces: the two records around which the library turns.
//
// A route is (S,G) or (*,G/m), a leaf of its table's `ingress_gtrie`. Each interface that takes
// part in it is an entry owned by the route. Half of each record is filled by the library, half by
// the platform half: attribute words above all, see ip6mc_types.h.
//
// Thread-safety. The owner's operation thread writes. `tbl_rw_lock` guards the structure of
// `intf_tree`, nothing else here.
#ifndef IP6MC_ROUTE_H
#define IP6MC_ROUTE_H

#include <time.h>

#include "ipv4/multicast/lib/ip6mc_platform.h"
#include "ipv4/multicast/lib/ip6mc_types.h"
#include "services/cbuf/cbuf.h"
#include "services/events/ptimer.h"
#include "services/gtrie/gtrie.h"
#include "services/trees/avl.h"

// Key length of an (S,G) route, and the longest (*,G/m).
#define IPV4MC_ROUTE_PFX_LEN_SG 256
#define IPV4MC_ROUTE_PFX_LEN_STAR_G 128

// `route_flags`: the route is spared by a bulk delete that asks for it.
#define IPV4MC_ROUTE_FLAG_SRD UINT8_C(0x04)

// `intf_flags`.
#define IPV4MC_INTF_FLAG_ENCAP_OLE UINT8_C(0x02)  // on the encap output list of its route
#define IPV4MC_INTF_FLAG_IN_TREE UINT8_C(0x10)    // in `intf_tree` and on `intf_list`

// `intf_type`.
enum ipv4mc_intf_types { IPV4MC_INTF_ORDINARY = 0, IPV4MC_INTF_AMT = 1 };

// Index into `vrf_table`, `vrf_table_id`, `memd_next` and `memd_prev`.
enum ipv4mc_vrf_links { IPV4MC_VRF_LOCAL = 0, IPV4MC_VRF_REMOTE = 1, IPV4MC_VRF_LINKS = 2 };

// Accounting counters of a route, zeroed together.
typedef struct ipv4mc_route_acct_st {
    uint64_t words64[2];
    uint32_t words32[7];
} ipv4mc_route_acct_st;
IP6MC_RECORD(ipv4mc_route_acct_st, 48);

// Rate record of a route, a block of type IPMC_SHMWIN_ALLOC_ROUTE. All but the timestamp is the
// platform half's.
typedef struct ipv4mc_route_rate_st {
    uint8_t platform_head[128];
    struct timespec stamp;  // when it was made or zeroed
    uint8_t platform_tail[48];
} ipv4mc_route_rate_st;
static_assert(sizeof(ipv4mc_route_rate_st) == 192 && offsetof(ipv4mc_route_rate_st, stamp) == 128,
              "the platform half keeps its words around the timestamp");

struct ipv4mc_route_entry_st {
    ip_maddr_st group;           // key
    ip_maddr_st source;          // key; all zero for (*,G)
    ip_maddr_st aux_addr;        // third address of the route operation, no part of the key
    uint16_t pfx_len;            // 256 for (S,G), m for (*,G/m)
    uint64_t obj_id;             // IPMC_OBJ_ID_NONE: none
    cbuf *event_history;         // process memory of the owner; NULL until the first event
    uint8_t err;                 // 1 while the route stands on the retry queue
    uint8_t oor;                 // not 0 while it is held back for lack of hardware resources
    uint8_t group_mask_len;      // 128 for (S,G), else `pfx_len`
    uint8_t route_flags;         // platform half
    uint8_t counted_intf_cnt;    // interfaces with COUNTED; raised by the platform half
    uint8_t mi_cnt;              // interfaces of kind MI
    uint8_t lmi_cnt;             // LMI
    uint8_t tmi_cnt;             // TMI
    uint8_t irmi_cnt;            // IRMI; platform half, not cleared with the route
    uint8_t trmi_cnt;            // TRMI
    uint32_t clear_u32;          // platform half, cleared with the route
    uint32_t amt_intf_cnt;       // interfaces with REGDB
    uint16_t intf_local_EG_cnt;  // interfaces with EG
    void
        *preserved_pak;  // signal routes: packet kept for the control plane, owned by the data path
    uint64_t route_counters[6];  // platform half, zeroed at init and clear
    uint16_t clear_u16;          // platform half, cleared with the route
    uint8_t clear_u8;            // platform half, cleared with the route
    ipv4mc_table_st *table;      // the table it belongs to: the test of a leaf's ownership
    uint32_t
        extranet_table_id;  // platform half: table on whose `child_route_count` it stands, 0 none
    ipv4mc_table_st *vrf_table[IPV4MC_VRF_LINKS];  // of a core route
    uint32_t vrf_table_id[IPV4MC_VRF_LINKS];       // their ids, also when a table is not there
    uint16_t ex_eg_cnt;  // local egress interfaces counted for other tables
    ifhtype mdt_ifh;     // MDT interface held by the route itself (MH), 0 none
    ptimer_t route_timer;
    uint8_t mdt_candidate;   // 1 while on the MDT candidate list
    uint8_t rate_per_route;  // `rate` was made because the table has rate per route on
    uint8_t acct_per_prefix;
    uint8_t acct_fwd_only;
    uint32_t route_seqno;                // platform half
    uint8_t mofrr_active;                // of the last MoFRR update
    uint32_t mofrr_seqno;                // of the last MoFRR update
    uint8_t mofrr_pending;               // 1 after a MoFRR update
    struct timespec create_time;         // ptimer clock
    ipv4mc_intf_entry_st *intf_list;     // newest first
    avl_tree intf_tree;                  // the same entries by key
    ipv4mc_route_entry_st *change_next;  // changed-route list
    ipv4mc_route_entry_st *change_prev;
    ipv4mc_route_entry_st *memd_next[IPV4MC_VRF_LINKS];  // memd list of `vrf_table[i]`
    ipv4mc_route_entry_st *memd_prev[IPV4MC_VRF_LINKS];
    ipv4mc_route_entry_st *mdt_cand_next;  // MDT candidate list
    ipv4mc_route_entry_st *mdt_cand_prev;
    ipv4mc_route_entry_st *mt_upd_next;  // MT update list
    ipv4mc_route_entry_st *mt_upd_prev;
    ipv4mc_route_entry_st *amt_upd_next;  // AMT update list
    ipv4mc_route_entry_st *amt_upd_prev;
    ipv4mc_route_entry_st *mofrr_upd_next;  // MoFRR update list
    ipv4mc_route_entry_st *mofrr_upd_prev;
    ipv4mc_intf_entry_st *encap_ole_tail;  // interfaces that are encap output entries
    ipv4mc_intf_entry_st *encap_ole_head;
    mrib_attrib_entry_type attributes;
    mrib_attrib_ti_mofrr_type mofrr_attrib;
    ipv4mc_route_acct_st acct_stats;
    ipv4mc_route_rate_st *rate;  // NULL when the route has none
    uint8_t init_arg;
    ipv4mc_route_entry_st *IF_parent;  // of a route with IA: whose interfaces it inherits
    ipv4mc_encap_entry_st *encap;
    uint32_t rpf_id;
    uint8_t t_bit;
    uint8_t upd4_value;
    ipv4mc_route_entry_st *next_encap;  // routes of `encap`
    ipv4mc_route_entry_st *prev_encap;
    ipv4mc_regdb_entry_st *regdb_entry;  // the GRE transport that rides on this core route
};
IP6MC_RECORD(ipv4mc_route_entry_st, 544);
static_assert(offsetof(ipv4mc_route_entry_st, group) == 0 &&
                  offsetof(ipv4mc_route_entry_st, table) == 160 &&
                  offsetof(ipv4mc_route_entry_st, intf_list) == 256 &&
                  offsetof(ipv4mc_route_entry_st, attributes) == 416,
              "followed by processes that read beside the owner");

// Statistics of an interface entry. Some words are zeroed by a statistics clear, the others are
// left alone.
typedef struct ipv4mc_intf_stats_st {
    uint64_t words_a[2];
    uint8_t block_a[16];
    uint64_t words_b[2];
    uint8_t block_b[16];
    uint8_t kept_a[8];    // left alone
    uint32_t counted[2];  // not 0: something was counted
    uint8_t kept_b[16];   // left alone
} ipv4mc_intf_stats_st;
static_assert(sizeof(ipv4mc_intf_stats_st) == 96, "the platform half counts in place");

// A block that the platform half hangs on an interface entry; when the entry goes it joins
// `plat_block_list` of the window header.
typedef struct ipmc_plat_block_st {
    struct ipmc_plat_block_st *next;
} ipmc_plat_block_st;

struct ipv4mc_intf_entry_st {
    ipv4mc_intf_entry_st *next_intf;  // of the route's `intf_list`
    ipv4mc_intf_entry_st *prev_intf;
    uint32_t intf_type;  // key: one of ipv4mc_intf_types
    uint32_t key_ifh;    // key: `ifh` of an ordinary entry, 0 of an AMT entry
    uint32_t amt_addr;   // key: IPv4 address of the far end, network byte order
    uint16_t amt_port;   // key: UDP port of the far end
    ifhtype ifh;         // the interface; of an AMT entry the one underneath, which may change
    uint32_t intf_arg;   // the caller's; handle of the interface underneath
    mrib_attrib_entry_type attributes;
    struct timespec create_time;  // ptimer clock
    uint64_t obj_id;              // IPMC_OBJ_ID_NONE: none
    ipv4mc_intf_stats_st intf_stats;
    struct tree_node avl_node;  // in the route's `intf_tree`
    ipmc_plat_block_st *plat_block;
    ipv4mc_route_entry_st *route;    // set when the entry joins its route
    ipv4mc_intf_entry_st *idb_prev;  // of the interface's `route_list`
    ipv4mc_intf_entry_st *idb_next;
    ipv4mc_intf_entry_st
        *list_next;  // of `encap_ole_head` of the route or `intf_head` of a regdb entry
    ipv4mc_intf_entry_st *list_prev;
    ipv4mc_regdb_entry_st *regdb_entry;  // next hop of an interface with REGDB
    uint8_t intf_flags;
    uint8_t on_idb_list;      // 1 while on the interface's `route_list`
    ipv4mc_bvi_if_t *bvi_if;  // of an interface with BVI
};
IP6MC_RECORD(ipv4mc_intf_entry_st, 264);
static_assert(offsetof(ipv4mc_intf_entry_st, next_intf) == 0 &&
                  offsetof(ipv4mc_intf_entry_st, intf_type) == 16 &&
                  offsetof(ipv4mc_intf_entry_st, attributes) == 40 &&
                  offsetof(ipv4mc_intf_entry_st, avl_node) == 168,
              "followed by processes that read beside the owner");

// What a route update carries; `type` of the update says which field counts.
struct ipv4mc_route_update_st {
    uint32_t encap_id;  // 0 unlinks
    uint32_t rpf_id;
    uint64_t platform_words[5];  // the platform's only
    uint8_t t_bit;
    uint8_t t_count;  // not 0: the table's count of T bits is kept
    uint8_t upd4_value;
    uint8_t reserved[5];  // zero
};
static_assert(sizeof(ipv4mc_route_update_st) == 56 && offsetof(ipv4mc_route_update_st, t_bit) == 48,
              "exchanged with the platform library");

MFWD6_BEGIN_C

// One element of a route's event history.
#define IPV4MC_ROUTE_EVENT_TIME_SIZE 40
typedef struct ipv4mc_route_event_st {
    uint32_t event_code;
    char time[IPV4MC_ROUTE_EVENT_TIME_SIZE];  // "Nov 21 2026 03:14:15.926", local time
} ipv4mc_route_event_st;
static_assert(sizeof(ipv4mc_route_event_st) == 44, "element of the ring");

// The ring of events of a route, in process memory. NULL, with a report, when there is no memory.
MFWD6_EXPORT cbuf *mfwd_route_event_history_create(uint32_t count, uint32_t element_size);
MFWD6_EXPORT void mfwd_route_event_history_destroy(cbuf *handle);
MFWD6_EXPORT void mfwd_route_event_history_append(cbuf *handle,
                                                  const ipv4mc_route_event_st *element);

// Adds an event with the present time; the first one makes the ring (10 events).
MFWD6_EXPORT void mfwd_route_entry_event_add_msg(ipv4mc_route_entry_st *route, uint32_t code);

// Fills a leaf that the trie has just made. EFAULT, with a report, when the window is closed.
MFWD6_EXPORT cerrno ipv4mc_init_route(uint32_t ignored, const ip_maddr_st *source,
                                      const ip_maddr_st *group, uint16_t length,
                                      ipv4mc_route_entry_st *route, uint8_t arg);

// Makes an interface entry that is linked to nothing, with the platform's extension behind it.
// NULL, with a report, when the window is full.
MFWD6_EXPORT ipv4mc_intf_entry_st *ipv4mc_create_intf(ifhtype ifh, uint32_t intf_type,
                                                      uint32_t intf_arg, uint32_t amt_addr,
                                                      uint16_t amt_port);

// The record of a tree node, and the order of the tree: 0 less, 1 equal, 2 greater.
MFWD6_EXPORT ipv4mc_intf_entry_st *ipmc_intf_avl2intf(void *node);
MFWD6_EXPORT int ipmc_intf_avl_compare(const void *a, const void *b);

// The operations on a route. `table` is the table-id side; `source` and `group` with `pfx_len` are
// the key (a source makes it exact, whatever the length). Owner's operation thread; lookups from
// any process.
//   LOOKUP        longest match on the full key into `*route_entry`, NULL when there is none
//   EXACT LOOKUP  exact match
//   CREATE        a detached leaf, found by nobody: 0 with `*is_new` 1; or the route that exists:
//   EEXIST
//                 with `*is_new` 0. `aux_addr` is stored in either case, unless NULL
//   COMMIT        programs the platform and, for a new route, publishes it. The caller has written
//   the new
//                 attribute word into the record and passes the old one; `*is_new` is that of the
//                 CREATE
//   ACCT, RATE    accounting and the rate record
//   DELETE        takes the route off everything, hides and frees it. `*route_entry` may be NULL,
//   then
//                 the key tells. ENOENT when there is none, or with `*is_new` 1. A failure of the
//                 platform is reported only; one of an interface leaves the route with those left
//   CLEAR         drops interfaces, counters, links and object id; the leaf stays, to be filled
//   again
// Other actions succeed and do nothing. EBADF not ready, EINVAL, ENOMEM, EFAULT (trie), or what the
// platform said.
MFWD6_EXPORT cerrno ip6mc_route_operation(ipv4mc_action_type action, ipv4mc_table_st *table,
                                          const ip_maddr_st *source, const ip_maddr_st *group,
                                          uint16_t pfx_len, const ip_maddr_st *aux_addr,
                                          ipv4mc_route_entry_st **route_entry,
                                          mrib_attrib_entry_type old_attributes,
                                          mrib_attrib_ti_mofrr_type mofrr_attrib, int *is_new);

// The same without a report of its own for the result.
MFWD6_EXPORT cerrno ipv4mc_route_operation_helper(
    ipv4mc_action_type action, ipv4mc_table_st *table, const ip_maddr_st *source,
    const ip_maddr_st *group, uint16_t pfx_len, const ip_maddr_st *aux_addr,
    ipv4mc_route_entry_st **route_entry, mrib_attrib_entry_type old_attributes,
    mrib_attrib_ti_mofrr_type mofrr_attrib, int *is_new);

// Undoes a CREATE: frees the detached leaf and what hangs on it.
MFWD6_EXPORT void ip6mc_route_oper_create_fail_cleanup(ipv4mc_table_st *table,
                                                       ipv4mc_route_entry_st **route_entry,
                                                       void *gtrie);

// The route with inherit-forward that `route` hangs under, itself included; NULL when there is
// none. With `keep_old_parent` its present parent counts also without the flag.
MFWD6_EXPORT cerrno ip6mc_get_parent_IF_route(ipv4mc_table_st *table, ipv4mc_route_entry_st *route,
                                              ipv4mc_route_entry_st **parent_route,
                                              int keep_old_parent);

// Which route, and which of its ordinary interfaces, apply to a packet from `source` to `group`
// that arrived on `ifh`. A route with inherit-accept answers with the interfaces of its parent.
// `*intf_out` is NULL when there is no such interface; it is left alone when the route's parent is
// missing; a NULL `intf_out` asks for the route only. ENOENT, with NULLs, when no route matches;
// EINVAL, EBADF, EFAULT. Any process; the answers stay valid as long as the owner keeps freed
// blocks for its readers.
MFWD6_EXPORT cerrno ip6mc_lookup(ipv4mc_table_st *table, const ip_maddr_st *source,
                                 const ip_maddr_st *group, ifhtype ifh,
                                 ipv4mc_route_entry_st **route_out,
                                 ipv4mc_intf_entry_st **intf_out);

// Points the routes below `route` that inherit from it, or now do (`set` 1), at their true parent,
// and tells the platform of each. EFAULT when one of them failed; the others are done all the same.
MFWD6_EXPORT cerrno ipv4mc_process_setclear_IF_flag(ipv4mc_table_st *table,
                                                    ipv4mc_route_entry_st *route, int set);

// The first leaf of the table under a key, or NULL: 256 bits with a source, `length` with a group
// only, all of the table with neither. A leaf of another table in that place gives NULL. No lock;
// any process.
MFWD6_EXPORT ipv4mc_route_entry_st *ip6mc_route_first_key(ipv4mc_table_st *table,
                                                          const ip_maddr_st *source,
                                                          const ip_maddr_st *group,
                                                          uint16_t length);

// The next leaf of the table in trie order, or NULL; leaves of other tables are passed over.
MFWD6_EXPORT ipv4mc_route_entry_st *ip6mc_route_next(ipv4mc_table_st *table,
                                                     ipv4mc_route_entry_st *route);

// Walk function of routes; may delete the route at hand. Non-zero ends the walk.
typedef cerrno (*ipv4mc_route_walk_ft)(ipv4mc_route_entry_st *route, void *context);

// Calls `function` for each route of the table. With a `yield_count` the processor is given up
// after so many routes. 0; ECANCELED (125) when the function ended the walk, whatever its code;
// EBADF, EINVAL.
MFWD6_EXPORT cerrno ip6mc_route_walk(ipv4mc_table_st *table, uint32_t yield_count,
                                     ipv4mc_route_walk_ft function, void *context);

// Deletes all routes and signals of a table, given by either side. With `keep_srd` the routes whose
// `route_flags` have bit 0x04 stay, and are counted in `*srd_count`. A failure on one route does
// not stop the walk; the last one is the result. `cmd` goes on to the removal of signals. Owner's
// operation thread.
MFWD6_EXPORT cerrno ip6mc_route_delete_all(ipv4mc_table_st *table, uint32_t yield_count,
                                           mfwd_cmd cmd, int keep_srd, uint32_t *srd_count);

// Walk functions by which a table-wide setting reaches each route; `context` is a u32 with the
// action. 0, or the code that ends the walk; the operator is told.
MFWD6_EXPORT cerrno ipv4mc_route_accounting_fn(ipv4mc_route_entry_st *route, void *context);
MFWD6_EXPORT cerrno ipv4mc_route_rate_per_route_fn(ipv4mc_route_entry_st *route, void *context);

// Writes the name of an interface into `buffer` (64 bytes) and returns it, never NULL: "Nf0x..."
// for a handle without a record, "Er0x..." with a report when it could not be looked up.
MFWD6_EXPORT char *ip6mc_mlib_interface_name(ifhtype ifh, char *buffer);

// One interface of one route. Owner's operation thread; lookups from any process.
//   LOOKUP, EXACT LOOKUP  the entry with this key into `*intf_entry`, NULL when the route has none
//   CREATE   an entry that is named to the platform and joined to nothing, 0; or the one that
//   exists, EEXIST COMMIT   with `is_new` 1 the entry of a CREATE joins its route and its
//   interface; programs the platform.
//            `attributes` of the entry is the new word, `old_attributes` the one before
//   DELETE   takes it off everything and frees it; `*intf_entry` may be NULL, then the key tells
//   CLEAR    for an entry that never was committed
//   AMT STAT CLEAR  its statistics at the platform
// Other actions succeed and do nothing. `idb` may be NULL, `platform_arg` goes to the platform.
// EBADF, EINVAL, ENOMEM, ENOENT, or what the platform said; 63 from the platform at CREATE refuses
// quietly.
MFWD6_EXPORT cerrno ip6mc_intf_operation(ipv4mc_action_type action, ipv4mc_table_st *table,
                                         ipv4mc_route_entry_st *route, uint32_t intf_type,
                                         ifhtype ifh, uint32_t amt_addr, uint16_t amt_port,
                                         uint32_t intf_arg, ipv4mc_intf_entry_st **intf_entry,
                                         ipv4mc_idb_st *idb, uintptr_t platform_arg,
                                         mrib_attrib_entry_type old_attributes, int is_new);

// The entry with this key, or NULL; `ifh` does not matter for an `intf_type` other than 0.
MFWD6_EXPORT ipv4mc_intf_entry_st *ip6mc_intf_route_lookup(ipv4mc_route_entry_st *route,
                                                           uint32_t intf_type, ifhtype ifh,
                                                           uint32_t amt_addr, uint16_t amt_port);

// Walk the interfaces of a route whose attribute word has a bit of `mask`. No lock; any process.
MFWD6_EXPORT ipv4mc_intf_entry_st *ip6mc_get_first_intf(ipv4mc_route_entry_st *route,
                                                        mrib_attrib_entry_type mask);
MFWD6_EXPORT ipv4mc_intf_entry_st *ip6mc_get_next_intf(ipv4mc_route_entry_st *route,
                                                       ipv4mc_intf_entry_st *entry,
                                                       mrib_attrib_entry_type mask);

// The same without a mask, also while the library is not ready.
MFWD6_EXPORT ipv4mc_intf_entry_st *ipv4mc_intf_route_get_first_intf(ipv4mc_route_entry_st *route);
MFWD6_EXPORT ipv4mc_intf_entry_st *ipv4mc_intf_route_get_next_intf(ipv4mc_route_entry_st *ignored,
                                                                   ipv4mc_intf_entry_st *entry);

// Zeroes the statistics of the local egress interfaces that have counted something.
MFWD6_EXPORT void ipv4mc_interface_stats_clear(ipv4mc_route_entry_st *route);

// Puts an entry into its route's tree and list; takes it out and frees it; frees one that is in
// neither.
MFWD6_EXPORT cerrno ipv4mc_intf_route_add(ipv4mc_route_entry_st *route,
                                          ipv4mc_intf_entry_st *entry);
MFWD6_EXPORT cerrno ipv4mc_intf_route_delete(ipv4mc_route_entry_st *route,
                                             ipv4mc_intf_entry_st *entry);
MFWD6_EXPORT cerrno ipv4mc_clear_intf(ipv4mc_intf_entry_st **entry_p);

// Empties a route, for CLEAR; `text` names it in messages, `table` may be NULL.
MFWD6_EXPORT void ip6mc_route_clear(ipv4mc_table_st *table, ipv4mc_route_entry_st *route,
                                    char *text);

// Undoes what one interface contributes to its route; its place in `intf_list` stays. Nothing when
// one of the first four is NULL.
MFWD6_EXPORT void ip6mc_intf_clear(ipv4mc_shmwin_hdr_st *shmwin_hdr, ipv4mc_table_st *table,
                                   ipv4mc_route_entry_st *route, ipv4mc_intf_entry_st *entry,
                                   char *text);

// Frees a leaf that is on no list and in no trie, with its rate record. EINVAL, or the trie's code.
MFWD6_EXPORT cerrno ip6mc_route_free(ipv4mc_route_entry_st *route);

// Changes one property of a committed route (ip6mc_platform.h). EBADF, EINVAL (also for an unknown
// type, of which the platform has heard by then), or what the platform said: then nothing has
// changed, but that an encap id of 0 unlinks all the same.
MFWD6_EXPORT cerrno ip6mc_route_update(ipv4mc_route_entry_st *route, ipv4mc_route_update_type type,
                                       const ipv4mc_route_update_st *upd);

// Local egress interfaces of a route that serve other tables: the route's own count; the count of
// one table (`op` 0 and 1: one less, one more; 2 and 3: the route's count less, more), unless `idb`
// belongs to the route's table; and that of the table of each transport of the route's encap.
MFWD6_EXPORT void ip6mc_ex_eg_update_rte(ipv4mc_route_entry_st *route, int delta);
MFWD6_EXPORT void ip6mc_ex_eg_update_rcvr_tbl(ipv4mc_table_st *table, uint32_t op,
                                              ipv4mc_route_entry_st *route, ipv4mc_idb_st *idb);
MFWD6_EXPORT cerrno ipmc_ex_eg_upd_encap_rcvr_tbl(ipv4mc_route_entry_st *route, uint32_t op);

// Links a core route to a customer table (ipv4mc_vrf_links): LOCAL finds or makes the table and
// puts the route on its memd list, REMOTE keeps the id only. `text` names the route in messages.
// ENOENT.
MFWD6_EXPORT cerrno ip6mc_route_link_route_to_vrf(ipv4mc_route_entry_st *route, uint32_t index,
                                                  uint32_t table_id, const char *text);
MFWD6_EXPORT void ip6mc_route_unlink_route_from_vrf(ipv4mc_route_entry_st *route, uint32_t index,
                                                    const char *text);

// Sets (1) or clears (0) DT of a core route on behalf of a customer table, and with `program`
// commits the route. Always 0; after a failed commit DT is clear.
MFWD6_EXPORT cerrno ipmc_route_update_DT_flag(ipv4mc_table_st *table, ipv4mc_route_entry_st *route,
                                              int set, int program);

// Puts a route on the list of changed routes; the first one wakes the reader. Takes one off. The
// caller holds the window mutex. EBADF, EINVAL.
MFWD6_EXPORT cerrno ip6mc_mark_route_changed(ipv4mc_route_entry_st *route);
MFWD6_EXPORT cerrno ipv4mc_changelist_remove_route(ipv4mc_route_entry_st *route);

// For the reader of that list, in any process: waits until it is not empty, at most so many
// milliseconds. 0, now and then also for a wake-up that an earlier call has answered; ETIMEDOUT
// (110); EBADF when the window is closed. The caller holds no lock, takes the window mutex
// afterwards and drains the list before it waits again: only the first entry wakes. A time limit of
// some seconds is advised, as a process killed right behind its post leaves it to the next post to
// wake the reader. A reader should not sit in pthread_cond_wait(3) on the header's condition,
// although it is signalled too: killed there, it would stop everybody who posts.
MFWD6_EXPORT cerrno ip6mc_changed_routes_wait(uint32_t milliseconds);

// Ends the waits that there are, with 0: for a thread that is to stop. Nothing with a closed
// window.
MFWD6_EXPORT void ip6mc_changed_routes_wake(void);

// The interfaces of a route that are encap output entries: the entry joins or leaves its route's
// list, once. 1 when a route has none.
MFWD6_EXPORT void ip6mc_route_encap_ole_link(ipv4mc_intf_entry_st *entry);
MFWD6_EXPORT void ip6mc_route_encap_ole_unlink(ipv4mc_intf_entry_st *entry);
MFWD6_EXPORT int ip6mc_route_encap_ole_empty(const ipv4mc_route_entry_st *route);

MFWD6_END_C

#endif
