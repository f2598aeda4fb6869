// Records as debug lines, and the fault points of the library.
#include "ipv4/multicast/lib/ip6mc_diag.h"
#include "ipv4/multicast/lib/ip6mc_route.h"
#include "ipv4/multicast/lib/ip6mc_table.h"
#include "ipv4/multicast/platform_default/src/diagnostics/address_text.h"
#include "ipv4/multicast/platform_default/src/diagnostics/report.h"
#include "services/diag/fault.h"

extern "C" {

// Names repeat in rows 5, 7 and 9: tools know the points by number and by these texts.
const char mlib_fault_points[MLIB_FAULT_POINTS][MLIB_FAULT_TEXT_SIZE] = {
    "MLIB_FAULT_ROUTE_CREATE_FAIL: PD Route create fail",
    "MLIB_FAULT_ROUTE_COMMIT_FAIL: PD Route commit fail",
    "MLIB_FAULT_INTF_CREATE_FAIL: PD Interface create fail",
    "MLIB_FAULT_INTF_COMMIT_FAIL: PD Interface commit fail",
    "MLIB_FAULT_ENCAP_CREATE_FAIL: PD Encap-ID create fail",
    "MLIB_FAULT_ENCAP_CREATE_FAIL: PD Encap-ID commit fail",
    "MLIB_FAULT_BUCKET_CREATE_FAIL: PD Bucket-ID create fail",
    "MLIB_FAULT_BUCKET_CREATE_FAIL: PD Bucket-ID commit fail",
    "MLIB_FAULT_TABLE_CREATE_FAIL: PD Table create fail",
    "MLIB_FAULT_TABLE_CREATE_FAIL: PD Table commit fail",
};

fim_handle mlib_fim_hdl = nullptr;

void mlib_fim_init(void *context) {
    const cerrno rc =
        fim_register("mlib6", mlib_fault_points, MLIB_FAULT_POINTS, 0, &mlib_fim_hdl, context);
    MLIB_DEBUG(IPV4_DEBUG_EV, "MLIB FIM Init: %s", cerr_strerror(rc));
}

void ipmc_table_print(const ipv4mc_table_st *table) {
    MLIB_DEBUG(IPV4_DEBUG_STATE, "table print: %s/0x%x active:0x%x", table->vrf_name, table->tid,
               table->active);
}

void ipv4mc_route_print(const ipv4mc_route_entry_st *route) {
    MLIB_DEBUG(IPV4_DEBUG_STATE, "route print: 0x%x (%s,%s/%d)",
               route->table != nullptr ? route->table->tid : 0xffffffffU,
               mlib::source_text(&route->source), mlib::address_text(&route->group),
               static_cast<int>(route->pfx_len));
}

}  // extern "C"
