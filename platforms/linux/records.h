// What the platform keeps behind the library's records, and how it reads them.
#ifndef MFWD6_PLATFORMS_LINUX_RECORDS_H
#define MFWD6_PLATFORMS_LINUX_RECORDS_H

#include "ipv4/multicast/lib/ip6mc_route.h"
#include "ipv4/multicast/lib/ip6mc_table.h"
#include "platforms/linux/tables.h"

namespace mfwd6::lnx {

// Behind a route. Zero in a new one. `epoch` is that of the table when the rest was written: with
// another one the kernel has nothing of the route.
struct route_extension {
    uint64_t epoch;
    mif_set outputs;  // of its own entry
    mif_set accepts;  // interfaces of the route itself that accept
    uint8_t parent;   // of its own entry
    uint8_t committed;
    uint8_t has_entry;         // of its own
    uint8_t local_mif_plus_1;  // where it holds a membership of this node, 0: nowhere
    uint8_t has_children;      // routes may take their accepting interfaces from here
    uint8_t reserved[3];
    uint64_t packets;  // beside those that its entries count now: of entries that are gone
    uint64_t bytes;
};
static_assert(sizeof(route_extension) == 40);

// Behind an interface entry: the mif that it counts as a use of, of the run that counted it. One
// word.
struct intf_extension {
    uint64_t run_and_mif;  // the run in the upper 56 bits; 0: none

    bool counted_by(uint64_t run) const { return run_and_mif >> 8 == run; }
    uint32_t mif() const { return static_cast<uint32_t>(run_and_mif & 0xff); }
    void set(uint64_t run, uint32_t mif_number) { run_and_mif = run << 8 | mif_number; }
};
static_assert(sizeof(intf_extension) == 8);

inline route_extension &extension(ipv4mc_route_entry_st &route) {
    return *reinterpret_cast<route_extension *>(&route + 1);
}
inline intf_extension &extension(ipv4mc_intf_entry_st &entry) {
    return *reinterpret_cast<intf_extension *>(&entry + 1);
}

inline bool exact_source(const ipv4mc_route_entry_st &route) {
    return !is_any(route.source);
}
inline entry_key key_of(const ipv4mc_route_entry_st &route) {
    return {route.source, route.group};
}
// Bits of the group, 256 for (S,G).
inline uint32_t length_of(const ipv4mc_route_entry_st &route) {
    return exact_source(route) ? IPV4MC_ROUTE_PFX_LEN_SG : route.pfx_len;
}

// True when the kernel has an entry for the route itself.
inline bool has_entry(const table &t, ipv4mc_route_entry_st &route) {
    const route_extension &e = extension(route);
    return e.has_entry != 0 && e.epoch == epoch_of(t);
}

// The route of exactly this key, or nullptr. `length` as of length_of.
ipv4mc_route_entry_st *exact_route(ipv4mc_table_st *record, const entry_key &key, uint32_t length);

// The route that takes packets of a flow, or nullptr.
ipv4mc_route_entry_st *matching_route(ipv4mc_table_st *record, const entry_key &key);

// Called for each route that takes its accepting interfaces from `parent`. How many there are.
using child_fn = void (*)(table &t, ipv4mc_route_entry_st &child);
uint64_t each_child(table &t, ipv4mc_route_entry_st &parent, child_fn fn);

// Called for each route below `parent` that takes accepting interfaces from any route.
void each_inheriting(table &t, ipv4mc_route_entry_st &parent, child_fn fn);

}  // namespace mfwd6::lnx

#endif
