// Counters and questions.
#include "platforms/sim/control.h"
#include "platforms/sim/hardware.h"

namespace {

using mfwd6::sim::answers;
using mfwd6::sim::ctl;
using mfwd6::sim::encap_slot;
using mfwd6::sim::hw;
using mfwd6::sim::make_route_key;
using mfwd6::sim::no_slot;
using mfwd6::sim::route_slot;
using mfwd6::sim::seam_call;

cerrno route_counter(ipv4mc_table_st *table, const ip_maddr_st *source, const ip_maddr_st *group,
                     uint16_t pfx_len, const ipv4mc_route_entry_st *route, uint64_t *count_p,
                     uint64_t route_slot::*counter) {
    seam_call call(SIM_OP_STATS, 0);
    if (table == nullptr || source == nullptr || group == nullptr || count_p == nullptr) {
        return call.end(EINVAL);
    }
    call.what.tid = table->tid;
    call.what.source = *source;
    call.what.group = *group;
    call.what.pfx_len = pfx_len;
    call.what.record = route;
    *count_p = 0;
    if (call.refused() != 0) {
        return call.end(call.refused());
    }
    const uint32_t slot = hw().find_route(make_route_key(table->tid, *source, *group, pfx_len));
    if (!hw().route_held(slot)) {
        return call.end(ENOENT);
    }
    *count_p = hw().routes.at(slot).*counter;
    return call.end(0);
}

}  // namespace

cerrno ip6mc_platform_get_hw_in_stats(ipv4mc_table_st *table, const ip_maddr_st *source,
                                      const ip_maddr_st *group, uint16_t pfx_len,
                                      ipv4mc_route_entry_st *route, uint64_t *count_p) {
    return route_counter(table, source, group, pfx_len, route, count_p, &route_slot::in_packets);
}

cerrno ip6mc_platform_get_hw_in_stats_bytes(ipv4mc_table_st *table, const ip_maddr_st *source,
                                            const ip_maddr_st *group, uint16_t pfx_len,
                                            ipv4mc_route_entry_st *route, uint64_t *count_p) {
    return route_counter(table, source, group, pfx_len, route, count_p, &route_slot::in_bytes);
}

cerrno ip6mc_platform_get_hw_eg_stats(ipv4mc_table_st *table, const ip_maddr_st *source,
                                      const ip_maddr_st *group, uint16_t pfx_len,
                                      ipv4mc_route_entry_st *route, uint64_t *count_p) {
    return route_counter(table, source, group, pfx_len, route, count_p, &route_slot::out_packets);
}

cerrno ip6mc_platform_get_hw_eg_stats_bytes(ipv4mc_table_st *table, const ip_maddr_st *source,
                                            const ip_maddr_st *group, uint16_t pfx_len,
                                            ipv4mc_route_entry_st *route, uint64_t *count_p) {
    return route_counter(table, source, group, pfx_len, route, count_p, &route_slot::out_bytes);
}

// The model counts per encap: what came in through one leaf of it is not told apart.
cerrno ip6mc_platform_encap_get_hw_in_stats(uint32_t encap_id, ipv4mc_encap_entry_st *encap,
                                            ipv4mc_encap_leaf_st *leaf, uint64_t *packets_p,
                                            uint64_t *bytes_p, uint64_t *dropped_p) {
    seam_call call(SIM_OP_STATS, 1);
    const uint32_t id = encap != nullptr ? encap->encap_id : encap_id;
    call.what.value = id;
    call.what.record = leaf;
    if (call.refused() != 0) {
        return call.end(call.refused());
    }
    if (packets_p == nullptr || bytes_p == nullptr) {
        return call.end(EINVAL);
    }
    const uint32_t slot = hw().encaps.find({id, 0});
    const encap_slot none = {};
    const encap_slot &held = slot == no_slot ? none : hw().encaps.at(slot);
    *packets_p = held.packets;
    *bytes_p = held.bytes;
    if (dropped_p != nullptr) {
        *dropped_p = held.dropped;
    }
    return call.end(slot == no_slot ? ENOENT : 0);
}

int ip6mc_platform_is_sw_only_gtrie(void) {
    seam_call call(SIM_OP_SW_ONLY_GTRIE, 0);
    (void)call.end(0);
    return ctl().said.sw_only_gtrie;
}

cerrno ip6mc_platform_is_virtual_interface_local(ifhtype ifh, uint8_t *is_local_p) {
    seam_call call(SIM_OP_VIRTUAL_LOCAL, 0);
    call.what.ifh = ifh;
    if (call.refused() != 0) {
        return call.end(call.refused());
    }
    if (is_local_p == nullptr) {
        return call.end(EINVAL);
    }
    *is_local_p = 0;
    const answers &said = ctl().said;
    for (uint32_t i = 0; i < said.virtual_count; ++i) {
        if (said.virtual_local[i].ifh == ifh) {
            *is_local_p = said.virtual_local[i].local != 0 ? 1 : 0;
        }
    }
    return call.end(0);
}

int ip6mc_platform_bundle_sg_hash(ifhtype bundle, const ip_maddr_st *source,
                                  const ip_maddr_st *group, ifhtype *member_p,
                                  uint16_t *link_id_p) {
    seam_call call(SIM_OP_BUNDLE_HASH, 0);
    call.what.ifh = bundle;
    if (source != nullptr && group != nullptr) {
        call.what.source = *source;
        call.what.group = *group;
    }
    (void)call.end(0);
    const answers &said = ctl().said;
    if (said.bundle_answered == 0 || member_p == nullptr || link_id_p == nullptr) {
        return 0;
    }
    *member_p = said.bundle_member;
    *link_id_p = said.bundle_link;
    return 1;
}

cerrno ipv6_mfwd_platform_is_bvi_local(const uint8_t *plfm_data, uint8_t plfm_data_len,
                                       int *is_local_p) {
    seam_call call(SIM_OP_BVI_LOCAL, 0);
    call.what.value = plfm_data_len;
    if (call.refused() != 0) {
        return call.end(call.refused());
    }
    if (is_local_p == nullptr || (plfm_data == nullptr && plfm_data_len != 0)) {
        return call.end(EINVAL);
    }
    switch (ctl().said.bvi) {
        case SIM_BVI_LOCAL:
            *is_local_p = 1;
            break;
        case SIM_BVI_NOT_LOCAL:
            *is_local_p = 0;
            break;
        case SIM_BVI_LEAVE_ALONE:
            break;
        default:
            *is_local_p = plfm_data_len != 0 && plfm_data[0] != 0 ? 1 : 0;
            break;
    }
    return call.end(0);
}

cerrno ipv6_mfwd_platform_is_slotmask_xid_change(
    ipv4mc_table_st *table, ipv4mc_route_entry_st *route, const ip_maddr_st *source,
    const ip_maddr_st *group, mrib_attrib_entry_type old_attributes, int *changed_p) {
    seam_call call(SIM_OP_SLOTMASK, 0);
    call.what.tid = table != nullptr ? table->tid : 0;
    if (source != nullptr && group != nullptr) {
        call.what.source = *source;
        call.what.group = *group;
    }
    call.what.attributes = route != nullptr ? route->attributes : 0;
    call.what.old_attributes = old_attributes;
    call.what.record = route;
    if (call.refused() != 0) {
        return call.end(call.refused());
    }
    if (changed_p == nullptr) {
        return call.end(EINVAL);
    }
    *changed_p = ctl().said.slotmask_changed;
    return call.end(0);
}
