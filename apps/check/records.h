// What the parts of the walk tell one another: which records there are, and which list each is on.
#ifndef MFWD6_APPS_CHECK_RECORDS_H
#define MFWD6_APPS_CHECK_RECORDS_H

#include <deque>
#include <unordered_map>
#include <unordered_set>

#include "apps/check/tries.h"
#include "apps/check/walk.h"

namespace mfwd6::check {

struct table_facts {
    uint64_t routes = 0;    // in the trie
    uint64_t detached = 0;  // leaves that were made and are not in the trie, or not any more
    uint64_t signals = 0;
    uint64_t local_egress = 0;  // sum over its routes
    uint64_t children = 0;      // routes of other tables that stand on its count
};

struct route_facts {
    const ipv4mc_table_st *table = nullptr;  // that its trie belongs to
    bool signal = false;
    bool published = false;  // in a trie
    bool changed = false;    // stands on this list, and so on
    bool listed[IPMC_ROUTE_LISTS] = {};
    bool on_encap = false;
    bool on_memd[IPV4MC_VRF_LINKS] = {};
    bool queued = false;
};

struct entry_facts {
    const ipv4mc_route_entry_st *route = nullptr;  // on whose list it stands
    const ipv4mc_idb_st *idb = nullptr;            // on whose list it stands
    bool on_transport = false;
    bool output = false;  // on its route's list of encap outputs
    bool tied = false;    // a BVI tie says so
};

struct idb_facts {
    bool global = false;
    bool named = false;
    const ipv4mc_table_st *table = nullptr;  // in whose tree it stands
};

struct records {
    explicit records(walk &walk) : w(walk), all_tries(walk) {}

    walk &w;
    tries all_tries;
    std::unordered_map<const ipv4mc_table_st *, table_facts> tables;  // by table id
    std::unordered_set<const ipv4mc_table_st *> vrfs;
    std::unordered_map<const ipv4mc_route_entry_st *, route_facts> routes;
    std::unordered_map<const ipv4mc_intf_entry_st *, entry_facts> entries;
    std::unordered_map<const ipv4mc_idb_st *, idb_facts> idbs;
    std::unordered_map<const ipv4mc_encap_entry_st *, bool> encaps;      // whether it is queued
    std::unordered_map<const ipv4mc_encap_leaf_st *, int> encap_leaves;  // lists that it is on
    std::unordered_set<const ipv4mc_regdb_entry_st *> transports;

    // Routes that are in no trie and that something else leads to: made and not committed, or being
    // taken apart. They are walked like the others.
    std::deque<const ipv4mc_route_entry_st *> unpublished;

    // The route that a record other than a trie names; null, with a finding, when it is none. A
    // route in no trie joins `unpublished`.
    const ipv4mc_route_entry_st *name_route(const subject &from, const char *field,
                                            const ipv4mc_route_entry_st *route);

    // The same for an interface entry and for a table of either role that must be known.
    const ipv4mc_intf_entry_st *name_entry(const subject &from, const char *field,
                                           const ipv4mc_intf_entry_st *entry);
    const ipv4mc_table_st *name_tid(const subject &from, const char *field,
                                    const ipv4mc_table_st *table);
    const ipv4mc_table_st *name_vrf(const subject &from, const char *field,
                                    const ipv4mc_table_st *table);
};

// The parts, in the order in which they run.
void walk_tables(records &all);  // trees of tables, the tables, their tries: all published routes
void walk_encaps(records &all);  // encaps, leaves, transports
void walk_interfaces(records &all);   // records of interfaces, with the entries of routes on them
void walk_routes(records &all);       // routes with their entries and links, the global lists
void walk_bvi(records &all);          // L2 states, ties, mappings
void walk_retry_queue(records &all);  // the queue against the marks of its objects
void walk_object_ids(records &all);   // ids against objects, both ways
void check_table_counts(records &all);
void check_blocks(records &all);  // counts by type, and what nothing leads to

// Before all of them: the blocks that are free although they live.
void walk_pool(walk &w);
void walk_kept(walk &w);

// The block whose record is a leaf in no trie: the table that it was made for, or null.
const ipv4mc_table_st *table_of_detached(records &all, const block &leaf);

}  // namespace mfwd6::check

#endif
