// Multicast VPN state of a table, told one item at a time.
#ifndef IP6MC_MDT_H
#define IP6MC_MDT_H

#include "ipv4/multicast/lib/ip6mc_types.h"

// `vflag` of an update: the one item that it carries. Items that set create a table that is not
// there, items that unset ignore it.
enum ipv4mc_mdt_vflags {
    IPV4MC_MDT_SET_SRC = 0x1,  // default MDT source: `addr`
    IPV4MC_MDT_UNSET_SRC = 0x2,
    IPV4MC_MDT_SET_GRP = 0x4,  // default MDT group: `addr`
    IPV4MC_MDT_UNSET_GRP = 0x8,
    IPV4MC_MDT_NONE_10 = 0x10,  // sorted with those that set, then reported as unknown
    IPV4MC_MDT_NONE_20 = 0x20,  // sorted with those that unset, then reported as unknown
    IPV4MC_MDT_SET_MLC = 0x40,  // this node may be the master line card: `mlc_fapid`
    IPV4MC_MDT_UNSET_MLC = 0x80,
    IPV4MC_MDT_SET_BGP = 0x100,  // BGP interface: `bgp_ifh`
    IPV4MC_MDT_UNSET_BGP = 0x200,
    IPV4MC_MDT_SET_GRE = 0x2000,  // MDT interface of a kind: `mdt_ifh` and `tr`, here and below
    IPV4MC_MDT_UNSET_GRE = 0x4000,
    IPV4MC_MDT_SET_MLDP = 0x8000,
    IPV4MC_MDT_UNSET_MLDP = 0x10000,
    IPV4MC_MDT_SET_INBAND = 0x20000,
    IPV4MC_MDT_UNSET_INBAND = 0x40000,
    IPV4MC_MDT_SET_P2MP_TE = 0x80000,
    IPV4MC_MDT_UNSET_P2MP_TE = 0x100000,
    IPV4MC_MDT_SET_IR = 0x200000,
    IPV4MC_MDT_UNSET_IR = 0x400000,
    IPV4MC_MDT_SET_G_INBAND = 0x800000,
    IPV4MC_MDT_UNSET_G_INBAND = 0x1000000,
    IPV4MC_MDT_SET_EIGHTH = 0x2000000,
    IPV4MC_MDT_UNSET_EIGHTH = 0x4000000,
    IPV4MC_MDT_SET_TREE_SID = 0x8000000,
    IPV4MC_MDT_UNSET_TREE_SID = 0x10000000
};

// One item. Given by the client; process memory.
typedef struct mdt_update_rec {
    mdt_addr addr;
    uint32_t mlc_fapid;  // node named as master line card
    int32_t vflag;       // one of ipv4mc_mdt_vflags
    ifhtype bgp_ifh;
    ifhtype mdt_ifh;
    int32_t tr;  // transport flag; the low byte counts
} mdt_update_rec;
IP6MC_RECORD(mdt_update_rec, 32);

#endif
