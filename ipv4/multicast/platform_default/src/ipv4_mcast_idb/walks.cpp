// Walks over interfaces, and over the routes of one. Both go on where they were left.
#include <sched.h>

#include <cerrno>
#include <cstring>

#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "ipv4/multicast/lib/ip6mc_route.h"
#include "ipv4/multicast/lib/ip6mc_table.h"
#include "ipv4/multicast/platform_default/src/diagnostics/report.h"
#include "ipv4/multicast/platform_default/src/ip_mcast_shmwin/lock_guards.h"
#include "ipv4/multicast/platform_default/src/ipv4_mcast_idb/idb.h"
#include "services/trees/wavl.h"

namespace {

using mlib::idb_routes;

// One of the two trees that a walk can go through, and its thread by handle.
class handle_order {
  public:
    explicit handle_order(const ipv4mc_table_st *table)
        : fns_(table != nullptr ? &ipmc_table_idb_fns : &ipmc_idb_fns),
          tree_(table != nullptr ? &table->idb_tree : &ipv4mc_desc->shmwin_info->idb_tree),
          thread_(table != nullptr ? IPV4MC_IDB_THREAD_VRF : IPV4MC_IDB_THREAD_GLOBAL) {}

    // The first record behind this handle; of all with 0. ENOENT when it is not in the tree.
    cerrno start_behind(ifhtype ifh, ipv4mc_idb_st **first) const {
        const mlib::tbl_read_lock guard(__LINE__);
        if (ifh == 0) {
            *first = record(shm_wavl_get_first(fns_, tree_, thread_));
            return 0;
        }
        ipv4mc_idb_st key{};
        key.ifh = ifh;
        const void *start = shm_wavl_search(fns_, tree_, ipmc_idb_idb2wavl(&key), thread_);
        if (start == nullptr) {
            return ENOENT;
        }
        *first = record(shm_wavl_get_next(fns_, tree_, start, thread_));
        return 0;
    }

    ipv4mc_idb_st *behind(ipv4mc_idb_st *idb) const {
        const mlib::tbl_read_lock guard(__LINE__);
        return record(shm_wavl_get_next(fns_, tree_, ipmc_idb_idb2wavl(idb), thread_));
    }

  private:
    static ipv4mc_idb_st *record(void *node) {
        return static_cast<ipv4mc_idb_st *>(ipmc_idb_wavl2idb(node));
    }

    const shm_wavl_fns *fns_;
    const wavl_tree *tree_;
    uint32_t thread_;
};

// How far a walk goes.
class walk_limits {
  public:
    walk_limits(uint32_t count, uint32_t yield_count) : count_(count), yielder_(yield_count) {}

    // Yields when it is time; false when the limit is reached.
    bool go_on() {
        yielder_.before_record();
        return count_ == 0 || visited_++ < count_;
    }

  private:
    uint32_t count_;
    uint32_t visited_ = 0;
    mlib::yielder yielder_;
};

bool is_of(const ipv4mc_intf_entry_st *entry, const ip_maddr_st *source, const ip_maddr_st *group) {
    return std::memcmp(&entry->route->source, source, sizeof(*source)) == 0 &&
           std::memcmp(&entry->route->group, group, sizeof(*group)) == 0;
}

ipv4mc_intf_entry_st *find_entry(ipv4mc_intf_entry_st *entry, const ip_maddr_st *source,
                                 const ip_maddr_st *group) {
    while (entry != nullptr && !is_of(entry, source, group)) {
        entry = idb_routes::next(entry);
    }
    return entry;
}

}  // namespace

void mlib::yielder::before_record() {
    if (limit_ != 0 && since_ == limit_) {
        sched_yield();
        since_ = 0;
    }
    ++since_;
}

extern "C" {

cerrno ip6mc_idb_walk(ipv4mc_table_st *table, ipv4mc_idb_walk_ft function, void *context,
                      uint32_t yield_count, int stop_on_error) {
    if (table != nullptr) {
        MLIB_TRACE_TEXT(IPV4_DEBUG_IDB, "IDB walk : type 0x%x vid 0x%x tid 0x%x name %s",
                        table->table_type, table->vrf_id, table->tid, table->vrf_name);
    }
    return ip6mc_idb_walk_with_count(table, 0, 0, function, context, yield_count, stop_on_error);
}

cerrno ip6mc_idb_walk_with_count(ipv4mc_table_st *table, ifhtype start_ifh, uint32_t count,
                                 ipv4mc_idb_walk_ft function, void *context, uint32_t yield_count,
                                 int stop_on_error) {
    if (const cerrno rc = mlib::idb_readiness(); rc != 0) {
        return rc;
    }
    if (table != nullptr) {
        MLIB_TRACE_TEXT(IPV4_DEBUG_IDB, "IDB walk with cnt: type 0x%x vid 0x%x tid 0x%x name %s",
                        table->table_type, table->vrf_id, table->tid, table->vrf_name);
    }
    if (function == nullptr) {
        MLIB_ERR("Invalid arg: f=%p", reinterpret_cast<void *>(function));
        return EINVAL;
    }
    const handle_order order(table);
    ipv4mc_idb_st *idb = nullptr;
    if (const cerrno rc = order.start_behind(start_ifh, &idb); rc != 0) {
        return rc;
    }
    walk_limits limits(count, yield_count);
    cerrno rc = 0;
    while (idb != nullptr) {
        if (!limits.go_on()) {
            return rc;
        }
        // The function may destroy the record.
        ipv4mc_idb_st *next = order.behind(idb);
        const mlib::idb_name_text name(idb->name);
        rc = function(idb, context);
        if (rc != 0) {
            MLIB_ERR("Walk function failed while processing %s: %s", name.text, cerr_strerror(rc));
            if (stop_on_error != 0) {
                return rc;
            }
        }
        idb = next;
    }
    return 0;
}

cerrno ip6mc_idb_route_walk(ipv4mc_idb_st *idb, ipv4mc_idb_route_walk_ft function,
                            uint32_t yield_count, void *context, int stop_on_error) {
    return ip6mc_idb_route_walk_with_count(nullptr, nullptr, 0, 0, idb, function, yield_count,
                                           context, stop_on_error);
}

cerrno ip6mc_idb_route_walk_with_count(const ip_maddr_st *start_source,
                                       const ip_maddr_st *start_group, int resume, uint32_t count,
                                       ipv4mc_idb_st *idb, ipv4mc_idb_route_walk_ft function,
                                       uint32_t yield_count, void *context, int stop_on_error) {
    if (const cerrno rc = mlib::idb_readiness(); rc != 0) {
        return rc;
    }
    const bool has_start = start_source != nullptr && start_group != nullptr;
    if (idb == nullptr || function == nullptr || (resume != 0 && !has_start)) {
        MLIB_ERR("Invalid arg: f=%p", reinterpret_cast<void *>(function));
        return EINVAL;
    }
    ipv4mc_intf_entry_st *entry = idb_routes(idb->route_list).first();
    if (resume != 0) {
        ipv4mc_intf_entry_st *start = find_entry(entry, start_source, start_group);
        if (start == nullptr) {
            return ENOENT;
        }
        entry = idb_routes::next(start);
    }
    // The function may take the last entry, and with it the interface.
    const mlib::idb_name_text name(idb->name);
    walk_limits limits(count, yield_count);
    cerrno rc = 0;
    while (entry != nullptr) {
        if (!limits.go_on()) {
            return rc;
        }
        ipv4mc_intf_entry_st *next = idb_routes::next(entry);
        rc = function(idb, entry->route, entry, context);
        if (rc != 0) {
            MLIB_ERR("Walk function failed processing %s: %s", name.text, cerr_strerror(rc));
            if (stop_on_error != 0) {
                return rc;
            }
        }
        entry = next;
    }
    return 0;
}

}  // extern "C"
