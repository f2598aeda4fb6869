// Encaps and their routes, the outputs of a route into encaps, and the counts of local egress.
//
// Who writes the words of interfaces counts their local egress, and makes encaps: this is that
// owner. The library takes back what goes with a route.
#include <cerrno>

#include "ipv4/multicast/lib/ip6mc_encap.h"
#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "ipv4/multicast/lib/ip6mc_platform.h"
#include "ipv4/multicast/lib/ip6mc_platform_err.h"
#include "services/gtrie/gtrie.h"
#include "services/platform_info/platform_info.h"
#include "tests/fuzz/operations/complaint.h"
#include "tests/fuzz/operations/world.h"

namespace fuzz {
namespace {

constexpr uint32_t encap_ids[] = {7, 0x12345};
constexpr uint32_t unknown_encap = 0x777;

ipv4mc_encap_entry_st *find_encap_record(uint32_t id) {
    ipv4mc_encap_entry_st *found = nullptr;
    expect_equal(ip6mc_encapid_lookup(id, &found), 0, "result of an encap lookup");
    return found;
}

ipv4mc_encap_entry_st *make_record(uint32_t id, uint8_t lookup_control) {
    uint8_t key[GTRIE_PREFIX_BYTES] = {static_cast<uint8_t>(id >> 12),
                                       static_cast<uint8_t>(id >> 4),
                                       static_cast<uint8_t>(id << 4)};
    void *trie = ipv4mc_desc->shmwin_info->encap_gtrie;
    void *leaf = nullptr;
    int created = 0;
    expect_equal(ip6mc_gtrie_platform_leaf_create(
                     trie, key, IPV4MC_ENCAP_ID_BITS, &leaf,
                     sizeof(ipv4mc_encap_entry_st) + plat_params.encap_extension_size, &created),
                 0, "making of an encap");
    auto *record = static_cast<ipv4mc_encap_entry_st *>(leaf);
    record->encap_id = id;
    record->ip_lkp_ctl = lookup_control;
    expect_equal(ip6mc_gtrie_platform_leaf_insert(trie, leaf, nullptr), 0, "insertion of an encap");
    return record;
}

}  // namespace

// ---- the calls
// -----------------------------------------------------------------------------------

void world::make_or_end_encap(input &in) {
    const uint8_t shape = in.byte();
    const uint32_t id = encap_ids[shape & 1];
    const auto found = encaps_.find(id);
    if (found != encaps_.end()) {
        if ((shape & 2) != 0 && found->second.routes.empty()) {
            end_encap(id);
        }
        return;
    }
    constexpr uint8_t controls[] = {0, IPV4MC_ENCAP_LKP_ON_FIRST, IPV4MC_ENCAP_LKP_STAYS,
                                    IPV4MC_ENCAP_LKP_ON_FIRST | IPV4MC_ENCAP_LKP_STAYS};
    const uint8_t control = controls[(shape >> 2) & 3];
    note("make encap 0x%x, lookup control 0x%x", id, control);
    encap &made = encaps_[id];
    made.id = id;
    made.lookup_control = control;
    made.record = make_record(id, control);
}

void world::end_encap(uint32_t id) {
    note("end encap 0x%x", id);
    encap &e = encaps_.at(id);
    unqueue(e);
    ipmc_platform_err_handler_clear_encap_err(e.record);
    expect_equal(ip6mc_platform_encapid_operation(IPV4MC_ACTION_DELETE, e.record),
                 hw_.encap_call(IPV4MC_ACTION_DELETE, id, 0), "result of an encap's end");
    void *trie = ipv4mc_desc->shmwin_info->encap_gtrie;
    cerrno error = 0;
    ip6mc_gtrie_platform_leaf_delete(trie, e.record, &error);
    expect_equal(error, 0, "removal of an encap");
    expect_equal(ip6mc_gtrie_platform_leaf_free(trie, e.record), 0, "release of an encap");
    encaps_.erase(id);
}

void world::commit_encap(input &in) {
    const auto found = encaps_.find(encap_ids[in.byte() & 1]);
    if (found == encaps_.end()) {
        return;
    }
    note("commit encap 0x%x", found->first);
    const cerrno wanted = model_commit_encap(found->second);
    expect_equal(ip6mc_encap_platform_commit(found->second.record), wanted,
                 "result of an encap COMMIT");
}

// Another encap for a route, the same again, none, or one that is not there.
void world::give_encap(input &in) {
    route *r = pick_route(in, pick_table(in));
    const uint8_t shape = in.byte();
    if (r == nullptr) {
        return;
    }
    const uint32_t all[] = {encap_ids[0], encap_ids[1], 0, unknown_encap};
    const uint32_t id = all[shape & 3];
    note("encap 0x%x for route %s", id, r->key.text().c_str());
    const cerrno wanted = model_give_encap(*r, id);
    ipv4mc_route_update_st update{};
    update.encap_id = id;
    expect_equal(ip6mc_route_update(r->record, IPV4MC_ROUTE_UPDATE_ENCAP, &update), wanted,
                 "result of a route's encap update");
}

void world::turn_output(input &in) {
    route *r = pick_any_route(in, pick_table(in));
    intf *entry = r == nullptr ? nullptr : nth_intf(*r, in.byte());
    const bool on = in.flag();
    if (entry == nullptr) {
        return;
    }
    note("interface %u/%u of %s %s encap outputs", entry->id.type, entry->ifh,
         r->key.text().c_str(), on ? "joins" : "leaves");
    if (on) {
        if (!entry->is_output) {
            r->outputs.push_front(entry);
        }
        ip6mc_route_encap_ole_link(entry->record);
    } else {
        r->outputs.remove(entry);
        ip6mc_route_encap_ole_unlink(entry->record);
    }
    entry->is_output = on;
}

void world::turn_egress(input &in) {
    route *r = pick_any_route(in, pick_table(in));
    intf *entry = r == nullptr ? nullptr : nth_intf(*r, in.byte());
    if (entry == nullptr) {
        return;
    }
    const bool on = !entry->is_egress();
    note("interface %u/%u of %s local egress %d", entry->id.type, entry->ifh, r->key.text().c_str(),
         on);
    if (on) {
        commit_existing_intf(*r, *entry, entry->attributes | MRIB_INTF_EG, entry->intf_arg);
        raise_egress(*r);
    } else {
        commit_existing_intf(*r, *entry, entry->attributes & ~uint64_t{MRIB_INTF_EG},
                             entry->intf_arg);
        lower_egress(*r);
    }
}

// The owner's part of the books, in records and model.
void world::raise_egress(route &r) {
    ++r.record->intf_local_EG_cnt;
    ++r.table->record->route_counters.local_eg_cnt;
    ip6mc_ex_eg_update_rte(r.record, 1);
    ++r.local_egress;
    ++r.extra_egress;
    ++r.table->local_egress;
    if (r.table->local_egress == 1) {
        update_core_routes(*r.table, true);
    }
    if (r.via == nullptr) {
        return;
    }
    ++r.via->record->intf_local_EG_cnt;
    ++r.via->local_egress;
    if (r.via->local_egress == 1 && (r.via->lookup_control & IPV4MC_ENCAP_LKP_ON_FIRST) != 0) {
        switch_lookup(*r.via, 1);
    }
}

void world::lower_egress(route &r) {
    --r.record->intf_local_EG_cnt;
    --r.table->record->route_counters.local_eg_cnt;
    ip6mc_ex_eg_update_rte(r.record, -1);
    --r.extra_egress;
    if (r.via != nullptr) {
        --r.via->record->intf_local_EG_cnt;
    }
    model_lower_egress(r);
    if (r.table->local_egress == 0) {
        update_core_routes(*r.table, false);
    }
    if (r.via != nullptr && r.via->local_egress == 0 &&
        (r.via->lookup_control & IPV4MC_ENCAP_LKP_STAYS) == 0) {
        switch_lookup(*r.via, 0);
    }
}

void world::switch_lookup(encap &e, uint8_t value) {
    e.record->ip_lkp = value;
    const cerrno wanted = model_switch_lookup(e, value);
    expect_equal(ip6mc_encap_update(e.record, IPV4MC_ENCAP_UPDATE_IP_LKP, &value), wanted,
                 "result of an encap update");
    const cerrno committed = model_commit_encap(e);
    expect_equal(ip6mc_encap_platform_commit(e.record), committed, "result of an encap COMMIT");
}

void world::check_egress() {
    for (const auto &each : tids_) {
        expect_equal(each.second->record->route_counters.local_eg_cnt, each.second->local_egress,
                     "local egress behind a table operation");
    }
}

// ---- the model
// -----------------------------------------------------------------------------------

void world::model_lower_egress(route &r) {
    --r.local_egress;
    --r.table->local_egress;
    if (r.via != nullptr) {
        --r.via->local_egress;
    }
}

// What the library does behind the end of a local egress. Only a DELETE programs the encap again.
void world::model_follow_egress(const route &r, bool commits) {
    if (r.table->local_egress == 0) {
        model_update_core_routes(*r.table, false);
    }
    encap *e = r.via;
    if (e == nullptr || e->local_egress != 0 || (e->lookup_control & IPV4MC_ENCAP_LKP_STAYS) != 0) {
        return;
    }
    model_switch_lookup(*e, 0);
    if (commits) {
        model_commit_encap(*e);
    }
}

cerrno world::model_switch_lookup(encap &e, uint8_t value) {
    e.lookup = value;
    return hw_.encap_update_call(e.id, value);
}

cerrno world::model_commit_encap(encap &e) {
    const cerrno rc = hw_.encap_call(IPV4MC_ACTION_COMMIT, e.id, e.lookup);
    if (rc == 0 || !async_) {
        return rc;
    }
    queue(e);
    return 0;
}

cerrno world::model_give_encap(route &r, uint32_t id) {
    const auto found = encaps_.find(id);
    if (id != 0 && found == encaps_.end()) {
        return EINVAL;
    }
    if (id == 0 && r.via == nullptr) {
        return 0;
    }
    const cerrno rc = hw_.route_update_call(told(r), id);
    // The platform cannot hold up an encap that goes away.
    if (rc != 0 && id != 0) {
        return rc;
    }
    model_leave_encap(r);
    if (id != 0) {
        model_join_encap(r, found->second);
    }
    return rc;
}

void world::model_join_encap(route &r, encap &e) {
    const bool had_none = static_cast<uint16_t>(e.local_egress) == 0;
    e.routes.push_front(&r);
    e.local_egress += r.local_egress;
    r.via = &e;
    if (had_none && e.local_egress != 0 && (e.lookup_control & IPV4MC_ENCAP_LKP_ON_FIRST) != 0) {
        model_switch_lookup(e, 1);
        model_commit_encap(e);
    }
}

// Whether this route brought local egress, or any was there, does not matter.
void world::model_leave_encap(route &r) {
    if (r.via == nullptr) {
        return;
    }
    encap &e = *r.via;
    e.routes.remove(&r);
    e.local_egress -= r.local_egress;
    r.via = nullptr;
    if (e.local_egress == 0 && (e.lookup_control & IPV4MC_ENCAP_LKP_STAYS) == 0) {
        model_switch_lookup(e, 0);
        model_commit_encap(e);
    }
}

// ---- the comparison
// ------------------------------------------------------------------------------

void world::compare_encaps() {
    for (const uint32_t id : encap_ids) {
        const auto found = encaps_.find(id);
        expect_same<ipv4mc_encap_entry_st>(find_encap_record(id),
                                           found == encaps_.end() ? nullptr : found->second.record,
                                           "encap looked up");
    }
    for (const auto &each : encaps_) {
        const encap &e = each.second;
        const std::string where = "encap " + std::to_string(e.id);
        expect_equal(e.record->ip_lkp, e.lookup, "IP lookup", where);
        expect_equal(e.record->retry_queued, e.queued, "on the retry queue", where);
        expect_equal(e.record->route_cnt, e.routes.size(), "count of routes", where);
        expect_equal(e.record->intf_local_EG_cnt, e.local_egress, "local egress", where);
        const ipv4mc_route_entry_st *at = e.record->route_head;
        const ipv4mc_route_entry_st *before = nullptr;
        for (const route *r : e.routes) {
            expect_same<ipv4mc_route_entry_st>(at, r->record, "route", where);
            expect_same<ipv4mc_route_entry_st>(at->prev_encap, before, "route before", where);
            before = at;
            at = at->next_encap;
        }
        expect_same<ipv4mc_route_entry_st>(at, nullptr, "route behind the last", where);
    }
}

void world::compare_outputs(const route &r) {
    const std::string where = r.key.text();
    const ipv4mc_intf_entry_st *at = r.record->encap_ole_head;
    const ipv4mc_intf_entry_st *before = nullptr;
    for (const intf *entry : r.outputs) {
        expect_same<ipv4mc_intf_entry_st>(at, entry->record, "encap output", where);
        expect_same<ipv4mc_intf_entry_st>(at->list_prev, before, "encap output before", where);
        before = at;
        at = at->list_next;
    }
    expect_same<ipv4mc_intf_entry_st>(at, nullptr, "encap output behind the last", where);
    expect_same<ipv4mc_intf_entry_st>(r.record->encap_ole_tail, before, "last encap output", where);
    expect_equal(ip6mc_route_encap_ole_empty(r.record), r.outputs.empty(), "no encap outputs",
                 where);
}

}  // namespace fuzz
