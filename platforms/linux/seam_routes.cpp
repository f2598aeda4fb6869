// Routes and their interfaces.
#include <cerrno>

#include "ipv4/multicast/lib/ip6mc_diag.h"
#include "platforms/linux/flows.h"
#include "platforms/linux/intf_uses.h"
#include "platforms/linux/life.h"
#include "platforms/linux/program.h"

using namespace mfwd6::lnx;

namespace {

cerrno commit_route(table &t, ipv4mc_route_entry_st &route, int is_new) {
    route_extension &e = extension(route);
    if (is_new != 0) {
        e = {};
    }
    const cerrno failed = program_route(t, route, false);
    if (failed != 0) {
        return failed;
    }
    const bool first = e.committed == 0;
    e.committed = 1;
    if (first) {
        adopt_flows(t, route);
    }
    return 0;
}

cerrno route_action(ipv4mc_action_type action, table *t, ipv4mc_route_entry_st &route, int is_new) {
    switch (action) {
        case IPV4MC_ACTION_COMMIT:
            return t != nullptr ? commit_route(*t, route, is_new) : ENOENT;
        case IPV4MC_ACTION_DELETE:
            return t != nullptr ? unprogram_route(*t, route) : 0;
        case IPV4MC_ACTION_CLEAR:
            for (ipv4mc_intf_entry_st *entry = route.intf_list; t != nullptr && entry != nullptr;
                 entry = entry->next_intf) {
                end_use(*t, *entry);
            }
            return t != nullptr ? clear_route(*t, route) : 0;
        default:
            return 0;
    }
}

cerrno commit_intf(table &t, ipv4mc_route_entry_st &route, ipv4mc_intf_entry_st &entry,
                   int is_new) {
    cerrno failed = settle_use(t, entry, is_new != 0);
    if (failed == 0 && extension(route).committed != 0) {
        failed = program_route(t, route, false);
    }
    // The entry goes without another word.
    if (failed != 0 && is_new != 0) {
        end_use(t, entry);
    }
    return failed;
}

cerrno remove_intf(table &t, ipv4mc_route_entry_st &route, ipv4mc_intf_entry_st &entry) {
    cerrno failed = 0;
    if (extension(route).committed != 0) {
        const leaving_entry without(&entry);
        failed = program_route(t, route, false);
    }
    if (failed == 0) {
        end_use(t, entry);
    }
    return failed;
}

}  // namespace

cerrno ip6mc_platform_route_operation(ipv4mc_action_type action, ipv4mc_table_st *table_record,
                                      const ip_maddr_st *source, const ip_maddr_st *group,
                                      uint16_t pfx_len, ipv4mc_route_entry_st **route_pp,
                                      mrib_attrib_entry_type old_attributes,
                                      mrib_attrib_ti_mofrr_type mofrr_attrib, int is_new) {
    (void)old_attributes;
    (void)mofrr_attrib;
    if (table_record == nullptr || source == nullptr || group == nullptr || route_pp == nullptr) {
        return EINVAL;
    }
    if (!owner_started()) {
        return EBADF;
    }
    if (action == IPV4MC_ACTION_CREATE && fim_armed(mlib_fim_hdl, MLIB_FAULT_ROUTE_CREATE)) {
        return EAGAIN;
    }
    if (*route_pp == nullptr) {
        const uint32_t length = is_any(*source) ? pfx_len : uint32_t{IPV4MC_ROUTE_PFX_LEN_SG};
        *route_pp = exact_route(table_record, {*source, *group}, length);
        if (*route_pp == nullptr) {
            return ENOENT;
        }
    }
    table *t = find_table(table_record->tid);
    if (t == nullptr && action == IPV4MC_ACTION_COMMIT) {
        if (const cerrno failed = ensure_table(table_record->tid, &t); failed != 0) {
            return failed;
        }
    }
    return route_action(action, t, **route_pp, is_new);
}

// Encaps, transport bits and paths mean nothing to the kernel: the record keeps them.
cerrno ip6mc_platform_route_update(ipv4mc_route_entry_st *route, ipv4mc_route_update_type type,
                                   const ipv4mc_route_update_st *update) {
    (void)type;
    return route == nullptr || update == nullptr ? EINVAL : 0;
}

cerrno ip6mc_platform_change_IF_parent(ipv4mc_table_st *table_record, ipv4mc_route_entry_st *child,
                                       ipv4mc_route_entry_st *old_parent) {
    (void)old_parent;  // the record names the new one, which is all that counts
    if (table_record == nullptr || child == nullptr) {
        return EINVAL;
    }
    table *t = find_table(table_record->tid);
    return t != nullptr && extension(*child).committed != 0 ? program_route(*t, *child, false) : 0;
}

cerrno ip6mc_platform_intf_operation(ipv4mc_action_type action, ipv4mc_table_st *table_record,
                                     ipv4mc_route_entry_st *route, ifhtype ifh, uint32_t intf_arg,
                                     ipv4mc_intf_entry_st **intf_pp, ipv4mc_idb_st *idb,
                                     uintptr_t platform_arg, mrib_attrib_entry_type old_attributes,
                                     int is_new) {
    (void)ifh;
    (void)intf_arg;
    (void)idb;
    (void)platform_arg;
    (void)old_attributes;
    if (table_record == nullptr || route == nullptr || intf_pp == nullptr || *intf_pp == nullptr) {
        return EINVAL;
    }
    if (!owner_started()) {
        return EBADF;
    }
    ipv4mc_intf_entry_st &entry = **intf_pp;
    const bool goes_up = action == IPV4MC_ACTION_CREATE || action == IPV4MC_ACTION_COMMIT;
    if (goes_up && entry.intf_type != IPV4MC_INTF_ORDINARY) {
        return EOPNOTSUPP;
    }
    table *t = find_table(table_record->tid);
    if (t == nullptr && goes_up) {
        if (const cerrno failed = ensure_table(table_record->tid, &t); failed != 0) {
            return failed;
        }
    }
    if (t == nullptr) {
        return 0;
    }
    switch (action) {
        case IPV4MC_ACTION_CREATE:
            return settle_use(*t, entry, is_new != 0);
        case IPV4MC_ACTION_COMMIT:
            return commit_intf(*t, *route, entry, is_new);
        case IPV4MC_ACTION_DELETE:
        case IPV4MC_ACTION_CLEAR:
            return remove_intf(*t, *route, entry);
        default:
            return 0;
    }
}
