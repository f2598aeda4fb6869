// Operations on routes.
#include <cerrno>

#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "tests/fuzz/operations/complaint.h"
#include "tests/fuzz/operations/world.h"

namespace fuzz {
namespace {

constexpr size_t most_routes = 40;

// Bits that need nothing else; inheritance and the bit that a CLEAR takes away among them.
constexpr uint64_t route_bits[] = {MRIB_ROUTE_IA,     MRIB_ROUTE_IF,    MRIB_ROUTE_SIGNAL,
                                   MRIB_ROUTE_DROP,   UINT64_C(1) << 8, MRIB_ROUTE_CLEAR_ATTR,
                                   UINT64_C(1) << 40, UINT64_C(1) << 9};

uint64_t pick_attributes(input &in) {
    const uint8_t choice = in.byte();
    uint64_t word = 0;
    for (size_t i = 0; i < std::size(route_bits); ++i) {
        word |= ((choice >> i) & 1U) != 0 ? route_bits[i] : 0;
    }
    return word;
}

cerrno call(ipv4mc_action_type action, tid_table &table, const named_key &key,
            ipv4mc_route_entry_st **entry, uint64_t old, int *is_new,
            const ip_maddr_st *aux = nullptr) {
    return ip6mc_route_operation(action, table.record, &key.source, &key.group, key.length, aux,
                                 entry, old, 0, is_new);
}

template <class Map>
auto *nth(const Map &map, size_t n) {
    return map.empty() ? nullptr
                       : std::next(map.begin(), static_cast<long>(n % map.size()))->second.get();
}

}  // namespace

// ---- choices
// ------------------------------------------------------------------------------------

tid_table *world::pick_table(input &in) {
    tid_table *table = nth(tids_, in.byte());
    return table != nullptr && table->active ? table : nullptr;
}

route *world::pick_route(input &in, tid_table *table) {
    return table == nullptr ? nullptr : nth(table->routes, in.byte());
}

route *world::pick_any_route(input &in, tid_table *table) {
    if (table == nullptr) {
        return nullptr;
    }
    const uint8_t n = in.byte();
    route *r = (n & 0x80) != 0 ? nth(table->pending, n) : nullptr;
    return r != nullptr ? r : nth(table->routes, n);
}

// ---- the calls
// -----------------------------------------------------------------------------------

void world::create_route(input &in) {
    tid_table *table = pick_table(in);
    const named_key key = pick_key(in);
    const uint8_t shape = in.byte();
    if (table == nullptr || table->pending.contains(key.id())) {
        return;
    }
    const ip_maddr_st aux = pick_source(in);
    if (!make_route(*table, key, (shape & 1) != 0 ? &aux : nullptr) || (shape & 2) == 0) {
        return;
    }
    commit_new(*table->pending.at(key.id()), pick_attributes(in));
}

// CREATE; true for a new leaf, which is pending then.
bool world::make_route(tid_table &table, const named_key &key, const ip_maddr_st *aux) {
    note("create route %s in 0x%x", key.text().c_str(), table.tid);
    const auto published = table.routes.find(key.id());
    const bool is_there = published != table.routes.end();
    if (!is_there && table.routes.size() + table.pending.size() >= most_routes) {
        return false;
    }
    ipv4mc_route_entry_st *entry = nullptr;
    int is_new = -1;
    const cerrno rc = call(IPV4MC_ACTION_CREATE, table, key, &entry, 0, &is_new, aux);
    expect_equal(rc, is_there ? EEXIST : 0, "result of route CREATE");
    expect_equal(is_new, is_there ? 0 : 1, "is_new of route CREATE");
    if (is_there) {
        expect_same(entry, published->second->record, "route that CREATE answers with");
        published->second->aux = aux != nullptr ? *aux : published->second->aux;
        return false;
    }
    auto made = std::make_unique<route>();
    made->record = entry;
    made->table = &table;
    made->key = key;
    made->aux = aux != nullptr ? *aux : ip_maddr_st{};
    made->obj_id = entry->obj_id;
    if ((made->obj_id < IPMC_OBJ_ID_NONE) != async_) {
        complain("object id 0x%lx of a new route", made->obj_id);
    }
    if (const vrf_table *vrf = table.vrf_side; vrf != nullptr) {
        made->acct_per_prefix = vrf->settings.acct_per_prefix;
        made->acct_fwd_only = !made->acct_per_prefix && vrf->settings.acct_fwd_only;
        made->rate_flag = made->has_rate = vrf->settings.rate;
    }
    table.pending[key.id()] = std::move(made);
    return true;
}

void world::commit_pending_route(input &in) {
    tid_table *table = pick_table(in);
    route *r = table == nullptr ? nullptr : nth(table->pending, in.byte());
    if (r != nullptr) {
        commit_new(*r, pick_attributes(in));
    }
}

cerrno world::commit_new(route &r, uint64_t attributes) {
    note("commit new route %s attributes 0x%lx", r.key.text().c_str(), attributes);
    r.attributes = r.record->attributes = attributes;
    const cerrno wanted = model_commit_new(r);
    ipv4mc_route_entry_st *entry = r.record;
    int is_new = 1;
    const cerrno rc = call(IPV4MC_ACTION_COMMIT, *r.table, r.key, &entry, 0, &is_new);
    expect_equal(rc, wanted, "result of the COMMIT of a new route");
    expect_same(entry, r.record, "route behind its COMMIT");
    return rc;
}

void world::change_route(input &in) {
    route *r = pick_route(in, pick_table(in));
    if (r == nullptr) {
        return;
    }
    const uint64_t attributes = pick_attributes(in);
    const uint64_t old = in.pick(8) == 0 ? pick_attributes(in) : r->attributes;
    note("commit route %s attributes 0x%lx, old 0x%lx", r->key.text().c_str(), attributes, old);
    r->attributes = r->record->attributes = attributes | (r->attributes & core_bits);
    const cerrno wanted = model_commit_existing(*r, old);
    ipv4mc_route_entry_st *entry = r->record;
    int is_new = 0;
    const cerrno rc = call(IPV4MC_ACTION_COMMIT, *r->table, r->key, &entry, old, &is_new);
    expect_equal(rc, wanted, "result of the COMMIT of a route");
}

void world::delete_route(input &in) {
    tid_table *table = pick_table(in);
    const uint8_t shape = in.byte();
    if (table == nullptr) {
        return;
    }
    if ((shape & 0x0f) == 1) {
        // By a key that may not be there, or as one that was never published.
        const named_key key = pick_key(in);
        int is_new = (shape >> 4) & 1;
        if (is_new == 0 && table->routes.contains(key.id())) {
            return;
        }
        note("delete route %s, not there", key.text().c_str());
        expect_equal(call(IPV4MC_ACTION_DELETE, *table, key, nullptr, 0, &is_new), ENOENT,
                     "result of the DELETE of nothing");
        return;
    }
    route *r = pick_route(in, table);
    if (r == nullptr) {
        return;
    }
    if (!drop_pending_intf(*r)) {
        return;
    }
    const uint64_t old = r->attributes;
    if ((shape & 0x10) != 0) {
        r->attributes = r->record->attributes = old & ~uint64_t{MRIB_ROUTE_IF};
    }
    note("delete route %s attributes 0x%lx, old 0x%lx", r->key.text().c_str(), r->attributes, old);
    const named_key key = r->key;
    ipv4mc_route_entry_st *entry = (shape & 0x20) != 0 ? r->record : nullptr;
    const cerrno wanted = model_delete(*r, old);
    int is_new = 0;
    const cerrno rc = call(IPV4MC_ACTION_DELETE, *table, key,
                           (shape & 0x40) != 0 ? nullptr : &entry, old, &is_new);
    expect_equal(rc, wanted, "result of a route DELETE");
}

void world::clear_route(input &in) {
    route *r = pick_route(in, pick_table(in));
    if (r == nullptr) {
        return;
    }
    if (!drop_pending_intf(*r)) {
        return;
    }
    note("clear route %s", r->key.text().c_str());
    const uint64_t old = r->attributes;
    model_clear(*r);
    ipv4mc_route_entry_st *entry = r->record;
    int is_new = 0;
    expect_equal(call(IPV4MC_ACTION_CLEAR, *r->table, r->key, &entry, old, &is_new), 0,
                 "result of a route CLEAR");
}

void world::mark_srd(input &in) {
    route *r = pick_route(in, pick_table(in));
    if (r != nullptr) {
        r->srd = !r->srd;
        r->record->route_flags = r->srd ? IPV4MC_ROUTE_FLAG_SRD : uint8_t{0};
        note("route %s srd %d", r->key.text().c_str(), r->srd);
    }
}

void world::delete_all_routes(input &in) {
    tid_table *table = pick_table(in);
    const uint8_t shape = in.byte();
    if (table == nullptr) {
        return;
    }
    const bool keep = (shape & 1) != 0;
    note("delete all routes of 0x%x%s", table->tid, keep ? " but those marked" : "");
    uint32_t wanted_kept = 0;
    const cerrno wanted = model_delete_all(*table, keep, &wanted_kept);
    uint32_t kept = 77;
    ipv4mc_table_st *named =
        (shape & 2) != 0 && table->vrf_side != nullptr ? table->vrf_side->record : table->record;
    const cerrno rc = ip6mc_route_delete_all(named, shape >> 4, 0, keep ? 1 : 0, &kept);
    expect_equal(rc, wanted, "result of the deletion of all routes");
    expect_equal(kept, wanted_kept, "routes kept");
}

void world::walk_and_delete(input &in) {
    tid_table *table = pick_table(in);
    const uint8_t shape = in.byte();
    if (table == nullptr) {
        return;
    }
    struct walk {
        uint8_t choice;
        unsigned seen;
        tid_table *table;
    };
    // Deletes each route whose bit is set, by key, as a walk function may; stops at the ninth.
    const auto visit = [](ipv4mc_route_entry_st *entry, void *context) -> cerrno {
        auto *w = static_cast<walk *>(context);
        const unsigned n = w->seen++;
        if (n == 8) {
            return 5;
        }
        if (((w->choice >> n) & 1U) != 0) {
            const named_key key{entry->group, entry->source, entry->pfx_len};
            int is_new = 0;
            const cerrno rc =
                call(IPV4MC_ACTION_DELETE, *w->table, key, nullptr, entry->attributes, &is_new);
            if (rc != 0 && rc != 5) {
                complain("result %u of a DELETE within a walk", rc);
            }
        }
        return 0;
    };
    note("walk over 0x%x, deletes 0x%x", table->tid, shape);
    std::vector<route *> victims;
    unsigned n = 0;
    for (const auto &each : table->routes) {
        if (n < 8 && ((shape >> n) & 1U) != 0) {
            victims.push_back(each.second.get());
        }
        ++n;
    }
    walk w{shape, 0, table};
    const cerrno wanted = n > 8 ? cerrno{ECANCELED} : 0;
    for (route *victim : victims) {
        model_delete(*victim, victim->attributes);
    }
    expect_equal(ip6mc_route_walk(table->record, 3, visit, &w), wanted, "result of a walk");
}

void world::look_up(input &in) {
    tid_table *table = nth(tids_, in.byte());
    const named_key key = pick_key(in);
    const uint8_t shape = in.byte();
    if (table == nullptr || !table->has_tries) {
        return;
    }
    ipv4mc_route_entry_st *found = nullptr;
    expect_equal(call(IPV4MC_ACTION_EXACT_LOOKUP, *table, key, &found, 0, nullptr), 0,
                 "result of an exact lookup");
    const auto exact = table->routes.find(key.id());
    expect_same(found, exact == table->routes.end() ? nullptr : exact->second->record,
                "exact lookup", key.text());

    const route *match = longest_match(*table, key.source, key.group);
    expect_equal(call(IPV4MC_ACTION_LOOKUP, *table, key, &found, 0, nullptr), 0,
                 "result of a lookup");
    expect_same(found, match == nullptr ? nullptr : match->record, "lookup", key.text());

    // An address that tells whether the answer was left alone.
    auto *const untouched = reinterpret_cast<ipv4mc_intf_entry_st *>(&found);
    ipv4mc_intf_entry_st *entry = untouched;
    const ifhtype ifh = 1 + shape % last_ifh;
    const bool ask = (shape & 0x80) == 0;
    const cerrno rc =
        ip6mc_lookup(table->record, &key.source, &key.group, ifh, &found, ask ? &entry : nullptr);
    expect_equal(rc, match == nullptr ? ENOENT : 0, "result of the forwarding lookup", key.text());
    expect_same(found, match == nullptr ? nullptr : match->record, "forwarding lookup", key.text());
    const ipv4mc_intf_entry_st *wanted = untouched;
    if (ask && match == nullptr) {
        wanted = nullptr;
    } else if (ask) {
        const route *accepting = match->has(MRIB_ROUTE_IA) ? match->parent : match;
        if (accepting != nullptr) {
            const intf *which = accepting->find({IPV4MC_INTF_ORDINARY, ifh, 0, 0});
            wanted = which == nullptr ? nullptr : which->record;
        }
    }
    expect_same<ipv4mc_intf_entry_st>(entry, wanted, "interface of the forwarding lookup",
                                      key.text());
}

// Calls that must be refused, or do nothing, and change nothing.
void world::try_odd_calls(input &in) {
    tid_table *table = pick_table(in);
    route *r = pick_route(in, table);
    const uint8_t which = in.byte();
    if (r == nullptr) {
        return;
    }
    note("odd call %u", which % 8);
    ipv4mc_route_entry_st *none = nullptr;
    ipv4mc_intf_entry_st *no_intf = nullptr;
    int is_new = 0;
    switch (which % 8) {
        case 0:
            expect_equal(call(IPV4MC_ACTION_COMMIT, *table, r->key, &none, 0, &is_new), EINVAL,
                         "COMMIT of no route");
            break;
        case 1:
            expect_equal(call(IPV4MC_ACTION_LOOKUP, *table, r->key, nullptr, 0, &is_new), EINVAL,
                         "LOOKUP into nothing");
            break;
        case 2:
            expect_equal(call(IPV4MC_ACTION_ACTIVATE, *table, r->key, nullptr, 0, &is_new), 0,
                         "an action that routes do not have");
            break;
        case 3:
            expect_equal(call(IPV4MC_ACTION_NOT_ENTERED, *table, r->key, nullptr, 0, nullptr), 0,
                         "the action that is not entered");
            break;
        case 4:
            expect_equal(ip6mc_intf_operation(IPV4MC_ACTION_COMMIT, table->record, r->record, 0, 1,
                                              0, 0, 0, &no_intf, nullptr, 0, 0, 1),
                         EINVAL, "COMMIT of no interface");
            break;
        case 5:
            expect_equal(ip6mc_intf_operation(IPV4MC_ACTION_DELETE, table->record, r->record, 0, 99,
                                              0, 0, 0, nullptr, nullptr, 0, 0, 0),
                         ENOENT, "DELETE of an interface that is not there");
            break;
        case 6:
            expect_equal(ip6mc_lookup(nullptr, &r->key.source, &r->key.group, 1, &none, nullptr),
                         EINVAL, "lookup in no table");
            break;
        default:
            expect_equal(ip6mc_route_walk(table->record, 0, nullptr, nullptr), EINVAL,
                         "walk without a function");
            break;
    }
}

// ---- the model
// -----------------------------------------------------------------------------------

hardware::told_route world::told(const route &r) const {
    return {r.table->tid, r.key.id(), r.attributes, r.obj_id, r.via == nullptr ? 0 : r.via->id};
}

const route *world::longest_match(const tid_table &table, const ip_maddr_st &source,
                                  const ip_maddr_st &group) {
    const route_id packet{group, source, IPV4MC_ROUTE_PFX_LEN_SG};
    const route *best = nullptr;
    for (const auto &each : table.routes) {
        if (each.first.covers(packet) &&
            (best == nullptr || best->key.length < each.first.length)) {
            best = each.second.get();
        }
    }
    return best;
}

// From the route itself upward, the first that is a parent.
route *world::parent_of(const route &r, bool keep_old_parent) {
    const route_id id = r.key.id();
    std::vector<route *> upward;
    for (const auto &each : r.table->routes) {
        if (each.first.covers(id) && !(each.first == id)) {
            upward.push_back(each.second.get());
        }
    }
    upward.push_back(const_cast<route *>(&r));
    for (auto at = upward.rbegin(); at != upward.rend(); ++at) {
        if ((*at)->has(MRIB_ROUTE_IF) || (keep_old_parent && *at == r.parent)) {
            return *at;
        }
    }
    return nullptr;
}

cerrno world::turn_children(route &r, bool set) {
    auto &routes = r.table->routes;
    auto leaf = routes.find(r.key.id());
    if (r.key.length != IPV4MC_ROUTE_PFX_LEN_STAR_G) {
        ++leaf;
    }
    cerrno result = 0;
    for (; leaf != routes.end(); ++leaf) {
        route &child = *leaf->second;
        if (!child.has(MRIB_ROUTE_IA) || parent_of(child, !set) != &r) {
            continue;
        }
        if (set ? child.parent == &r : child.parent != &r) {
            continue;
        }
        child.parent = set ? &r : parent_of(r, false);
        if (hw_.change_parent_call() != 0) {
            result = EFAULT;
        }
    }
    return result;
}

cerrno world::model_program(route &r, bool is_new) {
    if (!can_program(r, is_new)) {
        return 0;
    }
    cerrno rc = hw_.route_call(IPV4MC_ACTION_COMMIT, told(r));
    rc = hw_.point_hit(MLIB_FAULT_ROUTE_COMMIT) ? cerrno{EAGAIN} : rc;
    return rc == 0 ? 0 : fail_sync(r, rc);
}

cerrno world::model_commit_new(route &r) {
    if (r.has(MRIB_ROUTE_IA)) {
        r.parent = parent_of(r, false);
    }
    if (const cerrno rc = model_program(r, true); rc != 0) {
        r.parent = nullptr;
        return rc;
    }
    auto owned = r.table->pending.extract(r.key.id());
    r.table->routes.insert(std::move(owned));
    r.published = true;
    return r.has(MRIB_ROUTE_IF) ? turn_children(r, true) : 0;
}

cerrno world::model_commit_existing(route &r, uint64_t old) {
    const auto gains = [&](uint64_t bit) { return (old & bit) == 0 && r.has(bit); };
    const auto loses = [&](uint64_t bit) { return (old & bit) != 0 && !r.has(bit); };
    if (loses(MRIB_ROUTE_IF)) {
        if (const cerrno rc = turn_children(r, false); rc != 0) {
            return rc;
        }
    }
    if (loses(MRIB_ROUTE_IA)) {
        r.parent = nullptr;
    }
    if (gains(MRIB_ROUTE_IA)) {
        r.parent = parent_of(r, false);
    }
    if (const cerrno rc = model_program(r, false); rc != 0) {
        return rc;
    }
    return gains(MRIB_ROUTE_IF) ? turn_children(r, true) : 0;
}

cerrno world::model_delete(route &r, uint64_t old) {
    if ((old & MRIB_ROUTE_IF) != 0 && !r.has(MRIB_ROUTE_IF)) {
        if (const cerrno rc = turn_children(r, false); rc != 0) {
            return rc;
        }
    }
    if (r.table->tid == kit::default_tid && ((old | r.attributes) & core_link_bits) != 0) {
        model_leave_customer(r);
    }
    while (!r.intfs.empty()) {
        const bool was_egress = r.intfs.front()->is_egress();
        if (const cerrno rc = model_delete_intf(r, *r.intfs.front()); rc != 0) {
            return rc;
        }
        if (was_egress) {
            model_lower_egress(r);
            model_follow_egress(r, true);
        }
    }
    model_leave_encap(r);
    model_leave_customer(r);
    hw_.route_call(IPV4MC_ACTION_DELETE, told(r));  // a refusal changes nothing
    unqueue(r);
    end_route(r);
    return 0;
}

// Nobody names it any more: its children inherit from the next one above.
void world::end_route(route &r) {
    tid_table &table = *r.table;
    auto &map = r.published ? table.routes : table.pending;
    const auto gone = map.extract(r.key.id());
    for (auto &each : table.routes) {
        if (each.second->parent == &r) {
            each.second->parent = parent_of(*each.second, false);
        }
    }
}

void world::model_clear(route &r) {
    ++r.table->route_clears;
    while (!r.intfs.empty()) {
        intf &entry = *r.intfs.front();
        if (entry.is_egress()) {
            model_lower_egress(r);
            model_follow_egress(r, false);
            --r.extra_egress;
        }
        // A refusal does not save the entry here.
        hw_.intf_call(IPV4MC_ACTION_DELETE, told(entry, entry.intf_arg));
        model_leave_idb(entry);
        remove_entry(r, entry);
    }
    if (r.has(core_link_bits)) {
        model_unlink_core(r, IPV4MC_VRF_LOCAL);
        model_unlink_core(r, IPV4MC_VRF_REMOTE);
        r.attributes &= ~core_link_bits;
    }
    if (r.via != nullptr) {
        model_give_encap(r, 0);
    }
    r.attributes &= ~uint64_t{MRIB_ROUTE_CLEAR_ATTR};
    hw_.route_call(IPV4MC_ACTION_CLEAR, told(r));
    r.obj_id = IPMC_OBJ_ID_NONE;
    unqueue(r);
}

cerrno world::model_delete_all(tid_table &table, bool keep_srd, uint32_t *kept) {
    cerrno result = 0;
    std::vector<route *> all;
    for (const auto &each : table.routes) {
        all.push_back(each.second.get());
    }
    for (route *r : all) {
        if (keep_srd && r->srd) {
            ++*kept;
            continue;
        }
        if (const cerrno rc = model_delete(*r, r->attributes); rc != 0) {
            result = rc;
        }
    }
    model_remove_all_signals(table);
    return result;
}

// Where routes have object ids, only a DELETE gives them back.
void world::undo_create(route &r) {
    if (async_) {
        commit_new(r, 0);
        note("delete route %s", r.key.text().c_str());
        const named_key key = r.key;
        tid_table &table = *r.table;
        const cerrno wanted = model_delete(r, 0);
        int is_new = 0;
        expect_equal(call(IPV4MC_ACTION_DELETE, table, key, nullptr, 0, &is_new), wanted,
                     "result of a route DELETE");
        return;
    }
    while (!r.intfs.empty()) {
        intf &entry = *r.intfs.front();
        ipv4mc_intf_entry_st *record = entry.record;
        const named_intf named{entry.id.type, entry.ifh, entry.id.amt_addr, entry.id.amt_port};
        const bool was_egress = entry.is_egress();
        const cerrno wanted = model_delete_intf(r, entry);
        expect_equal(ip6mc_intf_operation(IPV4MC_ACTION_DELETE, r.table->record, r.record,
                                          named.type, named.ifh, named.amt_addr, named.amt_port, 0,
                                          &record, nullptr, 0, 0, 0),
                     wanted, "result of an interface DELETE");
        if (wanted != 0) {
            return;
        }
        if (was_egress) {
            lower_egress(r);
        }
    }
    note("undo route %s", r.key.text().c_str());
    ipv4mc_route_entry_st *entry = r.record;
    tid_table &table = *r.table;
    ip6mc_route_oper_create_fail_cleanup(table.record, &entry, table.record->ingress_gtrie);
    expect_same<ipv4mc_route_entry_st>(entry, nullptr, "route behind the undoing of its CREATE");
    end_route(r);
}

}  // namespace fuzz
