// Interfaces and the VRF tables that they belong to, in either order of arrival.
#include <cerrno>
#include <cstring>

#include "ipv4/multicast/lib/ip6mc_idb.h"
#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "ipv4/multicast/lib/ip6mc_table.h"
#include "ipv4/multicast/platform_default/src/diagnostics/report.h"
#include "ipv4/multicast/platform_default/src/ipv4_mcast_idb/idb.h"
#include "ipv4/multicast/platform_default/src/ipv4_mcast_tables/tables.h"
#include "ipv4/multicast/platform_default/src/setup.h"
#include "services/journal/journal.h"
#include "services/trees/wavl.h"

namespace {

struct link_request {
    rsi_vrf_id_t vrf_id;
    ipv4mc_table_st *table;
};

ipv4mc_idb_st *idb_of(void *node) {
    return static_cast<ipv4mc_idb_st *>(ipmc_idb_wavl2idb(node));
}

int ipmc_idb_link_walk_fn(void *node, void *context) {
    const auto *request = static_cast<const link_request *>(context);
    ipv4mc_idb_st *idb = idb_of(node);
    if (idb->vrf_id == request->vrf_id) {
        MLIB_DEBUG(IPV4_DEBUG_IDB,
                   "Linking idb %s to vrf table type 0x%x vid 0x%x tid 0x%x name %s", idb->name,
                   request->table->table_type, request->table->vrf_id, request->table->tid,
                   request->table->vrf_name);
        ipmc_idb_link_tbl(&idb, request->vrf_id, request->table);
    }
    return 1;
}

}  // namespace

extern "C" {

cerrno ip6mc_idb_mdt_unlock(ipv4mc_table_st *, ifhtype, uint32_t) {
    return MLIB_NOT_BUILT("ip6mc_idb_mdt_unlock");
}

cerrno ip6mc_idb_mdt_mtu_set(ipv4mc_table_st *) {
    return MLIB_NOT_BUILT("ip6mc_idb_mdt_mtu_set");
}

void ipmc_idb_link_tbl(ipv4mc_idb_st **, rsi_vrf_id_t, ipv4mc_table_st *) {
    MLIB_NOT_BUILT("ipmc_idb_link_tbl");
}

ipv4mc_idb_st *ipmc_idb_unlink_tbl(ipv4mc_idb_st *idb, uint32_t *out) {
    if (idb->vtable != nullptr) {
        MLIB_NOT_BUILT("ipmc_idb_unlink_tbl");
    }
    *out = 0;
    return idb;
}

}  // extern "C"

void *ipmc_idb_vrf_delete(ipv4mc_idb_st *idb) {
    if (idb->vtable != nullptr && idb->vrf_id != 0) {
        MLIB_NOT_BUILT("ipmc_idb_vrf_delete");
    }
    if (idb->type == idb_type_mdt) {
        mfwd6::journal::store(idb->vrf_id, 0U);
    }
    return nullptr;
}

void ipmc_idb_link_vrf(rsi_vrf_id_t vrf_id, ipv4mc_table_st *table, int link) {
    MLIB_DEBUG(IPV4_DEBUG_IDB, "%sLinking idbs %s tablle type 0x%x vid 0x%x tid 0x%x name %s",
               link != 0 ? "" : "UN", link != 0 ? "to" : "from", table->table_type, table->vrf_id,
               table->tid, table->vrf_name);
    if (link != 0) {
        wavl_tree copy = ipv4mc_desc->shmwin_info->idb_tree;
        link_request request{vrf_id, table};
        wavl_walk(&copy, IPV4MC_IDB_THREAD_GLOBAL, ipmc_idb_link_walk_fn, &request);
    } else if (wavl_count(&table->idb_tree, IPV4MC_IDB_THREAD_VRF) != 0) {
        MLIB_NOT_BUILT("ipmc_idb_unlink_tbl");
    }
}

int ipmc_idb_local_ifcount_walk_fn(void *node, void *context) {
    auto *seen = static_cast<ipmc_idb_ifcount_walk_st *>(context);
    ++seen->count;
    if (strncmp(idb_of(node)->name, "mdt", 3) == 0) {
        seen->mdt_present = 1;
    }
    return 1;
}

cerrno ipmc_idb_link_mdt_idb_to_vrf(ipv4mc_table_st *table, ifhtype handle, uint32_t vrf_id,
                                    int with_mtu) {
    if (handle == 0) {
        return 0;
    }
    ipv4mc_idb_st *idb = nullptr;
    const cerrno rc = ip6mc_idb_lookup(handle, &idb);
    if (rc != 0 || idb == nullptr) {
        MLIB_ERR("Failed to lookup MDT idb 0x%x : %s", handle, cerr_strerror(rc));
        return rc;
    }
    if (idb->vrf_id != vrf_id) {
        MLIB_DEBUG(IPV4_DEBUG_EV, "Updating vrf id on MDT intf 0x%x  old 0x%x new 0x%x", handle,
                   idb->vrf_id, vrf_id);
        mfwd6::journal::store(idb->vrf_id, vrf_id);
        ipmc_idb_link_tbl(&idb, vrf_id, table);
        if (with_mtu != 0 && idb != nullptr && idb->vtable != nullptr) {
            mfwd6::journal::store(idb->mtu, table->mtu);
        }
    }
    return 0;
}
