// One random operation of the owner.
#ifndef MFWD6_TESTS_CRASH_WORKLOAD_STEP_H
#define MFWD6_TESTS_CRASH_WORKLOAD_STEP_H

#include <atomic>
#include <cstddef>

#include "tests/crash/workload/operations.h"
#include "tests/crash/workload/workload.h"

namespace crash {

template <class T, size_t N>
T one_of(generator &random, const T (&choices)[N]) {
    return choices[random() % N];
}

// Each kind of operation is a member; where what it needs is not there, it makes a route instead.
class step {
  public:
    step(generator &random, const before_point &before) : random_(random), before_(before) {}

    void run();

  private:
    uint32_t number(uint32_t below) { return static_cast<uint32_t>(random_() % below); }

    // Notes the operation, lets whoever waits for it do so, carries it out, and notes what became
    // of it.
    template <class Work>
    void change(operation what, uint64_t attributes, Work work) {
        in_flight &now = shared().known.now;
        arm_faults(&now);
        now.table = table_;
        now.route = route_;
        now.interface = interface_;
        now.attributes = attributes;
        std::atomic_signal_fence(std::memory_order_seq_cst);
        now.what = what;
        std::atomic_signal_fence(std::memory_order_seq_cst);
        before_();
        work();
        heal();
        acknowledge(what);
        std::atomic_signal_fence(std::memory_order_seq_cst);
        now = in_flight{};
        ++shared().operations;
    }

    void arm_faults(in_flight *now);
    static void heal();
    // An operation that came to its end is compared with what it may do, and taken over.
    void acknowledge(operation what);
    static void expect(bool holds, const char *what);

    // The table of this step. Null when it is not there, or only in part.
    ipv4mc_table_st *table() const;
    // Makes this step's one of those that the model knows to be there, if a few tries find one.
    void aim_at_route();
    void aim_at_core_route();
    void aim_at_entry();

    // The route of this step, and its ordinary interface of this step. Null when it is not there.
    ipv4mc_route_entry_st *route_here() const;
    ipv4mc_intf_entry_st *entry_here() const;

    // routes.cpp
    void add_route();
    void make_route(ipv4mc_table_st *of, uint64_t word, uint32_t wanted, uint64_t intf_word);
    void undo_route(ipv4mc_table_st *of, ipv4mc_route_entry_st *route);
    void change_interfaces();
    void delete_route();
    void clear_route();
    void change_attributes();
    void change_property();
    void mark_interface();
    void settings();

    // tables.cpp
    void change_table();
    void activate();
    void table_action(operation what, ipv4mc_action_type action);
    void link_routes();
    void follow_receivers();

    // walks.cpp
    void walk();
    void walk_and_delete();

    // interfaces.cpp
    void hold_interfaces();
    void rename_interface();
    void change_members();

    // signals.cpp
    void own_signals();
    void remove_signals();
    void preserved_packets();

    // encaps.cpp
    void encaps();
    void outputs();

    // errors.cpp
    void errors();

    generator &random_;
    const before_point &before_;
    uint32_t table_ = 0;
    uint32_t route_ = 0;
    uint32_t interface_ = 0;
};

}  // namespace crash

#endif
