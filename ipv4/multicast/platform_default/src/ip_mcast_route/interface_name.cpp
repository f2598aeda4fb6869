// Names of interfaces for messages.
#include <cstdio>

#include "ipv4/multicast/lib/ip6mc_idb.h"
#include "ipv4/multicast/lib/ip6mc_route.h"
#include "ipv4/multicast/platform_default/src/diagnostics/report.h"
#include "ipv4/multicast/platform_default/src/ipv4_mcast_tables/routes.h"
#include "services/diag/text.h"

extern "C" char *ip6mc_mlib_interface_name(ifhtype ifh, char *buffer) {
    ipv4mc_idb_st *idb = nullptr;
    const cerrno rc = ip6mc_idb_lookup(ifh, &idb);
    if (rc != 0) {
        MLIB_ERR("Cannot lookup IDB for handle 0x%x: %s\n", ifh, cerr_strerror(rc));
        snprintf(buffer, IPV4MC_IDB_NAME_SIZE, "Er0x%08X", ifh);
    } else if (idb == nullptr) {
        snprintf(buffer, IPV4MC_IDB_NAME_SIZE, "Nf0x%08X", ifh);
    } else {
        sstrncpy(buffer, idb->name, IPV4MC_IDB_NAME_SIZE);
    }
    return buffer;
}

const char *mlib::intf_name(ifhtype ifh) {
    static thread_local char ring[4][IPV4MC_IDB_NAME_SIZE];
    static thread_local unsigned next = 0;
    next = (next + 1) % 4;
    return ip6mc_mlib_interface_name(ifh, ring[next]);
}
