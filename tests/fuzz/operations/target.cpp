// Random operations on two tables, a handful of routes and interfaces, with platform faults and
// restarts, against a plain model.
//
// The first byte of an input chooses its settings; each operation takes a byte that names it, with
// bit 0x80 for a fault that is armed for it, and a few bytes of its own. Names beyond the first
// list of operations mean them again; so a new operation takes the last names, and the corpus keeps
// its sense.
#include "tests/fuzz/operations/complaint.h"
#include "tests/fuzz/operations/world.h"

namespace fuzz {
namespace {

constexpr size_t most_operations = 80;
constexpr size_t operations_between_checks = 8;  // of the whole window, which take their time

}  // namespace

void world::step(input &in) {
    // Weighted by repetition: routes and interfaces first of all.
    using operation = void (world::*)(input &);
    static constexpr operation operations[] = {
        &world::create_route,
        &world::create_route,
        &world::create_route,
        &world::commit_pending_route,
        &world::change_route,
        &world::change_route,
        &world::delete_route,
        &world::clear_route,
        &world::mark_srd,
        &world::create_intf,
        &world::commit_pending_intf,
        &world::add_intf,
        &world::add_intf,
        &world::add_intf,
        &world::change_intf,
        &world::commit_again_as_new,
        &world::delete_intf,
        &world::clear_pending_intf,
        &world::lock_interface,
        &world::look_up,
        &world::try_odd_calls,
        &world::post_signal,
        &world::post_signal,
        &world::probe_signal,
        &world::remove_signal,
        &world::remove_signals_of_route,
        &world::drain_changed_routes,
        &world::look_up_signal,
        &world::set_capacity,
        &world::raise_async_error,
        &world::let_time_pass,
        &world::not_ready,
        // From here on those that take more than one route away.
        &world::operate_on_table,
        &world::operate_on_table,
        &world::operate_on_table,
        &world::walk_all_tables,
        &world::delete_all_routes,
        &world::walk_and_delete,
        &world::remove_all_signals,
        &world::restart,
    };
    constexpr size_t first_that_ends_pending = 32;
    // The last names: what ties routes to encaps and to other tables.
    static constexpr operation link_operations[] = {
        &world::fail_by_hand,      &world::turn_egress,     &world::turn_egress,
        &world::turn_egress,       &world::turn_output,     &world::turn_output,
        &world::give_encap,        &world::give_encap,      &world::give_encap,
        &world::make_or_end_encap, &world::commit_encap,    &world::link_core_route,
        &world::link_core_route,   &world::link_core_route, &world::unlink_core_route,
        &world::turn_mdt_master,
    };
    constexpr size_t first_link_operation = 0x80 - std::size(link_operations);
    const uint8_t shape = in.byte();
    const size_t named = shape & 0x7fU;
    const bool is_link = named >= first_link_operation;
    const size_t n = named % std::size(operations);
    if (!is_link && n >= first_that_ends_pending) {
        for (auto &each : tids_) {
            give_up_pending(*each.second);
        }
    }
    if ((shape & 0x80) != 0) {
        arm_fault(in);
    }
    (this->*(is_link ? link_operations[named - first_link_operation] : operations[n]))(in);
    hw_.heal();
    compare();
}

namespace {

void run(input &in) {
    start_process();
    forget_notes();
    const uint8_t shape = in.byte();
    world w({(shape & 1) != 0, (shape & 2) != 0});
    if ((shape & 8) == 0) {
        w.make_tables();
    }
    for (size_t n = 0; n < most_operations && !in.empty(); ++n) {
        w.step(in);
        const bool is_last = in.empty() || n + 1 == most_operations;
        if ((is_last || n % operations_between_checks == 0) && !w.is_in_the_middle()) {
            check_window();
        }
    }
    w.end((shape & 4) != 0);
}

}  // namespace
}  // namespace fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size) {
    fuzz::input in(bytes, size);
    fuzz::run(in);
    return 0;
}
