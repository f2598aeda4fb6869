// What the simulated hardware should hold, and which call of the seam it should refuse.
#ifndef MFWD6_TESTS_FUZZ_OPERATIONS_HARDWARE_H
#define MFWD6_TESTS_FUZZ_OPERATIONS_HARDWARE_H

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "ipv4/multicast/lib/ip6mc_diag.h"
#include "platforms/sim/sim.h"
#include "tests/fuzz/operations/keys.h"

namespace fuzz {

class hardware {
  public:
    // ---- what goes wrong with the next operation
    // ------------------------------------------------

    void arm(sim_op op, uint32_t action, uint64_t after, cerrno code);
    void arm_point(uint32_t fault_point);
    void heal();  // compares what was refused, and disarms

    // True, once, when the library's own fault point is armed.
    bool point_hit(uint32_t fault_point);

    void set_capacity(ip6mc_platform_kind kind, uint64_t most);

    // ---- calls of the seam: 0 or the refusal, as the library gets it
    // ----------------------------

    cerrno tid_call(ipv4mc_action_type action, uint32_t tid);
    cerrno vrf_call(ipv4mc_action_type action, uint32_t vrf_id, const std::string &name);

    struct told_route {
        uint32_t tid;
        route_id id;
        uint64_t attributes;
        uint64_t obj_id;
        uint32_t encap_id;
    };
    cerrno route_call(ipv4mc_action_type action, const told_route &route);

    struct told_intf {
        uint32_t tid;
        route_id route;
        intf_id id;
        ifhtype ifh;
        uint32_t intf_arg;
        uint64_t attributes;
        uint64_t obj_id;
    };
    cerrno intf_call(ipv4mc_action_type action, const told_intf &intf);
    void learn_id(const told_intf &intf);  // ids are the library's choice

    cerrno change_parent_call() { return refusal(SIM_OP_CHANGE_IF_PARENT, 0); }
    cerrno idb_call(ipv4mc_idb_op action, ifhtype ifh);
    cerrno route_update_call(const told_route &route, uint32_t encap_id);
    cerrno encap_call(ipv4mc_action_type action, uint32_t encap_id, uint8_t lookup);
    cerrno encap_update_call(uint32_t encap_id, uint8_t lookup);

    // ---- the proof
    // ------------------------------------------------------------------------------

    void compare() const;
    bool empty() const;

  private:
    struct held_vrf {
        bool live;
        uint32_t vrf_id;
        std::string name;
        bool active;
    };
    struct held_route {
        bool committed;
        uint64_t attributes;
        uint64_t obj_id;
        uint32_t encap_id;
    };
    struct held_intf {
        bool committed;
        ifhtype ifh;
        uint32_t intf_arg;
        uint64_t attributes;
        uint64_t obj_id;
    };
    using route_key = std::pair<uint32_t, route_id>;
    using intf_key = std::tuple<uint32_t, route_id, intf_id>;

    cerrno refusal(sim_op op, uint32_t action);
    cerrno table_refusal(ipv4mc_action_type action);
    bool full(ip6mc_platform_kind kind) const;
    cerrno vrf_action(ipv4mc_action_type action, uint32_t vrf_id, const std::string &name);
    size_t find_vrf(uint32_t vrf_id, const std::string &name) const;
    void drop_intfs_of(uint32_t tid, const route_id *route);
    void compare_tables(const std::vector<ip6mc_platform_held_st> &held) const;
    void compare_routes(const std::vector<ip6mc_platform_held_st> &held) const;
    void compare_intfs(const std::vector<ip6mc_platform_held_st> &held) const;
    void compare_idbs(const std::vector<ip6mc_platform_held_st> &held) const;
    void compare_encaps(const std::vector<ip6mc_platform_held_st> &held) const;

    struct fault {
        sim_op op;
        uint32_t action;
        uint64_t after;
        cerrno code;
    };
    std::optional<fault> fault_;
    std::optional<uint32_t> point_;
    uint64_t refused_ = 0;

    std::map<ip6mc_platform_kind, uint64_t> capacity_;
    std::map<uint32_t, bool> tids_;  // with its activity
    std::vector<held_vrf> vrfs_;     // by slot: the first that fits is meant
    std::vector<size_t> free_vrfs_;  // taken again latest first
    std::map<route_key, held_route> routes_;
    std::map<intf_key, held_intf> intfs_;
    std::set<ifhtype> idbs_;
    std::map<uint32_t, uint8_t> encaps_;  // with their IP lookup
};

}  // namespace fuzz

#endif
