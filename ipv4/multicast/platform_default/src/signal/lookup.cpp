// Finding signals, and the count of preserved packets.
#include <atomic>
#include <cerrno>

#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "ipv4/multicast/platform_default/src/ip_mcast_shmwin/readiness.h"
#include "ipv4/multicast/platform_default/src/signal/signal_room.h"
#include "services/gtrie/gtrie.h"

namespace {

using mlib::signal::check_key;
using mlib::signal::check_ready;

// No interface asked for.
const char *wanted_name(ifhtype ifhandle) {
    return ifhandle == 0 ? "NONE" : mlib::intf_name(ifhandle);
}

cerrno check_intf_pointer(const char *operation, const void *route,
                          ipv4mc_intf_entry_st **intf_pp) {
    if (route == nullptr) {
        SIGNAL_ERR(operation, "Null route pointer");
        return EINVAL;
    }
    if (intf_pp == nullptr) {
        SIGNAL_ERR(operation, "Null interface pointer");
        return EINVAL;
    }
    return 0;
}

cerrno look_up_intf(ipv4mc_table_st *table, ipv4mc_route_entry_st *route, ifhtype ifhandle,
                    ipv4mc_intf_entry_st **intf_pp) {
    *intf_pp = ip6mc_intf_route_lookup(route, IPV4MC_INTF_ORDINARY, ifhandle, 0, 0);
    if (*intf_pp != nullptr) {
        SIGNAL_DEBUG("ip6mc_signal_intf_lookup", IPV4_DEBUG_SIG,
                     "0x%x(%s): Signal lookup successful for %s (%s,%s/%d)",
                     SIGNAL_TABLE_ARGS(table), mlib::intf_name(ifhandle),
                     SIGNAL_KEY_ARGS(&route->source, &route->group));
    } else {
        SIGNAL_ERR("ip6mc_signal_intf_lookup", "0x%x(%s): I/F not found for signal %s (%s,%s/%d)",
                   SIGNAL_TABLE_ARGS(table), mlib::intf_name(ifhandle),
                   SIGNAL_KEY_ARGS(&route->source, &route->group));
    }
    return 0;
}

}  // namespace

namespace mlib::signal {

void make_key(const ipv4mc_table_st *table, const ip_maddr_st *source, const ip_maddr_st *group,
              uint32_t length, trie_key *key) {
    *key = trie_key{};
    ip6mc_gtrie_make_prefix(table->signal_gtrie, key->prefix, source, group);
    key->length = length;
    ip6mc_gtrie_get_pfx_len_adjusted(table->signal_gtrie, &key->length);
}

ipv4mc_route_entry_st *find(const ipv4mc_table_st *table, const ip_maddr_st *source,
                            const ip_maddr_st *group, cerrno *error) {
    trie_key key;
    make_key(table, source, group, IPV4MC_ROUTE_PFX_LEN_SG, &key);
    return static_cast<ipv4mc_route_entry_st *>(
        ip6mc_gtrie_lookup_exact(table->signal_gtrie, key.prefix, key.length, error));
}

cerrno check_ready(const char *operation) {
    if (mlib::library_is_ready()) {
        return 0;
    }
    SIGNAL_ERR(operation, "Multicast library Not ready\n");
    return EBADF;
}

cerrno check_key(const char *operation, const ipv4mc_table_st *table, const ip_maddr_st *source,
                 const ip_maddr_st *group) {
    if (table == nullptr) {
        SIGNAL_ERR(operation, "Null table pointer");
        return EINVAL;
    }
    if (source == nullptr || group == nullptr) {
        SIGNAL_ERR(operation, "Null %s pointer", source == nullptr ? "source" : "group");
        return EINVAL;
    }
    return 0;
}

}  // namespace mlib::signal

extern "C" {

cerrno ip6mc_signal_lookup(ipv4mc_table_st *table, const ip_maddr_st *source,
                           const ip_maddr_st *group, ifhtype ifhandle,
                           ipv4mc_route_entry_st **route_pp, ipv4mc_intf_entry_st **intf_pp) {
    cerrno rc = check_ready(__func__);
    rc = rc != 0 ? rc : check_key(__func__, table, source, group);
    if (rc != 0) {
        return rc;
    }
    // The name of the interface is asked for only where it is printed: it costs a search.
    MLIB_DEBUG(IPV4_DEBUG_EV, "0x%x(%s): Just in (%s,%s/%d) intf=%s", SIGNAL_TABLE_ARGS(table),
               SIGNAL_KEY_ARGS(source, group), wanted_name(ifhandle));
    if (route_pp == nullptr) {
        MLIB_ERR("Null route pointer");
        return EINVAL;
    }
    ipv4mc_intf_entry_st *unwanted = nullptr;
    intf_pp = intf_pp != nullptr ? intf_pp : &unwanted;
    rc = ip6mc_shmwin_mutex_lock(__func__, __LINE__);
    if (rc != 0) {
        MLIB_ERR("0x%x(%s): Cannot lock shmwin_mutex (%s,%s/%d) intf %s: %s",
                 SIGNAL_TABLE_ARGS(table), SIGNAL_KEY_ARGS(source, group), wanted_name(ifhandle),
                 cerr_strerror(rc));
        return rc;
    }
    *route_pp = nullptr;
    // Whoever asks for no interface may pass a variable of other use.
    if (ifhandle != 0) {
        *intf_pp = nullptr;
    }
    ipv4mc_route_entry_st *route = mlib::signal::find(table, source, group, &rc);
    if (rc != 0) {
        MLIB_ERR("0x%x(%s): Cannot search in signal table for (%s,%s/%d) %s Error %s",
                 SIGNAL_TABLE_ARGS(table), SIGNAL_KEY_ARGS(source, group), wanted_name(ifhandle),
                 cerr_strerror(rc));
    } else {
        *route_pp = route;
        if (route != nullptr && ifhandle != 0) {
            rc = look_up_intf(table, route, ifhandle, intf_pp);
        }
    }
    const cerrno unlocked = ip6mc_shmwin_mutex_unlock();
    if (unlocked != 0) {
        MLIB_ERR("0x%x(%s): Cannot Unlock shmwin_mutex (%s,%s/%d) intf %s: %s",
                 SIGNAL_TABLE_ARGS(table), SIGNAL_KEY_ARGS(source, group), wanted_name(ifhandle),
                 cerr_strerror(unlocked));
    }
    return rc;
}

cerrno ip6mc_signal_intf_lookup(ipv4mc_table_st *table, ipv4mc_route_entry_st *route,
                                ifhtype ifhandle, ipv4mc_intf_entry_st **intf_pp) {
    cerrno rc = check_key(__func__, table, &mlib::any_address, &mlib::any_address);
    rc = rc != 0 ? rc : check_intf_pointer(__func__, route, intf_pp);
    return rc != 0 ? rc : look_up_intf(table, route, ifhandle, intf_pp);
}

cerrno ip6mc_signal_intf_lookup_mutex(ipv4mc_table_st *table, ipv4mc_route_entry_st *route,
                                      ifhtype ifhandle, ipv4mc_intf_entry_st **intf_pp) {
    cerrno rc = check_ready(__func__);
    rc = rc != 0 ? rc : check_key(__func__, table, &mlib::any_address, &mlib::any_address);
    rc = rc != 0 ? rc : check_intf_pointer(__func__, route, intf_pp);
    if (rc != 0) {
        return rc;
    }
    rc = ip6mc_shmwin_mutex_lock(__func__, __LINE__);
    if (rc != 0) {
        MLIB_ERR("0x%x(%s): Cannot lock shmwin_mutex (%s,%s/%d) intf %s: %s",
                 SIGNAL_TABLE_ARGS(table), SIGNAL_KEY_ARGS(&route->source, &route->group),
                 mlib::intf_name(ifhandle), cerr_strerror(rc));
        return rc;
    }
    rc = look_up_intf(table, route, ifhandle, intf_pp);
    const cerrno unlocked = ip6mc_shmwin_mutex_unlock();
    if (unlocked != 0) {
        MLIB_ERR("0x%x(%s): Cannot Unlock shmwin_mutex (%s,%s/%d) intf %s: %s",
                 SIGNAL_TABLE_ARGS(table), SIGNAL_KEY_ARGS(&route->source, &route->group),
                 mlib::intf_name(ifhandle), cerr_strerror(unlocked));
    }
    return rc;
}

uint32_t ip6mc_signal_get_total_pkts_preserved(void) {
    if (mlib::signal::check_ready(__func__) != 0) {
        // Above any limit that a client has: it takes its limit as reached and preserves nothing.
        return IPV4MC_PKTS_PRESERVED_NOT_READY;
    }
    return std::atomic_ref(ipv4mc_desc->shmwin_info->total_pkts_preserved)
        .load(std::memory_order_relaxed);
}

// No lock: packet paths of several processes count here. The count only rises, although packets are
// freed later; nothing may count it down.
cerrno ip6mc_signal_incr_total_pkts_preserved(void) {
    const cerrno rc = mlib::signal::check_ready(__func__);
    if (rc == 0) {
        std::atomic_ref(ipv4mc_desc->shmwin_info->total_pkts_preserved)
            .fetch_add(1, std::memory_order_relaxed);
    }
    return rc;
}

}  // extern "C"
