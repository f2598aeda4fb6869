// Data-path control through the interface manager.
#include <cerrno>

#include "ipv4/multicast/lib/ip6mc_idb.h"
#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "ipv4/multicast/platform_default/src/diagnostics/report.h"
#include "services/imc/imc.h"

extern "C" cerrno ipv4mc_intf_dpc(ifhtype ifh, uint32_t code, uint32_t length, void *data,
                                  uint64_t extra_1, uint64_t extra_2) {
    if (ipv4mc_desc->im_context == nullptr) {
        MLIB_TRACE_TEXT(IPV4_DEBUG_IDB,
                        "Multicast Library IM connection not initialized - cannot execute DPC");
        return EINVAL;
    }
    const imc_datapath_control_t control{
        ifh, ipv4mc_desc->protocol, ipv4mc_desc->caps, code, length, data, {extra_1, extra_2}};
    return imc_caps_datapath_control(static_cast<imc_context_t *>(ipv4mc_desc->im_context),
                                     &control);
}
