// Encaps, the routes that stand on them, and the interfaces that are their outputs.
#include <cerrno>

#include "ipv4/multicast/lib/ip6mc_encap.h"
#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "ipv4/multicast/lib/ip6mc_platform.h"
#include "ipv4/multicast/lib/ip6mc_platform_err.h"
#include "tests/crash/workload/step.h"

namespace crash {
namespace {

constexpr uint8_t ip_lkp_ctls[] = {0, IPV4MC_ENCAP_LKP_ON_FIRST, IPV4MC_ENCAP_LKP_STAYS};

// With id 0 off its encap.
void put_on_encap(ipv4mc_route_entry_st *route, uint32_t id) {
    ipv4mc_route_update_st update{};
    update.encap_id = id;
    ip6mc_route_update(route, IPV4MC_ROUTE_UPDATE_ENCAP, &update);
}

}  // namespace

void step::encaps() {
    aim_at_route();
    const uint32_t id = 1 + number(most_encaps);
    const uint8_t ctl = one_of(random_, ip_lkp_ctls);
    ipv4mc_route_entry_st *route = route_here();
    change(operation::other, 0, [&] {
        ipv4mc_encap_entry_st *encap = nullptr;
        ip6mc_encapid_lookup(id, &encap);
        if (encap == nullptr) {
            return make_encap(id, ctl);
        }
        const uint8_t look_up_behind = static_cast<uint8_t>(number(2));
        switch (number(8)) {
            case 0:
                ip6mc_encap_platform_commit(encap);
                break;
            case 1:
                ip6mc_encap_update(encap, IPV4MC_ENCAP_UPDATE_IP_LKP, &look_up_behind);
                break;
            case 2:
                if (encap->route_cnt == 0) {
                    end_encap(encap);
                }
                break;
            case 3:
                if (encap->route_head != nullptr) {
                    ipmc_unlink_route_from_encap(encap->route_head, encap);
                }
                break;
            default:
                if (route != nullptr) {
                    put_on_encap(route, route->encap != nullptr && number(2) == 0 ? 0 : id);
                }
        }
    });
}

// An interface becomes an output of its route's encap, or ceases to be.
void step::outputs() {
    aim_at_entry();
    ipv4mc_intf_entry_st *output = entry_here();
    if (output == nullptr) {
        return change_interfaces();
    }
    change(operation::other, 0, [&] {
        const ipv4mc_route_entry_st *route = output->route;
        if ((output->intf_flags & IPV4MC_INTF_FLAG_ENCAP_OLE) != 0) {
            ip6mc_route_encap_ole_unlink(output);
        } else {
            ip6mc_route_encap_ole_link(output);
        }
        const bool says_empty = ip6mc_route_encap_ole_empty(route) != 0;
        if (says_empty != (route->encap_ole_head == nullptr)) {
            give_up("the outputs of a route have a head and no tail, or a tail and no head");
        }
    });
}

}  // namespace crash
