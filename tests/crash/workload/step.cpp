#include "tests/crash/workload/step.h"

#include <cerrno>
#include <iterator>
#include <numeric>
#include <string>

#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "platforms/sim/sim.h"
#include "services/window/inspect.h"
#include "services/window/setup.h"

namespace crash {
namespace {

constexpr uint32_t most_tries = 100;

}  // namespace

void step::run() {
    struct share {
        uint32_t of_thousand;
        void (step::*operation)();
    };
    static constexpr share shares[] = {{220, &step::add_route},
                                       {100, &step::change_interfaces},
                                       {90, &step::delete_route},
                                       {45, &step::clear_route},
                                       {60, &step::change_attributes},
                                       {35, &step::change_table},
                                       {30, &step::settings},
                                       {30, &step::change_property},
                                       {50, &step::mark_interface},
                                       {25, &step::link_routes},
                                       {15, &step::follow_receivers},
                                       {25, &step::walk},
                                       {35, &step::hold_interfaces},
                                       {15, &step::rename_interface},
                                       {15, &step::change_members},
                                       {35, &step::own_signals},
                                       {20, &step::remove_signals},
                                       {15, &step::preserved_packets},
                                       {40, &step::encaps},
                                       {50, &step::outputs},
                                       {50, &step::errors}};
    constexpr uint32_t all =
        std::accumulate(std::begin(shares), std::end(shares), 0U,
                        [](uint32_t sum, const share &each) { return sum + each.of_thousand; });
    static_assert(all == 1000);
    table_ = number(tables);
    route_ = number(routes);
    interface_ = number(interfaces);
    uint32_t dice = number(all);
    for (const share &each : shares) {
        if (dice < each.of_thousand) {
            return (this->*each.operation)();
        }
        dice -= each.of_thousand;
    }
}

void step::aim_at_route() {
    for (uint32_t tries = 0; tries < most_tries; ++tries) {
        if (shared().known.route[table_][route_].present != 0) {
            return;
        }
        table_ = number(tables);
        route_ = number(routes);
    }
}

void step::aim_at_core_route() {
    table_ = 0;
    for (uint32_t tries = 0; tries < most_tries; ++tries) {
        if (shared().known.route[table_][route_].present != 0) {
            return;
        }
        route_ = number(routes);
    }
}

void step::aim_at_entry() {
    for (uint32_t tries = 0; tries < most_tries; ++tries) {
        if ((shared().known.route[table_][route_].intfs >> interface_ & 1U) != 0) {
            return;
        }
        table_ = number(tables);
        route_ = number(routes);
        interface_ = number(interfaces);
    }
}

void step::arm_faults(in_flight *now) {
    now->faults = 0;
    if (number(8) == 0) {
        static constexpr sim_op ops[] = {SIM_OP_TABLE, SIM_OP_ROUTE,        SIM_OP_INTF,
                                         SIM_OP_IDB,   SIM_OP_ROUTE_UPDATE, SIM_OP_CHANGE_IF_PARENT,
                                         SIM_OP_ENCAP, SIM_OP_ENCAP_UPDATE};
        static constexpr cerrno codes[] = {EIO, ENOSPC, EAGAIN};
        sim_arm_fault(one_of(random_, ops), SIM_ANY_ACTION, number(3), 1 + number(2),
                      one_of(random_, codes));
        now->faults = 1;
    }
    if (number(12) == 0) {
        shmwin_set_growth_limit(ipv4mc_desc->shmwin_id, 1);  // no more than it has
        now->faults = 1;
    }
    if (number(20) == 0) {
        sim_set_capacity(IP6MC_PLATFORM_ROUTE, sim_count(IP6MC_PLATFORM_ROUTE));
        now->faults = 1;
    }
}

void step::heal() {
    sim_clear_faults();
    sim_set_capacity(IP6MC_PLATFORM_ROUTE, SIM_NO_LIMIT);
    shmwin_set_growth_limit(ipv4mc_desc->shmwin_id, 0);
}

void step::acknowledge(operation what) {
    world &known = shared().known;
    const in_flight op = known.now;
    for (uint32_t t = 0; t < tables; ++t) {
        if (t == table_) {
            const ipv4mc_table_st *table = find_table(t);
            known.there[t] = table != nullptr && table->active != 0;
        }
        for (uint32_t r = 0; r < routes; ++r) {
            if (!touches(op, t, r)) {
                continue;
            }
            const route_state now = observe(t, r);
            if (!may_become(op, known.route[t][r], now)) {
                give_up("operation " + std::to_string(static_cast<uint32_t>(what)) +
                        " made of route " + std::to_string(r) + " in " + name_of(t) + ": " +
                        text_of(known.route[t][r]) + ", " + text_of(now));
            }
            known.route[t][r] = now;
        }
    }
}

void step::expect(bool holds, const char *what) {
    if (!holds && shared().known.now.faults == 0) {
        give_up(std::string("an operation without a fault: ") + what);
    }
}

ipv4mc_table_st *step::table() const {
    ipv4mc_table_st *found = find_table(table_);
    return found != nullptr && found->active != 0 && found->ingress_gtrie != nullptr &&
                   found->signal_gtrie != nullptr
               ? found
               : nullptr;
}

ipv4mc_route_entry_st *step::route_here() const {
    return find_route(table(), route_);
}

ipv4mc_intf_entry_st *step::entry_here() const {
    ipv4mc_route_entry_st *of = route_here();
    return of == nullptr
               ? nullptr
               : ip6mc_intf_route_lookup(of, IPV4MC_INTF_ORDINARY, ifh_of(interface_), 0, 0);
}

void run_operation(generator &random, const before_point &before) {
    step(random, before).run();
}

}  // namespace crash
