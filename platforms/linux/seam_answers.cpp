// Counters and questions.
#include <cerrno>

#include "platforms/linux/flows.h"
#include "platforms/linux/life.h"
#include "platforms/linux/linux.h"
#include "platforms/linux/query_sockets.h"
#include "platforms/linux/records.h"

using namespace mfwd6::lnx;

namespace {

// What the route's own entry and its flows have counted, and what entries counted that are gone.
cerrno count_route(ipv4mc_table_st *record, const ip_maddr_st *source, const ip_maddr_st *group,
                   uint16_t pfx_len, ipv4mc_route_entry_st *route, counters *sum) {
    if (record == nullptr || source == nullptr || group == nullptr) {
        return EINVAL;
    }
    if (route == nullptr) {
        const uint32_t length = is_any(*source) ? pfx_len : uint32_t{IPV4MC_ROUTE_PFX_LEN_SG};
        route = exact_route(record, {*source, *group}, length);
    }
    if (route == nullptr || extension(*route).committed == 0) {
        return ENOENT;
    }
    const uint32_t kernel_table = linux_kernel_table(record->tid);
    const int fd = query_socket(kernel_table);
    if (fd < 0) {
        return static_cast<cerrno>(-fd);
    }
    *sum = {};
    if (extension(*route).has_entry != 0) {
        const cerrno failed = kernel_counters(fd, key_of(*route), sum);
        if (failed != 0 && failed != ENOENT) {
            return failed;
        }
    }
    if (book().opened()) {
        const counters flows = counted_by_flows(fd, kernel_table, *route);
        sum->packets += flows.packets;
        sum->bytes += flows.bytes;
    }
    sum->packets += extension(*route).packets;
    sum->bytes += extension(*route).bytes;
    return 0;
}

cerrno in_counter(ipv4mc_table_st *record, const ip_maddr_st *source, const ip_maddr_st *group,
                  uint16_t pfx_len, ipv4mc_route_entry_st *route, uint64_t *count_p,
                  uint64_t counters::*counter) {
    if (count_p == nullptr) {
        return EINVAL;
    }
    counters sum = {};
    const cerrno failed = count_route(record, source, group, pfx_len, route, &sum);
    *count_p = failed == 0 ? sum.*counter : 0;
    return failed;
}

// The kernel counts where packets come in, and per device; not per entry where they go out.
cerrno no_out_counter(uint64_t *count_p) {
    if (count_p == nullptr) {
        return EINVAL;
    }
    *count_p = 0;
    return EOPNOTSUPP;
}

}  // namespace

cerrno ip6mc_platform_get_hw_in_stats(ipv4mc_table_st *table_record, const ip_maddr_st *source,
                                      const ip_maddr_st *group, uint16_t pfx_len,
                                      ipv4mc_route_entry_st *route, uint64_t *count_p) {
    return in_counter(table_record, source, group, pfx_len, route, count_p, &counters::packets);
}

cerrno ip6mc_platform_get_hw_in_stats_bytes(ipv4mc_table_st *table_record,
                                            const ip_maddr_st *source, const ip_maddr_st *group,
                                            uint16_t pfx_len, ipv4mc_route_entry_st *route,
                                            uint64_t *count_p) {
    return in_counter(table_record, source, group, pfx_len, route, count_p, &counters::bytes);
}

cerrno ip6mc_platform_get_hw_eg_stats(ipv4mc_table_st *, const ip_maddr_st *, const ip_maddr_st *,
                                      uint16_t, ipv4mc_route_entry_st *, uint64_t *count_p) {
    return no_out_counter(count_p);
}

cerrno ip6mc_platform_get_hw_eg_stats_bytes(ipv4mc_table_st *, const ip_maddr_st *,
                                            const ip_maddr_st *, uint16_t, ipv4mc_route_entry_st *,
                                            uint64_t *count_p) {
    return no_out_counter(count_p);
}

int ip6mc_platform_is_sw_only_gtrie(void) {
    return 1;
}

cerrno ip6mc_platform_is_virtual_interface_local(ifhtype ifh, uint8_t *is_local_p) {
    if (ifh == 0 || is_local_p == nullptr) {
        return EINVAL;
    }
    *is_local_p = 1;  // there is one node
    return 0;
}

// The kernel hashes over the members of a bond itself.
int ip6mc_platform_bundle_sg_hash(ifhtype, const ip_maddr_st *, const ip_maddr_st *, ifhtype *,
                                  uint16_t *) {
    return 0;
}

cerrno ipv6_mfwd_platform_is_bvi_local(const uint8_t *, uint8_t, int *is_local_p) {
    if (is_local_p == nullptr) {
        return EINVAL;
    }
    *is_local_p = 1;
    return 0;
}

cerrno ipv6_mfwd_platform_is_slotmask_xid_change(ipv4mc_table_st *, ipv4mc_route_entry_st *,
                                                 const ip_maddr_st *, const ip_maddr_st *,
                                                 mrib_attrib_entry_type, int *changed_p) {
    if (changed_p == nullptr) {
        return EINVAL;
    }
    *changed_p = 0;
    return 0;
}
