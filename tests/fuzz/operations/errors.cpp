// A platform that refuses, is full, or reports an error long after the call.
#include <cerrno>

#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "ipv4/multicast/lib/ip6mc_platform_err.h"
#include "services/events/ptimer.h"
#include "tests/fuzz/operations/complaint.h"
#include "tests/fuzz/operations/world.h"

namespace fuzz {
namespace {

constexpr uint64_t longer_than_retry_ns = (IPMC_RETRY_PERIOD_SECONDS + 1) * UINT64_C(1000000000);
constexpr cerrno hardware_error = 5;

struct fault_kind {
    sim_op op;
    uint32_t action;
};
constexpr fault_kind fault_kinds[] = {
    {SIM_OP_ROUTE, IPV4MC_ACTION_COMMIT}, {SIM_OP_ROUTE, IPV4MC_ACTION_DELETE},
    {SIM_OP_ROUTE, SIM_ANY_ACTION},       {SIM_OP_INTF, IPV4MC_ACTION_CREATE},
    {SIM_OP_INTF, IPV4MC_ACTION_COMMIT},  {SIM_OP_INTF, IPV4MC_ACTION_DELETE},
    {SIM_OP_INTF, SIM_ANY_ACTION},        {SIM_OP_IDB, IPV4MC_IDB_OP_CREATE},
    {SIM_OP_IDB, IPV4MC_IDB_OP_DESTROY},  {SIM_OP_TABLE, SIM_ANY_ACTION},
    {SIM_OP_TABLE, SIM_ANY_ACTION},       {SIM_OP_CHANGE_IF_PARENT, SIM_ANY_ACTION},
};
constexpr fault_kind encap_fault_kinds[] = {
    {SIM_OP_ROUTE_UPDATE, SIM_ANY_ACTION},
    {SIM_OP_ENCAP, SIM_ANY_ACTION},
    {SIM_OP_ENCAP_UPDATE, SIM_ANY_ACTION},
};
constexpr uint32_t first_encap_fault = 32 - std::size(encap_fault_kinds);
constexpr uint32_t fault_points[] = {MLIB_FAULT_ROUTE_COMMIT, MLIB_FAULT_INTF_CREATE,
                                     MLIB_FAULT_INTF_COMMIT, MLIB_FAULT_TABLE_CREATE,
                                     MLIB_FAULT_TABLE_COMMIT};

}  // namespace

void world::arm_fault(input &in) {
    const uint8_t shape = in.byte();
    if ((shape & 0x1fU) >= first_encap_fault) {
        const fault_kind &kind = encap_fault_kinds[(shape & 0x1fU) - first_encap_fault];
        note("fault %s after %u", sim_op_name(kind.op), (shape >> 5) & 3U);
        hw_.arm(kind.op, kind.action, (shape >> 5) & 3U, hardware_error);
        return;
    }
    const size_t kinds = std::size(fault_kinds) + std::size(fault_points);
    const size_t n = (shape & 0x1fU) % kinds;
    if (n >= std::size(fault_kinds)) {
        note("fault point %u", fault_points[n - std::size(fault_kinds)]);
        hw_.arm_point(fault_points[n - std::size(fault_kinds)]);
        return;
    }
    const cerrno code =
        n == 3 && (shape & 0x80) != 0 ? IP6MC_PLATFORM_QUIET_REFUSAL : hardware_error;
    note("fault %s action %u after %u", sim_op_name(fault_kinds[n].op), fault_kinds[n].action,
         (shape >> 5) & 3U);
    hw_.arm(fault_kinds[n].op, fault_kinds[n].action, (shape >> 5) & 3U, code);
}

void world::set_capacity(input &in) {
    const uint8_t shape = in.byte();
    constexpr ip6mc_platform_kind kinds[] = {IP6MC_PLATFORM_TABLE, IP6MC_PLATFORM_ROUTE,
                                             IP6MC_PLATFORM_INTF, IP6MC_PLATFORM_IDB};
    const uint64_t most = (shape >> 2) > 40 ? SIM_NO_LIMIT : shape >> 3;
    note("capacity of kind %u: %lu", kinds[shape & 3], most);
    hw_.set_capacity(kinds[shape & 3], most);
}

// What a failed call of the platform comes to: with asynchronous handling the library takes it on.
cerrno world::fail_sync(route &r, cerrno rc) {
    if (!async_) {
        return rc;
    }
    queue(r);
    return 0;
}

void world::queue(route &r) {
    if (!r.err) {
        r.err = true;
        retry_queue_.push_back({&r, nullptr});
    }
}

void world::queue(encap &e) {
    if (async_ && !e.queued) {
        e.queued = true;
        retry_queue_.push_back({nullptr, &e});
    }
}

void world::unqueue(route &r) {
    r.err = false;
    retry_queue_.remove({&r, nullptr});
}

void world::unqueue(encap &e) {
    e.queued = false;
    retry_queue_.remove({nullptr, &e});
}

void world::raise_async_error(input &in) {
    route *r = pick_route(in, pick_table(in));
    const uint8_t shape = in.byte();
    if (r == nullptr || !async_) {
        return;
    }
    const intf *entry = (shape & 4) != 0 && !r->intfs.empty() ? r->intfs.front().get() : nullptr;
    const uint64_t id = entry != nullptr ? entry->record->obj_id : r->obj_id;
    const uint32_t oor_error = (shape & 3U) % 3;
    if (id >= IPMC_OBJ_ID_NONE) {
        return;
    }
    note("asynchronous error %u of %s of %s", oor_error, entry != nullptr ? "interface" : "route",
         r->key.text().c_str());
    if (oor_error == IPMC_OOR_ERROR_PLAIN) {
        queue(*r);
    } else {
        r->oor = r->oor || entry == nullptr || oor_error == IPMC_OOR_ERROR_FULL;
        oor_mode_ = true;
    }
    expect_equal(sim_raise_async_error(id, oor_error, hardware_error), 0,
                 "result of an asynchronous error");
}

// What the rooms of the library call when a call of the platform fails, called directly.
void world::fail_by_hand(input &in) {
    route *r = pick_any_route(in, pick_table(in));
    const uint8_t shape = in.byte();
    intf *entry = r == nullptr ? nullptr : nth_intf(*r, shape >> 4);
    if (r == nullptr) {
        return;
    }
    note("failure by hand %u of %s", shape % 7, r->key.text().c_str());
    const cerrno passed_on = async_ ? 0 : hardware_error;
    switch (shape % 7) {
        case 0:
            unqueue(*r);
            ipmc_platform_err_handler_clear_route_err(r->record);
            break;
        case 1:
            fail_sync(*r, hardware_error);
            expect_equal(ipmc_platform_err_handler_sync_route(r->record, hardware_error), passed_on,
                         "failure of a route");
            break;
        case 2:
            if (entry != nullptr) {
                fail_sync(*r, hardware_error);
            }
            expect_equal(ipmc_platform_err_handler_sync_intf(
                             entry == nullptr ? nullptr : entry->record, r->record, hardware_error),
                         entry == nullptr && async_ ? EINVAL : passed_on,
                         "failure of an interface");
            break;
        case 3:
            if (async_) {
                queue(*r);
            }
            expect_equal(ipmc_platform_err_handler_async_route_err(r->record), 0,
                         "late failure of a route");
            break;
        case 4:
            r->oor = r->oor || (async_ && entry != nullptr);
            expect_equal(ipmc_platform_err_handler_async_intf_oor(
                             entry == nullptr ? nullptr : entry->record, nullptr),
                         entry == nullptr && async_ ? EINVAL : 0, "full for an interface");
            break;
        case 5:
            if (!r->err) {
                expect_equal(ipmc_retry_msg_queue_rem_route(r->record), EINVAL,
                             "removal of what is not queued");
            }
            break;
        default:
            fail_encap_by_hand((shape & 0x80) != 0);
            break;
    }
}

void world::fail_encap_by_hand(bool queued) {
    for (auto &each : encaps_) {
        encap &e = each.second;
        if (!queued) {
            unqueue(e);
            ipmc_platform_err_handler_clear_encap_err(e.record);
            continue;
        }
        queue(e);
        expect_equal(ipmc_platform_err_handler_sync_encap(e.record, hardware_error),
                     async_ ? 0 : hardware_error, "failure of an encap");
    }
    // Neither is an element.
    dlqueue_node_t *const list = ipv4mc_desc->shmwin_info->retry_queue;
    ipmc_retry_msg_queue_rem_element(list, nullptr);
    ipmc_retry_msg_queue_rem_element(list, list);
}

void world::let_time_pass(input &) {
    if (!async_) {
        return;
    }
    note("a minute passes");
    ptimer_test_clock_advance(longer_than_retry_ns);
    uint32_t dispatched = 0;
    event_manager_run_once(evm_.get(), 0, &dispatched);
}

}  // namespace fuzz
