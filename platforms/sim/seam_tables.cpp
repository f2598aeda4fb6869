// Tables.
#include <cstring>

#include "ipv4/multicast/lib/ip6mc_diag.h"
#include "platforms/sim/control.h"
#include "platforms/sim/hardware.h"

namespace {

using mfwd6::sim::hardware;
using mfwd6::sim::hw;
using mfwd6::sim::no_slot;
using mfwd6::sim::seam_call;

// Which side of a table a call is for, and what it is known by.
struct side {
    bool vrf;
    uint32_t tid;
    uint32_t vrf_id;
    char name[IPV4MC_VRF_NAME_SIZE];
};

void copy_name(char *to, const char *from) {
    const size_t length = strnlen(from, IPV4MC_VRF_NAME_SIZE - 1);
    std::memcpy(to, from, length);
    to[length] = 0;
}

side side_of(uint32_t tid, uint32_t vrf_id, const char *name, const ipv4mc_table_st *table) {
    side s = {};
    s.vrf = table != nullptr ? table->table_type == IPV4MC_TABLE_VRF : tid == 0;
    s.tid = tid != 0 || table == nullptr ? tid : table->tid;
    s.vrf_id = vrf_id;
    if (name != nullptr) {
        copy_name(s.name, name);
    }
    // The record of a VRF side knows what the call leaves out; after its deactivation the call
    // alone has the id.
    if (s.vrf && table != nullptr) {
        s.vrf_id = vrf_id != 0 ? vrf_id : table->vrf_id;
        if (s.name[0] == 0) {
            copy_name(s.name, table->vrf_name);
        }
    }
    return s;
}

cerrno vrf_action(hardware &h, ipv4mc_action_type action, const side &s) {
    const bool makes = action == IPV4MC_ACTION_CREATE || action == IPV4MC_ACTION_COMMIT ||
                       action == IPV4MC_ACTION_ACTIVATE;
    uint32_t slot = no_slot;
    const cerrno failed = h.hold_vrf(s.vrf_id, s.name, makes, &slot);
    if (failed != 0) {
        return makes ? failed : 0;
    }
    if (const cerrno unnamed = makes ? h.name_vrf(slot, s.vrf_id, s.name) : 0; unnamed != 0) {
        return unnamed;
    }
    mfwd6::sim::vrf_slot &vrf = h.vrfs.at(slot);
    switch (action) {
        case IPV4MC_ACTION_ACTIVATE:
            vrf.active = 1;
            break;
        case IPV4MC_ACTION_DEACTIVATE:
        case IPV4MC_ACTION_CLEAR:
            vrf.active = 0;
            break;
        case IPV4MC_ACTION_DELETE:
            h.drop_vrf(slot);
            break;
        default:
            break;
    }
    return 0;
}

cerrno tid_action(hardware &h, ipv4mc_action_type action, uint32_t tid) {
    uint32_t slot = h.tids.find({tid, 0});
    if (action == IPV4MC_ACTION_CREATE || action == IPV4MC_ACTION_COMMIT ||
        action == IPV4MC_ACTION_ACTIVATE) {
        if (const cerrno failed = h.hold_tid(tid, &slot); failed != 0) {
            return failed;
        }
    }
    if (slot == no_slot) {
        return 0;
    }
    mfwd6::sim::tid_slot &table = h.tids.at(slot);
    switch (action) {
        case IPV4MC_ACTION_ACTIVATE:
            table.active = 1;
            break;
        case IPV4MC_ACTION_DEACTIVATE:
        case IPV4MC_ACTION_CLEAR:
            table.active = 0;
            break;
        case IPV4MC_ACTION_DELETE:
            h.drop_tid(slot);
            break;
        case IPV4MC_ACTION_MLC_SET:
        case IPV4MC_ACTION_MLC_UNSET:
            table.master_lc = action == IPV4MC_ACTION_MLC_SET ? 1 : 0;
            break;
        case IPV4MC_ACTION_ACCT_ENABLE:
        case IPV4MC_ACTION_ACCT_DISABLE:
            table.acct = action == IPV4MC_ACTION_ACCT_ENABLE ? 1 : 0;
            break;
        case IPV4MC_ACTION_ACCT_FWD_ENABLE:
        case IPV4MC_ACTION_ACCT_FWD_DISABLE:
            table.acct_fwd_only = action == IPV4MC_ACTION_ACCT_FWD_ENABLE ? 1 : 0;
            break;
        default:
            break;
    }
    return 0;
}

}  // namespace

cerrno ip6mc_platform_table_operation(ipv4mc_action_type action, uint32_t tid, rsi_vrf_id_t vrf_id,
                                      const char *vrf_name, ipv4mc_table_st **table_pp,
                                      int is_new) {
    seam_call call(SIM_OP_TABLE, action);
    const ipv4mc_table_st *table = table_pp != nullptr ? *table_pp : nullptr;
    call.what.tid = tid;
    call.what.vrf_id = vrf_id;
    call.what.is_new = is_new;
    call.what.record = table;
    if (action == IPV4MC_ACTION_CREATE || action == IPV4MC_ACTION_COMMIT) {
        call.pass(action == IPV4MC_ACTION_CREATE ? MLIB_FAULT_TABLE_CREATE
                                                 : MLIB_FAULT_TABLE_COMMIT);
    }
    if (call.refused() != 0) {
        return call.end(call.refused());
    }
    const side s = side_of(tid, vrf_id, vrf_name, table);
    if (!s.vrf) {
        return call.end(s.tid == 0 ? EINVAL : tid_action(hw(), action, s.tid));
    }
    if (s.vrf_id == 0 && s.name[0] == 0) {
        return call.end(EINVAL);
    }
    return call.end(vrf_action(hw(), action, s));
}
