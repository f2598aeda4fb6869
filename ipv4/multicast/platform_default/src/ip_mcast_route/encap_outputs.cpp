// The interfaces of a route that are encap output entries.
#include "ipv4/multicast/lib/ip6mc_route.h"
#include "ipv4/multicast/platform_default/src/diagnostics/report.h"
#include "ipv4/multicast/platform_default/src/ip_mcast_route/route_lists.h"
#include "services/journal/journal.h"

namespace {

using mfwd6::journal::group;
using mfwd6::journal::store;

using outputs = mfwd6::journal::list<mlib::intf_links>;

uint64_t word(const void *pointer) {
    return reinterpret_cast<uint64_t>(pointer);
}

void set_flag(ipv4mc_intf_entry_st *entry, bool on) {
    const uint8_t without = static_cast<uint8_t>(entry->intf_flags & ~IPV4MC_INTF_FLAG_ENCAP_OLE);
    store(entry->intf_flags,
          static_cast<uint8_t>(on ? without | IPV4MC_INTF_FLAG_ENCAP_OLE : without));
}

bool is_output(const ipv4mc_intf_entry_st *entry) {
    return (entry->intf_flags & IPV4MC_INTF_FLAG_ENCAP_OLE) != 0;
}

void trace_list(mlib_trace_id id, const ipv4mc_intf_entry_st *entry) {
    const ipv4mc_route_entry_st *route = entry->route;
    _ltrace_3(ip6mc_mlib_enc_ltrace(), id, word(entry), word(route), entry->ifh);
    _ltrace_3(ip6mc_mlib_enc_ltrace(), id, word(route->encap_ole_head), word(route->encap_ole_tail),
              route->attributes);
}

}  // namespace

extern "C" {

void ip6mc_route_encap_ole_link(ipv4mc_intf_entry_st *entry) {
    if (is_output(entry)) {
        return;
    }
    ipv4mc_route_entry_st *route = entry->route;
    trace_list(MLIB_TRACE_ENCAP_OLE_LINK, entry);
    const group change;
    outputs(route->encap_ole_head).push_front(entry);
    if (route->encap_ole_tail == nullptr) {
        store(route->encap_ole_tail, entry);
    }
    set_flag(entry, true);
}

void ip6mc_route_encap_ole_unlink(ipv4mc_intf_entry_st *entry) {
    if (!is_output(entry)) {
        return;
    }
    ipv4mc_route_entry_st *route = entry->route;
    trace_list(MLIB_TRACE_ENCAP_OLE_UNLINK, entry);
    const group change;
    if (route->encap_ole_tail == entry) {
        store(route->encap_ole_tail, entry->list_prev);
    }
    mlib::leave_list<mlib::intf_links>(route->encap_ole_head, entry);
    set_flag(entry, false);
}

int ip6mc_route_encap_ole_empty(const ipv4mc_route_entry_st *route) {
    return route->encap_ole_tail == nullptr ? 1 : 0;
}

}  // extern "C"
