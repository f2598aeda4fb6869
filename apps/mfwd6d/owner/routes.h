// Routes as commands and configuration make them: each call is one change of the window, done or
// not done, whoever is killed when. A call that fails half-way takes back what it did.
#ifndef MFWD6_APPS_MFWD6D_OWNER_ROUTES_H
#define MFWD6_APPS_MFWD6D_OWNER_ROUTES_H

#include <vector>

#include "apps/mfwd6d/owner/interfaces.h"
#include "apps/mfwd6d/owner/outcome.h"
#include "apps/mfwd6d/owner/tables.h"
#include "ipv4/multicast/lib/ip6mc_route.h"

namespace mfwd6::daemon {

struct route_id {
    ipv4mc_table_st *table = nullptr;  // the table-id side
    ip_maddr_st source{};              // all zero: any
    ip_maddr_st group{};
    uint16_t length = 0;  // 256 with a source, else that of the group
};

// Key of a route from the parts of a line or command.
route_id make_route_id(const table &t, const ip_maddr_st &source, const config::prefix &group);

// "(S,G)" or "(*,G/m)", for messages.
std::string route_text(const route_id &id);

// One interface that takes part in a route.
struct route_port {
    interface *i = nullptr;
    uint64_t attributes = 0;  // MRIB_INTF_ACCEPT, MRIB_INTF_FORWARD
};

// Attribute word of a route with these line_flags. Routes for any source may be parents.
uint64_t route_attributes(const route_id &id, uint8_t flags);

class routes {
  public:
    explicit routes(interfaces *all) : interfaces_(*all) {}

    // Makes the route exactly so: with these ports and no others. Nothing is touched that agrees.
    outcome make(const route_id &id, uint64_t attributes, const std::vector<route_port> &ports);

    // ENOENT.
    outcome erase(const route_id &id);

    // The route with these ports added; or with these bits of ports taken away, and ports without
    // bits left. ENOENT: no such route. A port that the route has not got is passed over.
    outcome add_ports(const route_id &id, const std::vector<route_port> &ports);
    outcome remove_ports(const route_id &id, const std::vector<route_port> &ports);

    // The route of exactly this key, or null.
    static ipv4mc_route_entry_st *find(const route_id &id);

  private:
    outcome create(const route_id &id, ipv4mc_route_entry_st *route, uint64_t attributes,
                   const std::vector<route_port> &ports);
    outcome change(const route_id &id, ipv4mc_route_entry_st *route, uint64_t attributes,
                   const std::vector<route_port> &ports);

    interfaces &interfaces_;
};

}  // namespace mfwd6::daemon

#endif
