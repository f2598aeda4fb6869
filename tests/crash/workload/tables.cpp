// Tables, and the core routes that feed them.
#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "ipv4/multicast/lib/ip6mc_signal.h"
#include "services/journal/journal.h"
#include "tests/crash/workload/step.h"

namespace crash {

void step::change_table() {
    ipv4mc_table_st *found = find_table(table_);
    if (found == nullptr || found->active == 0) {
        change(operation::create_table, 0, [&] { activate(); });
        return;
    }
    switch (number(8)) {
        case 0:
            return table_action(operation::deactivate_table, IPV4MC_ACTION_DEACTIVATE);
        case 1:
            if (table_ != 0) {
                return table_action(operation::delete_table, IPV4MC_ACTION_DELETE);
            }
            [[fallthrough]];
        case 2:
            return table_action(operation::clear_table, IPV4MC_ACTION_CLEAR);
        case 3:
            return table_action(operation::clear_table, IPV4MC_ACTION_CLEAR_ROUTES);
        case 4:
            change(operation::delete_all, 0, [&] {
                uint32_t spared = 0;
                ip6mc_route_delete_all(found, 8, IPV4MC_FREE_PAK_ALL, static_cast<int>(number(2)),
                                       &spared);
            });
            return;
        default:
            change(operation::create_table, 0, [&] { activate(); });
    }
}

void step::activate() {
    ipv4mc_table_st *made = nullptr;
    ip6mc_table_operation(IPV4MC_ACTION_ACTIVATE, tid_of(table_), vrf_id_of(table_),
                          name_of(table_), &made, 8);
}

void step::table_action(operation what, ipv4mc_action_type action) {
    change(what, 0, [&] {
        ipv4mc_table_st *found = find_table(table_);
        if (found->vtable != nullptr) {
            found = found->vtable;
        }
        ip6mc_table_operation(action, tid_of(table_), vrf_id_of(table_), name_of(table_), &found,
                              8);
    });
}

// Core routes of the default table, linked to customers and cut again.
void step::link_routes() {
    aim_at_core_route();
    ipv4mc_route_entry_st *route = route_here();
    if (route == nullptr) {
        return add_route();
    }
    const uint32_t customer = 1 + number(tables - 1);
    const uint32_t index = number(4) == 0 ? IPV4MC_VRF_REMOTE : IPV4MC_VRF_LOCAL;
    if (find_table(customer) == nullptr) {
        return add_route();
    }
    change(operation::other, 0, [&] {
        if (route->vrf_table[index] != nullptr || route->vrf_table_id[index] != 0) {
            ip6mc_route_unlink_route_from_vrf(route, index, "crash");
            return;
        }
        if (index == IPV4MC_VRF_LOCAL) {
            mfwd6::journal::publish(route->attributes, route->attributes | MRIB_ROUTE_TID_STICKY);
        }
        ip6mc_route_link_route_to_vrf(route, index, tid_of(customer), "crash");
    });
}

// DT of the core routes of a customer, as its receivers want it.
void step::follow_receivers() {
    table_ = 1 + number(tables - 1);
    ipv4mc_table_st *of = table();
    if (of == nullptr) {
        return change_table();
    }
    change(operation::other, 0, [&] {
        const int set = of->route_counters.local_eg_cnt + of->route_counters.t_cnt != 0 ? 1 : 0;
        ipv4mc_route_entry_st *first = of->memd_route_list;
        if (first != nullptr && number(2) == 0) {
            ipmc_route_update_DT_flag(of, first, set, 1);
        } else {
            ip6mc_tbl_update_memd_routes(of, set);
        }
    });
}

}  // namespace crash
