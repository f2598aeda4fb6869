// Of what kind an interface is: asked once, when its record is made.
#include <cerrno>

#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "ipv4/multicast/platform_default/src/diagnostics/report.h"
#include "ipv4/multicast/platform_default/src/ipv4_mcast_idb/idb.h"
#include "services/imc/imc.h"
#include "services/platform_info/platform_info.h"

namespace {

imc_context_t *interface_manager() {
    return static_cast<imc_context_t *>(ipv4mc_desc->im_context);
}

bool is_pseudowire(uint32_t im_type) {
    return im_type == IMC_TYPE_PW_ETHER || im_type == IMC_TYPE_PW_IW;
}

cerrno ask_for_parent(ifhtype ifh, ifhtype *parent) {
    if (interface_manager() == nullptr) {
        MLIB_ERR("Multicast Library IM LDP connection not initialized - cannot lookup interface");
        return EINVAL;
    }
    return imc_control_parent_interface_lookup(interface_manager(), ifh, parent);
}

uint32_t type_of_subinterface(ifhtype ifh) {
    ifhtype parent = 0;
    const cerrno rc = ask_for_parent(ifh, &parent);
    if (rc != 0 || parent == 0) {
        MLIB_ERR("Cannot lookup parent ifhandle for 0x%x, rc 0x%x %s", ifh, rc, cerr_strerror(rc));
        return idb_type_other;
    }
    return is_pseudowire(ipv4mc_ifh_get_im_intf_type(parent)) ? idb_type_pw_ether_vlan
                                                              : idb_type_other;
}

uint32_t type_of_remote(ifhtype ifh, uint32_t im_type) {
    switch (im_type) {
        case IMC_TYPE_BVI:
            return idb_type_bvi;
        case IMC_TYPE_PW_ETHER:
        case IMC_TYPE_PW_IW:
            return idb_type_pw_ether;
        case IMC_TYPE_PHYSICAL:
            return idb_type_physical;
        case IMC_TYPE_SUBINTERFACE:
            return type_of_subinterface(ifh);
        default:
            return idb_type_other;
    }
}

uint32_t type_of_virtual(ifhtype ifh, uint32_t im_type) {
    if (im_type == IMC_TYPE_NONE) {
        return idb_type_other;
    }
    if (ip6mc_iftype_is_svi(im_type) != 0) {
        return idb_type_svi;
    }
    switch (im_type) {
        case IMC_TYPE_TUNNEL:
            return idb_type_tunnel;
        case IMC_TYPE_PPPOE:
            return idb_type_pppoe;
        case IMC_TYPE_MDT:
            return idb_type_mdt;
        default:
            return platform_ifhandle_is_local(ifh) != 0 ? uint32_t{idb_type_physical}
                                                        : type_of_remote(ifh, im_type);
    }
}

}  // namespace

void mlib::classify_idb(ipv4mc_idb_st *idb, bool is_mdt) {
    if (platform_ifhandle_is_virtual_check_for_mcast(idb->ifh) == 0) {
        idb->type = idb_type_physical;
    } else {
        idb->type = type_of_virtual(idb->ifh, ipv4mc_ifh_get_im_intf_type(idb->ifh));
        if (idb->type == idb_type_mdt) {
            idb->subtype = IPV4MC_IDB_MDT_TMI;
        }
    }
    if (is_mdt) {
        idb->type = idb_type_mdt;
    }
}

extern "C" {

int ip6mc_iftype_is_svi(uint32_t im_type) {
    return im_type == IMC_TYPE_SVI || im_type == IMC_TYPE_SVI_L3 ? 1 : 0;
}

uint16_t ipv4mc_ifh_get_im_intf_type(ifhtype ifh) {
    if (interface_manager() == nullptr) {
        MLIB_TRACE_TEXT(
            IPV4_DEBUG_IDB,
            "Multicast Library IM LDP connection not initialized - cannot lookup interface");
        return IMC_TYPE_NONE;
    }
    if (ifh == 0) {
        MLIB_ERR("NULLIFHNDL passed  in %s", __func__);
        return IMC_TYPE_NONE;
    }
    uint16_t type = IMC_TYPE_NONE;
    cerrno answer = 0;
    const cerrno rc = imc_interface_get_type(interface_manager(), ifh, &type, &answer);
    MLIB_TRACE_TEXT(IPV4_DEBUG_IDB,
                    "IMC type lookup for ifh 0x%x, intf_type %d, rc=(%s), imc_rc=(%s)", ifh,
                    static_cast<int>(type), cerr_strerror(rc), cerr_strerror(answer));
    return rc == 0 && answer == 0 ? type : uint16_t{IMC_TYPE_NONE};
}

}  // extern "C"
