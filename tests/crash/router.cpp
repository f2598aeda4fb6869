#include "tests/crash/router.h"

#include <string>

#include "ipv4/multicast/lib/ip6mc_signal.h"
#include "services/imc/table.h"
#include "services/platform_info/platform_info.h"
#include "tests/crash/workload/operations.h"

namespace crash {
namespace {

constexpr uint16_t kinds[] = {IMC_TYPE_PHYSICAL,     IMC_TYPE_PHYSICAL, IMC_TYPE_TUNNEL,
                              IMC_TYPE_SVI,          IMC_TYPE_BVI,      IMC_TYPE_PW_ETHER,
                              IMC_TYPE_SUBINTERFACE, IMC_TYPE_MDT,      IMC_TYPE_PPPOE,
                              IMC_TYPE_OTHER,        IMC_TYPE_BUNDLE};
static_assert(sizeof(kinds) / sizeof(kinds[0]) == other_interfaces + 1);
constexpr uint32_t pseudowire = 5;  // the one underneath the subinterface

cerrno take_packet(const imc_datapath_control_t *, void *) {
    return 0;
}

}  // namespace

imc_context_t *interface_manager() {
    imc_context_t *manager = nullptr;
    if (imc_table_open(&manager) != 0 ||
        imc_datapath_receiver_set(manager, IPV4MC_DPC_PAK_DROP, take_packet, nullptr) != 0) {
        give_up("start of the interface manager");
    }
    for (uint32_t n = 0; n <= other_interfaces; ++n) {
        const uint32_t ifh = first_other_ifh + n;
        const uint32_t parent =
            kinds[n] == IMC_TYPE_SUBINTERFACE ? first_other_ifh + pseudowire : 0;
        if (imc_table_add(manager, ifh, ("if" + std::to_string(n)).c_str(), kinds[n], parent) !=
            0) {
            give_up("an interface that the manager does not take");
        }
        if (kinds[n] != IMC_TYPE_PHYSICAL) {
            platform_ifhandle_set(ifh, PLATFORM_IFH_VIRTUAL);
        }
    }
    return manager;
}

}  // namespace crash
