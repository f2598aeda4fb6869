#include "tests/fuzz/operations/hardware.h"

#include <cerrno>

#include "tests/fuzz/operations/complaint.h"

namespace fuzz {
namespace {

bool makes(ipv4mc_action_type action) {
    return action == IPV4MC_ACTION_CREATE || action == IPV4MC_ACTION_COMMIT ||
           action == IPV4MC_ACTION_ACTIVATE;
}

bool ends_activity(ipv4mc_action_type action) {
    return action == IPV4MC_ACTION_DEACTIVATE || action == IPV4MC_ACTION_CLEAR;
}

route_id id_of(const ip6mc_platform_held_st &held) {
    return {held.group, held.source, held.pfx_len};
}

std::vector<ip6mc_platform_held_st> all_of(ip6mc_platform_kind kind) {
    std::vector<ip6mc_platform_held_st> result;
    ip6mc_platform_enumerate(
        kind,
        [](const ip6mc_platform_held_st *held, void *context) -> cerrno {
            static_cast<std::vector<ip6mc_platform_held_st> *>(context)->push_back(*held);
            return 0;
        },
        &result);
    return result;
}

constexpr size_t no_vrf = SIZE_MAX;

}  // namespace

// ---- what goes wrong
// -----------------------------------------------------------------------------

void hardware::arm(sim_op op, uint32_t action, uint64_t after, cerrno code) {
    fault_ = fault{op, action, after, code};
    sim_arm_fault(op, action, after, 1, code);
}

void hardware::arm_point(uint32_t fault_point) {
    point_ = fault_point;
    fim_arm(mlib_fim_hdl, fault_point, 0, 1);
}

void hardware::heal() {
    expect_equal(sim_faults_hit(), refused_, "calls refused by the armed fault");
    sim_clear_faults();
    fim_disarm_all(mlib_fim_hdl);
    fault_.reset();
    point_.reset();
}

bool hardware::point_hit(uint32_t fault_point) {
    if (point_ != fault_point) {
        return false;
    }
    point_.reset();
    return true;
}

void hardware::set_capacity(ip6mc_platform_kind kind, uint64_t most) {
    capacity_[kind] = most;
    sim_set_capacity(kind, most);
}

cerrno hardware::refusal(sim_op op, uint32_t action) {
    if (!fault_ || fault_->op != op ||
        (fault_->action != action && fault_->action != SIM_ANY_ACTION)) {
        return 0;
    }
    if (fault_->after != 0) {
        --fault_->after;
        return 0;
    }
    const cerrno code = fault_->code;
    fault_.reset();
    ++refused_;
    return code;
}

bool hardware::full(ip6mc_platform_kind kind) const {
    const auto limit = capacity_.find(kind);
    if (limit == capacity_.end()) {
        return false;
    }
    size_t held = 0;
    switch (kind) {
        case IP6MC_PLATFORM_TABLE:
            held = tids_.size() + vrfs_.size() - free_vrfs_.size();
            break;
        case IP6MC_PLATFORM_ROUTE:
            held = routes_.size();
            break;
        case IP6MC_PLATFORM_INTF:
            held = intfs_.size();
            break;
        case IP6MC_PLATFORM_ENCAP:
            held = encaps_.size();
            break;
        default:
            held = idbs_.size();
            break;
    }
    return held >= limit->second;
}

// ---- tables
// ---------------------------------------------------------------------------------------

cerrno hardware::table_refusal(ipv4mc_action_type action) {
    if (const cerrno refused = refusal(SIM_OP_TABLE, action); refused != 0) {
        return refused;
    }
    const bool hit = (action == IPV4MC_ACTION_CREATE && point_hit(MLIB_FAULT_TABLE_CREATE)) ||
                     (action == IPV4MC_ACTION_COMMIT && point_hit(MLIB_FAULT_TABLE_COMMIT));
    return hit ? cerrno{EAGAIN} : 0;
}

cerrno hardware::tid_call(ipv4mc_action_type action, uint32_t tid) {
    if (const cerrno refused = table_refusal(action); refused != 0) {
        return refused;
    }
    if (makes(action) && !tids_.contains(tid)) {
        if (full(IP6MC_PLATFORM_TABLE)) {
            return ENOSPC;
        }
        tids_[tid] = false;
    }
    if (!tids_.contains(tid)) {
        return 0;
    }
    if (action == IPV4MC_ACTION_ACTIVATE) {
        tids_[tid] = true;
    } else if (ends_activity(action)) {
        tids_[tid] = false;
    } else if (action == IPV4MC_ACTION_DELETE) {
        drop_intfs_of(tid, nullptr);
        std::erase_if(routes_, [&](const auto &each) { return each.first.first == tid; });
        tids_.erase(tid);
    }
    return 0;
}

cerrno hardware::vrf_call(ipv4mc_action_type action, uint32_t vrf_id, const std::string &name) {
    const cerrno refused = table_refusal(action);
    return refused != 0 ? refused : vrf_action(action, vrf_id, name);
}

size_t hardware::find_vrf(uint32_t vrf_id, const std::string &name) const {
    for (size_t slot = 0; slot < vrfs_.size(); ++slot) {
        const held_vrf &vrf = vrfs_[slot];
        if (vrf.live &&
            ((vrf_id != 0 && vrf.vrf_id == vrf_id) || (!name.empty() && vrf.name == name))) {
            return slot;
        }
    }
    return no_vrf;
}

cerrno hardware::vrf_action(ipv4mc_action_type action, uint32_t vrf_id, const std::string &name) {
    if (vrf_id == 0 && name.empty()) {
        return EINVAL;
    }
    size_t slot = find_vrf(vrf_id, name);
    if (slot == no_vrf) {
        if (!makes(action)) {
            return 0;
        }
        if (full(IP6MC_PLATFORM_TABLE)) {
            return ENOSPC;
        }
        if (free_vrfs_.empty()) {
            slot = vrfs_.size();
            vrfs_.emplace_back();
        } else {
            slot = free_vrfs_.back();
            free_vrfs_.pop_back();
        }
        vrfs_[slot] = {true, 0, "", false};
    }
    held_vrf &vrf = vrfs_[slot];
    if (makes(action)) {
        vrf.vrf_id = vrf_id != 0 ? vrf_id : vrf.vrf_id;
        vrf.name = name.empty() ? vrf.name : name;
    }
    if (action == IPV4MC_ACTION_ACTIVATE) {
        vrf.active = true;
    } else if (ends_activity(action)) {
        vrf.active = false;
    } else if (action == IPV4MC_ACTION_DELETE) {
        vrf.live = false;
        free_vrfs_.push_back(slot);
    }
    return 0;
}

// ---- routes and their interfaces
// ------------------------------------------------------------------

void hardware::drop_intfs_of(uint32_t tid, const route_id *route) {
    std::erase_if(intfs_, [&](const auto &each) {
        return std::get<0>(each.first) == tid &&
               (route == nullptr || std::get<1>(each.first) == *route);
    });
}

cerrno hardware::route_call(ipv4mc_action_type action, const told_route &route) {
    if (const cerrno refused = refusal(SIM_OP_ROUTE, action); refused != 0) {
        return refused;
    }
    if (action == IPV4MC_ACTION_CREATE && point_hit(MLIB_FAULT_ROUTE_CREATE)) {
        return EAGAIN;
    }
    const route_key key{route.tid, route.id};
    const auto found = routes_.find(key);
    if (makes(action)) {
        if (found == routes_.end() && full(IP6MC_PLATFORM_ROUTE)) {
            return ENOSPC;
        }
        const bool was_committed = found != routes_.end() && found->second.committed;
        routes_[key] = {was_committed || action == IPV4MC_ACTION_COMMIT, route.attributes,
                        route.obj_id, route.encap_id};
    } else if (action == IPV4MC_ACTION_DELETE) {
        routes_.erase(key);
        drop_intfs_of(route.tid, &route.id);
    } else if (action == IPV4MC_ACTION_CLEAR) {
        drop_intfs_of(route.tid, &route.id);
        if (found != routes_.end()) {
            found->second.attributes = route.attributes;
        }
    }
    return 0;
}

cerrno hardware::intf_call(ipv4mc_action_type action, const told_intf &intf) {
    if (const cerrno refused = refusal(SIM_OP_INTF, action); refused != 0) {
        return refused;
    }
    const intf_key key{intf.tid, intf.route, intf.id};
    const auto found = intfs_.find(key);
    if (makes(action)) {
        if (found == intfs_.end() && full(IP6MC_PLATFORM_INTF)) {
            return ENOSPC;
        }
        const bool was_committed = found != intfs_.end() && found->second.committed;
        intfs_[key] = {was_committed || action == IPV4MC_ACTION_COMMIT, intf.ifh, intf.intf_arg,
                       intf.attributes, intf.obj_id};
    } else if (action == IPV4MC_ACTION_DELETE || action == IPV4MC_ACTION_CLEAR) {
        intfs_.erase(key);
    }
    return 0;
}

// A route that is not held takes the change with its COMMIT.
cerrno hardware::route_update_call(const told_route &route, uint32_t encap_id) {
    if (const cerrno refused = refusal(SIM_OP_ROUTE_UPDATE, IPV4MC_ROUTE_UPDATE_ENCAP);
        refused != 0) {
        return refused;
    }
    const auto found = routes_.find({route.tid, route.id});
    if (found != routes_.end()) {
        found->second.encap_id = encap_id;
    }
    return 0;
}

cerrno hardware::encap_call(ipv4mc_action_type action, uint32_t encap_id, uint8_t lookup) {
    if (const cerrno refused = refusal(SIM_OP_ENCAP, action); refused != 0) {
        return refused;
    }
    if (action == IPV4MC_ACTION_DELETE) {
        encaps_.erase(encap_id);
    } else if (!encaps_.contains(encap_id) && full(IP6MC_PLATFORM_ENCAP)) {
        return ENOSPC;
    } else {
        encaps_[encap_id] = lookup;
    }
    return 0;
}

cerrno hardware::encap_update_call(uint32_t encap_id, uint8_t lookup) {
    if (const cerrno refused = refusal(SIM_OP_ENCAP_UPDATE, IPV4MC_ENCAP_UPDATE_IP_LKP);
        refused != 0) {
        return refused;
    }
    const auto found = encaps_.find(encap_id);
    if (found != encaps_.end()) {
        found->second = lookup;
    }
    return 0;
}

void hardware::learn_id(const told_intf &intf) {
    const auto found = intfs_.find({intf.tid, intf.route, intf.id});
    if (found != intfs_.end()) {
        found->second.obj_id = intf.obj_id;
    }
}

cerrno hardware::idb_call(ipv4mc_idb_op action, ifhtype ifh) {
    if (const cerrno refused = refusal(SIM_OP_IDB, action); refused != 0) {
        return refused;
    }
    if (action == IPV4MC_IDB_OP_DESTROY) {
        idbs_.erase(ifh);
    } else if (action == IPV4MC_IDB_OP_CREATE && !idbs_.contains(ifh)) {
        if (full(IP6MC_PLATFORM_IDB)) {
            return ENOSPC;
        }
        idbs_.insert(ifh);
    }
    return 0;
}

// ---- the proof
// ------------------------------------------------------------------------------------

bool hardware::empty() const {
    return tids_.empty() && vrfs_.size() == free_vrfs_.size() && routes_.empty() &&
           intfs_.empty() && idbs_.empty() && encaps_.empty();
}

void hardware::compare() const {
    compare_tables(all_of(IP6MC_PLATFORM_TABLE));
    compare_routes(all_of(IP6MC_PLATFORM_ROUTE));
    compare_intfs(all_of(IP6MC_PLATFORM_INTF));
    compare_idbs(all_of(IP6MC_PLATFORM_IDB));
    compare_encaps(all_of(IP6MC_PLATFORM_ENCAP));
}

void hardware::compare_tables(const std::vector<ip6mc_platform_held_st> &held) const {
    expect_equal(held.size(), tids_.size() + vrfs_.size() - free_vrfs_.size(),
                 "tables in hardware");
    for (const auto &table : held) {
        if (table.tid != 0) {
            const auto found = tids_.find(table.tid);
            if (found == tids_.end()) {
                complain("hardware holds table 0x%x, which it should not", table.tid);
            }
            expect_equal(table.active, found->second, "table in hardware active");
            continue;
        }
        const size_t slot = find_vrf(table.vrf_id, table.vrf_name);
        if (slot == no_vrf) {
            complain("hardware holds VRF 0x%x/%s, which it should not", table.vrf_id,
                     table.vrf_name);
        }
    }
}

void hardware::compare_routes(const std::vector<ip6mc_platform_held_st> &held) const {
    expect_equal(held.size(), routes_.size(), "routes in hardware");
    for (const auto &route : held) {
        const auto found = routes_.find({route.tid, id_of(route)});
        const std::string where =
            "route in hardware " + named_key{route.group, route.source, route.pfx_len}.text();
        if (found == routes_.end()) {
            complain("%s should not be there", where.c_str());
        }
        expect_equal(route.attributes, found->second.attributes, "attributes", where);
        expect_equal(route.active, found->second.committed, "committed", where);
        expect_equal(route.obj_id, found->second.obj_id, "object id", where);
        expect_equal(route.encap_id, found->second.encap_id, "encap", where);
    }
}

void hardware::compare_intfs(const std::vector<ip6mc_platform_held_st> &held) const {
    expect_equal(held.size(), intfs_.size(), "interfaces of routes in hardware");
    for (const auto &intf : held) {
        const named_intf named{intf.intf_type, intf.ifh, intf.amt_addr, intf.amt_port};
        const auto found = intfs_.find({intf.tid, id_of(intf), named.id()});
        const std::string where = "interface " + std::to_string(intf.ifh) + " in hardware of " +
                                  named_key{intf.group, intf.source, intf.pfx_len}.text();
        if (found == intfs_.end()) {
            complain("%s should not be there", where.c_str());
        }
        expect_equal(intf.attributes, found->second.attributes, "attributes", where);
        expect_equal(intf.active, found->second.committed, "committed", where);
        expect_equal(intf.ifh, found->second.ifh, "handle", where);
        expect_equal(intf.parent_ifh, found->second.intf_arg, "handle underneath", where);
        expect_equal(intf.obj_id, found->second.obj_id, "object id", where);
    }
}

void hardware::compare_idbs(const std::vector<ip6mc_platform_held_st> &held) const {
    expect_equal(held.size(), idbs_.size(), "interfaces in hardware");
    for (const auto &idb : held) {
        if (!idbs_.contains(idb.ifh)) {
            complain("hardware holds interface %u, which it should not", idb.ifh);
        }
    }
}

void hardware::compare_encaps(const std::vector<ip6mc_platform_held_st> &held) const {
    expect_equal(held.size(), encaps_.size(), "encaps in hardware");
    for (const auto &encap : held) {
        const auto found = encaps_.find(encap.encap_id);
        if (found == encaps_.end()) {
            complain("hardware holds encap 0x%x, which it should not", encap.encap_id);
        }
        expect_equal(encap.value, found->second, "IP lookup of an encap in hardware");
    }
}

}  // namespace fuzz
