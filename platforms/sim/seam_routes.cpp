// Routes and their interfaces.
#include "ipv4/multicast/lib/ip6mc_diag.h"
#include "platforms/sim/control.h"
#include "platforms/sim/hardware.h"
#include "services/gtrie/gtrie.h"

namespace {

using mfwd6::sim::hardware;
using mfwd6::sim::hw;
using mfwd6::sim::is_wildcard;
using mfwd6::sim::make_route_key;
using mfwd6::sim::no_slot;
using mfwd6::sim::route_key;
using mfwd6::sim::route_slot;
using mfwd6::sim::seam_call;
using mfwd6::sim::slot_committed;
using mfwd6::sim::slot_created;

route_key key_of(const ipv4mc_route_entry_st &route, uint32_t tid) {
    return make_route_key(tid, route.source, route.group, route.pfx_len);
}

uint32_t tid_of(const ipv4mc_route_entry_st &route) {
    return route.table != nullptr ? route.table->tid : 0;
}

// The record of a replay, which names its route by key only.
cerrno find_record(const ipv4mc_table_st &table, const ip_maddr_st &source,
                   const ip_maddr_st &group, uint16_t pfx_len, ipv4mc_route_entry_st **route) {
    uint8_t key[GTRIE_PREFIX_BYTES] = {};
    uint32_t length = is_wildcard(source) ? pfx_len : IPV4MC_ROUTE_PFX_LEN_SG;
    if (table.ingress_gtrie == nullptr) {
        return ENOENT;
    }
    cerrno failed = ip6mc_gtrie_platform_make_prefix(table.ingress_gtrie, key, &source, &group);
    failed = failed != 0 ? failed
                         : ip6mc_gtrie_platform_get_pfx_len_adjusted(table.ingress_gtrie, &length);
    if (failed == 0) {
        *route = static_cast<ipv4mc_route_entry_st *>(
            ip6mc_gtrie_platform_lookup_exact(table.ingress_gtrie, key, length, &failed));
    }
    return failed != 0 ? failed : *route == nullptr ? ENOENT : 0;
}

void set_parent(route_slot &held, const ipv4mc_route_entry_st *parent) {
    held.parent_len_plus_1 = 0;
    if (parent != nullptr) {
        held.parent_group = parent->group;
        held.parent_len_plus_1 = parent->pfx_len + 1U;
    }
}

// Puts into the hardware what the record says.
cerrno program_route(hardware &h, const route_key &key, const ipv4mc_route_entry_st &route,
                     uint32_t state) {
    uint32_t slot = no_slot;
    cerrno failed = h.announce_route(key, &slot);
    failed = failed != 0 ? failed : h.hold_route(slot, state);
    if (failed != 0) {
        return failed;
    }
    route_slot &held = h.routes.at(slot);
    held.attributes = route.attributes;
    held.obj_id = route.obj_id;
    held.encap_id = route.encap != nullptr ? route.encap->encap_id : 0;
    held.rpf_id = route.rpf_id;
    held.t_bit = route.t_bit;
    set_parent(held, route.IF_parent);
    return 0;
}

void clear_route(hardware &h, uint32_t slot, const ipv4mc_route_entry_st &route) {
    h.drop_intfs_of(slot);
    route_slot &held = h.routes.at(slot);
    held.attributes = route.attributes;
    held.in_packets = held.in_bytes = held.out_packets = held.out_bytes = 0;
}

cerrno route_action(hardware &h, ipv4mc_action_type action, const route_key &key,
                    const ipv4mc_route_entry_st &route) {
    if (action == IPV4MC_ACTION_CREATE || action == IPV4MC_ACTION_COMMIT) {
        return program_route(h, key, route,
                             action == IPV4MC_ACTION_CREATE ? slot_created : slot_committed);
    }
    const uint32_t slot = h.find_route(key);
    if (slot == no_slot) {
        return 0;
    }
    route_slot &held = h.routes.at(slot);
    switch (action) {
        case IPV4MC_ACTION_DELETE:
            h.drop_route(slot);
            break;
        case IPV4MC_ACTION_CLEAR:
            if (h.route_held(slot)) {
                clear_route(h, slot, route);
            } else {
                h.drop_route(slot);
            }
            break;
        case IPV4MC_ACTION_ACCT_ENABLE:
        case IPV4MC_ACTION_ACCT_DISABLE:
            held.acct = action == IPV4MC_ACTION_ACCT_ENABLE ? 1 : 0;
            break;
        case IPV4MC_ACTION_ACCT_FWD_ENABLE:
        case IPV4MC_ACTION_ACCT_FWD_DISABLE:
            held.acct_fwd_only = action == IPV4MC_ACTION_ACCT_FWD_ENABLE ? 1 : 0;
            break;
        default:
            break;
    }
    return 0;
}

mfwd6::sim::intf_key intf_key_of(uint32_t route, const ipv4mc_intf_entry_st &intf) {
    return {route, intf.intf_type, intf.key_ifh, intf.amt_addr, intf.amt_port, 0};
}

cerrno program_intf(hardware &h, const route_key &key, const ipv4mc_intf_entry_st &intf,
                    uint32_t ul_ifh, uint32_t state) {
    uint32_t route = no_slot;
    uint32_t slot = no_slot;
    cerrno failed = h.announce_route(key, &route);
    failed = failed != 0 ? failed : h.hold_intf(intf_key_of(route, intf), intf.ifh, &slot);
    if (failed != 0) {
        return failed;
    }
    mfwd6::sim::intf_slot &held = h.intfs.at(slot);
    held.ifh = intf.ifh;
    held.ul_ifh = ul_ifh;
    held.obj_id = intf.obj_id;
    held.attributes = intf.attributes;
    if (state > held.head.state) {
        h.intfs.set_state(slot, state);
    }
    return 0;
}

cerrno intf_action(hardware &h, ipv4mc_action_type action, const route_key &key,
                   const ipv4mc_intf_entry_st &intf, uint32_t ul_ifh) {
    if (action == IPV4MC_ACTION_CREATE || action == IPV4MC_ACTION_COMMIT) {
        return program_intf(h, key, intf, ul_ifh,
                            action == IPV4MC_ACTION_CREATE ? slot_created : slot_committed);
    }
    const uint32_t route = h.find_route(key);
    const uint32_t slot = h.find_intf(intf_key_of(route, intf));
    if (slot == no_slot) {
        return 0;
    }
    switch (action) {
        case IPV4MC_ACTION_DELETE:
        case IPV4MC_ACTION_CLEAR:
            h.drop_intf(slot);
            break;
        case IPV4MC_ACTION_BVI_UPD:
            h.intfs.at(slot).attributes = intf.attributes;
            break;
        case IPV4MC_ACTION_AMT_STAT_CLEAR:
            h.intfs.at(slot).amt_packets = 0;
            break;
        default:
            break;
    }
    return 0;
}

}  // namespace

cerrno ip6mc_platform_route_operation(ipv4mc_action_type action, ipv4mc_table_st *table,
                                      const ip_maddr_st *source, const ip_maddr_st *group,
                                      uint16_t pfx_len, ipv4mc_route_entry_st **route_pp,
                                      mrib_attrib_entry_type old_attributes,
                                      mrib_attrib_ti_mofrr_type mofrr_attrib, int is_new) {
    seam_call call(SIM_OP_ROUTE, action);
    if (table == nullptr || source == nullptr || group == nullptr || route_pp == nullptr) {
        return call.end(EINVAL);
    }
    call.what.tid = table->tid;
    call.what.source = *source;
    call.what.group = *group;
    call.what.pfx_len = pfx_len;
    call.what.replay = *route_pp == nullptr ? 1 : 0;
    call.what.is_new = is_new;
    call.what.old_attributes = old_attributes;
    call.what.value = mofrr_attrib;
    if (action == IPV4MC_ACTION_CREATE) {
        call.pass(MLIB_FAULT_ROUTE_CREATE);
    }
    cerrno failed = call.refused();
    if (failed == 0 && *route_pp == nullptr) {
        failed = find_record(*table, *source, *group, pfx_len, route_pp);
    }
    if (*route_pp != nullptr) {
        call.what.record = *route_pp;
        call.what.attributes = (*route_pp)->attributes;
    }
    if (failed != 0) {
        return call.end(failed);
    }
    return call.end(route_action(hw(), action, make_route_key(table->tid, *source, *group, pfx_len),
                                 **route_pp));
}

cerrno ip6mc_platform_route_update(ipv4mc_route_entry_st *route, ipv4mc_route_update_type type,
                                   const ipv4mc_route_update_st *update) {
    seam_call call(SIM_OP_ROUTE_UPDATE, type);
    if (route == nullptr || update == nullptr) {
        return call.end(EINVAL);
    }
    call.what.tid = tid_of(*route);
    call.what.source = route->source;
    call.what.group = route->group;
    call.what.pfx_len = route->pfx_len;
    call.what.attributes = route->attributes;
    call.what.value = update->encap_id;
    call.what.record = route;
    if (call.refused() != 0) {
        return call.end(call.refused());
    }
    // A route that is held back for lack of room takes the change with its later COMMIT.
    const uint32_t slot = hw().find_route(key_of(*route, tid_of(*route)));
    if (!hw().route_held(slot)) {
        return call.end(0);
    }
    route_slot &held = hw().routes.at(slot);
    if (type == IPV4MC_ROUTE_UPDATE_ENCAP) {
        held.encap_id = update->encap_id;
    } else if (type == IPV4MC_ROUTE_UPDATE_T_BIT) {
        held.t_bit = update->t_bit;
    } else if (type == IPV4MC_ROUTE_UPDATE_RPF_ID) {
        held.rpf_id = update->rpf_id;
    }
    return call.end(0);
}

cerrno ip6mc_platform_change_IF_parent(ipv4mc_table_st *table, ipv4mc_route_entry_st *child,
                                       ipv4mc_route_entry_st *old_parent) {
    seam_call call(SIM_OP_CHANGE_IF_PARENT, 0);
    if (table == nullptr || child == nullptr) {
        return call.end(EINVAL);
    }
    (void)old_parent;  // the record names the new one, which is all that the hardware needs
    call.what.tid = table->tid;
    call.what.source = child->source;
    call.what.group = child->group;
    call.what.pfx_len = child->pfx_len;
    call.what.attributes = child->attributes;
    call.what.record = child;
    if (call.refused() != 0) {
        return call.end(call.refused());
    }
    const uint32_t slot = hw().find_route(key_of(*child, table->tid));
    if (hw().route_held(slot)) {
        set_parent(hw().routes.at(slot), child->IF_parent);
    }
    return call.end(0);
}

cerrno ip6mc_platform_intf_operation(ipv4mc_action_type action, ipv4mc_table_st *table,
                                     ipv4mc_route_entry_st *route, ifhtype ifh, uint32_t intf_arg,
                                     ipv4mc_intf_entry_st **intf_pp, ipv4mc_idb_st *idb,
                                     uintptr_t platform_arg, mrib_attrib_entry_type old_attributes,
                                     int is_new) {
    seam_call call(SIM_OP_INTF, action);
    if (table == nullptr || route == nullptr || intf_pp == nullptr || *intf_pp == nullptr) {
        return call.end(EINVAL);
    }
    (void)idb;
    const ipv4mc_intf_entry_st &intf = **intf_pp;
    call.what.tid = table->tid;
    call.what.source = route->source;
    call.what.group = route->group;
    call.what.pfx_len = route->pfx_len;
    call.what.ifh = ifh;
    call.what.other_ifh = intf_arg;
    call.what.attributes = intf.attributes;
    call.what.old_attributes = old_attributes;
    call.what.argument = platform_arg;
    call.what.is_new = is_new;
    call.what.record = &intf;
    if (call.refused() != 0) {
        return call.end(call.refused());
    }
    return call.end(intf_action(hw(), action, key_of(*route, table->tid), intf, intf_arg));
}
