// What the tests of a route's later life add to the bed: one trie for all tables or one for each,
// core routes, encaps and transports.
#ifndef MFWD6_TESTS_LIB_REMOVAL_RIG_H
#define MFWD6_TESTS_LIB_REMOVAL_RIG_H

#include "ipv4/multicast/lib/ip6mc_encap.h"
#include "services/gtrie/gtrie.h"
#include "tests/lib/routes/bed.h"

namespace rig {

class sharing {
  public:
    explicit sharing(int on) : before_(ip6mc_gtrie_set_sharing(on)) {}
    ~sharing() { ip6mc_gtrie_set_sharing(before_); }

  private:
    int before_;
};

// The switch is set ahead of the first table.
class SharedOrNot : public testing::WithParamInterface<int>, private sharing, public bed::Test {
  protected:
    SharedOrNot() : sharing(GetParam()) {}
};

inline bool has_text(const std::vector<std::string> &texts, const std::string &part) {
    for (const std::string &text : texts) {
        if (text.find(part) != std::string::npos)
            return true;
    }
    return false;
}

inline ipv4mc_shmwin_hdr_st *header() {
    return ipv4mc_desc->shmwin_info;
}

// The table whose routes are core routes.
inline ipv4mc_table_st *make_default_table() {
    return bed::make_table(kit::default_tid, kit::default_vrf_id, "default");
}

inline cerrno erase(ipv4mc_table_st *table, ipv4mc_route_entry_st *route,
                    mrib_attrib_entry_type old) {
    int is_new = 0;
    return bed::operate(IPV4MC_ACTION_DELETE, table, {route->source, route->group, route->pfx_len},
                        &route, &is_new, old);
}
inline cerrno erase(ipv4mc_table_st *table, ipv4mc_route_entry_st *route) {
    return erase(table, route, route->attributes);
}

inline cerrno clear(ipv4mc_table_st *table, ipv4mc_route_entry_st *route) {
    int is_new = 0;
    return bed::operate(IPV4MC_ACTION_CLEAR, table, {route->source, route->group, route->pfx_len},
                        &route, &is_new, route->attributes);
}

// A committed encap, as the operation on encaps leaves it.
inline ipv4mc_encap_entry_st *make_encap(uint32_t id, uint8_t ip_lkp_ctl = 0) {
    uint8_t key[GTRIE_PREFIX_BYTES] = {static_cast<uint8_t>(id >> 12),
                                       static_cast<uint8_t>(id >> 4),
                                       static_cast<uint8_t>(id << 4)};
    void *leaf = nullptr;
    int created = 0;
    void *trie = header()->encap_gtrie;
    EXPECT_EQ(ip6mc_gtrie_platform_leaf_create(
                  trie, key, 20, &leaf,
                  sizeof(ipv4mc_encap_entry_st) + plat_params.encap_extension_size, &created),
              0U);
    auto *encap = static_cast<ipv4mc_encap_entry_st *>(leaf);
    encap->encap_id = id;
    encap->ip_lkp_ctl = ip_lkp_ctl;
    EXPECT_EQ(ip6mc_gtrie_platform_leaf_insert(trie, leaf, nullptr), 0U);
    return encap;
}

inline ipv4mc_regdb_entry_st *make_transport() {
    return static_cast<ipv4mc_regdb_entry_st *>(
        ipv4mc_shmwin_malloc_inline(sizeof(ipv4mc_regdb_entry_st), IPMC_SHMWIN_ALLOC_REGDB));
}

// A route with two local receivers in a customer's table, and the core route that feeds them.
struct fed_customer {
    fed_customer(ipv4mc_table_st *core, ipv4mc_table_st *table)
        : fed(bed::add(core, bed::sg(9))), route(bed::add(table, bed::sg(1))) {
        EXPECT_EQ(ip6mc_route_link_route_to_vrf(fed, IPV4MC_VRF_LOCAL, table->tid, "core"), 0U);
        for (ifhtype ifh = 1; ifh <= 2; ++ifh)
            bed::join(route, {0, ifh, 0, 0}, MRIB_INTF_EG);
        route->intf_local_EG_cnt = 2;
        table->route_counters.local_eg_cnt = 2;
        ip6mc_tbl_update_memd_routes(table, 1);
        EXPECT_EQ(fed->attributes, MRIB_ROUTE_DT);
    }
    ipv4mc_route_entry_st *fed;
    ipv4mc_route_entry_st *route;
};

// Calls of the platform in order, without those about interfaces themselves.
inline std::vector<std::string> route_calls() {
    std::vector<std::string> calls;
    for (const auto &call : bed::platform_calls()) {
        if (call.find("idb") != 0)
            calls.push_back(call);
    }
    return calls;
}

// Ties an entry to a next hop, at the head of its list.
inline void tie(ipv4mc_intf_entry_st *entry, ipv4mc_regdb_entry_st *transport) {
    entry->attributes |= MRIB_INTF_REGDB;
    entry->regdb_entry = transport;
    entry->list_next = transport->intf_head;
    if (transport->intf_head != nullptr)
        transport->intf_head->list_prev = entry;
    transport->intf_head = entry;
    ++entry->route->amt_intf_cnt;
}

}  // namespace rig

#endif
