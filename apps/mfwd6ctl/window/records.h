// Records of the window, copied out of it.
#ifndef MFWD6_APPS_MFWD6CTL_RECORDS_H
#define MFWD6_APPS_MFWD6CTL_RECORDS_H

#include <ctime>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "apps/mfwd6ctl/window/attach.h"
#include "apps/mfwd6ctl/window/trie_walk.h"
#include "ipv4/multicast/lib/ip6mc_idb.h"
#include "ipv4/multicast/lib/ip6mc_route.h"
#include "ipv4/multicast/lib/ip6mc_table.h"

namespace ctl {

struct table_copy {
    std::string name;     // of the VRF, empty if unknown
    uint32_t tid = 0;     // 0: the table has no table id yet
    uint32_t vrf_id = 0;  // 0 if unknown
    bool active = false;
    uint32_t routes = 0;
    uint32_t signals = 0;
    uint32_t signals_ever = 0;
    uint32_t interfaces = 0;
    bool accounting = false;
};

struct interface_copy {
    std::string name;
    ifhtype ifh = 0;
    uint32_t type = 0;
    std::string vrf;  // empty while it is in none
    uint32_t vrf_id = 0;
    bool enabled = false;
    uint32_t ttl = 0;
    std::string boundary;  // name of the access list, empty if none
    uint32_t routes = 0;
    uint32_t references = 0;
    uint32_t mtu = 0;
    bool stale = false;  // not confirmed since the owner's restart
};

struct intf_entry_copy {
    ifhtype ifh = 0;
    std::string name;
    uint64_t attributes = 0;
    uint32_t kind = 0;      // ipv4mc_intf_types
    uint32_t amt_addr = 0;  // of IPV4MC_INTF_AMT
    uint16_t amt_port = 0;
    struct timespec created {};
};

struct route_counters {
    uint64_t in_packets = 0;
    uint64_t in_bytes = 0;
    uint64_t out_packets = 0;
    uint64_t out_bytes = 0;
};

struct route_key {
    ip_maddr_st source{};
    ip_maddr_st group{};
    uint16_t length = 0;  // 256 for (S,G), that of the group otherwise

    // Bits of the group that count.
    uint32_t group_length() const { return length > 128 ? 128 : length; }
};

struct route_copy {
    route_key key;
    uint64_t attributes = 0;
    bool failed = false;            // waits for another try of the platform
    bool out_of_resources = false;  // held back: the hardware is full
    uint64_t obj_id = 0;
    struct timespec created {};
    std::optional<route_key> parent;  // of a route that inherits its accepting interfaces
    uint32_t encap_id = 0;
    uint32_t rpf_id = 0;
    bool has_packet = false;  // signal routes: a packet is kept for the control plane
    std::vector<intf_entry_copy> interfaces;  // oldest first
    std::optional<route_counters> counters;
};

// Names of interfaces, remembered. Lookups are made within a step.
class interface_names {
  public:
    // "if-0x1234" for an interface that has no record, or no name.
    const std::string &of(ifhtype ifh);

  private:
    std::map<ifhtype, std::string> known_;
};

// All tables: those with a table id first, in the order of ids, then the others by name.
std::vector<table_copy> read_tables(const window &w);

// The tables to show: all, or with a `vrf` the one of that name. Throws failure when it is not
// there.
std::vector<table_copy> read_tables(const window &w, const std::string &vrf);

// All interfaces, in the order of handles.
std::vector<interface_copy> read_interfaces(const window &w);

// What a walk over routes is to give.
struct route_wish {
    std::optional<ip_maddr_st> source;  // all zero: (*,G) only
    std::optional<ip_maddr_st> group;   // with `group_length` bits: routes within that prefix
    uint32_t group_length = 0;
    bool exact_group = false;  // only routes whose group is the prefix itself
    bool with_counters = true;
};

enum class route_kind { routes, signals };

// Calls `visit` for the routes or signals of one table, in the trie's order; outside of steps, so
// it may take its time. Routes that come or go meanwhile may be shown or not. False: the table is
// gone.
bool walk_routes(const window &w, uint32_t tid, route_kind kind, const route_wish &wish,
                 interface_names &names, const std::function<void(const route_copy &)> &visit);

// One route by its key; with `best` the one that a packet of (source, group) takes.
std::optional<route_copy> find_route(const window &w, uint32_t tid, const route_key &key, bool best,
                                     interface_names &names);

}  // namespace ctl

#endif
