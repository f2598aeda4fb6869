#include "tests/apps/mfwd6ctl/owner.h"

#include <arpa/inet.h>

#include <stdexcept>

#include "ipv4/multicast/lib/ip6mc_idb.h"
#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "ipv4/multicast/lib/ip6mc_route.h"
#include "ipv4/multicast/lib/ip6mc_signal.h"
#include "platforms/sim/sim.h"
#include "services/diag/errors.h"
#include "tests/kit/library.h"

namespace ctl_test {
namespace {

constexpr uint32_t red_tid = 0xe0800005;
constexpr uint32_t red_vrf_id = 0x60000006;

void must(cerrno code, const char *what) {
    if (code != 0) {
        throw std::runtime_error(std::string(what) + ": " + cerr_strerror(code));
    }
}

ip_maddr_st address(const char *text) {
    ip_maddr_st result{};
    if (text != nullptr && inet_pton(AF_INET6, text, &result) != 1) {
        throw std::runtime_error(text);
    }
    return result;
}

void join(ipv4mc_route_entry_st *route, const entry &e) {
    ipv4mc_intf_entry_st *record = nullptr;
    for (const ipv4mc_action_type action : {IPV4MC_ACTION_CREATE, IPV4MC_ACTION_COMMIT}) {
        must(ip6mc_intf_operation(action, route->table, route, IPV4MC_INTF_ORDINARY, e.ifh, 0, 0, 0,
                                  &record, nullptr, 0, 0, 1),
             "interface of a route");
        if (action == IPV4MC_ACTION_CREATE) {
            record->attributes = e.attributes;
        }
    }
}

}  // namespace

ipv4mc_table_st *add_table(uint32_t tid, uint32_t vrf_id, const char *name) {
    ipv4mc_table_st *table = nullptr;
    must(ip6mc_table_operation(IPV4MC_ACTION_ACTIVATE, tid, vrf_id, name, &table, 0), "table");
    return table->tid_table;
}

void add_interface(ifhtype ifh, const char *name) {
    ipv4mc_idb_st *idb = nullptr;
    must(ip6mc_idb_lock_v3(ifh, name, &idb, nullptr), name);
}

void add_route(ipv4mc_table_st *table, const char *source, const char *group, uint16_t length,
               uint64_t attributes, const std::vector<entry> &entries) {
    const ip_maddr_st s = address(source);
    const ip_maddr_st g = address(group);
    ipv4mc_route_entry_st *route = nullptr;
    int is_new = 0;
    must(ip6mc_route_operation(IPV4MC_ACTION_CREATE, table, &s, &g, length, nullptr, &route, 0, 0,
                               &is_new),
         group);
    route->attributes = attributes;
    for (const entry &e : entries) {
        join(route, e);
    }
    must(ip6mc_route_operation(IPV4MC_ACTION_COMMIT, table, &s, &g, length, nullptr, &route, 0, 0,
                               &is_new),
         group);
}

void delete_route(ipv4mc_table_st *table, const char *source, const char *group, uint16_t length) {
    const ip_maddr_st s = address(source);
    const ip_maddr_st g = address(group);
    ipv4mc_route_entry_st *route = nullptr;
    int is_new = 0;
    must(ip6mc_route_operation(IPV4MC_ACTION_DELETE, table, &s, &g, length, nullptr, &route, 0, 0,
                               &is_new),
         group);
}

void add_signal(ipv4mc_table_st *table, const char *source, const char *group, ifhtype ifh) {
    const ip_maddr_st s = address(source);
    const ip_maddr_st g = address(group);
    ipv4mc_route_entry_st *route = nullptr;
    must(ip6mc_signal_add_mutex(table, &s, &g, ifh, &route, nullptr, nullptr), "signal");
}

world make_world() {
    world w{};
    w.standard = add_table(kit::default_tid, kit::default_vrf_id, "default");
    w.red = add_table(red_tid, red_vrf_id, "red");
    const char *names[] = {"eth0", "eth1", "eth2", "eth3"};
    for (ifhtype n = 0; n < 4; ++n) {
        add_interface(n + 1, names[n]);
    }
    const entry from_eth0{1, MRIB_INTF_ACCEPT};
    const entry to_eth1{2, MRIB_INTF_FORWARD};
    const entry to_eth2{3, MRIB_INTF_FORWARD};
    const entry both_eth3{4, MRIB_INTF_ACCEPT | MRIB_INTF_FORWARD};
    add_route(w.standard, "2001:db8::1", "ff3e::1", 256, 0, {from_eth0, to_eth1, to_eth2});
    add_route(w.standard, "2001:db8::2", "ff3e::1", 256, MRIB_ROUTE_DROP, {from_eth0});
    add_route(w.standard, nullptr, "ff3e:1::", 96, MRIB_ROUTE_IF | MRIB_ROUTE_SIGNAL,
              {from_eth0, to_eth2});
    add_route(w.red, "2001:db8::1", "ff3e::1", 256, 0, {both_eth3, to_eth2});
    add_signal(w.standard, "2001:db8::9", "ff3e::99", 1);
    return w;
}

owner::owner(const work &more) {
    process_ = std::make_unique<kit::child>([&](const kit::post &parent) {
        sim_reset();
        kit::library library;
        must(ip6mc_idb_init(nullptr, nullptr, 0, nullptr, nullptr, nullptr, nullptr), "interfaces");
        const world w = make_world();
        parent.tell();
        const int code = more ? more(w, parent) : 0;
        parent.hear();  // until the test ends, or kills
        return code;
    });
    if (process_->hear() != '.') {
        throw std::runtime_error("the owner does not start");
    }
}

words owner::with(const words &more) const {
    words all{"--run-dir", folder(), "--platform", "sim"};
    all.insert(all.end(), more.begin(), more.end());
    return all;
}

}  // namespace ctl_test
