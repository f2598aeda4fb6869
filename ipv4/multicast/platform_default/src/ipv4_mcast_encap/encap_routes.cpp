// Encaps as routes see them: found by id, told of a property, programmed again, left.
#include <cerrno>

#include "ipv4/multicast/lib/ip6mc_encap.h"
#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "ipv4/multicast/lib/ip6mc_platform.h"
#include "ipv4/multicast/lib/ip6mc_platform_err.h"
#include "ipv4/multicast/lib/ip6mc_platform_wrappers.h"
#include "ipv4/multicast/platform_default/src/diagnostics/assertion.h"
#include "ipv4/multicast/platform_default/src/diagnostics/report.h"
#include "ipv4/multicast/platform_default/src/ip_mcast_route/route_lists.h"
#include "ipv4/multicast/platform_default/src/ipv4_mcast_tables/routes.h"
#include "services/gtrie/gtrie.h"
#include "services/journal/journal.h"

namespace {

using mfwd6::journal::group;
using mfwd6::journal::store;

void leave_encap(ipv4mc_route_entry_st *route, ipv4mc_encap_entry_st *encap) {
    const group change;
    mlib::leave_list<mlib::encap_route_links>(encap->route_head, route);
    store(route->encap, nullptr);
    store(encap->route_cnt, encap->route_cnt - 1);
    MLIB_ASSERT(encap->intf_local_EG_cnt >= route->intf_local_EG_cnt,
                "encap->intf_local_EG_cnt >= route->intf_local_EG_cnt");
    store(encap->intf_local_EG_cnt, encap->intf_local_EG_cnt - route->intf_local_EG_cnt);
}

// 20 bits, most significant first.
void make_key(uint32_t encap_id, uint8_t (&key)[GTRIE_PREFIX_BYTES]) {
    const uint32_t bits = encap_id << (32 - IPV4MC_ENCAP_ID_BITS);
    key[0] = static_cast<uint8_t>(bits >> 24);
    key[1] = static_cast<uint8_t>(bits >> 16);
    key[2] = static_cast<uint8_t>(bits >> 8);
}

}  // namespace

void mlib::switch_ip_lookup(ipv4mc_encap_entry_st *encap, uint8_t value) {
    store(encap->ip_lkp, value);
    const cerrno rc = ip6mc_encap_update(encap, IPV4MC_ENCAP_UPDATE_IP_LKP, &value);
    if (rc == 0) {
        return;
    }
    if (value != 0) {
        MLIB_ERR("Failed to set IP_LKP flag on eid 0x%x : %s", encap->encap_id, cerr_strerror(rc));
    } else {
        MLIB_ERR("Failed to UN-set IP_LKP flag on eid 0x%x : %s", encap->encap_id,
                 cerr_strerror(rc));
    }
}

extern "C" {

cerrno ip6mc_encapid_lookup(uint32_t encap_id, ipv4mc_encap_entry_st **encap_p) {
    uint8_t key[GTRIE_PREFIX_BYTES] = {};
    make_key(encap_id, key);
    cerrno error = 0;
    *encap_p = static_cast<ipv4mc_encap_entry_st *>(ip6mc_gtrie_platform_lookup_exact(
        ipv4mc_desc->shmwin_info->encap_gtrie, key, IPV4MC_ENCAP_ID_BITS, &error));
    if (error != 0) {
        *encap_p = nullptr;
        MLIB_ERR("Problems in encap Gtrie during exact route match (%d) %s",
                 static_cast<int>(encap_id), cerr_strerror(error));
        return EFAULT;
    }
    return 0;
}

cerrno ip6mc_encap_update(ipv4mc_encap_entry_st *encap, uint32_t update_type, const void *upd) {
    if (encap == nullptr || upd == nullptr) {
        MLIB_ERR("ipv4mc_encap_update: encap/upd is NULL encap:%p, upd:%p",
                 static_cast<void *>(encap), upd);
        return EINVAL;
    }
    const cerrno rc = ip6mc_platform_encap_update(encap, update_type, upd);
    if (rc != 0) {
        MLIB_ERR("platform encap update failed on encap: %p rc:%s", static_cast<void *>(encap),
                 cerr_strerror(rc));
    }
    return rc;
}

cerrno ip6mc_encap_platform_commit(ipv4mc_encap_entry_st *encap) {
    cerrno rc = ip6mc_platform_encapid_operation_wrapper(IPV4MC_ACTION_COMMIT, encap);
    if (rc == 0) {
        return 0;
    }
    MLIB_ERR("platform op ENCAP COMMIT failed on encap_entry id : %d rc:%s",
             static_cast<int>(encap->encap_id), cerr_strerror(rc));
    rc = ipmc_platform_err_handler_sync_encap(encap, rc);
    if (rc != 0) {
        MLIB_ERR("ENCAP COMMIT failed handle error encap_entry id : %d rc:%s",
                 static_cast<int>(encap->encap_id), cerr_strerror(rc));
    }
    return rc;
}

cerrno ipmc_unlink_route_from_encap(ipv4mc_route_entry_st *route, ipv4mc_encap_entry_st *encap) {
    if (route == nullptr || encap == nullptr) {
        MLIB_ERR("unlink_route_from_encap: invalid arg route:%p encap:%p",
                 static_cast<void *>(route), static_cast<void *>(encap));
        return EINVAL;
    }
    const group change;
    leave_encap(route, encap);
    // Also when the count was 0 before and this route brought nothing: neither the earlier count
    // nor the present flag is looked at.
    if (encap->intf_local_EG_cnt == 0 && (encap->ip_lkp_ctl & IPV4MC_ENCAP_LKP_STAYS) == 0) {
        mlib::switch_ip_lookup(encap, 0);
        ip6mc_encap_platform_commit(encap);
    }
    return 0;
}

cerrno ip6mc_regdb_operation(ipv4mc_action_type, const ipv4mc_regdb_key_st *, uint32_t,
                             const ipv4mc_regdb_core_info_st *, ipv4mc_regdb_entry_st **) {
    return MLIB_NOT_BUILT("ip6mc_regdb_operation");
}

}  // extern "C"
