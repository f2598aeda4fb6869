// How an interface's record comes into being: on its first use.
#include <cerrno>
#include <cstdio>

#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "ipv4/multicast/lib/ip6mc_platform_wrappers.h"
#include "ipv4/multicast/lib/ip6mc_table.h"
#include "ipv4/multicast/platform_default/src/diagnostics/report.h"
#include "ipv4/multicast/platform_default/src/ip_mcast_shmwin/lock_guards.h"
#include "ipv4/multicast/platform_default/src/ipv4_mcast_idb/idb.h"
#include "ipv4/multicast/platform_default/src/ipv4_mcast_idb/in_hand.h"
#include "services/journal/journal.h"
#include "services/trees/wavl.h"

namespace {

using mfwd6::journal::group;
using mfwd6::journal::store;

const char *bundle_text(ipv4mc_idb_st *const *bundle_pp) {
    return bundle_pp == nullptr ? "null dbl ptr" : *bundle_pp == nullptr ? "null ptr" : "valid";
}

// Nobody sees the record yet: it is written plainly.
void fill(ipv4mc_idb_st *idb, ifhtype ifh, rsi_vrf_id_t vrf, bool is_mdt) {
    idb->ifh = ifh;
    idb->vrf_id = vrf;
    idb->create_state = IPV4MC_IDB_UNKNOWN;
    idb->im_create_rcvd = 0;
    mlib::classify_idb(idb, is_mdt);
    idb->bundle_ifh = 0;
    idb->vlan_tree = nullptr;
    idb->mcast_enabled = 0;
    idb->vtable = nullptr;
    idb->dpl_local = 0;
    idb->im_type = 0;
    idb->local_iftype_counted = 0;
    idb->cfg_flags = static_cast<uint8_t>(idb->cfg_flags & ~IPV4MC_IDB_CFG_EXPLICIT);
    snprintf(idb->name, sizeof(idb->name), "Ha0x%x", ifh);
}

ipv4mc_idb_st *allocate() {
    const group change;
    auto *idb = static_cast<ipv4mc_idb_st *>(
        ipv4mc_shmwin_malloc_inline(sizeof(ipv4mc_idb_st), IPMC_SHMWIN_ALLOC_IDB));
    if (idb != nullptr) {
        mlib::take_idb_in_hand(idb);
    }
    return idb;
}

// A failure is reported; the record lives on outside the thread.
void insert_in_global_tree(ipv4mc_idb_st *idb) {
    void *inserted = nullptr;
    {
        const mlib::tbl_write_lock guard(__LINE__);
        const group change;
        inserted = shm_wavl_insert_thread(&ipmc_idb_fns, &ipv4mc_desc->shmwin_info->idb_tree,
                                          ipmc_idb_idb2wavl(idb), IPV4MC_IDB_THREAD_GLOBAL);
        mlib::put_idb_out_of_hand(idb);
    }
    if (inserted == nullptr) {
        MLIB_ERR("IDB add failed for %s to global tree", ip6mc_idb_display_name(idb));
    }
}

// A record that is in the tree of its table, and was lost from the global one.
ipv4mc_idb_st *find_in_table(ifhtype ifh, rsi_vrf_id_t vrf) {
    ipv4mc_table_st *table = nullptr;
    ipv4mc_idb_st *idb = nullptr;
    if (vrf == 0 ||
        ip6mc_table_operation(IPV4MC_ACTION_TABLE_LOOKUP, 0, vrf, nullptr, &table, 0) != 0 ||
        table == nullptr) {
        return nullptr;
    }
    return ip6mc_idb_lookup_vrf(table->vrf_name, ifh, &idb) == 0 ? idb : nullptr;
}

cerrno create(ifhtype ifh, rsi_vrf_id_t vrf, ipv4mc_idb_st **idb_p, ipv4mc_idb_st **bundle_pp) {
    ipv4mc_idb_st *idb = find_in_table(ifh, vrf);
    if (idb != nullptr) {
        insert_in_global_tree(idb);
    } else {
        cerrno rc = 0;
        idb = ipv4mc_idb_alloc(ifh, vrf, bundle_pp, &rc, 0);
        if (idb == nullptr) {
            return rc != 0 ? rc : ENOENT;
        }
    }
    *idb_p = idb;
    return 0;
}

// Either link may end the record; `*idb_p` is NULL then.
void move_to_vrf(ipv4mc_idb_st **idb_p, rsi_vrf_id_t vrf) {
    ipv4mc_idb_st *idb = *idb_p;
    const rsi_vrf_id_t old = idb->vrf_id;
    if (old != 0) {
        // It says that nothing is done, and then moves the interface: both are known behaviour.
        MLIB_ERR("Error: idb 0x%x already linked to vrf_id 0x%x : NOT linking to vrf_id 0x%x",
                 idb->ifh, old, vrf);
        uint32_t out = 0;
        *idb_p = ipmc_idb_unlink_tbl(idb, &out);
        if (*idb_p != nullptr) {
            ipmc_idb_link_tbl(idb_p, vrf, nullptr);
        }
    } else {
        ipmc_idb_link_tbl(idb_p, vrf, nullptr);
        MLIB_TRACE_TEXT(IPV4_DEBUG_IDB, "Updating vrf id for idb %s. Old 0x%x, new 0x%x",
                        ip6mc_idb_display_name(*idb_p), old, vrf);
    }
    if (*idb_p != nullptr) {
        store((*idb_p)->vrf_id, vrf);
    }
}

}  // namespace

extern "C" {

ipv4mc_idb_st *ipv4mc_idb_alloc(ifhtype ifh, rsi_vrf_id_t vrf, ipv4mc_idb_st **bundle_pp,
                                cerrno *rc_p, int is_mdt) {
    if (rc_p == nullptr) {
        return nullptr;
    }
    *rc_p = mlib::idb_readiness();
    if (*rc_p != 0) {
        return nullptr;
    }
    ipv4mc_idb_st *idb = allocate();
    if (idb == nullptr) {
        MLIB_ERR("Cannot allocate %zd bytes for adj IDB", sizeof(ipv4mc_idb_st));
        *rc_p = ENOMEM;
        return nullptr;
    }
    fill(idb, ifh, vrf, is_mdt != 0);
    *rc_p = ip6mc_platform_idb_operation_wrapper(
        IPV4MC_IDB_OP_CREATE, idb, bundle_pp != nullptr ? *bundle_pp : nullptr, nullptr);
    if (*rc_p != 0) {
        MLIB_ERR("Cannot init platform dependant portion of IDB for %s: %s",
                 ip6mc_idb_display_name(idb), cerr_strerror(*rc_p));
        const group change;
        mlib::put_idb_out_of_hand(idb);
        ipv4mc_shmwin_free_inline(idb, IPMC_SHMWIN_ALLOC_IDB);
        return nullptr;
    }
    insert_in_global_tree(idb);
    if (vrf == 0) {
        MLIB_TRACE_TEXT(IPV4_DEBUG_IDB, "Not adding %s to vrf tree (bndl: %s)",
                        ip6mc_idb_display_name(idb), bundle_text(bundle_pp));
    } else {
        ipmc_idb_link_tbl(&idb, vrf, nullptr);
    }
    return idb;
}

cerrno ip6mc_idb_find_or_create(ifhtype ifh, rsi_vrf_id_t vrf, ipv4mc_idb_st **idb_p,
                                ipv4mc_idb_st **bundle_pp, int create_it) {
    if (const cerrno rc = mlib::idb_readiness(); rc != 0) {
        return rc;
    }
    MLIB_TRACE_TEXT(IPV4_DEBUG_IDB, "Find/Create called for idb 0x%x v:0x%x", ifh, vrf);
    if (const cerrno rc = mlib::idb_require(idb_p, "Null idb ptr"); rc != 0) {
        return rc;
    }
    ipv4mc_idb_st *idb = nullptr;
    cerrno rc = ip6mc_idb_lookup(ifh, &idb);
    if (rc == 0 && idb == nullptr) {
        rc = create_it != 0 ? create(ifh, vrf, &idb, bundle_pp) : cerrno{ENOENT};
    }
    if (rc != 0) {
        return rc;
    }
    if (vrf != 0 && vrf != idb->vrf_id) {
        move_to_vrf(&idb, vrf);
    }
    *idb_p = idb;
    return 0;
}

}  // extern "C"
