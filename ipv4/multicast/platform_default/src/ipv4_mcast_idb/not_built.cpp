// Operations on interfaces that other rooms call already.
#include "ipv4/multicast/lib/ip6mc_idb.h"
#include "ipv4/multicast/platform_default/src/diagnostics/report.h"
#include "ipv4/multicast/platform_default/src/setup.h"

extern "C" {

cerrno ip6mc_idb_route_add(ipv4mc_idb_st **, ipv4mc_route_entry_st *, ipv4mc_intf_entry_st **) {
    return MLIB_NOT_BUILT("ip6mc_idb_route_add");
}
cerrno ip6mc_idb_route_add_idb(ipv4mc_idb_st *, ipv4mc_route_entry_st *, ipv4mc_intf_entry_st **) {
    return MLIB_NOT_BUILT("ip6mc_idb_route_add_idb");
}
cerrno ip6mc_idb_route_remove(ipv4mc_route_entry_st *, ipv4mc_intf_entry_st **) {
    return MLIB_NOT_BUILT("ip6mc_idb_route_remove");
}
cerrno ip6mc_idb_route_remove_idb(ipv4mc_idb_st **, ipv4mc_route_entry_st *,
                                  ipv4mc_intf_entry_st **) {
    return MLIB_NOT_BUILT("ip6mc_idb_route_remove_idb");
}
int ip6mc_idb_is_local(ifhtype) {
    return 0;
}

}  // extern "C"
