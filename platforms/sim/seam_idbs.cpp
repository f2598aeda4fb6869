// Interfaces of the router.
#include "platforms/sim/control.h"
#include "platforms/sim/hardware.h"

namespace {

using mfwd6::sim::ctl;
using mfwd6::sim::hardware;
using mfwd6::sim::hw;
using mfwd6::sim::idb_slot;
using mfwd6::sim::no_slot;
using mfwd6::sim::seam_call;

// What an action does, by what it needs.
constexpr uint32_t needs_spec =
    IPV4MC_IDB_OP_INIT | IPV4MC_IDB_OP_GET_STATE | IPV4MC_IDB_OP_SPEC_INIT | IPV4MC_IDB_OP_TYPE_SET;
constexpr uint32_t needs_no_idb =
    IPV4MC_IDB_OP_INIT | IPV4MC_IDB_OP_GET_STATE | IPV4MC_IDB_OP_SPEC_INIT;
constexpr uint32_t adds_member =
    IPV4MC_IDB_OP_MEMBER_ADD | IPV4MC_IDB_OP_VLAN_MEMBER_ADD | IPV4MC_IDB_OP_PPPOE_MEMBER_ADD;
constexpr uint32_t drops_member = IPV4MC_IDB_OP_MEMBER_DELETE | IPV4MC_IDB_OP_VLAN_MEMBER_DELETE |
                                  IPV4MC_IDB_OP_PPPOE_MEMBER_DELETE;
constexpr uint32_t makes =
    IPV4MC_IDB_OP_CREATE | IPV4MC_IDB_OP_AIB_UPDATE | IPV4MC_IDB_OP_BOUNDARY_UPDATE |
    IPV4MC_IDB_OP_TTL_SET | IPV4MC_IDB_OP_ENABLE | IPV4MC_IDB_OP_TUNNEL_ACTIVATE |
    IPV4MC_IDB_OP_TYPE_SET | IPV4MC_IDB_OP_DPL_ON | IPV4MC_IDB_OP_MTU | IPV4MC_IDB_OP_REMOTE_MTU;

cerrno library_action(ipv4mc_idb_op action, ipv4mc_idb_op_spec_st &spec) {
    if (action == IPV4MC_IDB_OP_SPEC_INIT) {
        spec = {};
    } else if (action == IPV4MC_IDB_OP_INIT) {
        ctl().idb_callback = spec.callback;
    } else {
        spec.state = ctl().idb_state;
    }
    return 0;
}

void setting(idb_slot &held, ipv4mc_idb_op action, const ipv4mc_idb_st &idb,
             const ipv4mc_idb_st *other, const ipv4mc_idb_op_spec_st *spec) {
    switch (action) {
        case IPV4MC_IDB_OP_CREATE:
            held.type = idb.type;
            held.parent_ifh = other != nullptr ? other->ifh : 0;
            break;
        case IPV4MC_IDB_OP_TYPE_SET:
            held.type = spec->type;
            break;
        case IPV4MC_IDB_OP_AIB_UPDATE:
        case IPV4MC_IDB_OP_AIB_DELETE:
        case IPV4MC_IDB_OP_AIB_ZERO:
            held.has_aib = action == IPV4MC_IDB_OP_AIB_UPDATE ? 1 : 0;
            break;
        case IPV4MC_IDB_OP_BOUNDARY_UPDATE:
        case IPV4MC_IDB_OP_BOUNDARY_DELETE:
            held.has_boundary = action == IPV4MC_IDB_OP_BOUNDARY_UPDATE ? 1 : 0;
            break;
        case IPV4MC_IDB_OP_TTL_SET:
            held.ttl = idb.ttl;
            break;
        case IPV4MC_IDB_OP_ENABLE:
        case IPV4MC_IDB_OP_DISABLE:
            held.enabled = action == IPV4MC_IDB_OP_ENABLE ? 1 : 0;
            break;
        case IPV4MC_IDB_OP_TUNNEL_ACTIVATE:
            held.tunnel_active = 1;
            held.parent_ifh = other != nullptr ? other->ifh : 0;
            break;
        case IPV4MC_IDB_OP_TUNNEL_DEACTIVATE:
            held.tunnel_active = 0;
            held.parent_ifh = 0;
            break;
        case IPV4MC_IDB_OP_DPL_ON:
        case IPV4MC_IDB_OP_DPL_OFF:
            held.dpl_local = action == IPV4MC_IDB_OP_DPL_ON ? 1 : 0;
            break;
        case IPV4MC_IDB_OP_MTU:
            held.mtu = idb.mtu;
            held.table_id = idb.table_id;
            break;
        case IPV4MC_IDB_OP_REMOTE_MTU:
            held.remote_mtu = idb.remote_mtu;
            break;
        default:
            break;
    }
}

cerrno idb_action(hardware &h, ipv4mc_idb_op action, const ipv4mc_idb_st &idb,
                  const ipv4mc_idb_st *other, const ipv4mc_idb_op_spec_st *spec) {
    if ((action & (adds_member | drops_member)) != 0) {
        if (other == nullptr) {
            return EINVAL;
        }
        if ((action & adds_member) != 0) {
            return h.add_member(idb.ifh, other->ifh);
        }
        h.drop_member(idb.ifh, other->ifh);
        return 0;
    }
    uint32_t slot = h.idbs.find({idb.ifh, 0});
    if ((action & makes) != 0) {
        if (const cerrno failed = h.hold_idb(idb.ifh, &slot); failed != 0) {
            return failed;
        }
    }
    if (slot == no_slot) {
        return 0;
    }
    if (action == IPV4MC_IDB_OP_DESTROY) {
        h.drop_idb(slot);
    } else {
        setting(h.idbs.at(slot), action, idb, other, spec);
    }
    return 0;
}

}  // namespace

cerrno ip6mc_platform_idb_operation(ipv4mc_idb_op action, ipv4mc_idb_st *idb_a,
                                    ipv4mc_idb_st *idb_b, ipv4mc_idb_op_spec_st *op_spec) {
    seam_call call(SIM_OP_IDB, action);
    call.what.ifh = idb_a != nullptr ? idb_a->ifh : 0;
    call.what.other_ifh = idb_b != nullptr ? idb_b->ifh : 0;
    call.what.record = idb_a;
    if (call.refused() != 0) {
        return call.end(call.refused());
    }
    if (((action & needs_spec) != 0 && op_spec == nullptr) ||
        ((action & needs_no_idb) == 0 && idb_a == nullptr)) {
        return call.end(EINVAL);
    }
    if ((action & needs_no_idb) != 0) {
        return call.end(library_action(action, *op_spec));
    }
    return call.end(idb_action(hw(), action, *idb_a, idb_b, op_spec));
}
