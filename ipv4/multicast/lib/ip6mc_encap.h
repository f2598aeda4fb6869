// Encapsulation: encap ids, the core transports that they stand for, and the leaves that bind the
// two.
//
// A route that is sent into a core names one encap id. Each transport is registered once, in the
// registration database (regdb); a leaf is the use of one transport by one encap and stands on the
// lists of both.
//
// Thread-safety. The owner's operation thread writes.
#ifndef IP6MC_ENCAP_H
#define IP6MC_ENCAP_H

#include "ipv4/multicast/lib/ip6mc_types.h"
#include "services/gtrie/gtrie.h"
#include "services/radix/radix.h"

// Significant bits of an encap id; also its key length in the trie.
#define IPV4MC_ENCAP_ID_BITS 20

// `ip_lkp_ctl`, written by the platform.
#define IPV4MC_ENCAP_LKP_ON_FIRST \
    UINT8_C(0x01)                             // IP_LKP is set with the first local egress interface
#define IPV4MC_ENCAP_LKP_STAYS UINT8_C(0x20)  // and stays when the last one goes

struct ipv4mc_encap_entry_st {
    uint32_t encap_id;                      // key; never 0
    ipv4mc_encap_leaf_st *encap_leaf_head;  // oldest first
    ipv4mc_encap_leaf_st *encap_leaf_tail;
    uint32_t route_cnt;          // routes linked to this encap
    uint32_t intf_local_EG_cnt;  // sum of those of its routes
    uint8_t ip_lkp;              // IP_LKP as last given to the platform
    uint8_t ip_lkp_ctl;
    uint8_t retry_queued;               // 1 while on the retry queue
    ipv4mc_route_entry_st *route_head;  // linked through `next_encap` and `prev_encap`
    ip6mc_gtrie_leaf_t gtrie_leaf;      // the trie's
};
IP6MC_RECORD(ipv4mc_encap_entry_st, 64);
static_assert(offsetof(ipv4mc_encap_entry_st, gtrie_leaf) == 48,
              "the trie was told this place when it was made");

struct ipv4mc_encap_leaf_st {
    ipv4mc_encap_leaf_st *prev_encap_leaf;  // the encap's list
    ipv4mc_encap_leaf_st *next_encap_leaf;
    ipv4mc_encap_entry_st *encap_entry;
    ipv4mc_encap_leaf_st *prev_regdb_leaf;  // the transport's list
    ipv4mc_encap_leaf_st *next_regdb_leaf;
    ipv4mc_regdb_entry_st *regdb_entry;
    uint32_t tr;  // transport flag as last accepted by the platform
};
IP6MC_RECORD(ipv4mc_encap_leaf_st, 56);

// Types of a transport. 0 is no key: a position ahead of the first.
enum ipv4mc_regdb_types {
    REGDB_TYPE_NONE = 0,
    REGDB_TYPE_LSM = 1,
    REGDB_TYPE_TE = 2,
    REGDB_TYPE_GRE = 3,
    REGDB_TYPE_TI_MOFRR = 4,
    REGDB_TYPE_IPV4_NH = 5,
    REGDB_TYPES = 6
};

// Core group and source of a core tree.
typedef struct ipv4mc_regdb_core_st {
    mdt_addr group;
    mdt_addr source;
} ipv4mc_regdb_core_st;

// What a transport is. Compared bit by bit, over the length that goes with the type, type included.
struct ipv4mc_regdb_key_st {
    uint32_t type;
    union {
        uint32_t lsm_id;            // LSM
        uint32_t te_ifh;            // TE
        ipv4mc_regdb_core_st core;  // GRE, TI_MOFRR
        struct ipv4mc_regdb_nh {
            uint32_t address;  // IPV4_NH, network byte order
            uint32_t word;     // part of the key, not interpreted
        } nh;
    } u;
};
static_assert(sizeof(ipv4mc_regdb_key_st) == 28, "224 bits are the longest key");

// Key lengths in bits, by type.
#define IPV4MC_REGDB_KEY_BITS_LSM 64
#define IPV4MC_REGDB_KEY_BITS_TE 64
#define IPV4MC_REGDB_KEY_BITS_GRE 224
#define IPV4MC_REGDB_KEY_BITS_TI_MOFRR 224
#define IPV4MC_REGDB_KEY_BITS_IPV4_NH 96

// `type` of core_info that names a core route.
#define IPV4MC_CORE_INFO_GRE UINT32_C(2)

struct ipv4mc_regdb_core_info_st {
    uint32_t type;
    ipv4mc_route_entry_st *core_route;  // the core route that carries the transport
    uint64_t word;                      // kept as given
};

struct ipv4mc_regdb_entry_st {
    rn_node_t node;  // the tree's
    ipv4mc_regdb_key_st key;
    uint16_t key_bits;
    uint32_t ifhandle;                       // bound by ip6mc_regdb_set_ifhandle, 0 until then
    ipv4mc_encap_leaf_st *regdb_leaf_head;   // newest first
    ipv4mc_intf_entry_st *intf_head;         // IPV4_NH only
    ipv4mc_regdb_core_info_st core_info;     // as last committed
    ipv4mc_regdb_entry_st *next_idle_regdb;  // next hops that lost their last interface
};
IP6MC_RECORD(ipv4mc_regdb_entry_st, 120);
static_assert(offsetof(ipv4mc_regdb_entry_st, node) == 0 &&
                  offsetof(ipv4mc_regdb_entry_st, key) == 32 &&
                  offsetof(ipv4mc_regdb_entry_st, key_bits) == 60,
              "the tree was told these places when it was made");

MFWD6_BEGIN_C

// The encap with this id into `*encap_p`, NULL when there is none. EFAULT, with NULL, when the trie
// failed. Any process.
MFWD6_EXPORT cerrno ip6mc_encapid_lookup(uint32_t encap_id, ipv4mc_encap_entry_st **encap_p);

// Hands a change of one property (ipv4mc_encap_update_types) to the platform; programs the encap
// again. What the platform said; EINVAL for NULL.
MFWD6_EXPORT cerrno ip6mc_encap_update(ipv4mc_encap_entry_st *encap, uint32_t update_type,
                                       const void *upd);
MFWD6_EXPORT cerrno ip6mc_encap_platform_commit(ipv4mc_encap_entry_st *encap);

// Takes a route off its encap. EINVAL for NULL.
MFWD6_EXPORT cerrno ipmc_unlink_route_from_encap(ipv4mc_route_entry_st *route,
                                                 ipv4mc_encap_entry_st *encap);

// The operation on a transport. Not built yet: ENOSYS.
MFWD6_EXPORT cerrno ip6mc_regdb_operation(ipv4mc_action_type action, const ipv4mc_regdb_key_st *key,
                                          uint32_t reserved,
                                          const ipv4mc_regdb_core_info_st *core_info,
                                          ipv4mc_regdb_entry_st **regdb_entry);

MFWD6_END_C

#endif
