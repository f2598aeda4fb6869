#include "services/imc/rtnl/take_link.h"

#include <linux/rtnetlink.h>

#include <cerrno>

#include "services/imc/backend.h"
#include "services/imc/rtnl/link.h"

namespace mfwd6::imc_rtnl {
namespace {

// A VLAN of a bridge is the bridge's routed interface.
uint16_t vlan_type(imc_context_t *context, uint32_t below) {
    uint16_t type = IMC_TYPE_NONE;
    imc_interface_get_type(context, below, &type, nullptr);
    return type == IMC_TYPE_BVI ? IMC_TYPE_SVI : IMC_TYPE_SUBINTERFACE;
}

struct vlan_search {
    uint32_t bridge;
    uint32_t found;
    char name[IMC_NAME_SIZE];
};

cerrno find_vlan(uint32_t ifh, const char *name, uint16_t type, uint32_t parent, void *context) {
    auto *const search = static_cast<vlan_search *>(context);
    if (type != IMC_TYPE_SUBINTERFACE || parent != search->bridge) {
        return 0;
    }
    search->found = ifh;
    imc_display_namestring(name, search->name, sizeof search->name, 0);
    return EEXIST;
}

// VLANs that were heard of before their bridge.
cerrno mend_vlans(imc_context_t *context, uint32_t bridge) {
    vlan_search search{bridge, 0, {}};
    cerrno rc = 0;
    while (rc == 0 && imc_interface_walk(context, find_vlan, &search) != 0) {
        rc = imc_backend_put(context, search.found, search.name, IMC_TYPE_SVI, bridge);
    }
    return rc;
}

}  // namespace

cerrno take_link(imc_context_t *context, const nlmsghdr *message) {
    link l{};
    if (!read_link(message, &l)) {
        return 0;
    }
    if (message->nlmsg_type == RTM_DELLINK) {
        imc_backend_drop(context, l.index);
        return 0;
    }
    if (l.name == nullptr) {
        return 0;
    }
    uint16_t type = type_of(l);
    if (type == IMC_TYPE_SUBINTERFACE) {
        type = vlan_type(context, l.below);
    }
    const cerrno rc = imc_backend_put(context, l.index, l.name, type, l.below);
    return rc == 0 && type == IMC_TYPE_BVI ? mend_vlans(context, l.index) : rc;
}

}  // namespace mfwd6::imc_rtnl
