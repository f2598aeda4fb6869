#include "apps/mfwd6ctl/window/records.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>

#include "apps/mfwd6ctl/failure.h"
#include "apps/mfwd6ctl/interrupts.h"
#include "apps/mfwd6ctl/output/words.h"
#include "apps/mfwd6ctl/window/step.h"
#include "apps/platform/platform_choice.h"
#include "ipv4/multicast/lib/ip6mc_encap.h"
#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "services/trees/avl.h"
#include "services/trees/wavl.h"

namespace ctl {
namespace {

// Records copied within one step.
constexpr size_t routes_of_step = 128;
constexpr size_t tree_records_of_step = 64;

// A list longer than this is damaged.
constexpr size_t most_interfaces = size_t{1} << 20;

std::string text_of(const char *field, size_t size) {
    return {field, strnlen(field, size)};
}

// ---- tables

table_copy copy_table(const ipv4mc_table_st &tid_side, const ipv4mc_table_st *vrf_side) {
    table_copy t;
    const ipv4mc_table_st &named = vrf_side != nullptr ? *vrf_side : tid_side;
    t.name = text_of(named.vrf_name, sizeof(named.vrf_name));
    t.tid = tid_side.tid;
    t.vrf_id = named.vrf_id;
    t.active = tid_side.active != 0;
    t.routes = static_cast<uint32_t>(std::max(tid_side.rate_route_count, 0));
    t.signals = tid_side.signal_route_count;
    t.signals_ever = tid_side.signal_route_adds;
    t.interfaces = vrf_side != nullptr ? wavl_count(&vrf_side->idb_tree, IPV4MC_IDB_THREAD_VRF) : 0;
    t.accounting = tid_side.acct_per_prefix != 0;
    return t;
}

std::vector<table_copy> read_tid_tables(const window &w) {
    std::vector<table_copy> tables;
    for (bool more = true; more;) {
        stop_if_interrupted();
        const step now(w);
        const ipv4mc_table_st *t = tables.empty() ? ip6mc_table_tid_get_first()
                                                  : ip6mc_table_tid_get_next(tables.back().tid);
        for (size_t n = 0; t != nullptr && n < tree_records_of_step; ++n) {
            tables.push_back(copy_table(*t, t->vtable));
            t = ip6mc_table_tid_get_next(t->tid);
        }
        more = t != nullptr;
    }
    return tables;
}

// Walks a tree in steps, in ascending order: `behind` tells whether a record comes later than all
// that were taken.
template <class Record, class Behind, class Take>
void walk_tree(const window &w, const shm_wavl_fns *fns, const wavl_tree &tree, uint32_t thread,
               Record (*record_of)(void *), Behind behind, Take take) {
    for (bool more = true; more;) {
        stop_if_interrupted();
        const step now(w);
        const tree_lock guard(w);
        size_t taken = 0;
        more = false;
        for (void *node = shm_wavl_get_first(fns, &tree, thread); node != nullptr;
             node = shm_wavl_get_next(fns, &tree, node, thread)) {
            const Record record = record_of(node);
            if (!behind(*record)) {
                continue;
            }
            if (taken++ == tree_records_of_step) {
                more = true;
                break;
            }
            take(*record);
        }
    }
}

const ipv4mc_table_st *table_of_node(void *node) {
    return static_cast<const ipv4mc_table_st *>(ip6mc_tbl_wavl2db(node));
}

const ipv4mc_idb_st *interface_of_node(void *node) {
    return static_cast<const ipv4mc_idb_st *>(ipmc_idb_wavl2idb(node));
}

// VRF tables that no table id stands behind.
void add_lone_vrf_tables(const window &w, std::vector<table_copy> &tables) {
    std::string last;
    walk_tree(
        w, ip6mc_get_table_vid_name_db_fns(), w.header().table_name_tree, IPV4MC_TABLE_THREAD_NAME,
        table_of_node,
        [&](const ipv4mc_table_st &t) { return text_of(t.vrf_name, sizeof(t.vrf_name)) > last; },
        [&](const ipv4mc_table_st &t) {
            last = text_of(t.vrf_name, sizeof(t.vrf_name));
            if (t.tid_table == nullptr) {
                table_copy copy = copy_table(t, &t);
                copy.tid = 0;
                tables.push_back(std::move(copy));
            }
        });
}

// ---- interfaces

interface_copy copy_interface(const ipv4mc_idb_st &idb) {
    interface_copy i;
    i.name = text_of(idb.name, sizeof(idb.name));
    i.ifh = idb.ifh;
    i.type = idb.type;
    i.vrf = idb.vtable != nullptr ? text_of(idb.vtable->vrf_name, sizeof(idb.vtable->vrf_name))
                                  : std::string();
    i.vrf_id = idb.vrf_id;
    i.enabled = idb.mcast_enabled != 0;
    i.ttl = idb.ttl;
    i.boundary = text_of(idb.boundary_name, sizeof(idb.boundary_name));
    i.routes = idb.route_count;
    i.references = idb.refcount;
    i.mtu = idb.mtu;
    i.stale = (idb.cfg_flags & IPV4MC_IDB_CFG_STALE) != 0;
    return i;
}

// ---- routes

trie_place::key trie_key(void *trie, const ip_maddr_st &source, const ip_maddr_st &group) {
    trie_place::key key{};
    ip6mc_gtrie_make_prefix(trie, key.data(), &source, &group);
    return key;
}

std::vector<intf_entry_copy> copy_interfaces(ipv4mc_route_entry_st *route, interface_names &names) {
    std::vector<intf_entry_copy> entries;
    for (ipv4mc_intf_entry_st *e = ipv4mc_intf_route_get_first_intf(route);
         e != nullptr && entries.size() < most_interfaces;
         e = ipv4mc_intf_route_get_next_intf(route, e)) {
        intf_entry_copy copy;
        copy.ifh = e->ifh;
        copy.name = names.of(e->ifh);
        copy.attributes = e->attributes;
        copy.kind = e->intf_type;
        copy.amt_addr = e->amt_addr;
        copy.amt_port = e->amt_port;
        copy.created = e->create_time;
        entries.push_back(std::move(copy));
    }
    std::reverse(entries.begin(), entries.end());
    return entries;
}

using counter_question = decltype(ip6mc_platform_get_hw_in_stats) *;

// The counters of the platform that was loaded.
struct counter_questions {
    counter_question in_packets = ask("ip6mc_platform_get_hw_in_stats");
    counter_question in_bytes = ask("ip6mc_platform_get_hw_in_stats_bytes");
    counter_question out_packets = ask("ip6mc_platform_get_hw_eg_stats");
    counter_question out_bytes = ask("ip6mc_platform_get_hw_eg_stats_bytes");

    static counter_question ask(const char *name) {
        return apps::loaded<decltype(ip6mc_platform_get_hw_in_stats)>(name);
    }
};

std::optional<route_counters> read_counters(ipv4mc_table_st *table, ipv4mc_route_entry_st *route) {
    static const counter_questions questions;
    route_counters c;
    const auto ask = [&](counter_question question, uint64_t *answer) {
        return question != nullptr &&
               question(table, &route->source, &route->group, route->pfx_len, route, answer) == 0;
    };
    if (!ask(questions.in_packets, &c.in_packets) || !ask(questions.in_bytes, &c.in_bytes)) {
        return std::nullopt;
    }
    ask(questions.out_packets, &c.out_packets);
    ask(questions.out_bytes, &c.out_bytes);
    return c;
}

route_key key_of(const ipv4mc_route_entry_st &route) {
    return {route.source, route.group, route.pfx_len};
}

route_copy copy_route(ipv4mc_table_st *table, ipv4mc_route_entry_st *route, bool with_counters,
                      interface_names &names) {
    route_copy r;
    r.key = key_of(*route);
    r.attributes = route->attributes;
    r.failed = route->err != 0;
    r.out_of_resources = route->oor != 0;
    r.obj_id = route->obj_id;
    r.created = route->create_time;
    if (const ipv4mc_route_entry_st *parent = route->IF_parent; parent != nullptr) {
        r.parent = key_of(*parent);
    }
    if (const ipv4mc_encap_entry_st *encap = route->encap; encap != nullptr) {
        r.encap_id = encap->encap_id;
    }
    r.rpf_id = route->rpf_id;
    r.has_packet = route->preserved_pak != nullptr;
    r.interfaces = copy_interfaces(route, names);
    if (with_counters) {
        r.counters = read_counters(table, route);
    }
    return r;
}

bool is_wanted(const ipv4mc_route_entry_st &route, const route_wish &wish) {
    if (wish.source && std::memcmp(&route.source, &*wish.source, sizeof(route.source)) != 0) {
        return false;
    }
    return !wish.exact_group || key_of(route).group_length() == wish.group_length;
}

struct route_walk {
    route_kind kind;
    const route_wish &wish;
    interface_names &names;
    trie_place place;
};

void *trie_of(const ipv4mc_table_st &table, route_kind kind) {
    return kind == route_kind::routes ? table.ingress_gtrie : table.signal_gtrie;
}

// Copies the next routes; false at the end of the walk.
bool copy_some(route_walk &walk, ipv4mc_table_st *table, std::vector<route_copy> &some) {
    void *trie = trie_of(*table, walk.kind);
    for (size_t seen = 0; seen < routes_of_step; ++seen) {
        void *leaf = walk.place.resume(trie);
        auto *route = static_cast<ipv4mc_route_entry_st *>(leaf);
        // Behind the leaves of a table stand those of others, where tables share a trie.
        if (route == nullptr || route->table != table) {
            return false;
        }
        const trie_place::key at = trie_key(trie, route->source, route->group);
        if (walk.place.beyond(at, route->pfx_len)) {
            return false;
        }
        if (is_wanted(*route, walk.wish)) {
            const bool counted = walk.wish.with_counters && walk.kind == route_kind::routes;
            some.push_back(copy_route(table, route, counted, walk.names));
        }
        walk.place.reach(at, route->pfx_len);
    }
    return true;
}

bool copy_some_signals(route_walk &walk, ipv4mc_table_st *table, std::vector<route_copy> &some) {
    const signal_lock guard;
    return copy_some(walk, table, some);
}

trie_place place_of(void *trie, const route_wish &wish) {
    if (!wish.group) {
        return {};
    }
    return {trie_key(trie, ip_maddr_st{}, *wish.group), wish.group_length};
}

}  // namespace

const std::string &interface_names::of(ifhtype ifh) {
    const auto known = known_.find(ifh);
    if (known != known_.end()) {
        return known->second;
    }
    ipv4mc_idb_st *idb = nullptr;
    const bool ready = ipv4mc_desc->idb_state == IPV4MC_IDB_STATE_READY;
    if (ready && ifh != 0) {
        ip6mc_idb_lookup(ifh, &idb);
    }
    std::string name = idb != nullptr ? text_of(idb->name, sizeof(idb->name)) : std::string();
    if (name.empty()) {
        name = "if-" + hex(ifh);
    }
    return known_.emplace(ifh, std::move(name)).first->second;
}

std::vector<table_copy> read_tables(const window &w) {
    std::vector<table_copy> tables = read_tid_tables(w);
    add_lone_vrf_tables(w, tables);
    return tables;
}

std::vector<table_copy> read_tables(const window &w, const std::string &vrf) {
    std::vector<table_copy> tables = read_tables(w);
    if (vrf.empty()) {
        return tables;
    }
    const auto found = std::find_if(tables.begin(), tables.end(),
                                    [&](const table_copy &t) { return t.name == vrf; });
    if (found == tables.end()) {
        throw failure(exit_code::failed, fmt::format("there is no VRF \"{}\"", vrf));
    }
    return {*found};
}

std::vector<interface_copy> read_interfaces(const window &w) {
    std::vector<interface_copy> interfaces;
    if (wavl_running(&w.header().idb_tree) == 0) {
        return interfaces;
    }
    walk_tree(
        w, &ipmc_idb_fns, w.header().idb_tree, IPV4MC_IDB_THREAD_GLOBAL, interface_of_node,
        [&](const ipv4mc_idb_st &idb) {
            return interfaces.empty() || idb.ifh > interfaces.back().ifh;
        },
        [&](const ipv4mc_idb_st &idb) { interfaces.push_back(copy_interface(idb)); });
    return interfaces;
}

bool walk_routes(const window &w, uint32_t tid, route_kind kind, const route_wish &wish,
                 interface_names &names, const std::function<void(const route_copy &)> &visit) {
    route_walk walk{kind, wish, names, {}};
    bool begun = false;
    for (bool more = true; more;) {
        stop_if_interrupted();
        std::vector<route_copy> some;
        {
            const step now(w);
            ipv4mc_table_st *table = ip6mc_table_lookup_by_tbl_id(tid);
            if (table == nullptr || trie_of(*table, kind) == nullptr) {
                return false;
            }
            if (!begun) {
                walk.place = place_of(trie_of(*table, kind), wish);
                begun = true;
            }
            more = kind == route_kind::signals ? copy_some_signals(walk, table, some)
                                               : copy_some(walk, table, some);
        }
        for (const route_copy &route : some) {
            visit(route);
        }
    }
    return true;
}

std::optional<route_copy> find_route(const window &w, uint32_t tid, const route_key &key, bool best,
                                     interface_names &names) {
    const step now(w);
    ipv4mc_table_st *table = ip6mc_table_lookup_by_tbl_id(tid);
    if (table == nullptr || table->ingress_gtrie == nullptr) {
        return std::nullopt;
    }
    ipv4mc_route_entry_st *route = nullptr;
    ip6mc_route_operation(best ? IPV4MC_ACTION_LOOKUP : IPV4MC_ACTION_EXACT_LOOKUP, table,
                          &key.source, &key.group, key.length, nullptr, &route, 0, 0, nullptr);
    if (route == nullptr) {
        return std::nullopt;
    }
    return copy_route(table, route, true, names);
}

}  // namespace ctl
