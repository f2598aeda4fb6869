#include "ipv4/multicast/platform_default/src/signal/posting.h"

#include <cerrno>

#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "ipv4/multicast/platform_default/src/setup.h"
#include "services/events/ptimer.h"
#include "services/gtrie/gtrie.h"
#include "services/journal/journal.h"

namespace mlib::signal {
namespace {

using mfwd6::journal::group;
using mfwd6::journal::store;

void count_route(ipv4mc_table_st *table, uint32_t step) {
    store(table->signal_route_count, table->signal_route_count + step);
    store(table->signal_route_adds, table->signal_route_adds + step);
}

// A route that this posting made goes again.
void drop_new_route(posting &signal) {
    if (!signal.is_new) {
        return;
    }
    count_route(signal.table, UINT32_MAX);  // one less
    ip6mc_gtrie_leaf_free(signal.table->signal_gtrie, signal.route);
    signal.route = nullptr;
}

void report_init_failure(const posting &signal, cerrno rc) {
    if (signal.probe) {
        SIGNAL_ERR(signal.operation,
                   "Failed to initialize signal route 0x%x(%s): (%s,%s/%d) %s: %s",
                   POSTING_TABLE(signal), POSTING_KEY(signal), mlib::intf_name(signal.ifhandle),
                   cerr_strerror(rc));
    } else {
        SIGNAL_ERR(signal.operation, "Failed to initialize signal route 0x%x(%s): (%s,%s/%d) %s",
                   POSTING_TABLE(signal), POSTING_KEY(signal), cerr_strerror(rc));
    }
}

cerrno make_route(posting &signal, int *is_new_p) {
    void *trie = signal.table->signal_gtrie;
    trie_key key;
    make_key(signal.table, signal.source, signal.group, IPV4MC_ROUTE_PFX_LEN_SG, &key);
    void *leaf = nullptr;
    cerrno rc = 0;
    ip6mc_gtrie_leaf_create_shmem(trie, ipv4mc_desc->shmwin_id, key.prefix, key.length, &leaf,
                                  sizeof(ipv4mc_route_entry_st), &rc);
    if (rc != 0) {
        SIGNAL_ERR(signal.operation,
                   "Cannot create in a signal for 0x%x(%s): (%s,%s/%d) Error: %s ",
                   POSTING_TABLE(signal), POSTING_KEY(signal), cerr_strerror(rc));
        return rc;
    }
    auto *route = static_cast<ipv4mc_route_entry_st *>(leaf);
    ptimer_gettime(&route->create_time);
    rc = ipv4mc_init_route(0, signal.source, signal.group, IPV4MC_ROUTE_PFX_LEN_SG, route, 0);
    if (rc != 0) {
        report_init_failure(signal, rc);
        // Of the other family of names, which frees leaves of either.
        ip6mc_gtrie_platform_leaf_free(trie, leaf);
        return rc;
    }
    route->table = signal.table;
    count_route(signal.table, 1);
    signal.route = route;
    signal.is_new = true;
    if (is_new_p != nullptr) {
        *is_new_p = 1;
    }
    return 0;
}

cerrno make_intf(posting &signal) {
    ipv4mc_intf_entry_st *intf = ipv4mc_create_intf(signal.ifhandle, IPV4MC_INTF_ORDINARY, 0, 0, 0);
    if (intf == nullptr) {
        SIGNAL_ERR(signal.operation, "Failed to create signal interface 0x%x(%s): (%s,%s/%d) %s",
                   POSTING_TABLE(signal), POSTING_KEY(signal), mlib::intf_name(signal.ifhandle));
        return ENOMEM;
    }
    if (signal.probe) {
        intf->attributes |= MRIB_INTF_SP;
    }
    const cerrno rc = ipv4mc_intf_route_add(signal.route, intf);
    if (rc != 0) {
        SIGNAL_ERR(signal.operation, "Failed to add on new I/F%s to 0x%x(%s): (%s,%s/%d): %s",
                   mlib::intf_name(signal.ifhandle), POSTING_TABLE(signal), POSTING_KEY(signal),
                   cerr_strerror(rc));
        // Freed as an untyped block, which an interface entry is not: the count of its type keeps
        // showing that a route refused an entry, which never happens to a route that is whole.
        ip6mc_shmwin_free(intf);
        return rc;
    }
    signal.intf = intf;
    return 0;
}

// The trie refused what it must not refuse. What was made goes, so that the window holds no block
// that nobody reaches.
cerrno stop(posting &signal, cerrno rc) {
    SIGNAL_ERR(signal.operation, "Failed to insert signal route 0x%x(%s): (%s,%s/%d): %s",
               POSTING_TABLE(signal), POSTING_KEY(signal), cerr_strerror(rc));
    ipv4mc_intf_route_delete(signal.route, signal.intf);
    signal.intf = nullptr;
    drop_new_route(signal);
    return mlib::stop_for_corruption();
}

}  // namespace

cerrno begin(const posting &signal) {
    cerrno rc = check_ready(signal.operation);
    rc = rc != 0 ? rc : check_key(signal.operation, signal.table, signal.source, signal.group);
    if (rc == 0) {
        SIGNAL_DEBUG(signal.operation, IPV4_DEBUG_EV,
                     "Processing signal 0x%x(%s): (%s,%s/%d) intf=%s", POSTING_TABLE(signal),
                     POSTING_KEY(signal), mlib::intf_name(signal.ifhandle));
    }
    return rc;
}

// The length of a signal's key does not fit a group alone.
cerrno check_source(const posting &signal) {
    if (!mlib::is_any(signal.source)) {
        return 0;
    }
    SIGNAL_ERR(signal.operation,
               "0x%x(%s):S is Zero but pfx_len is %d greater than %d, group=%s %s",
               POSTING_TABLE(signal), IPV4MC_ROUTE_PFX_LEN_SG, IPV4MC_ROUTE_PFX_LEN_STAR_G,
               mlib::address_text(signal.group), mlib::intf_name(signal.ifhandle));
    return EINVAL;
}

cerrno find(posting &signal) {
    cerrno rc = 0;
    signal.route = find(signal.table, signal.source, signal.group, &rc);
    if (rc != 0) {
        SIGNAL_ERR(signal.operation,
                   "Cannot search in signal table for 0x%x(%s):(%s,%s/%d) %s Error %d %s",
                   POSTING_TABLE(signal), POSTING_KEY(signal), mlib::intf_name(signal.ifhandle),
                   static_cast<int>(rc), cerr_strerror(rc));
        return rc;
    }
    if (signal.route != nullptr) {
        signal.intf =
            ip6mc_intf_route_lookup(signal.route, IPV4MC_INTF_ORDINARY, signal.ifhandle, 0, 0);
    }
    return 0;
}

// One change with the mark on the list: a route that is in the trie and unknown to the control
// plane would stay so, as further signals find it there.
cerrno make(posting &signal, int *is_new_p) {
    const group change;
    cerrno rc = signal.route == nullptr ? make_route(signal, is_new_p) : 0;
    if (rc != 0) {
        return rc;
    }
    rc = make_intf(signal);
    if (rc != 0) {
        drop_new_route(signal);
        return rc;
    }
    if (signal.is_new) {
        ip6mc_gtrie_leaf_insert_shmem(signal.table->signal_gtrie, ipv4mc_desc->shmwin_id,
                                      signal.route, &rc);
        if (rc != 0) {
            return stop(signal, rc);
        }
    }
    mlib::list_changed_route(signal.route);
    signal.posted = true;
    return 0;
}

void finish(const posting &signal) {
    mlib::wake_changed_route_reader();
    if (signal.posted) {
        SIGNAL_DEBUG(signal.operation, IPV4_DEBUG_SIG, "0x%x(%s): Signaled %s (%s,%s/%d) route %p",
                     POSTING_TABLE(signal), mlib::intf_name(signal.ifhandle), POSTING_KEY(signal),
                     static_cast<void *>(signal.route));
    }
}

}  // namespace mlib::signal
