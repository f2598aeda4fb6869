// A window with something of everything in it.
#ifndef MFWD6_TESTS_APPS_CHECK_RICH_STATE_H
#define MFWD6_TESTS_APPS_CHECK_RICH_STATE_H

#include "apps/check/check.h"
#include "ipv4/multicast/lib/ip6mc_bvi.h"
#include "ipv4/multicast/lib/ip6mc_objid.h"
#include "ipv4/multicast/lib/ip6mc_signal.h"
#include "services/events/event_manager.h"
#include "tests/kit/child.h"
#include "tests/lib/removal/rig.h"

namespace rich {

inline ip_maddr_st source(uint32_t n) {
    return bed::numbered("2001:db8::", n);
}

template <class Record>
Record *allocate(uint32_t type) {
    return static_cast<Record *>(ipv4mc_shmwin_malloc_inline(sizeof(Record), type));
}

// Records that other parts of the library make, as these leave them.
ipv4mc_regdb_entry_st *insert_transport(uint32_t ifh);
ipv4mc_encap_leaf_st *insert_encap_leaf(ipv4mc_encap_entry_st *encap, ipv4mc_regdb_entry_st *to);
void give_children(ipv4mc_idb_st *bundle);
ipv4mc_bvi_entry_t *insert_bvi(ipv4mc_table_st *vrf, ifhtype bvi, ipv4mc_intf_entry_st *tied);

class state {
  public:
    state();
    ~state();

    std::unique_ptr<bed::library> lib;
    ipv4mc_table_st *core = nullptr;  // default table
    ipv4mc_table_st *red = nullptr;   // tables by table id
    ipv4mc_table_st *blue = nullptr;
    ipv4mc_table_st *red_vrf = nullptr;
    ipv4mc_route_entry_st *above = nullptr;    // inherits forward, a range
    ipv4mc_route_entry_st *below = nullptr;    // hangs under it
    ipv4mc_route_entry_st *busy = nullptr;     // has interfaces a, b, c and an AMT one
    ipv4mc_route_entry_st *feeding = nullptr;  // core route of red
    ipv4mc_route_entry_st *feeding_too = nullptr;
    ipv4mc_route_entry_st *failed = nullptr;  // on the retry queue, as is the one behind it
    ipv4mc_route_entry_st *failed_too = nullptr;
    ipv4mc_route_entry_st *signal = nullptr;  // changed, as is the one behind it
    ipv4mc_route_entry_st *signal_too = nullptr;
    ipv4mc_intf_entry_st *a = nullptr;  // entries of busy, newest first on its list: amt, c, b, a
    ipv4mc_intf_entry_st *b = nullptr;
    ipv4mc_intf_entry_st *c = nullptr;
    ipv4mc_intf_entry_st *amt = nullptr;
    ipv4mc_encap_entry_st *encap = nullptr;
    ipv4mc_encap_leaf_st *leaf = nullptr;
    ipv4mc_encap_leaf_st *leaf_too = nullptr;
    ipv4mc_regdb_entry_st *transport = nullptr;
    ipv4mc_regdb_entry_st *transport_too = nullptr;
    ipv4mc_idb_st *bundle = nullptr;
    ipv4mc_bvi_entry_t *bvi = nullptr;
    ipmc_intf_change_req_st *request = nullptr;

  private:
    void make_tables();
    void make_routes();
    void make_interfaces();
    void make_signals();
    void make_encaps();
    void make_lists();
    void make_failures();
    void make_requests();
};

// Findings as lines, for messages of tests.
std::string lines(const mfwd6::check::report &found);

}  // namespace rich

#endif
