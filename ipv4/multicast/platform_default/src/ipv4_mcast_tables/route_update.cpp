// Changes of one property of a committed route, and the counts that a route keeps for the tables of
// its receivers.
#include <cerrno>

#include "ipv4/multicast/lib/ip6mc_encap.h"
#include "ipv4/multicast/lib/ip6mc_idb.h"
#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "ipv4/multicast/lib/ip6mc_platform_wrappers.h"
#include "ipv4/multicast/lib/ip6mc_route.h"
#include "ipv4/multicast/lib/ip6mc_table.h"
#include "ipv4/multicast/platform_default/src/diagnostics/address_text.h"
#include "ipv4/multicast/platform_default/src/diagnostics/report.h"
#include "ipv4/multicast/platform_default/src/ip_mcast_route/route_lists.h"
#include "ipv4/multicast/platform_default/src/ip_mcast_shmwin/readiness.h"
#include "ipv4/multicast/platform_default/src/ipv4_mcast_tables/routes.h"
#include "services/journal/journal.h"

namespace {

using mfwd6::journal::group;
using mfwd6::journal::store;

void *plain(ipv4mc_route_entry_st *route) {
    return route;
}

void *plain(ipv4mc_encap_entry_st *encap) {
    return encap;
}

void join_encap(ipv4mc_route_entry_st *route, ipv4mc_encap_entry_st *encap) {
    const group change;
    mfwd6::journal::list<mlib::encap_route_links>(encap->route_head).push_front(route);
    store(route->encap, encap);
    store(encap->route_cnt, encap->route_cnt + 1);
    store(encap->intf_local_EG_cnt, encap->intf_local_EG_cnt + route->intf_local_EG_cnt);
}

cerrno ipmc_link_route_to_encap(ipv4mc_route_entry_st *route, ipv4mc_encap_entry_st *encap) {
    if (encap == nullptr) {
        MLIB_ERR("link_route_to_encap: invalid arg route:%p encap:%p", plain(route), plain(encap));
        return 0;
    }
    if (route->next_encap != nullptr || route->prev_encap != nullptr) {
        // A refusal that the caller does not see.
        MLIB_ERR("link_route_to_encap: invalid route:%p next_encap:%p prev_encap:%p", plain(route),
                 plain(route->next_encap), plain(route->prev_encap));
        return 0;
    }
    // The low half only: the sum of routes counts as none when it is a multiple of 65536.
    const bool had_none = static_cast<uint16_t>(encap->intf_local_EG_cnt) == 0;
    const group change;
    join_encap(route, encap);
    if (had_none && encap->intf_local_EG_cnt != 0 &&
        (encap->ip_lkp_ctl & IPV4MC_ENCAP_LKP_ON_FIRST) != 0) {
        mlib::switch_ip_lookup(encap, 1);
        ip6mc_encap_platform_commit(encap);
    }
    return 0;
}

// Finds the encap that an update names. 0 with a null `*encap` for an id of 0.
cerrno find_encap(ipv4mc_route_entry_st *route, uint32_t encap_id, ipv4mc_encap_entry_st **encap) {
    *encap = nullptr;
    if (encap_id == 0) {
        return 0;
    }
    const cerrno rc = ip6mc_encapid_lookup(encap_id, encap);
    if (rc != 0) {
        MLIB_ERR("ipv4mc_route_update: Error lkup encap_id:%d, route:%p",
                 static_cast<int>(encap_id), plain(route));
        return rc;
    }
    if (*encap == nullptr) {
        MLIB_ERR("ipv4mc_route_update: Erro encap id:%d , route:%p", static_cast<int>(encap_id),
                 plain(route));
        return EINVAL;
    }
    return 0;
}

cerrno take_encap(ipv4mc_route_entry_st *route, ipv4mc_encap_entry_st *encap) {
    if (route->encap != nullptr) {
        ipmc_unlink_route_from_encap(route, route->encap);
    }
    return encap == nullptr ? 0 : ipmc_link_route_to_encap(route, encap);
}

cerrno take_t_bit(ipv4mc_route_entry_st *route, const ipv4mc_route_update_st *upd) {
    ipv4mc_table_st *table = route->table;
    if (upd->t_count == 0) {
        store(route->t_bit, upd->t_bit);
        return 0;
    }
    const bool set = upd->t_bit != 0;
    uint32_t &count = table->route_counters.t_cnt;
    {
        const group change;
        store(route->t_bit, upd->t_bit);
        store(count, set ? count + 1 : count - 1);
    }
    if (set || count == 0) {
        ip6mc_tbl_update_memd_routes(table, set ? 1 : 0);
    }
    return 0;
}

cerrno take_update(ipv4mc_route_entry_st *route, ipv4mc_route_update_type type,
                   const ipv4mc_route_update_st *upd, ipv4mc_encap_entry_st *encap) {
    switch (type) {
        case IPV4MC_ROUTE_UPDATE_ENCAP:
            return take_encap(route, encap);
        case IPV4MC_ROUTE_UPDATE_T_BIT:
            return take_t_bit(route, upd);
        case IPV4MC_ROUTE_UPDATE_4:
            store(route->upd4_value, upd->upd4_value);
            return 0;
        case IPV4MC_ROUTE_UPDATE_RPF_ID:
            store(route->rpf_id, upd->rpf_id);
            return 0;
        case IPV4MC_ROUTE_UPDATE_3:
        case IPV4MC_ROUTE_UPDATE_5:
        case IPV4MC_ROUTE_UPDATE_6:
        case IPV4MC_ROUTE_UPDATE_7:
        case IPV4MC_ROUTE_UPDATE_16:
            return 0;
        default:
            MLIB_ERR("route_update failed unkown upd type route: %p upd type:%d", plain(route),
                     static_cast<int>(type));
            return EINVAL;
    }
}

// What the count of a table's local egress interfaces changes by.
int32_t egress_delta(uint32_t op, const ipv4mc_route_entry_st *route) {
    switch (op) {
        case 0:
            return -1;
        case 1:
            return 1;
        case 2:
            return -static_cast<int32_t>(route->ex_eg_cnt);
        default:
            return route->ex_eg_cnt;
    }
}

constexpr uint32_t last_egress_op = 3;

}  // namespace

extern "C" {

cerrno ip6mc_route_update(ipv4mc_route_entry_st *route, ipv4mc_route_update_type type,
                          const ipv4mc_route_update_st *upd) {
    if (!mlib::library_is_ready()) {
        MLIB_ERR("Multicast library Not ready\n");
        return EBADF;
    }
    if (route == nullptr || upd == nullptr) {
        MLIB_ERR("ipv4mc_route_update: route/upd is NULL route:%p, upd:%p", plain(route),
                 static_cast<const void *>(upd));
        return EINVAL;
    }
    const bool is_encap = type == IPV4MC_ROUTE_UPDATE_ENCAP;
    const bool unlinks = is_encap && upd->encap_id == 0;
    ipv4mc_encap_entry_st *encap = nullptr;
    if (is_encap) {
        const cerrno found = find_encap(route, upd->encap_id, &encap);
        if (found != 0) {
            return found;
        }
    }
    if (unlinks && route->encap == nullptr) {
        MLIB_ERR("ipv4mc_route_update: EID Unlink Error: route:%p not linked to Encap",
                 plain(route));
        return 0;
    }
    const cerrno rc = ip6mc_platform_route_update_wrapper(route, type, upd);
    if (rc == 0) {
        return take_update(route, type, upd, encap);
    }
    MLIB_ERR("platform route update failed on route: %p rc:%s", plain(route), cerr_strerror(rc));
    // An encap that goes away must not be held up by the platform.
    if (unlinks && route->encap != nullptr) {
        ipmc_unlink_route_from_encap(route, route->encap);
    }
    return rc;
}

void ip6mc_ex_eg_update_rte(ipv4mc_route_entry_st *route, int delta) {
    store(route->ex_eg_cnt, static_cast<uint16_t>(route->ex_eg_cnt + static_cast<uint16_t>(delta)));
}

void ip6mc_ex_eg_update_rcvr_tbl(ipv4mc_table_st *table, uint32_t op, ipv4mc_route_entry_st *route,
                                 ipv4mc_idb_st *idb) {
    if (table == nullptr || op > last_egress_op) {
        return;
    }
    const bool foreign = idb != nullptr && idb->table_id != route->table->tid;
    const int32_t delta = foreign ? egress_delta(op, route) : 0;
    if (delta == 0) {
        return;
    }
    uint32_t &count = table->route_counters.local_eg_cnt;
    const uint32_t before = count;
    store(count, before + static_cast<uint32_t>(delta));
    const bool came = before == 0 && static_cast<int32_t>(count) > 0;
    const bool went = before != 0 && count == 0;
    if (came || went) {
        _ltrace_3(ip6mc_mlib_ltrace(), MLIB_TRACE_LOCAL_EGRESS, table->tid, before, count);
        ip6mc_tbl_update_memd_routes(table, delta > 0 ? 1 : 0);
    }
}

cerrno ipmc_ex_eg_upd_encap_rcvr_tbl(ipv4mc_route_entry_st *route, uint32_t op) {
    if (route->encap == nullptr) {
        return 0;
    }
    for (const ipv4mc_encap_leaf_st *leaf = route->encap->encap_leaf_head; leaf != nullptr;
         leaf = leaf->next_encap_leaf) {
        const ipv4mc_regdb_entry_st *regdb = leaf->regdb_entry;
        if (regdb == nullptr || regdb->ifhandle == 0) {
            return 0;
        }
        ipv4mc_idb_st *idb = nullptr;
        const cerrno rc = ip6mc_idb_lookup(regdb->ifhandle, &idb);
        if (rc != 0) {
            MLIB_ERR("Cannot lookup IDB for %s: %s", mlib::intf_name(regdb->ifhandle),
                     cerr_strerror(rc));
            return rc;
        }
        if (idb != nullptr && idb->vtable != nullptr) {
            ip6mc_ex_eg_update_rcvr_tbl(idb->vtable->tid_table, op, route, idb);
        }
    }
    return 0;
}

}  // extern "C"
