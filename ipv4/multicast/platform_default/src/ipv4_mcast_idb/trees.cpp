// The three sorted threads of interfaces, and the searches in them.
#include <cerrno>
#include <cstring>

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

const tree_compare_fn global_tree_compares[] = {
    ipmc_idb_avl_compare_ifh_global, ipmc_idb_avl_compare_ifh_dummy, ipmc_idb_avl_compare_ifh_name};
const tree_compare_fn table_tree_compares[] = {
    ipmc_idb_avl_compare_ifh_dummy, ipmc_idb_avl_compare_ifh_vrf, ipmc_idb_avl_compare_ifh_dummy};

wavl_tree *global_tree() {
    return &ipv4mc_desc->shmwin_info->idb_tree;
}

ipv4mc_idb_st *search(const shm_wavl_fns &fns, const wavl_tree *tree, ipv4mc_idb_st &key,
                      uint32_t thread) {
    const mlib::tbl_read_lock guard(__LINE__);
    return static_cast<ipv4mc_idb_st *>(
        ipmc_idb_wavl2idb(shm_wavl_search(&fns, tree, ipmc_idb_idb2wavl(&key), thread)));
}

const char *name_or_unk(const mlib::idb_name_text &name) {
    return name.text[0] != '\0' ? name.text : "Unk";
}

// Out of the NAME thread, with the flag that says so. The write lock is held.
bool leave_name_thread(ipv4mc_idb_st *idb) {
    const group change;
    if (shm_wavl_delete_thread(&ipmc_idb_fns, global_tree(), ipmc_idb_idb2wavl(idb),
                               IPV4MC_IDB_THREAD_NAME) == nullptr) {
        return false;
    }
    store(idb->tree_flags, static_cast<uint8_t>(idb->tree_flags & ~IPV4MC_IDB_TREE_NAME));
    return true;
}

}  // namespace

extern "C" {

const shm_wavl_fns ipmc_idb_fns = {ipmc_shmwin_wavl_malloc, ipmc_shmwin_wavl_free,
                                   ipmc_idb_wavl2idb, global_tree_compares, nullptr};
const shm_wavl_fns ipmc_table_idb_fns = {ipmc_shmwin_wavl_malloc, ipmc_shmwin_wavl_free,
                                         ipmc_idb_wavl2idb, table_tree_compares, nullptr};

void *ipmc_idb_wavl2idb(void *node) {
    return node == nullptr ? nullptr : static_cast<char *>(node) - offsetof(ipv4mc_idb_st, node);
}

void *ipmc_idb_idb2wavl(void *idb) {
    return static_cast<ipv4mc_idb_st *>(idb)->node;
}

cerrno ip6mc_idb_lookup(ifhtype ifh, ipv4mc_idb_st **idb_p) {
    if (ifh == 0 || idb_p == nullptr) {
        return EINVAL;
    }
    if (const cerrno rc = mlib::idb_readiness(); rc != 0) {
        return rc;
    }
    *idb_p = mlib::find_idb_record(ifh);
    return 0;
}

cerrno ip6mc_idb_lookup_by_name(const char *name, ipv4mc_idb_st **idb_p) {
    if (name == nullptr || name[0] == '\0' || idb_p == nullptr) {
        return EINVAL;
    }
    if (const cerrno rc = mlib::idb_readiness(); rc != 0) {
        return rc;
    }
    ipv4mc_idb_st key{};
    std::memcpy(key.name, name, strnlen(name, sizeof(key.name)));
    *idb_p = search(ipmc_idb_fns, global_tree(), key, IPV4MC_IDB_THREAD_NAME);
    return 0;
}

cerrno ip6mc_idb_lookup_vrf(const char *vrf_name, ifhtype ifh, ipv4mc_idb_st **idb_p) {
    if (idb_p != nullptr) {
        *idb_p = nullptr;
    }
    if (vrf_name == nullptr || vrf_name[0] == '\0' || ifh == 0 || idb_p == nullptr) {
        return EINVAL;
    }
    if (const cerrno rc = mlib::idb_readiness(); rc != 0) {
        return rc;
    }
    ipv4mc_table_st *table = nullptr;
    const cerrno rc = ip6mc_table_operation(IPV4MC_ACTION_TABLE_LOOKUP, 0, 0, vrf_name, &table, 0);
    if (rc != 0 || table == nullptr) {
        MLIB_ERR("Failed to lookup table %s : %s", vrf_name, cerr_strerror(rc));
        // A table that is simply not there is reported, and no failure.
        return rc == ENOENT ? 0 : rc;
    }
    ipv4mc_idb_st key{};
    key.ifh = ifh;
    *idb_p = search(ipmc_table_idb_fns, &table->idb_tree, key, IPV4MC_IDB_THREAD_VRF);
    return 0;
}

cerrno ip6mc_idb_insert_in_name_tree(ipv4mc_idb_st *idb) {
    cerrno rc = mlib::idb_readiness();
    rc = rc == 0 ? mlib::idb_require(idb, "Null idb_p pointer") : rc;
    if (rc != 0) {
        return rc;
    }
    void *inserted = nullptr;
    {
        const mlib::tbl_write_lock guard(__LINE__);
        inserted = shm_wavl_insert_thread(&ipmc_idb_fns, global_tree(), ipmc_idb_idb2wavl(idb),
                                          IPV4MC_IDB_THREAD_NAME);
    }
    if (inserted == nullptr) {
        const mlib::idb_name_text name(idb->name);
        MLIB_ERR("Failed to insert idb %s[0x%x] idb ptr %p to NAME tree", name_or_unk(name),
                 idb->ifh, static_cast<void *>(idb));
    }
    return 0;
}

cerrno ip6mc_idb_delete_from_name_tree(ipv4mc_idb_st *idb) {
    cerrno rc = mlib::idb_readiness();
    rc = rc == 0 ? mlib::idb_require(idb, "Null idb_p pointer") : rc;
    if (rc != 0) {
        return rc;
    }
    bool left = false;
    {
        const mlib::tbl_write_lock guard(__LINE__);
        left = leave_name_thread(idb);
    }
    if (!left) {
        const mlib::idb_name_text name(idb->name);
        MLIB_ERR("Failed to Delete idb %s[0x%x] idb ptr %p from NAME tree", name_or_unk(name),
                 idb->ifh, static_cast<void *>(idb));
    }
    return 0;
}

}  // extern "C"

ipv4mc_idb_st *mlib::find_idb_record(ifhtype ifh) {
    ipv4mc_idb_st key{};
    key.ifh = ifh;
    return search(ipmc_idb_fns, global_tree(), key, IPV4MC_IDB_THREAD_GLOBAL);
}

void ipmc_idb_wavl_delete(ipv4mc_idb_st *idb) {
    const mlib::idb_name_text name(idb->name);
    const bool had_name = mlib::has_flag(idb->tree_flags, IPV4MC_IDB_TREE_NAME);
    bool left = false;
    {
        const mlib::tbl_write_lock guard(__LINE__);
        const group change;
        shm_wavl_delete_thread(&ipmc_idb_fns, global_tree(), ipmc_idb_idb2wavl(idb),
                               IPV4MC_IDB_THREAD_GLOBAL);
        left = had_name && leave_name_thread(idb);
    }
    if (left) {
        MLIB_TRACE_TEXT(IPV4_DEBUG_IDB, "Deleted idb %s[0x%x] idb ptr %p  from NAME tree",
                        name_or_unk(name), idb->ifh, static_cast<void *>(idb));
    } else if (had_name) {
        MLIB_ERR("Failed to Delete idb %s[0x%x] idb ptr %p from NAME tree", name_or_unk(name),
                 idb->ifh, static_cast<void *>(idb));
    }
    ipmc_idb_vrf_delete(idb);
}
