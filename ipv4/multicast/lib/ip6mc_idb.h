// Interfaces: the library's own record of one interface of the router.
//
// A record exists while something in the multicast state refers to it: a route, a boundary, a
// configuration, a bundle, an MDT, the interface manager. It is found by handle, by name, and per
// VRF table by handle, and is held by reference counts.
//
// Thread-safety. The trees are guarded by `tbl_rw_lock`; all other fields are plain words of the
// owner's operation thread.
#ifndef IP6MC_IDB_H
#define IP6MC_IDB_H

#include "ipv4/multicast/lib/ip6mc_types.h"
#include "services/acl/ipv6_acl.h"
#include "services/platform_info/adjacency.h"
#include "services/radix/radix.h"
#include "services/trees/wavl.h"

#define IPV4MC_IDB_NAME_SIZE 64           // a name of 64 characters has no terminator
#define IPV4MC_IDB_BOUNDARY_NAME_SIZE 65  // with terminator
#define IPV4MC_IDB_VRF_NAME_SIZE 33       // with terminator

// Threads of the trees of interfaces, and nodes in a record.
enum ipv4mc_idb_threads {
    IPV4MC_IDB_THREAD_GLOBAL = 0,  // global, by handle
    IPV4MC_IDB_THREAD_VRF = 1,     // per table, by handle
    IPV4MC_IDB_THREAD_NAME = 2,    // global, by name
    IPV4MC_IDB_THREADS = 3
};

// Kinds of an interface. 4 is not used.
enum ipv4mc_idb_types {
    idb_type_physical = 0,
    idb_type_vlan_over_bundle = 1,
    idb_type_tunnel = 2,
    idb_type_bundle = 3,
    idb_type_svi = 5,
    idb_type_mdt = 6,
    idb_type_other = 7,  // virtual, of no kind known here
    idb_type_bvi = 8,
    idb_type_pppoe = 9,
    idb_type_pw_ether = 10,
    idb_type_pw_ether_vlan = 11,
    idb_type_always_local = 12  // written by the caller
};

// `subtype` of an MDT interface.
enum ipv4mc_idb_subtypes {
    IPV4MC_IDB_MDT_MI = 1,
    IPV4MC_IDB_MDT_LMI = 2,
    IPV4MC_IDB_MDT_TMI = 3,
    IPV4MC_IDB_MDT_IRMI = 4,
    IPV4MC_IDB_MDT_TRMI = 5
};

// Who holds a reference on an MDT interface.
enum ipv4mc_mdt_flags {
    IPV4MC_MDT_FLAG_MI = 1,
    IPV4MC_MDT_FLAG_LMI = 2,
    IPV4MC_MDT_FLAG_TMI = 3,
    IPV4MC_MDT_FLAG_IRMI = 4,
    IPV4MC_MDT_FLAG_MH = 5,
    IPV4MC_MDT_FLAG_TRMI = 6,
    IPV4MC_MDT_FLAG_SPL = 7
};

// `create_state`.
enum ipv4mc_idb_create_states {
    IPV4MC_IDB_UNKNOWN = 0,
    IPV4MC_IDB_CREATED = 1,
    IPV4MC_IDB_MARKED_DELETED = 2
};

// `cfg_flags`.
#define IPV4MC_IDB_CFG_EXPLICIT \
    UINT8_C(0x01)  // enable or disable was configured on the interface itself
#define IPV4MC_IDB_CFG_PPPOE_ENABLE UINT8_C(0x02)  // written by the caller
#define IPV4MC_IDB_CFG_STALE UINT8_C(0x04)         // not yet confirmed since the restart
// `tree_flags`.
#define IPV4MC_IDB_TREE_NAME UINT8_C(0x01)  // in the NAME thread
// `tunnel_flags`.
#define IPV4MC_IDB_TUNNEL_ACTIVE UINT8_C(0x01)
// `mc_cfg_vrf_flags`.
#define IPV4MC_IDB_VRF_ERROR UINT8_C(0x01)  // the linked table has another name
#define IPV4MC_IDB_VRF_SET UINT8_C(0x02)    // `mc_cfg_vrf` is set

// Bit numbers of `stale_cfg_bitmap`.
enum ipv4mc_idb_stale_bits {
    IPV4MC_IDB_STALE_BOUNDARY = 0,
    IPV4MC_IDB_STALE_ENABLE = 1,
    IPV4MC_IDB_STALE_TTL = 2
};

// One member of a bundle.
struct ipmc_bundle_member_st {
    ifhtype ul_ifh_member;
    uint16_t member_link_id;
};
IP6MC_RECORD(ipmc_bundle_member_st, 8);

// `bundle_members` is always one block of this many, the first `bundle_member_count` in use, sorted
// by handle, the others zero.
#define IPMC_BUNDLE_MEMBERS_MAX 64

// Child of a bundle, in its `vlan_tree`. Names its child by handle.
struct ipmc_vlan_node_st {
    rt_node_t head;
    ifhtype *key;
    ifhtype ifh;
};
IP6MC_RECORD(ipmc_vlan_node_st, 72);

struct ipv4mc_idb_st {
    ifhtype ifh;  // key of the global and the VRF thread
    wavl_node node[IPV4MC_IDB_THREADS];
    ipv4mc_table_st *vtable;  // VRF table, NULL while unlinked
    rsi_vrf_id_t vrf_id;      // may be set while `vtable` is NULL: the link waits for the table
    uint32_t table_id;        // MDT: the owning table
    uint32_t type;            // one of ipv4mc_idb_types
    uint32_t subtype;         // MDT: one of ipv4mc_idb_subtypes
    adj_base_t *aib;          // adjacency, owned elsewhere
    uint32_t refcount;
    uint8_t ttl;           // threshold; not 0 keeps the record alive
    uint32_t mtu;          // MDT: local
    uint32_t remote_mtu;   // MDT: remote
    uint32_t mh_refcount;  // MDT: references by holder
    uint32_t mi_refcount;
    uint32_t lmi_refcount;
    uint32_t trmi_refcount;
    uint32_t spl_refcount;
    ipv4mc_intf_entry_st *route_list;  // entries of routes on this interface
    uint32_t route_count;
    uint32_t mcast_enabled;
    uint8_t cfg_flags;
    uint8_t tree_flags;
    uint16_t im_type;                // 0 at creation, 66 on PPPoE
    ipv6_acl_handle_t boundary_acl;  // NULL if none; good in the process that set it
    char boundary_name[IPV4MC_IDB_BOUNDARY_NAME_SIZE];  // empty if none
    uint64_t platform_boundary_ref;  // platform half; not 0 keeps the record alive
    char name[IPV4MC_IDB_NAME_SIZE];
    uint8_t tunnel_flags;
    uint32_t create_state;   // one of ipv4mc_idb_create_states
    uint8_t im_create_rcvd;  // announced by the interface manager; written by the caller
    uint8_t dpl_local;       // data plane is local
    ifhtype ul_ifh;          // tunnels: interface underneath
    uint16_t stale_cfg_bitmap;
    uint32_t bundle_member_count;           // of a child: copy of the parent's
    ipmc_bundle_member_st *bundle_members;  // NULL when empty
    ifhtype bundle_ifh;                     // parent
    rt_head_t *vlan_tree;                   // children of a bundle, NULL when none
    uint32_t vlan_count;
    char mc_cfg_vrf[IPV4MC_IDB_VRF_NAME_SIZE];  // VRF that configuration named
    uint8_t mc_cfg_vrf_flags;
    uint8_t local_iftype_counted;  // counted in `local_ifcount` of its table
};
IP6MC_RECORD(ipv4mc_idb_st, 416);
static_assert(offsetof(ipv4mc_idb_st, ifh) == 0 && offsetof(ipv4mc_idb_st, node) == 8,
              "comparisons reach the handle from a node");

// A change of an interface on a route that waits in its table.
struct ipmc_intf_change_req_st {
    uint32_t action;  // ipv4mc_action_type
    ipv4mc_table_st *table;
    ip_maddr_st source;
    ip_maddr_st group;
    uint16_t pfx_len;
    ifhtype ifh;
    uint32_t extra;  // passed on
    uint64_t attributes;
    ipmc_intf_change_req_st *prev;
    ipmc_intf_change_req_st *next;
};
IP6MC_RECORD(ipmc_intf_change_req_st, 88);

// Requests that a table holds at most.
#define IPMC_INTF_CHANGE_REQ_MAX UINT64_C(1000)

MFWD6_BEGIN_C

// Drives the trees of tables; compares by handle, on thread 1.
extern MFWD6_EXPORT const struct shm_wavl_fns ipmc_table_idb_fns;

// Finds an interface by handle: 0 with the record, or with NULL when there is none. Not built yet.
MFWD6_EXPORT cerrno ip6mc_idb_lookup(ifhtype ifh, ipv4mc_idb_st **idb_p);

// Compares the reference count of each interface of a VRF table with its holders; warns. Returns 1.
MFWD6_EXPORT int ip6mc_idb_refcount_sanity_walk(ipv4mc_table_st *table);

// MDT interfaces of a table. Not built yet.
MFWD6_EXPORT cerrno ip6mc_idb_mdt_unlock(ipv4mc_table_st *table, ifhtype ifh, uint32_t flag);
MFWD6_EXPORT cerrno ip6mc_idb_mdt_mtu_set(ipv4mc_table_st *table);

MFWD6_END_C

#endif
