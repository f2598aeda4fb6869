// Bulk removal of a table's signals.
#include <cerrno>

#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "ipv4/multicast/platform_default/src/signal/signal_room.h"

namespace {

cerrno remove_route_fn(ipv4mc_table_st *table, ipv4mc_route_entry_st *route, void *context) {
    if (context == nullptr) {
        return EINVAL;
    }
    return ipv4mc_signal_remove_route_pak_internal(table, route,
                                                   *static_cast<const mfwd_cmd *>(context));
}

}  // namespace

extern "C" cerrno ip6mc_signal_remove_all_routes(ipv4mc_table_st *table, uint32_t yield_count,
                                                 mfwd_cmd free_pak) {
    const cerrno rc = ip6mc_signal_walk(table, yield_count, 0, remove_route_fn, &free_pak);
    if (table == nullptr) {
        return rc;
    }
    if (rc != 0) {
        MLIB_ERR("0x%x(%s): Error while deleting all signal routes: %s", SIGNAL_TABLE_ARGS(table),
                 cerr_strerror(rc));
        return rc;
    }
    MLIB_DEBUG(IPV4_DEBUG_SIG, "0x%x(%s): Successfuly deleted all signals %s",
               SIGNAL_TABLE_ARGS(table),
               free_pak == IPV4MC_FREE_PAK_ALL ? "and preserved packets" : "");
    return 0;
}
