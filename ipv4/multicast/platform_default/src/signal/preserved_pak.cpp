// The end of a signal route together with the packet that it preserved.
#include <cerrno>

#include "ipv4/multicast/lib/ip6mc_idb.h"
#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "ipv4/multicast/platform_default/src/ip_mcast_shmwin/packet_mutex_report.h"
#include "ipv4/multicast/platform_default/src/ip_mcast_shmwin/readiness.h"
#include "ipv4/multicast/platform_default/src/signal/signal_room.h"
#include "services/journal/journal.h"

namespace {

constexpr const char *operation = "ipv4mc_signal_remove_route_pak_internal";

// Which route is worked on, also while the mutex is given up.
struct route_at_hand {
    ipv4mc_table_st *table;
    ipv4mc_route_entry_st *route;
    ip_maddr_st source;
    ip_maddr_st group;
    timespec create_time;
    void *pak;
};

#define AT_HAND(at) SIGNAL_TABLE_ARGS((at).table), SIGNAL_KEY_ARGS(&(at).source, &(at).group)

// Whether the data path can be called; reports if not.
bool has_data_path(const route_at_hand &at) {
    if (ipv4mc_desc->im_context == nullptr) {
        SIGNAL_ERR(operation, "0x%x(%s): Invalid IPv4 ifmgr context for (%s,%s/%d)", AT_HAND(at));
        return false;
    }
    if (ipv4mc_desc->protocol == 0 || ipv4mc_desc->caps == 0) {
        SIGNAL_ERR(operation, "0x%x(%s): Invalid IPv4 protocol and caps for (%s,%s/%d)",
                   AT_HAND(at));
        return false;
    }
    return true;
}

// With the mutex given up, somebody else may have removed the route, and made it anew.
bool is_still_there(const route_at_hand &at) {
    cerrno rc = 0;
    const ipv4mc_route_entry_st *route = mlib::signal::find(at.table, &at.source, &at.group, &rc);
    return rc == 0 && route == at.route && route->create_time.tv_sec == at.create_time.tv_sec &&
           route->create_time.tv_nsec == at.create_time.tv_nsec;
}

// Calls the data path without the mutex, under which it must not be called. False when the route
// went meanwhile.
bool free_pak_of(const route_at_hand &at, mfwd_cmd free_pak) {
    ipv4mc_dpc_pak_st record{free_pak, 0, at.pak, 0};
    cerrno rc = ip6mc_shmwin_mutex_unlock();
    if (rc != 0) {
        SIGNAL_ERR(operation, "0x%x(%s): Cannot Unlock shmwin_mutex (%s,%s/%d): %s", AT_HAND(at),
                   cerr_strerror(rc));
    }
    // Its result decides nothing: the packet is the data path's from here on.
    ipv4mc_intf_dpc(0, IPV4MC_DPC_PAK_DROP, sizeof(record), &record, 0, 0);
    rc = ip6mc_shmwin_mutex_lock(operation, __LINE__);
    if (rc != 0) {
        SIGNAL_ERR(operation, "0x%x(%s): Cannot lock shmwin_mutex (%s,%s/%d): %s", AT_HAND(at),
                   cerr_strerror(rc));
        SIGNAL_ERR(operation,
                   "0x%x(%s): Datapath error while freeing reserved packet in (%s,%s/%d): %s",
                   AT_HAND(at), cerr_strerror(rc));
        // Goes on without the lock, the packet still noted: the route must not outlive its table.
        return mlib::window_is_open();
    }
    if (!is_still_there(at)) {
        return false;
    }
    if (at.route->preserved_pak == at.pak) {
        mfwd6::journal::store(at.route->preserved_pak, static_cast<void *>(nullptr));
    }
    return true;
}

}  // namespace

cerrno ipv4mc_signal_remove_route_pak_internal(ipv4mc_table_st *table, ipv4mc_route_entry_st *route,
                                               mfwd_cmd free_pak) {
    const route_at_hand at{
        table, route, route->source, route->group, route->create_time, route->preserved_pak};
    mlib::report_packet_mutex_held(operation, __LINE__);
    if (has_data_path(at) && free_pak != 0 && at.pak != nullptr && !free_pak_of(at, free_pak)) {
        return 0;
    }
    return mlib::signal::remove_interfaces(table, route, [&](ifhtype ifh, cerrno failed) {
        SIGNAL_ERR(operation, "0x%x(%s): Cannot remove signal (%s,%s/%d) %s: %s. Continuing...",
                   AT_HAND(at), mlib::intf_name(ifh), cerr_strerror(failed));
    });
}
