// Routes and their interfaces.
#include <cerrno>

#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "ipv4/multicast/lib/ip6mc_objid.h"
#include "ipv4/multicast/lib/ip6mc_platform_err.h"
#include "services/journal/journal.h"
#include "tests/crash/workload/step.h"

namespace crash {
namespace {

constexpr uint64_t route_words[] = {0, MRIB_ROUTE_IA, MRIB_ROUTE_IF, MRIB_ROUTE_IA | MRIB_ROUTE_IF,
                                    MRIB_ROUTE_DROP};
constexpr uint64_t intf_words[] = {0, MRIB_INTF_ACCEPT, MRIB_INTF_FORWARD};

}  // namespace

void step::add_route() {
    if (table() == nullptr) {
        return change_table();
    }
    const uint64_t word = one_of(random_, route_words);
    const uint32_t wanted = number(1U << interfaces);
    const uint64_t intf_word = one_of(random_, intf_words);
    change(operation::add_route, word, [&] {
        ipv4mc_table_st *of = table();
        if (of != nullptr) {
            make_route(of, word, wanted & number(1U << interfaces), intf_word);
        }
    });
}

void step::make_route(ipv4mc_table_st *of, uint64_t word, uint32_t wanted, uint64_t intf_word) {
    const route_key k = key_of(route_);
    ipv4mc_route_entry_st *route = nullptr;
    int is_new = 0;
    const cerrno rc = operate(IPV4MC_ACTION_CREATE, of, k, &route, &is_new);
    if (rc == EEXIST || route == nullptr) {
        return;
    }
    route->attributes = word;
    for (uint32_t i = 0; i < interfaces; ++i) {
        if ((wanted >> i & 1U) != 0) {
            before_();
            join(route, i, intf_word);
        }
    }
    before_();
    const cerrno committed = operate(IPV4MC_ACTION_COMMIT, of, k, &route, &is_new);
    expect(committed == 0, "a commit failed");
    // What is not published is taken apart again, as its maker must.
    if (committed != 0 && find_route(of, route_) == nullptr) {
        undo_route(of, route);
    }
}

void step::undo_route(ipv4mc_table_st *of, ipv4mc_route_entry_st *route) {
    while (route->intf_list != nullptr) {
        ipv4mc_intf_entry_st *entry = route->intf_list;
        if (leave(route, &entry) != 0) {
            return;  // stays, as after a death
        }
    }
    ipmc_object_ida_free(&route->obj_id);
    ipmc_platform_err_handler_clear_route_err(route);
    ip6mc_route_oper_create_fail_cleanup(of, &route, of->ingress_gtrie);
}

void step::change_interfaces() {
    ipv4mc_route_entry_st *of = route_here();
    if (of == nullptr) {
        return add_route();
    }
    ipv4mc_intf_entry_st *there = entry_here();
    if (there == nullptr) {
        const uint64_t word = one_of(random_, intf_words);
        change(operation::add_interface, word, [&] { join(of, interface_, word); });
        return;
    }
    change(operation::delete_interface, 0, [&] { leave(of, &there); });
}

void step::delete_route() {
    ipv4mc_route_entry_st *route = route_here();
    if (route == nullptr) {
        return add_route();
    }
    const bool properly = number(4) != 0;
    change(operation::delete_route, 0, [&] {
        const uint64_t old = route->attributes;
        if (properly) {
            route->attributes &= ~MRIB_ROUTE_IF;
        }
        int is_new = 0;
        const cerrno rc =
            operate(IPV4MC_ACTION_DELETE, table(), key_of(route_), &route, &is_new, old);
        expect(rc != 0 || route_here() == nullptr, "a deleted route is found");
    });
}

void step::clear_route() {
    ipv4mc_route_entry_st *route = route_here();
    if (route == nullptr) {
        return add_route();
    }
    change(operation::clear_route, 0, [&] {
        int is_new = 0;
        operate(IPV4MC_ACTION_CLEAR, table(), key_of(route_), &route, &is_new, route->attributes);
    });
}

void step::change_attributes() {
    aim_at_route();
    ipv4mc_route_entry_st *route = route_here();
    if (route == nullptr) {
        return add_route();
    }
    constexpr uint64_t mine = MRIB_ROUTE_IA | MRIB_ROUTE_IF | MRIB_ROUTE_DROP;
    const uint64_t word = one_of(random_, route_words);
    change(operation::change_attributes, word, [&] {
        const uint64_t old = route->attributes;
        route->attributes = (old & ~mine) | word;
        int is_new = 0;
        operate(IPV4MC_ACTION_COMMIT, table(), key_of(route_), &route, &is_new, old);
    });
}

void step::settings() {
    ipv4mc_table_st *of = table();
    if (of == nullptr) {
        return add_route();
    }
    static constexpr ipv4mc_action_type actions[] = {
        IPV4MC_ACTION_ACCT_ENABLE,  IPV4MC_ACTION_ACCT_DISABLE,    IPV4MC_ACTION_RATE_ENABLE,
        IPV4MC_ACTION_RATE_DISABLE, IPV4MC_ACTION_ACCT_FWD_ENABLE, IPV4MC_ACTION_ACCT_FWD_DISABLE};
    const ipv4mc_action_type action = one_of(random_, actions);
    change(operation::other, 0, [&] {
        ipv4mc_route_entry_st *route = find_route(of, route_);
        if (route != nullptr && number(2) == 0) {
            int is_new = 0;
            operate(action, of, key_of(route_), &route, &is_new, route->attributes);
            return;
        }
        ipv4mc_table_st *found = of->vtable != nullptr ? of->vtable : of;
        ip6mc_table_operation(action, tid_of(table_), vrf_id_of(table_), name_of(table_), &found,
                              8);
    });
}

// The properties that the platform hears of by an update. A client that counts T bits tells of
// changes only.
void step::change_property() {
    aim_at_route();
    ipv4mc_route_entry_st *of = route_here();
    if (of == nullptr) {
        return add_route();
    }
    change(operation::other, 0, [&] {
        ipv4mc_route_update_st update{};
        switch (number(3)) {
            case 0:
                update.t_bit = of->t_bit == 0 ? 1 : 0;
                update.t_count = 1;
                ip6mc_route_update(of, IPV4MC_ROUTE_UPDATE_T_BIT, &update);
                return;
            case 1:
                mfwd6::journal::publish(of->attributes, of->attributes | MRIB_ROUTE_RPF_ID);
                update.rpf_id = 1 + number(100);
                ip6mc_route_update(of, IPV4MC_ROUTE_UPDATE_RPF_ID, &update);
                return;
            default:
                update.upd4_value = static_cast<uint8_t>(number(2));
                ip6mc_route_update(of, IPV4MC_ROUTE_UPDATE_4, &update);
        }
    });
}

void step::mark_interface() {
    aim_at_entry();
    ipv4mc_intf_entry_st *marked = entry_here();
    if (marked == nullptr) {
        return change_interfaces();
    }
    const uint64_t mark = one_of(random_, mark_bits);
    change(operation::other, 0,
           [&] { set_mark(route_here(), marked, mark, (marked->attributes & mark) == 0); });
}

}  // namespace crash
