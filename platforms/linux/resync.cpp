#include "platforms/linux/resync.h"

#include <bit>
#include <cerrno>
#include <cstring>

#include "platforms/linux/flows.h"
#include "platforms/linux/intf_uses.h"
#include "platforms/linux/life.h"
#include "platforms/linux/local_copies.h"
#include "platforms/linux/netlink.h"
#include "platforms/linux/program.h"

namespace mfwd6::lnx {

namespace {

// Up to here a listing of the whole table takes some milliseconds.
constexpr uint64_t entries_listed_at_once = 4096;
constexpr uint32_t pieces_each_time = 4;

struct run {
    linux_resync_counts counts;
    cerrno first;
    table *t;
};

void failed_once(run &r, cerrno code) {
    if (code != 0) {
        ++r.counts.failed;
        r.first = r.first != 0 ? r.first : code;
    }
}

// ---- keys that were being told when the owner was killed ----------------------------------------

struct {
    recent_key keys[recent_keys];
    uint32_t count;
    uint64_t filter[16];  // bit per hash: nearly all routes are none of them
} suspects;

uint32_t filter_bit(const entry_key &key) {
    uint64_t words[4];
    std::memcpy(words, &key, sizeof(key));
    const uint64_t mixed =
        (words[0] ^ words[1] * 3 ^ words[2] * 5 ^ words[3] * 7) * 0x9e3779b97f4a7c15;
    return static_cast<uint32_t>(mixed >> 54);
}

void gather_suspects() {
    suspects = {};
    for (uint32_t n = 0; n < recent_keys; ++n) {
        const recent_key &recent = book().recent(n);
        if (recent.kernel_table != 0) {
            suspects.keys[suspects.count++] = recent;
            const uint32_t bit = filter_bit(recent.key);
            suspects.filter[bit / 64] |= uint64_t{1} << (bit % 64);
        }
    }
}

bool is_suspect(uint32_t kernel_table, const entry_key &key) {
    const uint32_t bit = filter_bit(key);
    if ((suspects.filter[bit / 64] & (uint64_t{1} << (bit % 64))) == 0) {
        return false;
    }
    for (uint32_t n = 0; n < suspects.count; ++n) {
        const recent_key &s = suspects.keys[n];
        if (s.kernel_table == kernel_table && same(s.key.source, key.source) &&
            same(s.key.group, key.group)) {
            return true;
        }
    }
    return false;
}

// ---- what an entry stands for -------------------------------------------------------------------

// The route that an entry of this key is of, when it has one of its own.
ipv4mc_route_entry_st *route_of_entry(const table &t, const entry_key &key) {
    const uint32_t length =
        is_any(key.source) ? IPV4MC_ROUTE_PFX_LEN_STAR_G : IPV4MC_ROUTE_PFX_LEN_SG;
    ipv4mc_route_entry_st *route = exact_route(ip6mc_table_lookup_by_tbl_id(t.tid), key, length);
    return route != nullptr && has_entry(t, *route) ? route : nullptr;
}

// A (*,G) may stand there twice, by different parents.
void remove_other_parents(const table &t, ipv4mc_route_entry_st &route) {
    for (uint32_t mif = 0; mif < mifs_of_table; ++mif) {
        if (mif != extension(route).parent) {
            (void)kernel_delete_any_source(t.fd, key_of(route), mif);
        }
    }
}

// ---- tables -------------------------------------------------------------------------------------

void take_tables(run &r) {
    for (ipv4mc_table_st *record = ip6mc_table_tid_get_first(); record != nullptr;
         record = ip6mc_table_tid_get_next(record->tid)) {
        if (record->active != 0) {
            table *t = nullptr;
            failed_once(r, ensure_table(record->tid, &t));
        }
    }
}

void drop_unknown_tables(run &r) {
    for (uint32_t slot = 0; slot < tables_max; ++slot) {
        const table_slot &held = book().table(slot);
        if (held.kernel_table == 0) {
            continue;
        }
        const ipv4mc_table_st *record = ip6mc_table_lookup_by_tbl_id(held.tid);
        if (record == nullptr || record->active == 0) {
            drop_ledger_table(slot);
            ++r.counts.removed;
        }
    }
}

// ---- routes -------------------------------------------------------------------------------------

// First all uses of mifs, then entries: a route may name interfaces of its parent.
cerrno recall_route(ipv4mc_route_entry_st *route, void *context) {
    run &r = *static_cast<run *>(context);
    extension(*route).committed = 1;
    recall_entry(*r.t, *route);
    for (ipv4mc_intf_entry_st *entry = route->intf_list; entry != nullptr;
         entry = entry->next_intf) {
        failed_once(r, settle_use(*r.t, *entry, false));
    }
    return 0;
}

cerrno check_route(ipv4mc_route_entry_st *route, void *context) {
    run &r = *static_cast<run *>(context);
    route_extension &e = extension(*route);
    counters seen = {};
    const bool had = has_entry(*r.t, *route);
    const bool missing = had && kernel_counters(r.t->fd, key_of(*route), &seen) != 0;
    const bool suspect = is_suspect(r.t->kernel_table, key_of(*route));
    const route_extension before = e;
    const cerrno failed = program_route(*r.t, *route, missing || suspect);
    failed_once(r, failed);
    if (failed != 0 || e.has_entry == 0) {
        return 0;
    }
    const bool told =
        missing || suspect || !had || before.parent != e.parent || before.outputs != e.outputs;
    ++(told ? r.counts.programmed : r.counts.kept);
    if (suspect && !exact_source(*route)) {
        remove_other_parents(*r.t, *route);
    }
    return 0;
}

// ---- flows --------------------------------------------------------------------------------------

void recall_flows() {
    for (uint32_t slot = 0; slot < book().flows_used(); ++slot) {
        const flow_slot &flow = book().flow(slot);
        const table *t = flow.state != flow_free ? find_kernel_table(flow.kernel_table) : nullptr;
        if (t != nullptr) {
            self().output_pairs += static_cast<uint64_t>(std::popcount(flow.outputs));
            recall_local_copy(*t, flow.key.group, flow.local_mif_plus_1);
        }
    }
}

void check_flows(run &r) {
    for (uint32_t slot = 0; slot < book().flows_used(); ++slot) {
        const flow_slot &flow = book().flow(slot);
        if (flow.state == flow_free) {
            continue;
        }
        table *t = find_kernel_table(flow.kernel_table);
        if (t == nullptr) {
            book().drop_flow(slot);
            continue;
        }
        counters seen = {};
        const bool wrong =
            kernel_counters(t->fd, flow.key, &seen) != 0 || is_suspect(flow.kernel_table, flow.key);
        ++(turn_flow(*t, slot, wrong) ? r.counts.programmed : r.counts.kept);
    }
}

// ---- strays -------------------------------------------------------------------------------------

void remove_suspects_without_owner(run &r) {
    for (uint32_t n = 0; n < suspects.count; ++n) {
        const recent_key &s = suspects.keys[n];
        const table *t = find_kernel_table(s.kernel_table);
        counters seen = {};
        if (t != nullptr && route_of_entry(*t, s.key) == nullptr &&
            book().find_flow(s.kernel_table, s.key) == no_slot &&
            kernel_counters(t->fd, s.key, &seen) == 0) {
            failed_once(r, noted(kernel_delete_entry(t->fd, s.key)));
            ++r.counts.removed;
        }
    }
}

struct stray_context {
    table *t;
    uint64_t removed;
};

cerrno remove_stray(const dumped_entry &entry, void *context) {
    auto &found = *static_cast<stray_context *>(context);
    const table &t = *found.t;
    if (book().find_flow(t.kernel_table, entry.key) != no_slot) {
        return 0;
    }
    ipv4mc_route_entry_st *route = route_of_entry(t, entry.key);
    if (route == nullptr) {
        (void)noted(kernel_delete_entry(t.fd, entry.key));
        ++found.removed;
    } else if (!exact_source(*route)) {
        const uint32_t mif = mif_of_link(t, entry.in_link);
        if (mif != no_mif && mif != extension(*route).parent) {
            (void)noted(kernel_delete_any_source(t.fd, entry.key, mif));
            ++found.removed;
        }
    }
    return 0;
}

struct {
    entry_dump dump;
    uint32_t tid = 0;
} background;

uint64_t sweep_now(table &t) {
    entry_dump dump;
    stray_context found = {&t, 0};
    if (dump.start(t.kernel_table) == 0) {
        while (dump.running()) {
            (void)dump.next(remove_stray, &found);
        }
    }
    t.strays_unknown = false;
    return found.removed;
}

void sweep_small_tables(run &r) {
    for (uint32_t n = 0; table_at(n) != nullptr; ++n) {
        table &t = *table_at(n);
        const uint64_t entries =
            t.own_entries + book().flows_of(flow_derived) + book().flows_of(flow_held);
        if (t.strays_unknown && entries <= entries_listed_at_once) {
            r.counts.removed += sweep_now(t);
        }
    }
}

// ---- rules --------------------------------------------------------------------------------------

bool rule_wanted(const char *link_name, uint32_t kernel_table) {
    const table *t = find_kernel_table(kernel_table);
    for (uint32_t mif = 0; t != nullptr && mif < mifs_of_table; ++mif) {
        const mif_slot &m = mif_at(*t, mif);
        if (m.state == mif_interface && m.ruled != 0 &&
            std::strncmp(m.name, link_name, link_name_bytes) == 0) {
            return true;
        }
    }
    return false;
}

void walk_routes(run &r, ipv4mc_route_walk_ft fn) {
    for (uint32_t n = 0; table_at(n) != nullptr; ++n) {
        r.t = table_at(n);
        ipv4mc_table_st *record = ip6mc_table_lookup_by_tbl_id(r.t->tid);
        if (record != nullptr && record->ingress_gtrie != nullptr) {
            (void)ip6mc_route_walk(record, 0, fn, &r);
        }
    }
}

}  // namespace

cerrno resync(linux_resync_counts *counts) {
    run r = {};
    self().now = seconds_now();
    gather_suspects();
    drop_unknown_tables(r);
    take_tables(r);
    recall_flows();
    walk_routes(r, recall_route);
    walk_routes(r, check_route);
    check_flows(r);
    remove_suspects_without_owner(r);
    book().forget_recent();
    self().resynced = true;
    for (uint32_t n = 0; table_at(n) != nullptr; ++n) {
        release_unused_mifs(*table_at(n));
    }
    failed_once(r, noted(rules_sweep(rule_wanted)));
    sweep_small_tables(r);
    for (uint32_t n = 0; table_at(n) != nullptr; ++n) {
        ++r.counts.tables;
        for (uint32_t mif = 0; mif < mifs_of_table; ++mif) {
            r.counts.interfaces += mif_at(*table_at(n), mif).state == mif_interface ? 1 : 0;
        }
    }
    if (counts != nullptr) {
        *counts = r.counts;
    }
    return r.first;
}

void search_strays() {
    if (!background.dump.running()) {
        for (uint32_t n = 0; table_at(n) != nullptr; ++n) {
            table &t = *table_at(n);
            if (self().resynced && t.strays_unknown && background.dump.start(t.kernel_table) == 0) {
                background.tid = t.tid;
                t.strays_unknown = false;
                break;
            }
        }
    }
    table *t = find_table(background.tid);
    if (t == nullptr) {
        background.dump.stop();
        return;
    }
    stray_context found = {t, 0};
    for (uint32_t n = 0; n < pieces_each_time && background.dump.running(); ++n) {
        (void)background.dump.next(remove_stray, &found);
    }
}

}  // namespace mfwd6::lnx
