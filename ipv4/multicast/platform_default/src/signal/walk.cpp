// Ordered walks over the signal routes of a table.
#include <sched.h>

#include <cerrno>

#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "ipv4/multicast/platform_default/src/ip_mcast_shmwin/packet_mutex_report.h"
#include "ipv4/multicast/platform_default/src/ip_mcast_shmwin/readiness.h"
#include "ipv4/multicast/platform_default/src/signal/signal_room.h"
#include "services/gtrie/gtrie.h"
#include "services/journal/journal.h"

namespace {

using mlib::signal::make_key;
using mlib::signal::trie_key;

// With tries that tables share, leaves of the tables behind follow those of the own one.
ipv4mc_route_entry_st *of_table(const ipv4mc_table_st *table, void *leaf) {
    auto *route = static_cast<ipv4mc_route_entry_st *>(leaf);
    return route != nullptr && route->table == table ? route : nullptr;
}

uint32_t key_length(const ip_maddr_st *source, const ip_maddr_st *group) {
    if (!mlib::is_any(source)) {
        return IPV4MC_ROUTE_PFX_LEN_SG;
    }
    return mlib::is_any(group) ? 0 : uint32_t{IPV4MC_ROUTE_PFX_LEN_STAR_G};
}

ipv4mc_route_entry_st *first_under(const ipv4mc_table_st *table, const ip_maddr_st *source,
                                   const ip_maddr_st *group, cerrno *error) {
    trie_key key;
    make_key(table, source, group, key_length(source, group), &key);
    return of_table(table,
                    ip6mc_gtrie_first_leaf(table->signal_gtrie, key.prefix, key.length, error));
}

ipv4mc_route_entry_st *next_of(const ipv4mc_table_st *table, ipv4mc_route_entry_st *route,
                               cerrno *error) {
    return of_table(table, ip6mc_gtrie_next_leaf(table->signal_gtrie, route, error));
}

void report_no_successor(const char *operation, const ipv4mc_table_st *table,
                         const ip_maddr_st *source, const ip_maddr_st *group, cerrno rc) {
    SIGNAL_ERR(operation, "Error getting successor of (%s,%s/%d) signal table 0x%x(%s): %s",
               SIGNAL_KEY_ARGS(source, group), SIGNAL_TABLE_ARGS(table), cerr_strerror(rc));
}

// Where a walk stands: the route that comes next, by key, as the record may go while the mutex is
// given up.
struct bookmark {
    ipv4mc_route_entry_st *route = nullptr;
    ip_maddr_st source{};
    ip_maddr_st group{};
};

bookmark mark(ipv4mc_route_entry_st *route) {
    return route != nullptr ? bookmark{route, route->source, route->group} : bookmark{};
}

// The first route behind a key that is not in the trie: a detached leaf of that key has a
// successor.
ipv4mc_route_entry_st *first_behind(const ipv4mc_table_st *table, const bookmark &place,
                                    cerrno *error) {
    trie_key key;
    make_key(table, &place.source, &place.group, IPV4MC_ROUTE_PFX_LEN_SG, &key);
    const mfwd6::journal::group change;
    void *leaf = nullptr;
    if (ip6mc_gtrie_leaf_create_shmem(table->signal_gtrie, ipv4mc_desc->shmwin_id, key.prefix,
                                      key.length, &leaf, sizeof(ipv4mc_route_entry_st),
                                      error) != 0) {
        return nullptr;
    }
    auto *successor = next_of(table, static_cast<ipv4mc_route_entry_st *>(leaf), error);
    ip6mc_gtrie_leaf_free(table->signal_gtrie, leaf);
    return successor;
}

ipv4mc_route_entry_st *resume(const ipv4mc_table_st *table, const bookmark &place, cerrno *error) {
    if (place.route == nullptr) {
        return nullptr;
    }
    ipv4mc_route_entry_st *route = mlib::signal::find(table, &place.source, &place.group, error);
    return route != nullptr || *error != 0 ? route : first_behind(table, place, error);
}

cerrno yield_to_others(const char *operation) {
    cerrno rc = ip6mc_shmwin_mutex_unlock();
    if (rc != 0) {
        SIGNAL_ERR(operation, "Cannot unlock shmwin_mutex: %s", cerr_strerror(rc));
    }
    mlib::report_packet_mutex_held(operation, __LINE__);
    sched_yield();
    rc = ip6mc_shmwin_mutex_lock(operation, __LINE__);
    if (rc != 0) {
        SIGNAL_ERR(operation, "Cannot lock shmwin_mutex: %s", cerr_strerror(rc));
    }
    return rc;
}

struct signal_walk {
    const char *operation;
    ipv4mc_table_st *table;
    uint32_t yield_count;
    ipv4mc_signal_walk_ft function;
    void *context;
    bool locked;
};

cerrno step_through(signal_walk &walk) {
    cerrno rc = 0;
    ipv4mc_route_entry_st *route =
        first_under(walk.table, &mlib::any_address, &mlib::any_address, &rc);
    if (rc != 0) {
        SIGNAL_ERR(walk.operation,
                   "Cannot find first signal route for table 0x%x(%s) Gtrie error %s",
                   SIGNAL_TABLE_ARGS(walk.table), cerr_strerror(rc));
        return rc;
    }
    uint32_t done = 0;
    while (route != nullptr) {
        const bookmark here = mark(route);
        const bookmark next = mark(next_of(walk.table, route, &rc));  // before the route may go
        if (rc == 0) {
            const cerrno failed = walk.function(walk.table, route, walk.context);
            if (failed != 0) {
                SIGNAL_ERR(walk.operation, "Error while walking signal table 0x%x(%s): %s",
                           SIGNAL_TABLE_ARGS(walk.table), cerr_strerror(failed));
                return failed;
            }
            if (walk.yield_count != 0 && ++done == walk.yield_count) {
                done = 0;
                rc = yield_to_others(walk.operation);
                if (rc != 0) {
                    walk.locked = false;
                    return rc;
                }
            }
            route = resume(walk.table, next, &rc);
        }
        if (rc != 0) {
            report_no_successor(walk.operation, walk.table, &here.source, &here.group, rc);
            return rc;
        }
    }
    return 0;
}

bool is_ready(const char *operation) {
    if (mlib::library_is_ready()) {
        return true;
    }
    // Written unlike everywhere else.
    SIGNAL_ERR(operation, "Multicast library not ready");
    return false;
}

}  // namespace

extern "C" {

ipv4mc_route_entry_st *ip6mc_signal_first_key(ipv4mc_table_st *table, const ip_maddr_st *source,
                                              const ip_maddr_st *group) {
    if (!is_ready(__func__) || mlib::signal::check_key(__func__, table, source, group) != 0) {
        return nullptr;
    }
    cerrno rc = ip6mc_shmwin_mutex_lock(__func__, __LINE__);
    if (rc != 0) {
        MLIB_ERR("Cannot lock shmwin_mutex 0x%x(%s): (%s,%s/%d) in signal_first_key : %s",
                 SIGNAL_TABLE_ARGS(table), SIGNAL_KEY_ARGS(source, group), cerr_strerror(rc));
        return nullptr;
    }
    ipv4mc_route_entry_st *route = first_under(table, source, group, &rc);
    if (rc != 0) {
        MLIB_ERR("0x%x(%s): Cannot find the first leaf for (%s,%s/%d) in signal_first_key : %s",
                 SIGNAL_TABLE_ARGS(table), SIGNAL_KEY_ARGS(source, group), cerr_strerror(rc));
    }
    rc = ip6mc_shmwin_mutex_unlock();
    if (rc != 0) {
        MLIB_ERR("Cannot unlock shmwin_mutex 0x%x(%s): (%s,%s/%d) in signal_first_key : %s",
                 SIGNAL_TABLE_ARGS(table), SIGNAL_KEY_ARGS(source, group), cerr_strerror(rc));
    }
    return route;
}

ipv4mc_route_entry_st *ip6mc_signal_next(ipv4mc_table_st *table, ipv4mc_route_entry_st *route) {
    if (!is_ready(__func__) ||
        mlib::signal::check_key(__func__, table, &mlib::any_address, &mlib::any_address) != 0) {
        return nullptr;
    }
    if (route == nullptr) {
        MLIB_ERR("Null route pointer");
        return nullptr;
    }
    cerrno rc = ip6mc_shmwin_mutex_lock(__func__, __LINE__);
    if (rc != 0) {
        MLIB_ERR("Cannot lock shmwin_mutex 0x%x(%s): (%s,%s/%d) in signal_next : %s",
                 SIGNAL_TABLE_ARGS(table), SIGNAL_KEY_ARGS(&route->source, &route->group),
                 cerr_strerror(rc));
        return nullptr;
    }
    ipv4mc_route_entry_st *next = next_of(table, route, &rc);
    if (rc != 0) {
        report_no_successor(__func__, table, &route->source, &route->group, rc);
    }
    rc = ip6mc_shmwin_mutex_unlock();
    if (rc != 0) {
        MLIB_ERR("Cannot unlock shmwin_mutex 0x%x(%s): (%s,%s/%d) in signal_next : %s",
                 SIGNAL_TABLE_ARGS(table), SIGNAL_KEY_ARGS(&route->source, &route->group),
                 cerr_strerror(rc));
    }
    return next;
}

cerrno ip6mc_signal_walk(ipv4mc_table_st *table, uint32_t yield_count, uint32_t,
                         ipv4mc_signal_walk_ft function, void *context) {
    cerrno rc = mlib::signal::check_ready(__func__);
    rc = rc != 0 ? rc
                 : mlib::signal::check_key(__func__, table, &mlib::any_address, &mlib::any_address);
    if (rc != 0) {
        return rc;
    }
    if (function == nullptr) {
        MLIB_ERR("Null function pointer");
        return EINVAL;
    }
    mlib::report_packet_mutex_depth(__func__, __LINE__);
    rc = ip6mc_shmwin_mutex_lock(__func__, __LINE__);
    if (rc != 0) {
        MLIB_ERR("Cannot lock shmwin_mutex: %s", cerr_strerror(rc));
        return rc;
    }
    signal_walk walk{__func__, table, yield_count, function, context, true};
    rc = step_through(walk);
    if (walk.locked) {
        const cerrno unlocked = ip6mc_shmwin_mutex_unlock();
        if (unlocked != 0) {
            MLIB_ERR("Cannot unlock shmwin_mutex: %s", cerr_strerror(unlocked));
        }
    }
    return rc;
}

}  // extern "C"
