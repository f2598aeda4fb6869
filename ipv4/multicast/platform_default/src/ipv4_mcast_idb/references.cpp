// References of an interface: taken, given back, and its end with the last one.
#include <sched.h>

#include <cerrno>
#include <cstring>

#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "ipv4/multicast/lib/ip6mc_platform_wrappers.h"
#include "ipv4/multicast/platform_default/src/diagnostics/report.h"
#include "ipv4/multicast/platform_default/src/ip_mcast_shmwin/lock_guards.h"
#include "ipv4/multicast/platform_default/src/ipv4_mcast_idb/idb.h"
#include "ipv4/multicast/platform_default/src/ipv4_mcast_idb/in_hand.h"
#include "ipv4/multicast/platform_default/src/ipv4_mcast_tables/routes.h"
#include "services/journal/journal.h"
#include "services/trees/wavl.h"

namespace {

using mfwd6::journal::group;
using mfwd6::journal::store;

cerrno destroy_platform_half(ipv4mc_idb_st *idb) {
    const cerrno rc =
        ip6mc_platform_idb_operation_wrapper(IPV4MC_IDB_OP_DESTROY, idb, nullptr, nullptr);
    if (rc != 0) {
        MLIB_ERR("Cannot destroy platform dependant portion of IDB for %s: %s",
                 ip6mc_idb_display_name(idb), cerr_strerror(rc));
    }
    return rc;
}

void free_idb(ipv4mc_idb_st *idb, bool is_bulk) {
    const group change;
    ipv4mc_idb_st *&fabric = ipv4mc_desc->shmwin_info->fint_idb;
    // A bulk deletion leaves the word, on purpose: the header goes next.
    if (!is_bulk && fabric == idb) {
        store(fabric, nullptr);
    }
    mlib::put_idb_out_of_hand(idb);
    ipv4mc_shmwin_free_inline(idb, IPMC_SHMWIN_ALLOC_IDB);
}

// One change where nobody else is asked. The last interface of a table may clear that table, which
// is too much for one change: the record is in hand meanwhile.
void take_out_and_free(ipv4mc_idb_st *idb, bool is_bulk) {
    if (idb->vtable == nullptr) {
        const group change;
        ipmc_idb_wavl_delete(idb);
        free_idb(idb, is_bulk);
        return;
    }
    mlib::take_idb_in_hand(idb);
    ipmc_idb_wavl_delete(idb);
    free_idb(idb, is_bulk);
}

struct named_request {
    ifhtype ifh;
    const char *name;
    ipv4mc_idb_st **bundle_pp;
    ipv4mc_idb_st *by_handle;
};

// Gives the record its name and its place in the NAME thread, and the caller's reference.
void name_and_take(const named_request &request, ipv4mc_idb_st *idb) {
    bool inserted = true;
    const bool new_name = !mlib::has_flag(idb->tree_flags, IPV4MC_IDB_TREE_NAME);
    if (new_name) {
        const mlib::tbl_write_lock guard(__LINE__);
        const group change;
        char padded[IPV4MC_IDB_NAME_SIZE] = {};
        std::memcpy(padded, request.name, strnlen(request.name, sizeof(padded)));
        mfwd6::journal::copy(idb->name, padded, sizeof(padded));
        inserted =
            shm_wavl_insert_thread(&ipmc_idb_fns, &ipv4mc_desc->shmwin_info->idb_tree,
                                   ipmc_idb_idb2wavl(idb), IPV4MC_IDB_THREAD_NAME) != nullptr;
        if (inserted) {
            store(idb->tree_flags, static_cast<uint8_t>(idb->tree_flags | IPV4MC_IDB_TREE_NAME));
        }
        mlib::take_idb_reference(idb);
    } else {
        mlib::take_idb_reference(idb);
    }
    if (!inserted) {
        MLIB_ERR("IDB add failed for %s to name tree", ip6mc_idb_display_name(idb));
    } else if (new_name) {
        MLIB_TRACE_TEXT(IPV4_DEBUG_IDB, "INSERTED handle_idb %s in NAME tree",
                        ip6mc_idb_display_name(idb));
    }
}

cerrno compare_with_name(const named_request &request, const ipv4mc_idb_st *by_name) {
    if (by_name == request.by_handle) {
        return 0;
    }
    if (request.by_handle != nullptr) {
        const mlib::idb_name_text name(request.by_handle->name);
        MLIB_ERR("ptr mismatch for %s 0x%x Hptr %p, Nptr %p Hname %s", request.name, request.ifh,
                 static_cast<const void *>(request.by_handle), static_cast<const void *>(by_name),
                 name.text);
    }
    return EINVAL;
}

cerrno create_for_name(const named_request &request, ipv4mc_idb_st **idb_p) {
    cerrno rc = ip6mc_idb_find_or_create(request.ifh, 0, idb_p, request.bundle_pp, 1);
    rc = rc == 0 && *idb_p == nullptr ? cerrno{ENOENT} : rc;
    if (rc != 0) {
        MLIB_ERR("Cannot find/create IDB for %s 0x%x: %s", request.name, request.ifh,
                 cerr_strerror(rc));
    }
    return rc;
}

cerrno ipv4mc_idb_find_or_create_v2(const named_request &request, ipv4mc_idb_st **idb_p) {
    MLIB_TRACE_TEXT(IPV4_DEBUG_IDB, "Find/Create_v2 called for idb %s 0x%x v:0x%x", request.name,
                    request.ifh, 0U);
    ipv4mc_idb_st *idb = request.by_handle;
    ipv4mc_idb_st *by_name = nullptr;
    cerrno rc = ip6mc_idb_lookup_by_name(request.name, &by_name);
    if (rc == 0 && by_name != nullptr) {
        rc = compare_with_name(request, by_name);
    } else if (rc == 0 && idb == nullptr) {
        rc = create_for_name(request, &idb);
    }
    if (rc != 0) {
        MLIB_ERR("Cannot find/create_v2 IDB for %s: %s", request.name, cerr_strerror(rc));
        return rc;
    }
    name_and_take(request, idb);
    *idb_p = idb;
    return 0;
}

cerrno lock_by_handle(ifhtype ifh, rsi_vrf_id_t vrf, ipv4mc_idb_st **idb_p,
                      ipv4mc_idb_st **bundle_pp, const char *function, int line) {
    cerrno rc = mlib::idb_readiness(function, line);
    rc = rc == 0 ? mlib::idb_require(idb_p, "Null IDB pointer", function, line) : rc;
    if (rc != 0) {
        return rc;
    }
    ipv4mc_idb_st *idb = nullptr;
    rc = mlib::find_idb_to_lock(ifh, vrf, &idb, bundle_pp, function, line);
    if (rc != 0) {
        return rc;
    }
    if (idb == nullptr) {
        return ENOENT;
    }
    mlib::take_idb_reference(idb);
    *idb_p = idb;
    return 0;
}

ipv4mc_idb_st *first_idb() {
    const mlib::tbl_read_lock guard(__LINE__);
    return static_cast<ipv4mc_idb_st *>(ipmc_idb_wavl2idb(shm_wavl_get_first(
        &ipmc_idb_fns, &ipv4mc_desc->shmwin_info->idb_tree, IPV4MC_IDB_THREAD_GLOBAL)));
}

}  // namespace

void mlib::take_idb_reference(ipv4mc_idb_st *idb) {
    store(idb->refcount, idb->refcount + 1);
}

cerrno mlib::find_idb_to_lock(ifhtype ifh, rsi_vrf_id_t vrf, ipv4mc_idb_st **idb_p,
                              ipv4mc_idb_st **bundle_pp, const char *function, int line) {
    const cerrno rc = ip6mc_idb_find_or_create(ifh, vrf, idb_p, bundle_pp, 1);
    if (rc != 0 || *idb_p == nullptr) {
        report_error(function, line, "Cannot find/create IDB for %s: %s", intf_name(ifh),
                     cerr_strerror(rc != 0 ? rc : cerrno{ENOENT}));
    }
    return rc;
}

cerrno mlib::drop_idb_reference(ipv4mc_idb_st **idb_p) {
    ipv4mc_idb_st *idb = idb_p != nullptr ? *idb_p : nullptr;
    if (idb == nullptr || idb->refcount == 0) {
        MLIB_ERR("Invalid IDB pointer %s%s%s for %s", idb_p == nullptr ? "Null idb_p " : "",
                 idb_p != nullptr && idb == nullptr ? "Null *idb_p " : "",
                 idb != nullptr ? "Zero Refcount" : "",
                 idb != nullptr ? ip6mc_idb_display_name(idb) : "Unknown");
        return EINVAL;
    }
    store(idb->refcount, idb->refcount - 1);
    return 0;
}

bool mlib::is_unheld(const ipv4mc_idb_st *idb) {
    return idb->refcount == 0 && idb->ttl == 0 && idb->aib == nullptr &&
           idb->platform_boundary_ref == 0;
}

bool mlib::destroy_idb_if_unheld(ipv4mc_idb_st *idb) {
    if (!is_unheld(idb)) {
        return false;
    }
    store(idb->mcast_enabled, 0U);
    destroy_platform_half(idb);
    take_out_and_free(idb, false);
    return true;
}

extern "C" {

cerrno ip6mc_idb_lock(ifhtype ifh, ipv4mc_idb_st **idb_p, ipv4mc_idb_st **bundle_pp) {
    return lock_by_handle(ifh, 0, idb_p, bundle_pp, __func__, __LINE__);
}

cerrno ip6mc_idb_lock_v2(ifhtype ifh, rsi_vrf_id_t vrf, ipv4mc_idb_st **idb_p,
                         ipv4mc_idb_st **bundle_pp) {
    return lock_by_handle(ifh, vrf, idb_p, bundle_pp, __func__, __LINE__);
}

cerrno ip6mc_idb_lock_v3(ifhtype ifh, const char *name, ipv4mc_idb_st **idb_p,
                         ipv4mc_idb_st **bundle_pp) {
    cerrno rc = mlib::idb_readiness();
    rc = rc == 0 ? mlib::idb_require(idb_p, "Null IDB pointer") : rc;
    rc = rc == 0 ? mlib::idb_require(name, "Null name") : rc;
    if (rc != 0) {
        return rc;
    }
    if (ifh == 0) {
        MLIB_ERR("Null handle");
        return EINVAL;
    }
    named_request request{ifh, name, bundle_pp, nullptr};
    rc = ip6mc_idb_lookup(ifh, &request.by_handle);
    if (rc != 0) {
        return rc;
    }
    ipv4mc_idb_st *known = request.by_handle;
    // The interface manager tells again of what it told before a restart.
    if (known != nullptr && mlib::has_flag(known->tree_flags, IPV4MC_IDB_TREE_NAME) &&
        known->im_create_rcvd != 0) {
        *idb_p = known;
        return 0;
    }
    return ipv4mc_idb_find_or_create_v2(request, idb_p);
}

cerrno ip6mc_idb_lock_idb(ipv4mc_idb_st **idb_p) {
    cerrno rc = mlib::idb_readiness();
    rc = rc == 0 ? mlib::idb_require(idb_p, "Null idb_p pointer") : rc;
    rc = rc == 0 ? mlib::idb_require(*idb_p, "Null *idb_p pointer") : rc;
    if (rc == 0) {
        mlib::take_idb_reference(*idb_p);
    }
    return rc;
}

cerrno ip6mc_idb_unlock(ipv4mc_idb_st **idb_p) {
    return ipv4mc_idb_save_unlock(idb_p, 0);
}

cerrno ipv4mc_idb_save_unlock(ipv4mc_idb_st **idb_p, int save) {
    cerrno rc = mlib::idb_readiness();
    rc = rc == 0 ? mlib::drop_idb_reference(idb_p) : rc;
    if (rc != 0) {
        return rc;
    }
    if (mlib::destroy_idb_if_unheld(*idb_p) || save == 0) {
        *idb_p = nullptr;
    }
    return 0;
}

// Whoever holds a record is not asked, and `fint_idb` is left: the whole state goes.
cerrno ip6mc_idb_delete_all(uint32_t yield_count) {
    if (const cerrno rc = mlib::idb_readiness(); rc != 0) {
        return rc;
    }
    MLIB_TRACE_TEXT(IPV4_DEBUG_IDB, "Delete all idbs");
    cerrno result = 0;
    mlib::yielder yielder(yield_count);
    // Always the first: the tree has changed under the walk.
    while (ipv4mc_idb_st *idb = first_idb()) {
        ipv4mc_idb_st *locked = nullptr;
        cerrno rc = ip6mc_idb_lock(idb->ifh, &locked, nullptr);
        if (rc != 0) {
            MLIB_ERR("Cannot lock IDB  for %s: %s", ip6mc_idb_display_name(idb), cerr_strerror(rc));
            result = rc;
        }
        yielder.before_record();
        rc = destroy_platform_half(idb);
        result = rc != 0 ? rc : result;
        take_out_and_free(idb, true);
    }
    return result;
}

}  // extern "C"
