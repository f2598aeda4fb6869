// How the records of a route and of its interfaces are made.
#include <cerrno>
#include <cstring>

#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "ipv4/multicast/lib/ip6mc_route.h"
#include "ipv4/multicast/platform_default/src/diagnostics/address_text.h"
#include "ipv4/multicast/platform_default/src/diagnostics/assertion.h"
#include "ipv4/multicast/platform_default/src/diagnostics/report.h"
#include "ipv4/multicast/platform_default/src/ip_mcast_shmwin/readiness.h"
#include "ipv4/multicast/platform_default/src/ipv4_mcast_tables/routes.h"
#include "services/events/ptimer.h"
#include "services/gtrie/gtrie.h"

namespace {

constexpr uint8_t whole_group = 128;

}  // namespace

// An (S,G) route is exact on all bits, whatever length the caller passed.
uint16_t mlib::route_key_length(const ip_maddr_st *source, uint16_t pfx_len) {
    return is_any(source) ? pfx_len : static_cast<uint16_t>(GTRIE_KEY_BITS);
}

ipv4mc_route_rate_st *mlib::allocate_rate() {
    static_assert(sizeof(ipv4mc_route_rate_st) == 192 &&
                  offsetof(ipv4mc_route_rate_st, stamp) == 128);
    auto *rate = static_cast<ipv4mc_route_rate_st *>(
        ipv4mc_shmwin_malloc_inline(sizeof(ipv4mc_route_rate_st), IPMC_SHMWIN_ALLOC_ROUTE));
    if (rate != nullptr) {
        ptimer_gettime(&rate->stamp);
    }
    return rate;
}

extern "C" {

// The leaf is detached: nobody else reaches it yet. The mofrr_upd links stay as the trie gave them.
cerrno ipv4mc_init_route(uint32_t, const ip_maddr_st *source, const ip_maddr_st *group,
                         uint16_t length, ipv4mc_route_entry_st *route, uint8_t arg) {
    if (!mlib::window_is_open()) {
        MLIB_ERR("Route creation skipped, shared memory window Not Initialized");
        return EFAULT;
    }
    route->source = *source;
    route->group = *group;
    route->pfx_len = mlib::route_key_length(source, length);
    route->group_mask_len = mlib::is_any(source) ? static_cast<uint8_t>(length) : whole_group;
    route->init_arg = arg;
    ptimer_stop(&route->route_timer);

    constexpr size_t first_link = offsetof(ipv4mc_route_entry_st, memd_next);
    constexpr size_t behind_links = offsetof(ipv4mc_route_entry_st, mofrr_upd_next);
    std::memset(reinterpret_cast<char *>(route) + first_link, 0, behind_links - first_link);

    std::memset(route->route_counters, 0, sizeof(route->route_counters));
    route->mdt_candidate = 0;
    route->obj_id = IPMC_OBJ_ID_NONE;
    return 0;
}

ipv4mc_intf_entry_st *ipv4mc_create_intf(ifhtype ifh, uint32_t intf_type, uint32_t intf_arg,
                                         uint32_t amt_addr, uint16_t amt_port) {
    const size_t size = sizeof(ipv4mc_intf_entry_st) + plat_params.intf_extension_size;
    auto *entry = static_cast<ipv4mc_intf_entry_st *>(
        ipv4mc_shmwin_malloc_inline(size, IPMC_SHMWIN_ALLOC_INTF));
    if (entry == nullptr) {
        MLIB_ERR("Cannot allocate %d bytes for interface %s", static_cast<int>(size),
                 mlib::intf_name(ifh));
        return nullptr;
    }
    entry->intf_type = intf_type;
    entry->key_ifh = intf_type == IPV4MC_INTF_ORDINARY ? ifh : 0;
    entry->amt_addr = amt_addr;
    entry->amt_port = amt_port;
    entry->ifh = ifh;
    entry->intf_arg = intf_arg;
    entry->obj_id = IPMC_OBJ_ID_NONE;
    ptimer_gettime(&entry->create_time);
    return entry;
}

ipv4mc_intf_entry_st *ipmc_intf_avl2intf(void *node) {
    MLIB_ASSERT(node != nullptr, "node != ((void*)0)");
    return reinterpret_cast<ipv4mc_intf_entry_st *>(static_cast<char *>(node) -
                                                    offsetof(ipv4mc_intf_entry_st, avl_node));
}

}  // extern "C"
