// The plain model: what the window's records should say.
#ifndef MFWD6_TESTS_FUZZ_OPERATIONS_RECORDS_H
#define MFWD6_TESTS_FUZZ_OPERATIONS_RECORDS_H

#include <list>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "ipv4/multicast/lib/ip6mc_encap.h"
#include "ipv4/multicast/lib/ip6mc_idb.h"
#include "ipv4/multicast/lib/ip6mc_route.h"
#include "ipv4/multicast/lib/ip6mc_table.h"
#include "tests/fuzz/operations/keys.h"

namespace fuzz {

struct route;
struct tid_table;

struct encap {
    ipv4mc_encap_entry_st *record;
    uint32_t id;
    uint8_t lookup_control;
    uint8_t lookup = 0;
    uint32_t local_egress = 0;
    bool queued = false;
    std::list<route *> routes;  // newest first
};

// An interface of a route.
struct intf {
    ipv4mc_intf_entry_st *record;
    route *owner;
    intf_id id;
    ifhtype ifh;
    uint32_t intf_arg;
    uint64_t attributes = 0;
    bool on_idb = false;
    bool is_output = false;  // into the route's encap
    uint64_t obj_id = IPMC_OBJ_ID_NONE;

    bool is_egress() const { return (attributes & MRIB_INTF_EG) != 0; }
};

struct route {
    ipv4mc_route_entry_st *record;
    tid_table *table;
    named_key key;  // as it was named at its making
    ip_maddr_st aux{};
    uint64_t attributes = 0;
    route *parent = nullptr;
    std::list<std::unique_ptr<intf>> intfs;  // newest first
    std::unique_ptr<intf> pending;           // an entry between CREATE and COMMIT
    std::list<intf *> outputs;               // newest first
    encap *via = nullptr;
    tid_table *feeds = nullptr;  // of a core route, with the ids that it was given
    uint32_t local_id = 0;
    uint32_t remote_id = 0;
    uint16_t local_egress = 0;
    uint16_t extra_egress = 0;  // as its owner counts; a DELETE does not lower it
    bool published = false;
    bool err = false;  // on the retry queue
    bool oor = false;
    bool srd = false;
    bool acct_per_prefix = false;
    bool acct_fwd_only = false;
    bool rate_flag = false;
    bool has_rate = false;
    uint64_t obj_id = IPMC_OBJ_ID_NONE;

    intf *find(const intf_id &id) const {
        for (const auto &each : intfs) {
            if (each->id == id) {
                return each.get();
            }
        }
        return nullptr;
    }
    bool has(uint64_t bits) const { return (attributes & bits) != 0; }
};

// What the links of a core route put into its attributes.
constexpr uint64_t core_link_bits = MRIB_ROUTE_TID_DEMAND | MRIB_ROUTE_TID_STICKY;
constexpr uint64_t core_bits = core_link_bits | MRIB_ROUTE_DT | MRIB_ROUTE_DT_REMOTE;

// What accounting and rate actions leave in the record that they name.
struct table_settings {
    bool acct_per_prefix = false;
    bool acct_fwd_only = false;
    bool rate = false;
};

// A signal route; its interfaces newest first.
struct signal_intf {
    ifhtype ifh;
    uint64_t attributes;
};
struct signal {
    ipv4mc_route_entry_st *record;
    tid_table *table;
    route_id id;
    std::list<signal_intf> intfs;
    uint64_t attributes = 0;

    const signal_intf *find(ifhtype ifh) const {
        for (const signal_intf &each : intfs) {
            if (each.ifh == ifh) {
                return &each;
            }
        }
        return nullptr;
    }
};

struct vrf_table {
    ipv4mc_table_st *record;
    std::string name;
    bool found_by_name = false;  // not when another has the name
    uint32_t vrf_id = 0;
    bool active = false;
    tid_table *tid_side = nullptr;
    uint32_t prev_tid = 0;
    table_settings settings;
};

struct tid_table {
    ipv4mc_table_st *record;
    uint32_t tid;
    bool active = false;
    bool has_tries = false;
    vrf_table *vrf_side = nullptr;
    table_settings settings;
    uint32_t route_clears = 0;
    uint32_t signal_adds = 0;
    uint32_t local_egress = 0;
    bool is_mdt_master = false;
    std::list<route *> core_routes;                      // newest first
    std::map<route_id, std::unique_ptr<route>> routes;   // published
    std::map<route_id, std::unique_ptr<route>> pending;  // between CREATE and COMMIT
    std::map<route_id, std::unique_ptr<signal>> signals;
};

// What waits to be tried again: one of the two.
struct queued_object {
    route *of_route;
    encap *of_encap;
    bool operator==(const queued_object &) const = default;
};

// An interface of the router.
struct idb {
    ifhtype ifh;
    uint32_t locks = 0;
    std::list<intf *> entries;  // newest first
};

}  // namespace fuzz

#endif
