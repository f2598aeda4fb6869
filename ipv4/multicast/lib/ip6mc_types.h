// Types and constants that all parts of the library share.
//
// Names that begin with ip6mc_ are those of this build (IPv6), ipmc_ is common to both address
// families, ipv4mc_ names types and internals of either. All plain words are in host byte order;
// addresses are in network byte order.
#ifndef IP6MC_TYPES_H
#define IP6MC_TYPES_H

#include <assert.h>
#include <stddef.h>
#include <stdint.h>

#include "services/cerrno.h"
#include "services/export.h"

// States the size of a record that other processes read, and that it is plain data.
#ifdef __cplusplus
#include <type_traits>
#define IP6MC_RECORD(type, bytes)                                               \
    static_assert(sizeof(type) == (bytes) && std::is_standard_layout_v<type> && \
                      std::is_trivially_copyable_v<type>,                       \
                  "other processes read this record")
#else
#define IP6MC_RECORD(type, bytes) \
    static_assert(sizeof(type) == (bytes), "other processes read this record")
#endif

// Interface handle; 0 is none.
typedef uint32_t ifhtype;

// VRF id; 0 is "not linked to a VRF".
typedef uint32_t rsi_vrf_id_t;

// An IPv6 address, compared byte by byte. All zero is the wildcard.
typedef struct ip_maddr_st {
    union {
        uint8_t bytes[16];
        uint32_t words[4];
    };
} ip_maddr_st;
IP6MC_RECORD(ip_maddr_st, 16);

// A typed address, as core networks are named by: default MDT source and group, core trees.
typedef struct mdt_addr {
    uint32_t type;  // one of mdt_addr_types
    uint32_t word1;
    uint32_t word2;
} mdt_addr;
IP6MC_RECORD(mdt_addr, 12);

// Which words a type uses, and how it prints. Types above 12 print as nothing.
enum mdt_addr_types {
    MDT_ADDR_ANY = 0,        // no words, "*"
    MDT_ADDR_IPV4 = 1,       // word1 is an IPv4 address in network byte order
    MDT_ADDR_WORD_2 = 2,     // word1, as a number
    MDT_ADDR_WORD_5 = 5,     // word1, as a number
    MDT_ADDR_CORE_IPV4 = 6,  // as MDT_ADDR_IPV4; the tag that the library itself gives
    MDT_ADDR_WORD_8 = 8,     // word1, as a number
    MDT_ADDR_WORD_9 = 9,     // word1, as a number
    MDT_ADDR_NONE = 10,      // no words, "NONE"
    MDT_ADDR_PAIR_11 = 11,   // both words
    MDT_ADDR_PAIR_12 = 12    // both words
};

// Object id of a route or an interface; an id is one that can be used when it is below
// IPMC_OBJ_ID_NONE.
#define IPMC_OBJ_ID_NONE UINT64_C(0xFFFFFFFFFFFFFFFE)         // none, or given back
#define IPMC_OBJ_ID_UNSPECIFIED UINT64_C(0xFFFFFFFFFFFFFFFF)  // the allocation failed

// Action codes of the operation functions. A function treats codes that it has no use for as a
// success that does nothing.
typedef uint32_t ipv4mc_action_type;
enum ipv4mc_action_types {
    IPV4MC_ACTION_LOOKUP = 0,
    IPV4MC_ACTION_TABLE_LOOKUP_TID = 1,  // tables: as 2
    IPV4MC_ACTION_TABLE_LOOKUP = 2,      // tables: look up, make nothing
    IPV4MC_ACTION_CREATE = 3,            // a detached record
    IPV4MC_ACTION_DELETE = 4,
    IPV4MC_ACTION_EXACT_LOOKUP = 5,
    IPV4MC_ACTION_CLEAR = 6,
    IPV4MC_ACTION_CLEAR_ROUTES = 7,  // tables: routes, then as CLEAR
    IPV4MC_ACTION_COMMIT = 8,        // publish and program
    IPV4MC_ACTION_ACTIVATE = 9,      // tables
    IPV4MC_ACTION_DEACTIVATE = 10,   // tables
    IPV4MC_ACTION_ACCT_ENABLE = 11,  // accounting per prefix
    IPV4MC_ACTION_ACCT_DISABLE = 12,
    IPV4MC_ACTION_ACCT_FWD_ENABLE = 13,  // accounting per prefix, forward only
    IPV4MC_ACTION_ACCT_FWD_DISABLE = 14,
    IPV4MC_ACTION_RATE_ENABLE = 15,  // rate per route
    IPV4MC_ACTION_RATE_DISABLE = 16,
    IPV4MC_ACTION_MLC_SET = 0x11,      // platform: this node is the table's master line card
    IPV4MC_ACTION_MLC_UNSET = 0x12,    // platform: it is not any more
    IPV4MC_ACTION_NOT_ENTERED = 19,    // routes: success before anything is looked at
    IPV4MC_ACTION_BVI_UPD = 20,        // platform: the L2 state behind a BVI interface has changed
    IPV4MC_ACTION_AMT_STAT_CLEAR = 22  // interfaces
};

// Command word of the forwarding process, which defines its values. The library passes it on; 0 is
// no command.
typedef uint32_t mfwd_cmd;

// Attribute words of routes and interfaces. The library never decides them: the platform half (or
// the caller) writes the new word into the record and hands the old word in, and the library acts
// on the difference. Bits without a name here pass through untouched.
typedef uint64_t mrib_attrib_entry_type;
typedef uint32_t mrib_attrib_ti_mofrr_type;

// Route bits that the library tests. Those marked "own" are written by the library alone.
#define MRIB_ROUTE_IA \
    (UINT64_C(1) << 4)  // inherit accept: takes its accepting interfaces from its parent
#define MRIB_ROUTE_IF (UINT64_C(1) << 5)  // inherit forward: a parent for routes below it with IA
#define MRIB_ROUTE_TID_DEMAND (UINT64_C(1) << 12)  // core route, DT only on local demand
#define MRIB_ROUTE_TID_STICKY (UINT64_C(1) << 13)  // core route, DT stays when local demand ends
#define MRIB_ROUTE_MT (UINT64_C(1) << 16)          // stands on the MT update list
#define MRIB_ROUTE_MH (UINT64_C(1) << 17)          // `mdt_ifh` holds a reference
#define MRIB_ROUTE_DT (UINT64_C(1) << 20)          // own: decapsulate to the table
#define MRIB_ROUTE_DT_REMOTE (UINT64_C(1) << 22)   // own: the REMOTE table is linked
#define MRIB_ROUTE_CLEAR_ATTR (UINT64_C(1) << 25)  // cleared with the route, no other effect
#define MRIB_ROUTE_ENCAP (UINT64_C(1) << 27)       // has an encap id
#define MRIB_ROUTE_RPF_ID (UINT64_C(1) << 28)      // has an rpf id
#define MRIB_ROUTE_MOFRR_UPD (UINT64_C(1) << 30)   // own: stands on the MoFRR update list

// Route bits that the platforms of this tree define. The library carries them.
#define MRIB_ROUTE_SIGNAL (UINT64_C(1) << 0)  // packets are signalled to the control plane
#define MRIB_ROUTE_DROP (UINT64_C(1) << 1)    // packets are dropped, whatever the interfaces say
#define MRIB_ROUTE_CONNECTED_CHECK \
    (UINT64_C(1) << 2)  // only a source on the accepting interface's own link signals

// Interface bits that the library tests.
#define MRIB_INTF_SP (UINT64_C(1) << 5)        // signal present
#define MRIB_INTF_COUNTED (UINT64_C(1) << 12)  // counts in `counted_intf_cnt`
#define MRIB_INTF_EG (UINT64_C(1) << 13)       // local egress
#define MRIB_INTF_MI (UINT64_C(1) << 14)       // MDT interface reference
#define MRIB_INTF_BVI (UINT64_C(1) << 19)      // a BVI interface
#define MRIB_INTF_LMI (UINT64_C(1) << 21)      // LMDT reference
#define MRIB_INTF_TMI (UINT64_C(1) << 24)      // TMDT reference
#define MRIB_INTF_IRMI (UINT64_C(1) << 27)     // IRMDT reference
#define MRIB_INTF_REGDB (UINT64_C(1) << 28)    // linked to `regdb_entry`
#define MRIB_INTF_TRMI (UINT64_C(1) << 33)     // TRMDT reference

// Interface bits that the platforms of this tree define. The library carries them.
#define MRIB_INTF_ACCEPT (UINT64_C(1) << 0)   // packets of the route may arrive here
#define MRIB_INTF_FORWARD (UINT64_C(1) << 1)  // packets of the route leave here
#define MRIB_INTF_NEGATE_SIGNAL \
    (UINT64_C(1) << 2)  // turns MRIB_ROUTE_SIGNAL round for packets that arrive here
#define MRIB_INTF_LOCAL_COPY (UINT64_C(1) << 3)  // this node receives a copy itself

// All bits of an interface word that have a meaning: "any interface" for a walk.
#define MRIB_INTF_ANY UINT64_C(0x7FFFFFFFF)

// Records, by the header that defines them.
typedef struct ipv4mc_descriptor_struct ipv4mc_descriptor_struct;    // ip6mc_lib.h
typedef struct ipv4mc_shmwin_hdr_st ipv4mc_shmwin_hdr_st;            // ip6mc_shmwin.h
typedef struct ipv4mc_table_st ipv4mc_table_st;                      // ip6mc_table.h
typedef struct ipv4mc_route_entry_st ipv4mc_route_entry_st;          // ip6mc_route.h
typedef struct ipv4mc_intf_entry_st ipv4mc_intf_entry_st;            // ip6mc_route.h
typedef struct ipv4mc_route_update_st ipv4mc_route_update_st;        // ip6mc_route.h
typedef struct ipv4mc_idb_st ipv4mc_idb_st;                          // ip6mc_idb.h
typedef struct ipmc_intf_change_req_st ipmc_intf_change_req_st;      // ip6mc_idb.h
typedef struct ipmc_bundle_member_st ipmc_bundle_member_st;          // ip6mc_idb.h
typedef struct ipmc_vlan_node_st ipmc_vlan_node_st;                  // ip6mc_idb.h
typedef struct ipv4mc_encap_entry_st ipv4mc_encap_entry_st;          // ip6mc_encap.h
typedef struct ipv4mc_encap_leaf_st ipv4mc_encap_leaf_st;            // ip6mc_encap.h
typedef struct ipv4mc_regdb_key_st ipv4mc_regdb_key_st;              // ip6mc_encap.h
typedef struct ipv4mc_regdb_entry_st ipv4mc_regdb_entry_st;          // ip6mc_encap.h
typedef struct ipv4mc_regdb_core_info_st ipv4mc_regdb_core_info_st;  // ip6mc_encap.h
typedef struct ipv4mc_bvi_entry_t ipv4mc_bvi_entry_t;                // ip6mc_bvi.h
typedef struct ipv4mc_bvi_if_t ipv4mc_bvi_if_t;                      // ip6mc_bvi.h
typedef struct ipv4mc_bvi_intf_db_t ipv4mc_bvi_intf_db_t;            // ip6mc_bvi.h
typedef struct ipmc_retry_msg ipmc_retry_msg;                        // ip6mc_platform_err.h

#endif
