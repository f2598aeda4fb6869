// What the model hardware holds.
#ifndef MFWD6_PLATFORMS_SIM_HARDWARE_H
#define MFWD6_PLATFORMS_SIM_HARDWARE_H

#include "ipv4/multicast/lib/ip6mc_encap.h"
#include "ipv4/multicast/lib/ip6mc_idb.h"
#include "ipv4/multicast/lib/ip6mc_platform.h"
#include "ipv4/multicast/lib/ip6mc_route.h"
#include "ipv4/multicast/lib/ip6mc_table.h"
#include "platforms/sim/slots.h"

namespace mfwd6::sim {

// Keys have no padding: they are hashed and compared as memory.

struct tid_key {
    uint32_t tid;
    uint32_t zero;
};

struct tid_slot {
    slot_head head;
    tid_key key;
    uint8_t active;
    uint8_t master_lc;
    uint8_t acct;
    uint8_t acct_fwd_only;
    uint32_t reserved;
    uint64_t routes;  // computed: named in this table
};

// The VRF side of a table is known by name, by id, or by both.
struct vrf_slot {
    slot_head head;
    uint32_t vrf_id;
    uint8_t active;
    char vrf_name[IPV4MC_VRF_NAME_SIZE];
    uint8_t reserved[2];
};

struct route_key {
    ip_maddr_st source;
    ip_maddr_st group;  // bits behind pfx_len are 0
    uint32_t tid;
    uint32_t pfx_len;
};

struct route_slot {
    slot_head head;
    route_key key;
    uint64_t attributes;
    uint64_t obj_id;
    uint64_t in_packets;
    uint64_t in_bytes;
    uint64_t out_packets;
    uint64_t out_bytes;
    ip_maddr_st parent_group;    // of IF_parent, whose source is always *
    uint32_t parent_len_plus_1;  // 0: no parent
    uint32_t encap_id;
    uint32_t rpf_id;
    uint8_t t_bit;
    uint8_t acct;
    uint8_t acct_fwd_only;
    uint8_t intfs_indexed;  // computed
    uint32_t first_intf;    // computed; latest first
    uint32_t intf_count;    // computed
};

struct intf_key {
    uint32_t route;  // slot
    uint32_t intf_type;
    uint32_t key_ifh;
    uint32_t amt_addr;
    uint32_t amt_port;
    uint32_t zero;
};

struct intf_slot {
    slot_head head;
    intf_key key;
    uint64_t attributes;
    uint64_t obj_id;
    uint64_t amt_packets;
    uint32_t ifh;
    uint32_t ul_ifh;
    uint32_t next;  // computed
    uint32_t prev;  // computed
};

struct ifh_key {
    uint32_t ifh;
    uint32_t zero;
};

struct idb_slot {
    slot_head head;
    ifh_key key;
    uint32_t type;
    uint32_t mtu;
    uint32_t remote_mtu;
    uint32_t table_id;
    uint32_t parent_ifh;
    uint32_t members;  // computed
    uint8_t enabled;
    uint8_t ttl;
    uint8_t has_aib;
    uint8_t has_boundary;
    uint8_t dpl_local;
    uint8_t tunnel_active;
    uint8_t reserved[2];
};

struct member_key {
    uint32_t parent;
    uint32_t member;
};

struct member_slot {
    slot_head head;
    member_key key;
};

struct encap_key {
    uint32_t encap_id;
    uint32_t zero;
};

struct encap_slot {
    slot_head head;
    encap_key key;
    uint64_t packets;
    uint64_t bytes;
    uint64_t dropped;
    uint32_t leaves;  // computed
    uint8_t ip_lkp;
    uint8_t reserved[3];
};

struct regdb_key {
    uint8_t bytes[IP6MC_PLATFORM_REGDB_KEY_BYTES];
    uint32_t bits;
};

struct regdb_slot {
    slot_head head;
    regdb_key key;
    uint32_t core_type;
    uint32_t reserved;
};

struct leaf_key {
    regdb_key transport;
    uint32_t encap_id;
    uint32_t zero;
};

struct leaf_slot {
    slot_head head;
    leaf_key key;
    uint32_t tr;
    uint32_t reserved;
};

// Interfaces of routes. Those of a route with few are found along its list, which is at hand when
// they are made; only the others are worth an index.
class intf_table {
  public:
    cerrno open(int folder_fd, const char *name, uint64_t most) {
        index_.clear();
        return slots_.open(folder_fd, name, most);
    }
    void close() {
        slots_.close();
        index_.clear();
    }
    void clear() {
        slots_.clear();
        index_.clear();
    }

    uint32_t used() const { return slots_.used(); }
    intf_slot &at(uint32_t slot) const { return slots_.at(slot); }
    bool live(uint32_t slot) const { return at(slot).head.state != slot_free; }
    void set_state(uint32_t slot, uint32_t state) { slots_.keep(slot, state); }
    uint32_t find(const route_slot &route, const intf_key &key) const;

    // Makes a slot with this key, which must be new, at the head of the route's list. It has its
    // handle before it counts, so that what a death leaves can be named.
    cerrno add(route_slot &route, const intf_key &key, uint32_t ifh, uint32_t state,
               uint32_t *slot);

    // The same for a slot that an earlier process left.
    cerrno link(route_slot &route, uint32_t slot);

    void remove(route_slot &route, uint32_t slot);

    // Frees a slot that is on no list.
    void forget(uint32_t slot) { slots_.give_back(slot); }

  private:
    static constexpr uint32_t most_listed = 16;

    cerrno index_all(route_slot &route);
    void unlink(route_slot &route, uint32_t slot);

    slot_array<intf_slot> slots_;
    slot_index index_;
};

class hardware {
  public:
    // In memory with a negative folder, else in the files of that folder.
    cerrno open(int folder_fd);
    void close();
    bool opened() const { return opened_; }

    // Nothing is held any more.
    void clear();

    // Capacity.
    void set_capacity(ip6mc_platform_kind kind, uint64_t most) { capacity_[kind] = most; }
    void set_full_code(cerrno code) { full_code_ = code; }
    void unlimited();
    uint64_t count(ip6mc_platform_kind kind) const { return counts_[kind]; }

    // 0, or the code for a full hardware when one more thing of the kind does not fit.
    cerrno room(ip6mc_platform_kind kind) const {
        return counts_[kind] < capacity_[kind] ? 0 : full_code_;
    }
    void counted(ip6mc_platform_kind kind, int64_t change) {
        counts_[kind] += static_cast<uint64_t>(change);
    }

    // Tables. `hold_vrf` finds the VRF side by name or id, and makes it with `make`.
    cerrno hold_tid(uint32_t tid, uint32_t *slot);
    cerrno hold_vrf(uint32_t vrf_id, const char *name, bool make, uint32_t *slot);
    // Gives a VRF side those of its keys that are not 0 and not empty.
    cerrno name_vrf(uint32_t slot, uint32_t vrf_id, const char *name);
    void drop_tid(uint32_t slot);
    void drop_vrf(uint32_t slot);

    // Routes. `announce` gives the slot of a route that is named, held or not.
    uint32_t find_route(const route_key &key) const;
    cerrno announce_route(const route_key &key, uint32_t *slot);
    cerrno hold_route(uint32_t slot, uint32_t state);
    void drop_route(uint32_t slot);
    bool route_held(uint32_t slot) const {
        return slot != no_slot && routes.at(slot).head.state >= slot_created;
    }
    // Longest match among committed routes.
    uint32_t match_route(uint32_t tid, const ip_maddr_st &source, const ip_maddr_st &group) const;

    // Interfaces of routes.
    uint32_t find_intf(const intf_key &key) const {
        return key.route == no_slot ? no_slot : intfs.find(routes.at(key.route), key);
    }
    cerrno hold_intf(const intf_key &key, uint32_t ifh, uint32_t *slot);
    void drop_intf(uint32_t slot);
    void drop_intfs_of(uint32_t route);

    // The rest is kept by key alone.
    cerrno hold_idb(uint32_t ifh, uint32_t *slot);
    void drop_idb(uint32_t slot);
    cerrno add_member(uint32_t parent, uint32_t member);
    void drop_member(uint32_t parent, uint32_t member);
    cerrno hold_encap(uint32_t encap_id, uint32_t state, uint32_t *slot);
    void drop_encap(uint32_t slot);
    cerrno hold_leaf(const leaf_key &key, uint32_t state, uint32_t *slot);
    void drop_leaf(uint32_t slot);
    cerrno hold_regdb(const regdb_key &key, uint32_t *slot);
    void drop_regdb(uint32_t slot);

    slot_table<tid_slot> tids;
    slot_array<vrf_slot> vrfs;
    slot_table<route_slot> routes;
    intf_table intfs;
    slot_table<idb_slot> idbs;
    slot_table<member_slot> members;
    slot_table<encap_slot> encaps;
    slot_table<leaf_slot> leaves;
    slot_table<regdb_slot> regdbs;

  private:
    uint32_t find_vrf(uint32_t vrf_id, const char *name) const;
    bool index_vrf(uint32_t slot);  // false: out of memory
    void unindex_vrf(uint32_t slot);
    cerrno open_all(int folder_fd);
    void close_all();
    cerrno compute();
    cerrno compute_routes();
    cerrno compute_others();
    void forget_route_if_bare(uint32_t slot);
    void count_length(uint32_t slot, int change);
    void count_in_table(uint32_t tid, int change);

    bool opened_ = false;
    uint64_t counts_[IP6MC_PLATFORM_KINDS] = {};
    uint64_t capacity_[IP6MC_PLATFORM_KINDS] = {UINT64_MAX, UINT64_MAX, UINT64_MAX, UINT64_MAX,
                                                UINT64_MAX, UINT64_MAX, UINT64_MAX};
    cerrno full_code_ = 28;                               // ENOSPC
    uint64_t lengths_[IPV4MC_ROUTE_PFX_LEN_SG + 1] = {};  // committed routes by length
    uint64_t orphans_ = 0;                                // routes whose table is not held
    slot_index vrfs_by_id_;
    slot_index vrfs_by_name_;
    mutable uint32_t latest_route_ = no_slot;  // found last: calls come in rows about one route
};

// The one hardware of the process, in memory until told otherwise. Opened at the first use.
hardware &hw();

// Key of a route as the seam names it: any source means (S,G), else the group is cut to its length.
route_key make_route_key(uint32_t tid, const ip_maddr_st &source, const ip_maddr_st &group,
                         uint32_t pfx_len);

inline bool is_wildcard(const ip_maddr_st &address) {
    return (address.words[0] | address.words[1] | address.words[2] | address.words[3]) == 0;
}

}  // namespace mfwd6::sim

#endif
