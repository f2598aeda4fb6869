// Selective download of VRF tables.
#include <cerrno>

#include "ipv4/multicast/lib/ip6mc_table.h"
#include "ipv4/multicast/platform_default/src/diagnostics/report.h"
#include "ipv4/multicast/platform_default/src/setup.h"
#include "services/journal/journal.h"

extern "C" void ip6mc_svd_update_tbl_location(ipv4mc_table_st *, int) {
    MLIB_NOT_BUILT("ip6mc_svd_update_tbl_location");
}

void ipmc_svd_extract_plist(ipv4mc_table_st *table) {
    MLIB_NOT_BUILT("ipmc_svd_extract_plist");
    mfwd6::journal::store(table->svd_location, static_cast<uint32_t>(IPV4MC_SVD_REMOTE));
}
