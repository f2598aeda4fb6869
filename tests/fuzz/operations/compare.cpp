// Everything that the library can be asked, against the model.
#include <cstring>

#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "ipv4/multicast/lib/ip6mc_platform_err.h"
#include "ipv4/multicast/lib/ip6mc_signal.h"
#include "services/trees/avl.h"
#include "tests/fuzz/operations/complaint.h"
#include "tests/fuzz/operations/world.h"

namespace fuzz {
namespace {

template <class T>
using records = std::vector<const T *>;

void expect_same_list(const records<ipv4mc_route_entry_st> &seen,
                      const records<ipv4mc_route_entry_st> &wanted, const char *what) {
    expect_equal(seen.size(), wanted.size(), what);
    for (size_t i = 0; i < seen.size(); ++i) {
        expect_same(seen[i], wanted[i], what, "element " + std::to_string(i) + " of");
    }
}

cerrno collect_table(ipv4mc_table_st *table, uint32_t, void *, void *context) {
    static_cast<records<ipv4mc_table_st> *>(context)->push_back(table);
    return 0;
}

records<ipv4mc_table_st> walked_tables(uint32_t tree, uint32_t thread) {
    records<ipv4mc_table_st> result;
    expect_equal(ip6mc_table_walk(collect_table, tree, thread, &result, 1), 0, "walk over tables");
    return result;
}

}  // namespace

void world::compare() {
    expect_equal(ipv4mc_desc->state, uint32_t{IPV4MC_LIB_STATE_READY}, "state");
    compare_tables();
    for (const auto &each : tids_) {
        compare_table(*each.second);
    }
    compare_idbs();
    compare_encaps();
    compare_changed_routes();
    compare_retry_queue();
    hw_.compare();
}

void world::compare_tables() {
    const auto tid_sides = walked_tables(IPV4MC_TABLE_WALK_TIDS, 0);
    expect_equal(tid_sides.size(), tids_.size(), "tables by id");
    size_t n = 0;
    for (const auto &each : tids_) {
        expect_same<ipv4mc_table_st>(tid_sides[n++], each.second->record, "table by id");
    }
    size_t named = 0;
    size_t numbered = 0;
    for (const auto &vrf : vrfs_) {
        named += vrf->found_by_name ? 1 : 0;
        numbered += vrf->vrf_id == 0 ? 0 : 1;
        const ipv4mc_table_st *record = vrf->record;
        if (record == nullptr) {
            complain("VRF 0x%x/%s has no record", vrf->vrf_id, vrf->name.c_str());
        }
        expect_equal(record->vrf_id, vrf->vrf_id, "id of a VRF");
        expect_equal(record->active, vrf->active, "VRF active");
        expect_equal(record->prev_tid, vrf->prev_tid, "table that a VRF left");
        if (vrf->name != record->vrf_name) {
            complain("name of a VRF: library says %s, model says %s", record->vrf_name,
                     vrf->name.c_str());
        }
        expect_same<ipv4mc_table_st>(record->tid_table,
                                     vrf->tid_side == nullptr ? nullptr : vrf->tid_side->record,
                                     "table-id side of", vrf->name);
        expect_equal(record->acct_per_prefix, vrf->settings.acct_per_prefix, "accounting of a VRF");
        expect_equal(record->acct_fwd_only, vrf->settings.acct_fwd_only,
                     "forward-only accounting of a VRF");
        expect_equal(record->rate_per_route, vrf->settings.rate, "rate of a VRF");
    }
    expect_equal(walked_tables(IPV4MC_TABLE_WALK_NAMES, IPV4MC_TABLE_THREAD_NAME).size(), named,
                 "VRFs by name");
    expect_equal(walked_tables(IPV4MC_TABLE_WALK_NAMES, IPV4MC_TABLE_THREAD_VRF_ID).size(),
                 numbered, "VRFs by id");
}

void world::compare_table(const tid_table &table) {
    const ipv4mc_table_st *record = table.record;
    const std::string where = "table " + std::to_string(table.tid & 0xff);
    expect_equal(record->active, table.active, "active", where);
    expect_same<ipv4mc_table_st>(record->vtable,
                                 table.vrf_side == nullptr ? nullptr : table.vrf_side->record,
                                 "VRF side", where);
    expect_equal(ip6mc_table_is_valid(record), table.has_tries, "has tries", where);
    expect_equal(record->rate_route_count,
                 static_cast<int32_t>(table.routes.size() + table.pending.size()), "leaves", where);
    expect_equal(record->route_counters.route_clears, table.route_clears, "clears", where);
    expect_equal(record->route_counters.local_eg_cnt, table.local_egress, "local egress", where);
    compare_core_routes(table);
    if (table.has_tries) {
        compare_routes(table);
        compare_signals(table);
    }
}

void world::compare_routes(const tid_table &table) {
    records<ipv4mc_route_entry_st> seen;
    const ip_maddr_st any{};
    for (ipv4mc_route_entry_st *each = ip6mc_route_first_key(table.record, &any, &any, 0);
         each != nullptr; each = ip6mc_route_next(table.record, each)) {
        seen.push_back(each);
    }
    records<ipv4mc_route_entry_st> wanted;
    for (const auto &each : table.routes) {
        wanted.push_back(each.second->record);
    }
    expect_same_list(seen, wanted, "routes of a table");
    for (const auto &each : table.routes) {
        compare_route(*each.second);
    }
    for (const auto &each : table.pending) {
        compare_route(*each.second);
    }
}

void world::compare_route(const route &r) {
    const ipv4mc_route_entry_st *record = r.record;
    const std::string where = r.key.text();
    if (std::memcmp(&record->group, &r.key.group, sizeof(record->group)) != 0 ||
        std::memcmp(&record->source, &r.key.source, sizeof(record->source)) != 0 ||
        std::memcmp(&record->aux_addr, &r.aux, sizeof(record->aux_addr)) != 0) {
        complain("%s: addresses have changed", where.c_str());
    }
    expect_equal(record->pfx_len, r.key.length, "length", where);
    expect_equal(record->attributes, r.attributes, "attributes", where);
    expect_same<ipv4mc_table_st>(record->table, r.table->record, "table", where);
    expect_same<ipv4mc_route_entry_st>(
        record->IF_parent, r.parent == nullptr ? nullptr : r.parent->record, "parent", where);
    expect_equal(record->err, r.err, "err", where);
    expect_equal(record->oor, r.oor, "oor", where);
    expect_equal(record->obj_id, r.obj_id, "object id", where);
    expect_equal(record->acct_per_prefix, r.acct_per_prefix, "accounting", where);
    expect_equal(record->acct_fwd_only, r.acct_fwd_only, "forward-only accounting", where);
    expect_equal(record->rate_per_route, r.rate_flag, "rate flag", where);
    expect_equal(record->rate != nullptr, r.has_rate, "rate record", where);
    expect_equal(record->intf_local_EG_cnt, r.local_egress, "local egress", where);
    expect_equal(record->ex_eg_cnt, r.extra_egress, "extra egress", where);
    expect_same<ipv4mc_encap_entry_st>(record->encap, r.via == nullptr ? nullptr : r.via->record,
                                       "encap", where);
    compare_intfs(r);
    compare_outputs(r);
    compare_core_links(r);
}

void world::compare_intfs(const route &r) {
    const std::string where = r.key.text();
    const ipv4mc_intf_entry_st *at = r.record->intf_list;
    const ipv4mc_intf_entry_st *before = nullptr;
    for (const auto &each : r.intfs) {
        expect_same<ipv4mc_intf_entry_st>(at, each->record, "interface", where);
        expect_same<ipv4mc_intf_entry_st>(at->prev_intf, before, "interface before", where);
        expect_same<ipv4mc_route_entry_st>(at->route, r.record, "route of an interface", where);
        expect_equal(at->ifh, each->ifh, "handle", where);
        expect_equal(at->attributes, each->attributes, "interface attributes", where);
        expect_equal(at->intf_arg, each->intf_arg, "interface argument", where);
        expect_equal(at->on_idb_list, each->on_idb, "on the interface's list", where);
        expect_equal((at->intf_flags & IPV4MC_INTF_FLAG_ENCAP_OLE) != 0, each->is_output,
                     "encap output", where);
        expect_same<ipv4mc_intf_entry_st>(
            ip6mc_intf_route_lookup(r.record, each->id.type, each->ifh, each->id.amt_addr,
                                    each->id.amt_port),
            each->record, "interface looked up", where);
        before = at;
        at = at->next_intf;
    }
    expect_same<ipv4mc_intf_entry_st>(at, nullptr, "interface behind the last", where);
    uint64_t in_tree = 0;
    expect_equal(avl_verify(&r.record->intf_tree, ipmc_intf_avl_compare, &in_tree), 0,
                 "tree of interfaces", where);
    expect_equal(in_tree, r.intfs.size(), "interfaces in the tree", where);
}

void world::compare_idbs() {
    records<ipv4mc_idb_st> seen;
    const auto collect = [](ipv4mc_idb_st *each, void *context) -> cerrno {
        static_cast<records<ipv4mc_idb_st> *>(context)->push_back(each);
        return 0;
    };
    expect_equal(ip6mc_idb_walk(nullptr, collect, &seen, 0, 1), 0, "walk over interfaces");
    expect_equal(seen.size(), idbs_.size(), "interfaces");
    size_t n = 0;
    for (const auto &each : idbs_) {
        const ipv4mc_idb_st *record = seen[n++];
        const std::string where = "interface " + std::to_string(each.first);
        expect_equal(record->ifh, each.first, "handle", where);
        expect_equal(record->refcount, each.second.entries.size() + each.second.locks, "references",
                     where);
        expect_equal(record->route_count, each.second.entries.size(), "entries", where);
        const ipv4mc_intf_entry_st *at = record->route_list;
        const ipv4mc_intf_entry_st *before = nullptr;
        for (const intf *entry : each.second.entries) {
            expect_same<ipv4mc_intf_entry_st>(at, entry->record, "entry", where);
            expect_same<ipv4mc_intf_entry_st>(at->idb_prev, before, "entry before", where);
            before = at;
            at = at->idb_next;
        }
        expect_same<ipv4mc_intf_entry_st>(at, nullptr, "entry behind the last", where);
    }
}

void world::compare_signals(const tid_table &table) {
    expect_equal(table.record->signal_route_count, table.signals.size(), "count of signal routes");
    expect_equal(table.record->signal_route_adds, table.signal_adds, "signal routes ever");
    records<ipv4mc_route_entry_st> seen;
    const ip_maddr_st any{};
    for (ipv4mc_route_entry_st *each = ip6mc_signal_first_key(table.record, &any, &any);
         each != nullptr; each = ip6mc_signal_next(table.record, each)) {
        seen.push_back(each);
    }
    records<ipv4mc_route_entry_st> wanted;
    for (const auto &each : table.signals) {
        wanted.push_back(each.second->record);
    }
    expect_same_list(seen, wanted, "signal routes of a table");
    for (const auto &each : table.signals) {
        const signal &s = *each.second;
        expect_equal(s.record->attributes, s.attributes, "attributes of a signal route");
        const ipv4mc_intf_entry_st *at = s.record->intf_list;
        for (const signal_intf &on : s.intfs) {
            if (at == nullptr) {
                complain("a signal route has lost interface %u", on.ifh);
            }
            expect_equal(at->ifh, on.ifh, "interface of a signal route");
            expect_equal(at->attributes, on.attributes, "attributes of a signal's interface");
            at = at->next_intf;
        }
        expect_same<ipv4mc_intf_entry_st>(at, nullptr,
                                          "interface behind the last of a signal route");
    }
}

void world::compare_changed_routes() {
    const ipv4mc_shmwin_hdr_st *hdr = ipv4mc_desc->shmwin_info;
    records<ipv4mc_route_entry_st> seen;
    const ipv4mc_route_entry_st *before = nullptr;
    for (const ipv4mc_route_entry_st *each = hdr->changed_route_head; each != nullptr;
         each = each->change_next) {
        expect_same(each->change_prev, before, "route before a changed one");
        seen.push_back(each);
        before = each;
    }
    expect_same(hdr->changed_route_tail, before, "last changed route");
    records<ipv4mc_route_entry_st> wanted;
    for (const signal *s : changed_) {
        wanted.push_back(s->record);
    }
    expect_same_list(seen, wanted, "changed routes");
    expect_equal(hdr->changed_route_count, changed_.size(), "count of changed routes");
}

void world::compare_retry_queue() {
    const dlqueue_node_t *queue = ipv4mc_desc->shmwin_info->retry_queue;
    records<void> seen;
    std::vector<uint32_t> types;
    for (const dlqueue_node_t *node = queue == nullptr ? nullptr : queue->next;
         node != nullptr && node != queue; node = node->next) {
        const auto *message = static_cast<const ipmc_retry_msg *>(node->data);
        types.push_back(message->type);
        seen.push_back(message->object);
    }
    expect_equal(seen.size(), retry_queue_.size(), "retry queue");
    size_t n = 0;
    for (const queued_object &each : retry_queue_) {
        const bool is_route = each.of_route != nullptr;
        expect_equal(types[n], is_route ? uint32_t{IPMC_RETRY_ROUTE} : uint32_t{IPMC_RETRY_ENCAP},
                     "type of a queued object");
        const void *wanted = is_route ? static_cast<const void *>(each.of_route->record)
                                      : static_cast<const void *>(each.of_encap->record);
        expect_same(seen[n++], wanted, "queued object");
    }
}

}  // namespace fuzz
