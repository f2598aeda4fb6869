// Encaps, transports and leaves: the kernel's multicast forwarding has none. What goes up is
// refused, what goes down is not there.
#include <cerrno>

#include "ipv4/multicast/lib/ip6mc_platform.h"

namespace {

cerrno refuse_up(ipv4mc_action_type action) {
    return action == IPV4MC_ACTION_CREATE || action == IPV4MC_ACTION_COMMIT ? EOPNOTSUPP : 0;
}

}  // namespace

cerrno ip6mc_platform_encapid_operation(ipv4mc_action_type action, ipv4mc_encap_entry_st *encap) {
    return encap == nullptr ? EINVAL : refuse_up(action);
}

cerrno ip6mc_platform_encap_update(ipv4mc_encap_entry_st *encap, uint32_t type,
                                   const void *update) {
    (void)type;
    return encap == nullptr || update == nullptr ? EINVAL : EOPNOTSUPP;
}

cerrno ip6mc_platform_encap_leaf_operation(ipv4mc_action_type action, ipv4mc_encap_leaf_st *leaf,
                                           ipv4mc_encap_entry_st *encap,
                                           ipv4mc_regdb_entry_st *regdb, uint32_t tr) {
    (void)tr;
    return leaf == nullptr || encap == nullptr || regdb == nullptr ? EINVAL : refuse_up(action);
}

cerrno ip6mc_platform_regdb_operation(ipv4mc_action_type action, ipv4mc_regdb_entry_st *entry,
                                      const ipv4mc_regdb_core_info_st *core_info) {
    (void)core_info;
    return entry == nullptr ? EINVAL : refuse_up(action);
}

cerrno ip6mc_platform_encap_get_hw_in_stats(uint32_t encap_id, ipv4mc_encap_entry_st *encap,
                                            ipv4mc_encap_leaf_st *leaf, uint64_t *packets_p,
                                            uint64_t *bytes_p, uint64_t *dropped_p) {
    (void)encap_id;
    (void)encap;
    (void)leaf;
    if (packets_p == nullptr || bytes_p == nullptr) {
        return EINVAL;
    }
    *packets_p = 0;
    *bytes_p = 0;
    if (dropped_p != nullptr) {
        *dropped_p = 0;
    }
    return ENOENT;
}
