// Encaps, transports, and the leaves between them.
#include <cstring>

#include "ipv4/multicast/lib/ip6mc_diag.h"
#include "platforms/sim/control.h"
#include "platforms/sim/hardware.h"

namespace {

using mfwd6::sim::hw;
using mfwd6::sim::leaf_key;
using mfwd6::sim::no_slot;
using mfwd6::sim::regdb_key;
using mfwd6::sim::seam_call;
using mfwd6::sim::slot_committed;
using mfwd6::sim::slot_created;

bool goes_up(ipv4mc_action_type action) {
    return action == IPV4MC_ACTION_CREATE || action == IPV4MC_ACTION_COMMIT;
}

bool goes_down(ipv4mc_action_type action) {
    return action == IPV4MC_ACTION_DELETE || action == IPV4MC_ACTION_CLEAR;
}

uint32_t state_of(ipv4mc_action_type action) {
    return action == IPV4MC_ACTION_CREATE ? slot_created : slot_committed;
}

regdb_key key_of(const ipv4mc_regdb_entry_st &entry) {
    regdb_key key = {};
    std::memcpy(key.bytes, &entry.key, sizeof(key.bytes));
    key.bits = entry.key_bits;
    return key;
}

}  // namespace

cerrno ip6mc_platform_encapid_operation(ipv4mc_action_type action, ipv4mc_encap_entry_st *encap) {
    seam_call call(SIM_OP_ENCAP, action);
    if (encap == nullptr) {
        return call.end(EINVAL);
    }
    call.what.value = encap->encap_id;
    call.what.record = encap;
    if (call.refused() != 0) {
        return call.end(call.refused());
    }
    uint32_t slot = hw().encaps.find({encap->encap_id, 0});
    if (goes_up(action)) {
        const cerrno failed = hw().hold_encap(encap->encap_id, state_of(action), &slot);
        if (failed == 0) {
            hw().encaps.at(slot).ip_lkp = encap->ip_lkp;
        }
        return call.end(failed);
    }
    if (goes_down(action) && slot != no_slot) {
        hw().drop_encap(slot);
    }
    return call.end(0);
}

cerrno ip6mc_platform_encap_update(ipv4mc_encap_entry_st *encap, uint32_t type,
                                   const void *update) {
    seam_call call(SIM_OP_ENCAP_UPDATE, type);
    if (encap == nullptr || update == nullptr) {
        return call.end(EINVAL);
    }
    call.what.value = encap->encap_id;
    call.what.record = encap;
    if (call.refused() != 0) {
        return call.end(call.refused());
    }
    const uint32_t slot = hw().encaps.find({encap->encap_id, 0});
    if (type == IPV4MC_ENCAP_UPDATE_IP_LKP && slot != no_slot) {
        hw().encaps.at(slot).ip_lkp = *static_cast<const uint8_t *>(update);
    }
    return call.end(0);
}

cerrno ip6mc_platform_encap_leaf_operation(ipv4mc_action_type action, ipv4mc_encap_leaf_st *leaf,
                                           ipv4mc_encap_entry_st *encap,
                                           ipv4mc_regdb_entry_st *regdb, uint32_t tr) {
    seam_call call(SIM_OP_LEAF, action);
    if (leaf == nullptr || encap == nullptr || regdb == nullptr) {
        return call.end(EINVAL);
    }
    call.what.value = encap->encap_id;
    call.what.argument = tr;
    call.what.record = leaf;
    if (goes_up(action)) {
        call.pass(action == IPV4MC_ACTION_CREATE ? MLIB_FAULT_BUCKET_CREATE
                                                 : MLIB_FAULT_BUCKET_COMMIT);
    }
    if (call.refused() != 0) {
        return call.end(call.refused());
    }
    const leaf_key key = {key_of(*regdb), encap->encap_id, 0};
    uint32_t slot = hw().leaves.find(key);
    if (goes_up(action)) {
        const cerrno failed = hw().hold_leaf(key, state_of(action), &slot);
        if (failed == 0) {
            hw().leaves.at(slot).tr = tr;
        }
        return call.end(failed);
    }
    if (goes_down(action) && slot != no_slot) {
        hw().drop_leaf(slot);
    }
    return call.end(0);
}

cerrno ip6mc_platform_regdb_operation(ipv4mc_action_type action, ipv4mc_regdb_entry_st *entry,
                                      const ipv4mc_regdb_core_info_st *core_info) {
    seam_call call(SIM_OP_REGDB, action);
    if (entry == nullptr || (action == IPV4MC_ACTION_COMMIT && core_info == nullptr)) {
        return call.end(EINVAL);
    }
    call.what.value = entry->key.type;
    call.what.record = entry;
    if (call.refused() != 0) {
        return call.end(call.refused());
    }
    // At its CREATE an entry has no key yet: room is all that can be asked for. What is held begins
    // with the first COMMIT.
    if (action == IPV4MC_ACTION_CREATE) {
        return call.end(hw().room(IP6MC_PLATFORM_REGDB));
    }
    uint32_t slot = hw().regdbs.find(key_of(*entry));
    if (action == IPV4MC_ACTION_COMMIT) {
        const cerrno failed = hw().hold_regdb(key_of(*entry), &slot);
        if (failed == 0) {
            hw().regdbs.at(slot).core_type = core_info->type;
        }
        return call.end(failed);
    }
    if (goes_down(action) && slot != no_slot) {
        hw().drop_regdb(slot);
    }
    return call.end(0);
}
