#include "services/platform_info/platform_info.h"

#include <cerrno>

#include "services/platform_info/current.h"

namespace mfwd6::platform_info {
namespace {

constexpr platform_info_t defaults{
    .mcast_params = {},
    .node_id = 1,
    .router_type = 0,
    .type = PLATFORM_TYPE_ROUTE_PROCESSOR,
    .fapid = 0,
    .default_vrf_id = 0x60000000,
    .ifhandle_attributes = PLATFORM_IFH_LOCAL,
    .rp_plus_datapath = 0,
    .reserved = {},
    .ifhandle_fn = nullptr,
    .ifhandle_context = nullptr,
};

// Records behind an extension of another size would lose their alignment.
bool good_extension(uint32_t size) {
    return size % 8 == 0 && size <= 65536;
}

}  // namespace

constinit platform_info_t current = defaults;

}  // namespace mfwd6::platform_info

using namespace mfwd6::platform_info;

void platform_info_defaults(platform_info_t *info) {
    *info = defaults;
}

void platform_info_get(platform_info_t *info) {
    *info = current;
}

cerrno platform_info_set(const platform_info_t *info) {
    if (info == nullptr || !good_extension(info->mcast_params.route_extension_size) ||
        !good_extension(info->mcast_params.intf_extension_size) ||
        !good_extension(info->mcast_params.encap_extension_size)) {
        return EINVAL;
    }
    current = *info;
    return 0;
}

cerrno platform_get_mcast_params(platform_mcast_params_t *params) {
    if (params == nullptr) {
        return EINVAL;
    }
    *params = current.mcast_params;
    return 0;
}

cerrno platform_get_my_nodeid(uint32_t *node_id) {
    if (node_id == nullptr) {
        return EINVAL;
    }
    *node_id = current.node_id;
    return 0;
}

uint32_t platform_get_router_type(void) {
    return current.router_type;
}

uint32_t platform_get_type(void) {
    return current.type;
}

int platform_am_i_rp_plus_datapath(void) {
    return current.rp_plus_datapath != 0 ? 1 : 0;
}

cerrno platform_fapid_is_local(uint32_t fapid, int *is_local) {
    if (fapid == 0 || is_local == nullptr) {
        return EINVAL;
    }
    if (current.fapid == 0) {
        return ENODEV;
    }
    *is_local = fapid == current.fapid ? 1 : 0;
    return 0;
}

uint32_t rsi_c_vrf_id_dflt(void) {
    return current.default_vrf_id;
}
