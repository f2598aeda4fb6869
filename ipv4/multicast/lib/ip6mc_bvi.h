// Bridge virtual interfaces: L2 states per BVI, and the ties of route interfaces to them.
//
// An entry is an L2 state for one BVI: (*,*), (*,G) or (S,G), in the tree of the VRF that the BVI
// is in. Each interface of an L3 route on a BVI is tied to the most specific entry that covers the
// route. One tree for the whole system says which VRF each BVI is in.
//
// Thread-safety. The owner's operation thread writes.
#ifndef IP6MC_BVI_H
#define IP6MC_BVI_H

#include <time.h>

#include "ipv4/multicast/lib/ip6mc_types.h"
#include "services/radix/radix.h"

#define IPV6_MFWD_BVI_KEY_BYTES 36
#define IPV6_MFWD_BVI_PLFM_DATA_BYTES 32

// Key bits of a tie, and of a mapping.
#define IPV6_MFWD_BVI_IF_KEY_BITS 288
#define IPV6_MFWD_BVI_INTF_DB_KEY_BITS 32

struct ipv4mc_bvi_entry_t {
    rn_node_t node;                        // the tree's
    struct timespec create_time;           // ptimer clock
    uint8_t key[IPV6_MFWD_BVI_KEY_BYTES];  // handle, group, source
    uint16_t key_bits;
    uint8_t plfm_data[IPV6_MFWD_BVI_PLFM_DATA_BYTES];  // read by the platform only
    uint8_t plfm_data_len;                             // 0: no data
    ip_maddr_st source;
    ip_maddr_st group;
    uint8_t plen;  // group prefix length as given
    ifhtype bvi_ifh;
    uint32_t ref_cnt;  // ties in `if_tree`
    rn_root_t *if_tree;
    uint32_t stale;    // not yet confirmed since the mark
    uint32_t del_pnd;  // goes as soon as `ref_cnt` is 0
};
IP6MC_RECORD(ipv4mc_bvi_entry_t, 184);
static_assert(offsetof(ipv4mc_bvi_entry_t, node) == 0 && offsetof(ipv4mc_bvi_entry_t, key) == 48 &&
                  offsetof(ipv4mc_bvi_entry_t, key_bits) == 84,
              "the tree was told these places when it was made");

struct ipv4mc_bvi_if_t {
    rn_node_t node;                        // the tree's; cleared when the record moves
    uint8_t key[IPV6_MFWD_BVI_KEY_BYTES];  // route group, route source, table id
    uint16_t key_bits;                     // always 288
    ifhtype ifh;
    ipv4mc_bvi_entry_t *bvi_entry;  // whose `if_tree` holds the record
    ipv4mc_route_entry_st *route;
};
IP6MC_RECORD(ipv4mc_bvi_if_t, 96);
static_assert(offsetof(ipv4mc_bvi_if_t, node) == 0 && offsetof(ipv4mc_bvi_if_t, key) == 32 &&
                  offsetof(ipv4mc_bvi_if_t, key_bits) == 68,
              "the tree was told these places when it was made");

// Which VRF the entries of a BVI are in.
struct ipv4mc_bvi_intf_db_t {
    rn_node_t node;    // the tree's
    ifhtype ifh;       // key
    uint8_t key_bits;  // always 32
    uint32_t vid;
    uint32_t unlink_pending;  // unlinked from its VRF while its flood entry is still there
    uint32_t moved;
};
IP6MC_RECORD(ipv4mc_bvi_intf_db_t, 56);
static_assert(offsetof(ipv4mc_bvi_intf_db_t, node) == 0 &&
                  offsetof(ipv4mc_bvi_intf_db_t, ifh) == 32 &&
                  offsetof(ipv4mc_bvi_intf_db_t, key_bits) == 36,
              "the tree was told these places when it was made");

// Lists that the caller of a batch of links gives.
typedef struct ipmc_bvi_list_st {
    struct ipmc_bvi_list_st *next;
    ifhtype ifh;
} ipmc_bvi_list_st;

typedef struct ipmc_vrf_list_st {
    struct ipmc_vrf_list_st *next;
    uint32_t vid;
    ipmc_bvi_list_st *bvi_list;
} ipmc_vrf_list_st;

// Index into `ipmc_bvi_stat`; the others stay 0.
enum ipmc_bvi_stats {
    IPMC_BVI_STAT_MOVE_FROM_DEFAULT = 9,
    IPMC_BVI_STAT_MOVE_TO_DEFAULT = 10,
    IPMC_BVI_STAT_ENTRY_INSERTED = 11,
    IPMC_BVI_STAT_ENTRY_DELETED = 12,
    IPMC_BVI_STAT_IF_FREED = 13,
    IPMC_BVI_STAT_NO_MAPPING = 14,
    IPMC_BVI_STAT_MAPPED_LOOKUP_FAILED = 15,
    IPMC_BVI_STAT_DEFAULT_LOOKUP_FAILED = 16,
    IPMC_BVI_STAT_SWEEP_FAILED = 17,
    IPMC_BVI_STAT_IF_MOVE_FAILED = 19,
    IPMC_BVI_STAT_ENTRY_MOVE_FAILED = 20,
    IPMC_BVI_STAT_INSERT_NO_TABLE = 26,
    IPMC_BVI_STAT_MAPPING_FAILED = 27,
    IPMC_BVI_STATS = 32
};

MFWD6_BEGIN_C

// Counters, indexed by ipmc_bvi_stats.
extern MFWD6_EXPORT uint64_t ipmc_bvi_stat[IPMC_BVI_STATS];

// Makes the mapping of BVIs to VRFs in a new window, reconnects to it in one that exists. 1, or 0
// with a report.
MFWD6_EXPORT int ip6mc_bvi_intf_db_init(void);

// The same for the L2 states of one VRF table. 1, or 0.
MFWD6_EXPORT int ip6mc_bvi_db_init(ipv4mc_table_st *table);

// Moves the L2 states of every BVI that belongs to `from_vid` to `to_vid`. 22 with a report when
// the walk failed.
MFWD6_EXPORT cerrno ip6mc_bvi_intf_db_walk2(uint32_t from_vid, uint32_t to_vid, int set_moved);

// Unties an interface of a route from its L2 state. Not built yet.
MFWD6_EXPORT cerrno ip6mc_bvi_delete_bvi_interface(ipv4mc_route_entry_st *route,
                                                   ipv4mc_intf_entry_st *entry);

MFWD6_END_C

#endif
