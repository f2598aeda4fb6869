// Operations on bundles that other rooms call already.
#include "ipv4/multicast/lib/ip6mc_idb.h"
#include "ipv4/multicast/platform_default/src/diagnostics/report.h"

extern "C" cerrno ipmc_bundle_vlantree_reinit(ipv4mc_idb_st *idb) {
    return idb->vlan_tree == nullptr ? 0 : MLIB_NOT_BUILT("ipmc_bundle_vlantree_reinit");
}
