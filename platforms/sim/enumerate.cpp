// What the hardware holds, told one by one, and taken out one by one.
#include <cstring>

#include "platforms/sim/control.h"
#include "platforms/sim/hardware.h"

namespace {

using mfwd6::sim::hardware;
using mfwd6::sim::hw;
using mfwd6::sim::intf_slot;
using mfwd6::sim::leaf_key;
using mfwd6::sim::make_route_key;
using mfwd6::sim::no_slot;
using mfwd6::sim::regdb_key;
using mfwd6::sim::route_slot;
using mfwd6::sim::seam_call;
using mfwd6::sim::slot_committed;
using mfwd6::sim::slot_free;

ip6mc_platform_held_st held_of(ip6mc_platform_kind kind, uint32_t state) {
    ip6mc_platform_held_st held = {};
    held.kind = kind;
    held.active = state == slot_committed ? 1 : 0;
    return held;
}

void name_route(const route_slot &route, ip6mc_platform_held_st &held) {
    held.tid = route.key.tid;
    held.source = route.key.source;
    held.group = route.key.group;
    held.pfx_len = static_cast<uint16_t>(route.key.pfx_len);
}

ip6mc_platform_held_st tell_route(const hardware &h, uint32_t slot) {
    const route_slot &route = h.routes.at(slot);
    ip6mc_platform_held_st held = held_of(IP6MC_PLATFORM_ROUTE, route.head.state);
    name_route(route, held);
    held.attributes = route.attributes;
    held.obj_id = route.obj_id;
    held.encap_id = route.encap_id;
    return held;
}

ip6mc_platform_held_st tell_intf(const hardware &h, uint32_t slot) {
    const intf_slot &intf = h.intfs.at(slot);
    ip6mc_platform_held_st held = held_of(IP6MC_PLATFORM_INTF, intf.head.state);
    name_route(h.routes.at(intf.key.route), held);
    held.attributes = intf.attributes;
    held.obj_id = intf.obj_id;
    held.ifh = intf.ifh;
    held.parent_ifh = intf.ul_ifh;
    held.intf_type = intf.key.intf_type;
    held.amt_addr = intf.key.amt_addr;
    held.amt_port = static_cast<uint16_t>(intf.key.amt_port);
    return held;
}

ip6mc_platform_held_st tell_tid(const hardware &h, uint32_t slot) {
    ip6mc_platform_held_st held = held_of(IP6MC_PLATFORM_TABLE, slot_committed);
    held.tid = h.tids.at(slot).key.tid;
    held.active = h.tids.at(slot).active;
    return held;
}

ip6mc_platform_held_st tell_idb(const hardware &h, uint32_t slot) {
    const mfwd6::sim::idb_slot &idb = h.idbs.at(slot);
    ip6mc_platform_held_st held = held_of(IP6MC_PLATFORM_IDB, slot_committed);
    held.ifh = idb.key.ifh;
    held.parent_ifh = idb.parent_ifh;
    held.intf_type = idb.type;
    held.active = idb.enabled;
    held.value = idb.ttl;
    return held;
}

ip6mc_platform_held_st tell_encap(const hardware &h, uint32_t slot) {
    const mfwd6::sim::encap_slot &encap = h.encaps.at(slot);
    ip6mc_platform_held_st held = held_of(IP6MC_PLATFORM_ENCAP, encap.head.state);
    held.encap_id = encap.key.encap_id;
    held.value = encap.ip_lkp;
    return held;
}

void name_transport(const regdb_key &key, ip6mc_platform_held_st &held) {
    std::memcpy(held.regdb_key, key.bytes, sizeof(held.regdb_key));
    held.regdb_key_bits = static_cast<uint16_t>(key.bits);
}

ip6mc_platform_held_st tell_leaf(const hardware &h, uint32_t slot) {
    const mfwd6::sim::leaf_slot &leaf = h.leaves.at(slot);
    ip6mc_platform_held_st held = held_of(IP6MC_PLATFORM_LEAF, leaf.head.state);
    held.encap_id = leaf.key.encap_id;
    held.value = leaf.tr;
    name_transport(leaf.key.transport, held);
    return held;
}

ip6mc_platform_held_st tell_regdb(const hardware &h, uint32_t slot) {
    ip6mc_platform_held_st held = held_of(IP6MC_PLATFORM_REGDB, slot_committed);
    name_transport(h.regdbs.at(slot).key, held);
    return held;
}

struct walk {
    ip6mc_platform_held_ft fn;
    void *context;
    cerrno result = 0;

    // False ends the walk.
    bool visit(const ip6mc_platform_held_st &held) {
        result = fn(&held, context);
        return result == 0;
    }

    template <class Table>
    void each(const Table &table, uint32_t least_state,
              ip6mc_platform_held_st (*tell)(const hardware &, uint32_t)) {
        for (uint32_t slot = 0; result == 0 && slot < table.used(); ++slot) {
            if (table.at(slot).head.state >= least_state && !visit(tell(hw(), slot))) {
                return;
            }
        }
    }

    void each_vrf() {
        const auto &vrfs = hw().vrfs;
        for (uint32_t slot = 0; result == 0 && slot < vrfs.used(); ++slot) {
            const mfwd6::sim::vrf_slot &vrf = vrfs.at(slot);
            if (vrf.head.state == slot_free) {
                continue;
            }
            ip6mc_platform_held_st held = held_of(IP6MC_PLATFORM_TABLE, slot_committed);
            held.vrf_id = vrf.vrf_id;
            held.active = vrf.active;
            std::memcpy(held.vrf_name, vrf.vrf_name, sizeof(held.vrf_name));
            visit(held);
        }
    }

    void kind(ip6mc_platform_kind which) {
        const hardware &h = hw();
        constexpr uint32_t any = mfwd6::sim::slot_created;
        switch (which) {
            case IP6MC_PLATFORM_TABLE:
                each_vrf();
                each(h.tids, any, tell_tid);
                break;
            case IP6MC_PLATFORM_ROUTE:
                each(h.routes, any, tell_route);
                break;
            case IP6MC_PLATFORM_INTF:
                each(h.intfs, any, tell_intf);
                break;
            case IP6MC_PLATFORM_IDB:
                each(h.idbs, any, tell_idb);
                break;
            case IP6MC_PLATFORM_ENCAP:
                each(h.encaps, any, tell_encap);
                break;
            case IP6MC_PLATFORM_LEAF:
                each(h.leaves, any, tell_leaf);
                break;
            default:
                each(h.regdbs, any, tell_regdb);
                break;
        }
    }
};

uint32_t find_intf(const ip6mc_platform_held_st &held) {
    const uint32_t route =
        hw().find_route(make_route_key(held.tid, held.source, held.group, held.pfx_len));
    const uint32_t key_ifh = held.intf_type == IPV4MC_INTF_ORDINARY ? held.ifh : 0;
    return hw().find_intf({route, held.intf_type, key_ifh, held.amt_addr, held.amt_port, 0});
}

regdb_key transport_of(const ip6mc_platform_held_st &held) {
    regdb_key key = {};
    std::memcpy(key.bytes, held.regdb_key, sizeof(key.bytes));
    key.bits = held.regdb_key_bits;
    return key;
}

// Drops the slot, if there is one, with the function of its kind.
void drop(uint32_t slot, void (hardware::*with)(uint32_t)) {
    if (slot != no_slot) {
        (hw().*with)(slot);
    }
}

void remove(const ip6mc_platform_held_st &held) {
    hardware &h = hw();
    uint32_t slot = no_slot;
    switch (held.kind) {
        case IP6MC_PLATFORM_TABLE:
            if (held.tid != 0) {
                drop(h.tids.find({held.tid, 0}), &hardware::drop_tid);
            } else if (h.hold_vrf(held.vrf_id, held.vrf_name, false, &slot) == 0) {
                h.drop_vrf(slot);
            }
            break;
        case IP6MC_PLATFORM_ROUTE:
            drop(h.find_route(make_route_key(held.tid, held.source, held.group, held.pfx_len)),
                 &hardware::drop_route);
            break;
        case IP6MC_PLATFORM_INTF:
            drop(find_intf(held), &hardware::drop_intf);
            break;
        case IP6MC_PLATFORM_IDB:
            drop(h.idbs.find({held.ifh, 0}), &hardware::drop_idb);
            break;
        case IP6MC_PLATFORM_ENCAP:
            drop(h.encaps.find({held.encap_id, 0}), &hardware::drop_encap);
            break;
        case IP6MC_PLATFORM_LEAF:
            drop(h.leaves.find(leaf_key{transport_of(held), held.encap_id, 0}),
                 &hardware::drop_leaf);
            break;
        default:
            drop(h.regdbs.find(transport_of(held)), &hardware::drop_regdb);
            break;
    }
}

}  // namespace

cerrno ip6mc_platform_enumerate(ip6mc_platform_kind kind, ip6mc_platform_held_ft fn,
                                void *context) {
    seam_call call(SIM_OP_ENUMERATE, kind);
    if (call.refused() != 0) {
        return call.end(call.refused());
    }
    if (fn == nullptr || kind > IP6MC_PLATFORM_KINDS) {
        return call.end(EINVAL);
    }
    walk over = {fn, context};
    const bool all = kind == IP6MC_PLATFORM_KINDS;
    for (ip6mc_platform_kind k = all ? 0 : kind; k < (all ? kind : kind + 1); ++k) {
        over.kind(k);
    }
    return call.end(over.result);
}

cerrno ip6mc_platform_remove_held(const ip6mc_platform_held_st *held) {
    seam_call call(SIM_OP_REMOVE_HELD, held != nullptr ? held->kind : 0);
    if (held == nullptr || held->kind >= IP6MC_PLATFORM_KINDS) {
        return call.end(EINVAL);
    }
    call.what.tid = held->tid;
    call.what.source = held->source;
    call.what.group = held->group;
    call.what.pfx_len = held->pfx_len;
    call.what.ifh = held->ifh;
    call.what.value = held->encap_id;
    call.what.attributes = held->attributes;
    if (call.refused() != 0) {
        return call.end(call.refused());
    }
    remove(*held);
    return call.end(0);
}

cerrno sim_find_route(uint32_t tid, const ip_maddr_st *source, const ip_maddr_st *group,
                      uint16_t pfx_len, ip6mc_platform_held_st *held) {
    const uint32_t slot = hw().find_route(make_route_key(tid, *source, *group, pfx_len));
    if (!hw().route_held(slot)) {
        return ENOENT;
    }
    if (held != nullptr) {
        *held = tell_route(hw(), slot);
    }
    return 0;
}

cerrno sim_find_intf(uint32_t tid, const ip_maddr_st *source, const ip_maddr_st *group,
                     uint16_t pfx_len, ifhtype ifh, ip6mc_platform_held_st *held) {
    ip6mc_platform_held_st wanted = {};
    wanted.tid = tid;
    wanted.source = *source;
    wanted.group = *group;
    wanted.pfx_len = pfx_len;
    wanted.ifh = ifh;
    const uint32_t slot = find_intf(wanted);
    if (slot == no_slot) {
        return ENOENT;
    }
    if (held != nullptr) {
        *held = tell_intf(hw(), slot);
    }
    return 0;
}

int sim_has_member(ifhtype parent, ifhtype member) {
    return hw().members.find({parent, member}) != no_slot ? 1 : 0;
}

cerrno sim_find_idb(ifhtype ifh, sim_idb *idb) {
    const uint32_t slot = hw().idbs.find({ifh, 0});
    if (slot == no_slot) {
        return ENOENT;
    }
    if (idb != nullptr) {
        const mfwd6::sim::idb_slot &held = hw().idbs.at(slot);
        *idb = {held.key.ifh,   held.type,          held.enabled,
                held.ttl,       held.has_aib,       held.has_boundary,
                held.dpl_local, held.tunnel_active, static_cast<uint16_t>(held.members),
                held.mtu,       held.remote_mtu,    held.table_id,
                held.parent_ifh};
    }
    return 0;
}
