// The one interface of a node that faces the switch fabric.
#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "ipv4/multicast/platform_default/src/ipv4_mcast_idb/idb.h"

extern "C" int ip6mc_idb_is_fint_ifh(ifhtype ifh) {
    return ifh == ipv4mc_desc->shmwin_info->fint_ifh ? 1 : 0;
}
