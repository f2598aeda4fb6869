// Operations on tables: which of the two sides there are, and what becomes of them.
#include <algorithm>
#include <cerrno>

#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "tests/fuzz/operations/complaint.h"
#include "tests/fuzz/operations/world.h"

namespace fuzz {
namespace {

constexpr ipv4mc_action_type usual_actions[] = {
    IPV4MC_ACTION_ACTIVATE,        IPV4MC_ACTION_ACTIVATE,         IPV4MC_ACTION_ACTIVATE,
    IPV4MC_ACTION_CREATE,          IPV4MC_ACTION_COMMIT,           IPV4MC_ACTION_DELETE,
    IPV4MC_ACTION_CLEAR,           IPV4MC_ACTION_CLEAR_ROUTES,     IPV4MC_ACTION_DEACTIVATE,
    IPV4MC_ACTION_TABLE_LOOKUP,    IPV4MC_ACTION_ACCT_ENABLE,      IPV4MC_ACTION_ACCT_DISABLE,
    IPV4MC_ACTION_ACCT_FWD_ENABLE, IPV4MC_ACTION_ACCT_FWD_DISABLE, IPV4MC_ACTION_RATE_ENABLE,
    IPV4MC_ACTION_RATE_DISABLE,
};

bool removes_routes(ipv4mc_action_type action) {
    return action == IPV4MC_ACTION_DELETE || action == IPV4MC_ACTION_CLEAR ||
           action == IPV4MC_ACTION_CLEAR_ROUTES;
}

bool switches(ipv4mc_action_type action) {
    return action >= IPV4MC_ACTION_ACCT_ENABLE && action <= IPV4MC_ACTION_RATE_DISABLE;
}

bool makes_what_is_missing(ipv4mc_action_type action) {
    return action == IPV4MC_ACTION_CREATE || action == IPV4MC_ACTION_COMMIT ||
           action == IPV4MC_ACTION_ACTIVATE;
}

}  // namespace

// ---- the calls
// -----------------------------------------------------------------------------------

void world::make_tables() {
    for (size_t n = 0; n < tables; ++n) {
        perform(
            {IPV4MC_ACTION_ACTIVATE, tids[n], vrf_ids[n], vrf_names[n], true, nullptr, nullptr, 0});
    }
}

void world::operate_on_table(input &in) {
    const uint8_t shape = in.byte();
    table_request asked{usual_actions[shape % std::size(usual_actions)],
                        0,
                        0,
                        "",
                        true,
                        nullptr,
                        nullptr,
                        static_cast<uint32_t>(shape >> 6)};
    const uint8_t keys = in.byte();
    const size_t vrf = (keys >> 3) & 1U;
    if ((keys & 0x10) != 0) {
        // By a record that the caller has, which says the rest.
        if ((keys & 1) != 0 && !tids_.empty()) {
            asked.tid_side = std::next(tids_.begin(), static_cast<long>((keys >> 1) % tids_.size()))
                                 ->second.get();
        } else if (!vrfs_.empty()) {
            asked.vrf_side =
                std::next(vrfs_.begin(), static_cast<long>((keys >> 1) % vrfs_.size()))->get();
        }
    } else {
        const uint32_t both[] = {tids[(keys >> 2) & 1], 0};
        asked.tid = both[(keys & 0x20) != 0 ? 1 : 0];
        asked.vrf_id = (keys & 1) != 0 ? 0 : vrf_ids[vrf];
        asked.name = (keys & 2) != 0 ? "" : vrf_names[vrf];
        asked.has_pp = (keys & 0x40) == 0;
    }
    perform(asked);
}

void world::perform(const table_request &asked) {
    note("table action %u tid 0x%x vrf 0x%x '%s' given %s", asked.action, asked.tid, asked.vrf_id,
         asked.name.c_str(),
         !asked.has_pp               ? "no pointer"
         : asked.tid_side != nullptr ? "tid side"
         : asked.vrf_side != nullptr ? "vrf side"
                                     : "nothing");
    ipv4mc_table_st *given = asked.tid_side != nullptr   ? asked.tid_side->record
                             : asked.vrf_side != nullptr ? asked.vrf_side->record
                                                         : nullptr;
    ipv4mc_table_st *table = given;
    const table_answer wanted = model_table(asked);
    const cerrno rc =
        ip6mc_table_operation(asked.action, asked.tid, asked.vrf_id, asked.name.c_str(),
                              asked.has_pp ? &table : nullptr, asked.batch);
    expect_equal(rc, wanted.rc, "result of a table operation");
    learn_records();
    check_egress();
    if (!asked.has_pp) {
        return;
    }
    const ipv4mc_table_st *record = !wanted.written              ? given
                                    : wanted.vrf_side != nullptr ? wanted.vrf_side->record
                                    : wanted.tid_side != nullptr ? wanted.tid_side->record
                                                                 : nullptr;
    expect_same(table, record, "table that an operation answers with");
}

// A VRF table that is refused is tried again: a fault hits once.
void world::delete_all_tables() {
    note("delete all tables");
    const auto first_named = [&] {
        vrf_table *first = nullptr;
        for (const auto &vrf : vrfs_) {
            if (vrf->found_by_name && (first == nullptr || vrf->name < first->name)) {
                first = vrf.get();
            }
        }
        return first;
    };
    while (vrf_table *vrf = first_named()) {
        model_table({IPV4MC_ACTION_DELETE, 0, vrf->vrf_id, vrf->name, true, nullptr, vrf, 0});
    }
    cerrno wanted = 0;
    while (wanted == 0 && !tids_.empty()) {
        tid_table *first = tids_.begin()->second.get();
        wanted = model_table({IPV4MC_ACTION_DELETE, first->tid, 0, "", true, first, nullptr, 0}).rc;
    }
    expect_equal(ip6mc_table_delete_all(0), wanted, "result of delete all");
    learn_records();
}

void world::walk_all_tables(input &in) {
    if (in.pick(8) == 0) {
        delete_all_tables();
        return;
    }
    note("clear all tables");
    cerrno wanted = 0;
    for (auto &each : tids_) {
        wanted =
            model_table({IPV4MC_ACTION_CLEAR, 0, 0, "", true, each.second.get(), nullptr, 0}).rc;
        if (wanted != 0) {
            break;
        }
    }
    expect_equal(ip6mc_table_clear_all(0), wanted, "result of clear all");
    check_egress();
}

// ---- the model
// -----------------------------------------------------------------------------------

tid_table *world::find_tid(uint32_t tid) {
    const auto found = tids_.find(tid);
    return found == tids_.end() ? nullptr : found->second.get();
}

// By id, else by name where the record waits for an id.
vrf_table *world::find_vrf(uint32_t vrf_id, const std::string &name) {
    for (const auto &vrf : vrfs_) {
        if (vrf_id != 0 && vrf->vrf_id == vrf_id) {
            return vrf.get();
        }
    }
    for (const auto &vrf : vrfs_) {
        if (!name.empty() && vrf->found_by_name && vrf->name == name) {
            return vrf_id != 0 && vrf->vrf_id != 0 ? nullptr : vrf.get();
        }
    }
    return nullptr;
}

world::table_answer world::model_table(table_request asked) {
    const bool given = asked.tid_side != nullptr || asked.vrf_side != nullptr;
    if (asked.tid == 0 && asked.vrf_id == 0 && !asked.has_pp && asked.name.empty()) {
        return {EINVAL, false, nullptr, nullptr};
    }
    if ((removes_routes(asked.action) || switches(asked.action)) && !given) {
        return {EINVAL, false, nullptr, nullptr};
    }
    if (switches(asked.action)) {
        return {model_switch(asked), false, nullptr, nullptr};
    }
    if (given && (removes_routes(asked.action) || asked.action == IPV4MC_ACTION_DEACTIVATE)) {
        const tid_table *tid =
            asked.tid_side != nullptr ? asked.tid_side : asked.vrf_side->tid_side;
        const vrf_table *vrf =
            asked.vrf_side != nullptr ? asked.vrf_side : asked.tid_side->vrf_side;
        if (asked.vrf_side != nullptr && asked.name.empty()) {
            asked.name = asked.vrf_side->name;
        }
        asked.tid = asked.tid == 0 && tid != nullptr ? tid->tid : asked.tid;
        asked.vrf_id = asked.vrf_id == 0 && vrf != nullptr ? vrf->vrf_id : asked.vrf_id;
    } else {
        asked.tid_side = nullptr;
        asked.vrf_side = nullptr;
    }
    if (asked.tid_side == nullptr && asked.tid != 0) {
        asked.tid_side = find_tid(asked.tid);
    }
    const bool wants_vrf = asked.vrf_id != 0 || !asked.name.empty();
    if (asked.vrf_side == nullptr && wants_vrf) {
        asked.vrf_side = find_vrf(asked.vrf_id, asked.name);
    }
    if (asked.vrf_id == 0 && asked.vrf_side != nullptr) {
        asked.vrf_id = asked.vrf_side->vrf_id;
    }
    const bool missing =
        (wants_vrf && asked.vrf_side == nullptr) || (asked.tid != 0 && asked.tid_side == nullptr);
    return missing ? model_missing(asked) : model_existing(asked);
}

world::table_answer world::model_existing(table_request &asked) {
    const auto answer = [&](cerrno rc) {
        return table_answer{rc, true, asked.tid_side, asked.vrf_side};
    };
    if (removes_routes(asked.action)) {
        if (asked.tid_side != nullptr) {
            uint32_t kept = 0;
            const bool keep = asked.action == IPV4MC_ACTION_CLEAR_ROUTES;
            if (asked.tid_side->has_tries) {
                model_delete_all(*asked.tid_side, keep, &kept);
                if (asked.action == IPV4MC_ACTION_DELETE) {
                    model_remove_rest(*asked.tid_side);
                }
            }
            if (asked.action == IPV4MC_ACTION_DELETE) {
                model_drop_core_routes(*asked.tid_side);
            }
            if (keep && kept != 0) {
                return {0, false, nullptr, nullptr};
            }
        }
        if (asked.action == IPV4MC_ACTION_CLEAR_ROUTES) {
            asked.action = IPV4MC_ACTION_CLEAR;
        }
    }
    switch (asked.action) {
        case IPV4MC_ACTION_DELETE:
        case IPV4MC_ACTION_CLEAR:
        case IPV4MC_ACTION_DEACTIVATE: {
            if (asked.vrf_side == nullptr && asked.tid_side == nullptr) {
                return {EINVAL, false, nullptr, nullptr};
            }
            const cerrno rc = model_deactivate(asked);
            return rc != 0 ? table_answer{rc, false, nullptr, nullptr} : answer(0);
        }
        case IPV4MC_ACTION_ACTIVATE: {
            const cerrno rc = model_activate(asked);
            if (rc == 0) {
                return answer(0);
            }
            if (asked.vrf_side == nullptr) {
                return {rc, false, nullptr, nullptr};
            }
            free_vrf(asked.vrf_side);
            return {rc, true, nullptr, nullptr};
        }
        case IPV4MC_ACTION_COMMIT:
            return answer(asked.vrf_side != nullptr
                              ? hw_.vrf_call(asked.action, asked.vrf_id,
                                             asked.name.empty() ? asked.vrf_side->name : asked.name)
                          : asked.tid_side != nullptr ? hw_.tid_call(asked.action, asked.tid)
                                                      : hw_.vrf_call(asked.action, 0, ""));
        default:
            return answer(0);
    }
}

// A table takes all with it, also what its hardware would not let go.
void world::model_remove_rest(tid_table &table) {
    while (!table.routes.empty()) {
        route &r = *table.routes.begin()->second;
        model_clear(r);
        model_delete(r, r.attributes);
    }
    while (!table.signals.empty()) {
        model_remove_all_signals(table);
    }
}

world::table_answer world::model_missing(table_request &asked) {
    const bool wants_vrf = asked.vrf_id != 0 || !asked.name.empty();
    const bool emptied = asked.vrf_side == nullptr && wants_vrf;
    if (!makes_what_is_missing(asked.action)) {
        const bool nothing = asked.vrf_side == nullptr && asked.tid_side == nullptr;
        return {ENOENT, emptied || nothing, nullptr, nullptr};
    }
    bool vrf_is_new = false;
    if (!model_create(asked, &vrf_is_new)) {
        return {ENOMEM, emptied, nullptr, nullptr};
    }
    if (asked.tid == 0) {
        const cerrno rc =
            asked.action == IPV4MC_ACTION_CREATE
                ? 0
                : hw_.vrf_call(asked.action, asked.vrf_id,
                               asked.name.empty() ? asked.vrf_side->name : asked.name);
        return {rc, true, nullptr, asked.vrf_side};
    }
    if (asked.vrf_side == nullptr) {
        cerrno rc = model_activate_tid(asked);
        if (rc == 0 && asked.action != IPV4MC_ACTION_CREATE) {
            rc = hw_.tid_call(asked.action, asked.tid);
        }
        return {rc, true, asked.tid_side, nullptr};
    }
    const cerrno rc = model_activate(asked);
    if (rc != 0 && asked.vrf_side->vrf_id == 0 && asked.vrf_side->name.empty()) {
        free_vrf(asked.vrf_side);
        asked.vrf_side = nullptr;
    }
    return {rc, true, nullptr, asked.vrf_side};
}

// Of two records with one name the first is found by it.
void world::take_keys(vrf_table &vrf, const std::string &name, uint32_t vrf_id) {
    if (vrf.name.empty() && !name.empty()) {
        vrf.found_by_name = std::none_of(vrfs_.begin(), vrfs_.end(), [&](const auto &other) {
            return other->found_by_name && other->name == name;
        });
        vrf.name = name;
    }
    vrf.vrf_id = vrf.vrf_id == 0 ? vrf_id : vrf.vrf_id;
}

// The next one with the name, by id, is found by it then.
void world::pass_name_on(vrf_table &from) {
    if (!from.found_by_name) {
        return;
    }
    from.found_by_name = false;
    vrf_table *heir = nullptr;
    for (const auto &each : vrfs_) {
        const bool is_next = heir == nullptr || each->vrf_id < heir->vrf_id;
        if (each.get() != &from && each->name == from.name && is_next) {
            heir = each.get();
        }
    }
    if (heir != nullptr) {
        heir->found_by_name = true;
    }
}

bool world::model_create(table_request &asked, bool *vrf_is_new) {
    if (asked.vrf_id != 0 || !asked.name.empty()) {
        if (asked.vrf_side == nullptr) {
            if (hw_.vrf_call(IPV4MC_ACTION_CREATE, asked.vrf_id, asked.name) != 0) {
                return false;
            }
            vrfs_.push_back(std::make_unique<vrf_table>());
            asked.vrf_side = vrfs_.back().get();
            *vrf_is_new = true;
        }
        take_keys(*asked.vrf_side, asked.name, asked.vrf_id);
    }
    if (asked.tid == 0 || asked.tid_side != nullptr) {
        return true;
    }
    if (hw_.tid_call(IPV4MC_ACTION_CREATE, asked.tid) != 0) {
        if (*vrf_is_new) {
            free_vrf(asked.vrf_side);
        }
        return false;
    }
    asked.tid_side = (tids_[asked.tid] = std::make_unique<tid_table>()).get();
    asked.tid_side->tid = asked.tid;
    return true;
}

cerrno world::model_activate(table_request &asked) {
    if (vrf_table *vrf = asked.vrf_side; vrf != nullptr) {
        if (!vrf->active) {
            take_keys(*vrf, asked.name, asked.vrf_id);
            const cerrno rc =
                hw_.vrf_call(IPV4MC_ACTION_ACTIVATE, asked.vrf_id != 0 ? asked.vrf_id : vrf->vrf_id,
                             asked.name.empty() ? vrf->name : asked.name);
            if (rc != 0) {
                pass_name_on(*vrf);
                vrf->name.clear();
                vrf->vrf_id = 0;
                return rc;
            }
            vrf->active = true;
        }
        if (vrf->prev_tid != 0 && vrf->prev_tid != asked.tid) {
            tid_table *left = find_tid(vrf->prev_tid);
            if (left != nullptr && (left->vrf_side == nullptr || left->vrf_side == vrf)) {
                model_table({IPV4MC_ACTION_DELETE, left->tid, 0, "", true, left, nullptr, 0});
            }
        }
        vrf->prev_tid = 0;
    }
    return asked.tid == 0 ? 0 : model_activate_tid(asked);
}

cerrno world::model_activate_tid(table_request &asked) {
    tid_table *table = find_tid(asked.tid);
    if (table == nullptr) {
        if (hw_.tid_call(IPV4MC_ACTION_CREATE, asked.tid) != 0) {
            return ENOMEM;
        }
        table = (tids_[asked.tid] = std::make_unique<tid_table>()).get();
        table->tid = asked.tid;
    }
    asked.tid_side = table;
    if (asked.vrf_side != nullptr) {
        if (asked.vrf_side->tid_side != table || table->vrf_side != asked.vrf_side) {
            cut(asked.vrf_side);
            cut(table);
        }
        asked.vrf_side->tid_side = table;
        table->vrf_side = asked.vrf_side;
    }
    if (table->active) {
        return 0;
    }
    const cerrno rc = hw_.tid_call(IPV4MC_ACTION_ACTIVATE, asked.tid);
    if (rc == 0) {
        table->has_tries = true;
        table->active = true;
    }
    return rc;
}

cerrno world::model_deactivate(table_request &asked) {
    const std::string name =
        asked.vrf_side != nullptr && asked.name.empty() ? asked.vrf_side->name : asked.name;
    // A table that is only deactivated stays for its core routes.
    const bool keeps_core = asked.action == IPV4MC_ACTION_DEACTIVATE && asked.tid_side != nullptr &&
                            !asked.tid_side->core_routes.empty();
    if (asked.action != IPV4MC_ACTION_CLEAR) {
        const bool tid_active = asked.tid_side != nullptr && asked.tid_side->active;
        if (tid_active && !keeps_core) {
            asked.tid_side->active = false;
        }
        if (asked.vrf_side != nullptr && asked.vrf_side->active) {
            vrf_table &vrf = *asked.vrf_side;
            vrf.prev_tid = vrf.tid_side != nullptr ? vrf.tid_side->tid : vrf.prev_tid;
            vrf.active = false;
            vrf.vrf_id = vrf.found_by_name ? 0 : vrf.vrf_id;
            cut(&vrf);
        }
        if (tid_active) {
            cut(asked.tid_side);
        }
    }
    const bool tells_tid = asked.tid_side != nullptr && !keeps_core;
    cerrno rc = tells_tid ? hw_.tid_call(asked.action, asked.tid) : 0;
    if (rc == 0 && asked.vrf_side != nullptr) {
        rc = hw_.vrf_call(asked.action, asked.vrf_id != 0 ? asked.vrf_id : asked.vrf_side->vrf_id,
                          name);
    }
    if (rc != 0) {
        return rc;
    }
    if (asked.tid_side != nullptr && asked.action == IPV4MC_ACTION_CLEAR) {
        asked.tid_side->route_clears = 0;
        asked.tid_side->local_egress = 0;  // and then what stays
        for (const auto *map : {&asked.tid_side->routes, &asked.tid_side->pending}) {
            for (const auto &r : *map) {
                asked.tid_side->local_egress += r.second->local_egress;
            }
        }
    }
    if (asked.action == IPV4MC_ACTION_DELETE) {
        free_vrf(asked.vrf_side);
        free_tid(asked.tid_side);
        asked.vrf_side = nullptr;
        asked.tid_side = nullptr;
    }
    return 0;
}

void world::cut(vrf_table *vrf) {
    if (vrf->tid_side != nullptr) {
        if (vrf->tid_side->vrf_side == vrf) {
            vrf->tid_side->vrf_side = nullptr;
        }
        vrf->tid_side = nullptr;
    }
}

void world::cut(tid_table *table) {
    if (table->vrf_side != nullptr) {
        if (table->vrf_side->tid_side == table) {
            table->vrf_side->tid_side = nullptr;
        }
        table->vrf_side = nullptr;
    }
}

void world::free_vrf(vrf_table *vrf) {
    if (vrf != nullptr) {
        cut(vrf);
        pass_name_on(*vrf);
        std::erase_if(vrfs_, [&](const auto &each) { return each.get() == vrf; });
    }
}

void world::free_tid(tid_table *table) {
    if (table != nullptr) {
        cut(table);
        for (auto &each : tids_) {
            for (auto &r : each.second->routes) {
                r.second->feeds = r.second->feeds == table ? nullptr : r.second->feeds;
            }
        }
        tids_.erase(table->tid);
    }
}

// ---- accounting and rate
// --------------------------------------------------------------------------

cerrno world::model_switch(const table_request &asked) {
    table_settings &settings =
        asked.vrf_side != nullptr ? asked.vrf_side->settings : asked.tid_side->settings;
    tid_table *routes = asked.vrf_side != nullptr ? asked.vrf_side->tid_side : nullptr;
    const ipv4mc_action_type action = asked.action;
    if (action == IPV4MC_ACTION_RATE_ENABLE || action == IPV4MC_ACTION_RATE_DISABLE) {
        settings.rate = action == IPV4MC_ACTION_RATE_ENABLE;
        if (routes != nullptr) {
            model_rate_walk(*routes, settings.rate);
        }
        return 0;
    }
    if (routes != nullptr) {
        model_accounting_walk(*routes, action);
    }
    const cerrno rc =
        asked.vrf_side != nullptr
            ? hw_.vrf_call(action, asked.vrf_id != 0 ? asked.vrf_id : asked.vrf_side->vrf_id,
                           asked.name.empty() ? asked.vrf_side->name : asked.name)
            : hw_.tid_call(action, asked.tid_side->tid);
    switch (action) {
        case IPV4MC_ACTION_ACCT_ENABLE:
            settings.acct_per_prefix = true;
            settings.acct_fwd_only = false;
            break;
        case IPV4MC_ACTION_ACCT_DISABLE:
            settings.acct_per_prefix = false;
            break;
        case IPV4MC_ACTION_ACCT_FWD_ENABLE:
            settings.acct_fwd_only = true;
            settings.acct_per_prefix = false;
            break;
        default:
            settings.acct_fwd_only = false;
            break;
    }
    return rc;
}

cerrno world::model_accounting_walk(tid_table &table, ipv4mc_action_type action) {
    if (!table.has_tries) {
        return 0;
    }
    const bool on = action == IPV4MC_ACTION_ACCT_ENABLE || action == IPV4MC_ACTION_ACCT_FWD_ENABLE;
    const bool per_prefix =
        action == IPV4MC_ACTION_ACCT_ENABLE || action == IPV4MC_ACTION_ACCT_DISABLE;
    for (auto &each : table.routes) {
        route &r = *each.second;
        bool &flag = per_prefix ? r.acct_per_prefix : r.acct_fwd_only;
        if (flag == on) {
            continue;
        }
        if (const cerrno rc = hw_.route_call(action, told(r)); rc != 0) {
            return rc;
        }
        flag = on;
    }
    return 0;
}

void world::model_rate_walk(tid_table &table, bool on) {
    for (auto &each : table.routes) {
        route &r = *each.second;
        if (r.rate_flag != on) {
            r.has_rate = on;
            r.rate_flag = on;
        }
    }
}

// ---- records
// --------------------------------------------------------------------------------------

// What the library made: the model knows the keys, the comparison behind proves the rest.
void world::learn_records() {
    for (auto &each : tids_) {
        each.second->record = ip6mc_table_lookup_by_tbl_id(each.first);
    }
    for (auto &vrf : vrfs_) {
        if (vrf->record != nullptr) {
            continue;
        }
        ipv4mc_table_st *table = nullptr;
        ip6mc_table_operation(IPV4MC_ACTION_TABLE_LOOKUP, 0, vrf->vrf_id, vrf->name.c_str(), &table,
                              0);
        vrf->record = table;
    }
}

// A caller ends what it has begun before it takes the table away.
void world::give_up_pending(tid_table &table) {
    for (auto &each : table.routes) {
        drop_pending_intf(*each.second);
    }
    while (!table.pending.empty()) {
        route &r = *table.pending.begin()->second;
        drop_pending_intf(r);
        undo_create(r);
    }
}

}  // namespace fuzz
