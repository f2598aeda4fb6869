#include "ipv4/multicast/platform_default/src/ipv4_mcast_idb/in_hand.h"

#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "ipv4/multicast/lib/ip6mc_table.h"
#include "ipv4/multicast/platform_default/src/diagnostics/report.h"
#include "ipv4/multicast/platform_default/src/ip_mcast_shmwin/lock_guards.h"
#include "ipv4/multicast/platform_default/src/ipv4_mcast_idb/idb.h"
#include "services/journal/journal.h"
#include "services/trees/wavl.h"

namespace {

using mfwd6::journal::group;
using mfwd6::journal::store;

}  // namespace

// One word suffices: a record that is destroyed while another one is in hand (the last interface of
// a table takes routes with it) takes its place, and the outer one is then a block without an owner
// if the process dies before it is done.
void mlib::take_idb_in_hand(ipv4mc_idb_st *idb) {
    store(ipv4mc_desc->shmwin_info->idb_in_hand, idb);
}

void mlib::put_idb_out_of_hand(const ipv4mc_idb_st *idb) {
    if (ipv4mc_desc->shmwin_info->idb_in_hand == idb) {
        store(ipv4mc_desc->shmwin_info->idb_in_hand, nullptr);
    }
}

void mlib::end_idb_in_hand() {
    ipv4mc_shmwin_hdr_st *hdr = ipv4mc_desc->shmwin_info;
    ipv4mc_idb_st *idb = hdr->idb_in_hand;
    if (idb == nullptr) {
        return;
    }
    MLIB_TRACE_TEXT(IPV4_DEBUG_IDB, "Ending idb 0x%x, left half made or half destroyed", idb->ifh);
    end_idb_record(idb);
}

void mlib::end_idb_record(ipv4mc_idb_st *idb) {
    ipv4mc_shmwin_hdr_st *hdr = ipv4mc_desc->shmwin_info;
    const tbl_write_lock guard(__LINE__);
    const group change;
    void *node = ipmc_idb_idb2wavl(idb);
    shm_wavl_delete_thread(&ipmc_idb_fns, &hdr->idb_tree, node, IPV4MC_IDB_THREAD_GLOBAL);
    shm_wavl_delete_thread(&ipmc_idb_fns, &hdr->idb_tree, node, IPV4MC_IDB_THREAD_NAME);
    if (idb->vtable != nullptr) {
        shm_wavl_delete_thread(&ipmc_table_idb_fns, &idb->vtable->idb_tree, node,
                               IPV4MC_IDB_THREAD_VRF);
        if (idb->local_iftype_counted != 0 && idb->vtable->local_ifcount != 0) {
            store(idb->vtable->local_ifcount, idb->vtable->local_ifcount - 1);
        }
    }
    if (hdr->fint_idb == idb) {
        store(hdr->fint_idb, nullptr);
    }
    put_idb_out_of_hand(idb);
    ipv4mc_shmwin_free_inline(idb, IPMC_SHMWIN_ALLOC_IDB);
}
