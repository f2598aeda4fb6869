// Compares the references of an interface with the holders that can be seen in its record.
#include "ipv4/multicast/lib/ip6mc_table.h"
#include "ipv4/multicast/platform_default/src/diagnostics/report.h"
#include "ipv4/multicast/platform_default/src/ipv4_mcast_idb/idb.h"
#include "services/trees/wavl.h"

namespace {

// Bits of the mask that the warning shows.
enum holder_bits : uint32_t {
    holds_vrf = 0x01,
    holds_aib = 0x02,
    holds_announcement = 0x04,
    announced_before_restart = 0x08,  // seen, and not counted
    holds_routes = 0x10,
    holds_explicit_cfg = 0x20,
    holds_boundary = 0x40,
    holds_fabric = 0x80,
};

struct expectation {
    uint32_t count = 0;
    uint32_t mask = 0;

    // Without a branch: each route that joins an interface comes through here, and the compiler
    // makes a path of its own for each combination of holders otherwise.
    void add(bool held, uint32_t bit, uint32_t references = 1) {
        count += references * uint32_t{held};
        mask |= bit * uint32_t{held};
    }
};

expectation expected_of(const ipv4mc_idb_st *idb) {
    const bool fabric = ip6mc_idb_is_fint_ifh(idb->ifh) != 0;
    const bool announced = idb->im_create_rcvd != 0;
    const bool confirmed = idb_post_restart_done == 1;
    expectation expected;
    expected.add(fabric, holds_fabric);
    expected.add(mlib::has_flag(idb->cfg_flags, IPV4MC_IDB_CFG_EXPLICIT), holds_explicit_cfg);
    expected.add(idb->boundary_name[0] != '\0', holds_boundary);
    expected.add(announced && confirmed, holds_announcement);
    expected.add(announced && !confirmed, announced_before_restart, 0);
    expected.add(idb->aib != nullptr, holds_aib);
    expected.add(idb->route_count != 0, holds_routes, idb->route_count);
    // The fabric interface's one reference covers its VRF.
    expected.add(idb->vrf_id != 0, holds_vrf, fabric ? 0 : 1);
    return expected;
}

int sanity_walk_fn(void *node, void *) {
    ip6mc_idb_refcount_sanity_fn(static_cast<ipv4mc_idb_st *>(ipmc_idb_wavl2idb(node)));
    return 1;
}

}  // namespace

extern "C" {

int ip6mc_idb_refcount_sanity_fn(ipv4mc_idb_st *idb) {
    if (idb == nullptr) {
        return 0;
    }
    const expectation expected = expected_of(idb);
    // What an active tunnel holds of the interface underneath is not among the terms.
    if (idb->refcount == expected.count ||
        mlib::has_flag(idb->tunnel_flags, IPV4MC_IDB_TUNNEL_ACTIVE)) {
        return 1;
    }
    _ltrace_5(ip6mc_mlib_idb_warn_ltrace(), MLIB_TRACE_IDB_REFCOUNT, idb->ifh, expected.count,
              idb->refcount, expected.mask, 0);
    MLIB_DEBUG(IPV4_DEBUG_WRN, "IDB-WARN: Refcount mismatch ifh 0x%x - [2] %d,%d [0x%x]", idb->ifh,
               expected.count, idb->refcount, expected.mask);
    return 0;
}

int ip6mc_idb_refcount_sanity_walk(ipv4mc_table_st *table) {
    if (table != nullptr) {
        wavl_walk(&table->idb_tree, IPV4MC_IDB_THREAD_VRF, sanity_walk_fn, nullptr);
    }
    return 1;
}

}  // extern "C"
