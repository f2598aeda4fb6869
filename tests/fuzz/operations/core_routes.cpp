// Routes of the default table that feed a customer's table: their links, and the flag that follows
// the local egress there.
#include <algorithm>
#include <cerrno>

#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "tests/fuzz/operations/complaint.h"
#include "tests/fuzz/operations/world.h"

namespace fuzz {
namespace {

constexpr uint32_t customer_tid = tids[0];
constexpr uint32_t core_tid = tids[1];

bool is_on_list(const route &r) {
    const auto &list = r.feeds->core_routes;
    return std::find(list.begin(), list.end(), &r) != list.end();
}

}  // namespace

// ---- the calls
// -----------------------------------------------------------------------------------

void world::link_core_route(input &in) {
    tid_table *core = find_tid(core_tid);
    route *r = pick_route(in, core != nullptr && core->active ? core : nullptr);
    const uint8_t shape = in.byte();
    if (r == nullptr) {
        return;
    }
    const uint32_t index = (shape & 1) != 0 ? IPV4MC_VRF_REMOTE : IPV4MC_VRF_LOCAL;
    // Without either bit only a DELETE takes the link back.
    constexpr uint64_t bits[] = {MRIB_ROUTE_TID_STICKY, MRIB_ROUTE_TID_DEMAND, 0,
                                 MRIB_ROUTE_TID_STICKY};
    const uint64_t bit = bits[(shape >> 1) & 3];
    note("link route %s to its customer, %s", r->key.text().c_str(),
         index == IPV4MC_VRF_LOCAL ? "local" : "remote");
    r->attributes = r->record->attributes = r->attributes | bit;
    const cerrno wanted = index == IPV4MC_VRF_LOCAL ? model_link_local(*r) : model_link_remote(*r);
    expect_equal(ip6mc_route_link_route_to_vrf(r->record, index, customer_tid, "core"), wanted,
                 "result of a core route's link");
    learn_records();
}

void world::unlink_core_route(input &in) {
    route *r = pick_route(in, find_tid(core_tid));
    const uint8_t shape = in.byte();
    if (r == nullptr) {
        return;
    }
    const uint32_t index = (shape & 1) != 0 ? IPV4MC_VRF_REMOTE : IPV4MC_VRF_LOCAL;
    note("unlink route %s from its customer, %s", r->key.text().c_str(),
         index == IPV4MC_VRF_LOCAL ? "local" : "remote");
    model_unlink_core(*r, index);
    ip6mc_route_unlink_route_from_vrf(r->record, index, "core");
}

void world::turn_mdt_master(input &in) {
    tid_table *customer = find_tid(customer_tid);
    const bool on = in.flag();
    if (customer != nullptr) {
        note("customer is MDT master %d", on);
        customer->is_mdt_master = on;
        customer->record->mdt_master_lc = on ? 1 : 0;
    }
}

// What the owner of the counts calls behind the first and the last local egress.
void world::update_core_routes(tid_table &customer, bool set) {
    model_update_core_routes(customer, set);
    expect_equal(ip6mc_tbl_update_memd_routes(customer.record, set ? 1 : 0), 0,
                 "result of the update of core routes");
}

// ---- the model
// -----------------------------------------------------------------------------------

cerrno world::model_link_remote(route &r) {
    r.remote_id = customer_tid;
    r.attributes |= MRIB_ROUTE_DT_REMOTE;
    return 0;
}

cerrno world::model_link_local(route &r) {
    // Neighbours on the list tell of a link; a list of one has none.
    if (r.feeds != nullptr && is_on_list(r) && r.feeds->core_routes.size() > 1) {
        return 0;
    }
    r.local_id = customer_tid;
    const table_answer made =
        model_table({IPV4MC_ACTION_CREATE, customer_tid, 0, "", true, nullptr, nullptr, 0});
    if (made.rc != 0 || made.tid_side == nullptr) {
        return ENOENT;
    }
    tid_table &customer = *made.tid_side;
    if (r.feeds != nullptr) {
        return r.feeds == &customer && is_on_list(r) ? 0 : ENOENT;
    }
    const bool wanted =
        customer.local_egress != 0 || (customer.is_mdt_master && !r.has(MRIB_ROUTE_TID_DEMAND));
    r.feeds = &customer;
    customer.core_routes.push_front(&r);
    r.attributes = wanted ? r.attributes | MRIB_ROUTE_DT : r.attributes & ~uint64_t{MRIB_ROUTE_DT};
    return 0;
}

void world::model_unlink_core(route &r, uint32_t index) {
    if (index == IPV4MC_VRF_REMOTE) {
        r.remote_id = 0;
        r.attributes &= ~uint64_t{MRIB_ROUTE_DT_REMOTE};
        return;
    }
    model_leave_customer(r);
    r.local_id = 0;
    r.attributes &= ~uint64_t{MRIB_ROUTE_DT};
}

void world::model_leave_customer(route &r) {
    if (r.feeds != nullptr) {
        r.feeds->core_routes.remove(&r);
        r.feeds = nullptr;
    }
}

// The table goes, its core routes stay.
void world::model_drop_core_routes(tid_table &customer) {
    for (route *r : customer.core_routes) {
        r->feeds = nullptr;
    }
    customer.core_routes.clear();
}

void world::model_update_core_routes(tid_table &customer, bool set) {
    if (customer.tid == core_tid || (!set && customer.local_egress != 0)) {
        return;
    }
    for (route *r : customer.core_routes) {
        model_update_core_route(customer, *r, set);
    }
}

void world::model_update_core_route(const tid_table &customer, route &r, bool set) {
    const bool keeps =
        set ? r.has(MRIB_ROUTE_TID_DEMAND) && customer.is_mdt_master && customer.local_egress == 0
            : r.has(MRIB_ROUTE_TID_STICKY) && customer.is_mdt_master;
    if (r.has(MRIB_ROUTE_DT) == set || keeps) {
        return;
    }
    const uint64_t old = r.attributes;
    r.attributes ^= MRIB_ROUTE_DT;
    if (model_commit_existing(r, old) != 0) {
        r.attributes &= ~uint64_t{MRIB_ROUTE_DT};
    }
}

// ---- the comparison
// ------------------------------------------------------------------------------

void world::compare_core_routes(const tid_table &customer) {
    const std::string where = "table " + std::to_string(customer.tid & 0xff);
    const ipv4mc_route_entry_st *at = customer.record->memd_route_list;
    const ipv4mc_route_entry_st *before = nullptr;
    for (const route *r : customer.core_routes) {
        expect_same<ipv4mc_route_entry_st>(at, r->record, "core route", where);
        expect_same<ipv4mc_route_entry_st>(at->memd_prev[IPV4MC_VRF_LOCAL], before,
                                           "core route before", where);
        before = at;
        at = at->memd_next[IPV4MC_VRF_LOCAL];
    }
    expect_same<ipv4mc_route_entry_st>(at, nullptr, "core route behind the last", where);
}

void world::compare_core_links(const route &r) {
    const std::string where = r.key.text();
    expect_same<ipv4mc_table_st>(r.record->vrf_table[IPV4MC_VRF_LOCAL],
                                 r.feeds == nullptr ? nullptr : r.feeds->record, "customer", where);
    expect_equal(r.record->vrf_table_id[IPV4MC_VRF_LOCAL], r.local_id, "customer's id", where);
    expect_same<ipv4mc_table_st>(r.record->vrf_table[IPV4MC_VRF_REMOTE], nullptr, "remote customer",
                                 where);
    expect_equal(r.record->vrf_table_id[IPV4MC_VRF_REMOTE], r.remote_id, "remote customer's id",
                 where);
}

}  // namespace fuzz
