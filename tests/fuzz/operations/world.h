// The library and the model side by side: each operation is done on both, and their answers
// compared.
#ifndef MFWD6_TESTS_FUZZ_OPERATIONS_WORLD_H
#define MFWD6_TESTS_FUZZ_OPERATIONS_WORLD_H

#include <map>
#include <memory>
#include <vector>

#include "services/events/event_manager.h"
#include "tests/fuzz/operations/hardware.h"
#include "tests/fuzz/operations/input.h"
#include "tests/fuzz/operations/records.h"

namespace fuzz {

class world {
  public:
    // What one input chooses: tries shared by all tables, a router that handles errors
    // asynchronously.
    struct choices {
        bool sharing;
        bool async;
    };
    explicit world(const choices &how);
    world(const world &) = delete;
    world &operator=(const world &) = delete;

    // Both tables with both sides, as most inputs begin.
    void make_tables();

    // One operation, and the comparison behind it.
    void step(input &in);

    // Something is between its CREATE and its COMMIT.
    bool is_in_the_middle() const;

    // Takes all away again, in one of two orders, and compares: nothing may be left.
    void end(bool interfaces_first);

  private:
    // ---- tables.cpp
    // -----------------------------------------------------------------------------
    struct table_request {
        ipv4mc_action_type action;
        uint32_t tid;
        uint32_t vrf_id;
        std::string name;
        bool has_pp;
        tid_table *tid_side;  // at most one is given
        vrf_table *vrf_side;
        uint32_t batch;
    };
    struct table_answer {
        cerrno rc;
        bool written;  // `*table_pp` was
        tid_table *tid_side;
        vrf_table *vrf_side;
    };
    void operate_on_table(input &in);
    void walk_all_tables(input &in);
    void delete_all_tables();
    void perform(const table_request &asked);
    table_answer model_table(table_request asked);
    table_answer model_existing(table_request &asked);
    table_answer model_missing(table_request &asked);
    void model_remove_rest(tid_table &table);
    cerrno model_switch(const table_request &asked);
    cerrno model_accounting_walk(tid_table &table, ipv4mc_action_type action);
    void model_rate_walk(tid_table &table, bool on);
    bool model_create(table_request &asked, bool *vrf_is_new);
    cerrno model_activate(table_request &asked);
    cerrno model_activate_tid(table_request &asked);
    cerrno model_deactivate(table_request &asked);
    void take_keys(vrf_table &vrf, const std::string &name, uint32_t vrf_id);
    void pass_name_on(vrf_table &from);
    void free_vrf(vrf_table *vrf);
    void free_tid(tid_table *table);
    static void cut(vrf_table *vrf);
    static void cut(tid_table *table);
    void learn_records();
    tid_table *find_tid(uint32_t tid);
    vrf_table *find_vrf(uint32_t vrf_id, const std::string &name);
    void give_up_pending(tid_table &table);

    // ---- routes.cpp
    // -----------------------------------------------------------------------------
    tid_table *pick_table(input &in);  // one that routes may be made in, or null
    static route *pick_route(input &in, tid_table *table);
    static route *pick_any_route(input &in, tid_table *table);  // also an unpublished one
    void create_route(input &in);
    void commit_pending_route(input &in);
    void change_route(input &in);
    void delete_route(input &in);
    void clear_route(input &in);
    void mark_srd(input &in);
    void delete_all_routes(input &in);
    void walk_and_delete(input &in);
    void look_up(input &in);
    void try_odd_calls(input &in);
    bool make_route(tid_table &table, const named_key &key, const ip_maddr_st *aux);
    cerrno commit_new(route &r, uint64_t attributes);
    cerrno model_commit_new(route &r);
    cerrno model_commit_existing(route &r, uint64_t old);
    cerrno model_program(route &r, bool is_new);
    cerrno model_delete(route &r, uint64_t old);
    void model_clear(route &r);
    cerrno model_delete_all(tid_table &table, bool keep_srd, uint32_t *kept);
    void end_route(route &r);
    void undo_create(route &r);
    hardware::told_route told(const route &r) const;
    static const route *longest_match(const tid_table &table, const ip_maddr_st &source,
                                      const ip_maddr_st &group);
    static route *parent_of(const route &r, bool keep_old_parent);
    cerrno turn_children(route &r, bool set);

    // ---- intfs.cpp
    // ------------------------------------------------------------------------------
    void create_intf(input &in);
    void commit_pending_intf(input &in);
    void add_intf(input &in);
    void change_intf(input &in);
    void commit_again_as_new(input &in);
    void delete_intf(input &in);
    void clear_pending_intf(input &in);
    void lock_interface(input &in);
    cerrno make_intf(route &r, const named_intf &named, uint32_t intf_arg);
    void commit_intf(route &r, uint64_t attributes, uint32_t intf_arg, bool give_idb);
    void commit_existing_intf(route &r, intf &entry, uint64_t attributes, uint32_t intf_arg);
    static intf *nth_intf(const route &r, size_t n);
    bool drop_pending_intf(route &r);
    cerrno model_create_intf(route &r, const named_intf &named, uint32_t intf_arg,
                             std::unique_ptr<intf> *made);
    cerrno model_commit_new_intf(route &r, uint32_t intf_arg);
    cerrno model_delete_intf(route &r, intf &which);
    cerrno model_join_idb(intf &entry);
    void model_leave_idb(intf &entry);
    void model_release_idb(ifhtype ifh);
    void remove_entry(route &r, const intf &which);
    hardware::told_intf told(const intf &entry, uint32_t intf_arg) const;
    static bool can_program(const route &r, bool is_new, bool async, bool oor_mode);
    bool can_program(const route &r, bool is_new) const {
        return can_program(r, is_new, async_, oor_mode_);
    }

    // ---- encaps.cpp
    // -----------------------------------------------------------------------------
    void make_or_end_encap(input &in);
    void end_encap(uint32_t id);
    void commit_encap(input &in);
    void give_encap(input &in);
    void turn_output(input &in);
    void turn_egress(input &in);
    void raise_egress(route &r);
    void lower_egress(route &r);
    void switch_lookup(encap &e, uint8_t value);
    void check_egress();
    static void model_lower_egress(route &r);
    void model_follow_egress(const route &r, bool commits);
    cerrno model_switch_lookup(encap &e, uint8_t value);
    cerrno model_commit_encap(encap &e);
    cerrno model_give_encap(route &r, uint32_t id);
    void model_join_encap(route &r, encap &e);
    void model_leave_encap(route &r);

    // ---- core_routes.cpp
    // ------------------------------------------------------------------------
    void link_core_route(input &in);
    void unlink_core_route(input &in);
    void turn_mdt_master(input &in);
    void update_core_routes(tid_table &customer, bool set);
    cerrno model_link_local(route &r);
    static cerrno model_link_remote(route &r);
    static void model_unlink_core(route &r, uint32_t index);
    static void model_leave_customer(route &r);
    static void model_drop_core_routes(tid_table &customer);
    void model_update_core_routes(tid_table &customer, bool set);
    void model_update_core_route(const tid_table &customer, route &r, bool set);
    static void compare_core_routes(const tid_table &customer);
    static void compare_core_links(const route &r);

    // ---- signals.cpp
    // ----------------------------------------------------------------------------
    void post_signal(input &in);
    void probe_signal(input &in);
    void remove_signal(input &in);
    void remove_signals_of_route(input &in);
    void remove_all_signals(input &in);
    void drain_changed_routes(input &in);
    void look_up_signal(input &in);
    signal *find_signal(tid_table &table, const route_id &id);
    signal *model_post(tid_table &table, const route_id &id, ifhtype ifh, uint64_t attributes);
    void model_remove_signal(signal *s, ifhtype ifh);
    void model_mark_changed(signal *s);
    void model_remove_all_signals(tid_table &table);
    void learn_signal(signal &s);

    // ---- errors.cpp, life.cpp
    // -------------------------------------------------------------------
    void arm_fault(input &in);
    void set_capacity(input &in);
    void raise_async_error(input &in);
    void fail_by_hand(input &in);
    void fail_encap_by_hand(bool queued);
    void let_time_pass(input &in);
    cerrno fail_sync(route &r, cerrno rc);
    void queue(route &r);
    void queue(encap &e);
    void unqueue(route &r);
    void unqueue(encap &e);
    void restart(input &in);
    void not_ready(input &in);
    void start_error_handler();

    // ---- compare.cpp
    // ----------------------------------------------------------------------------
    void compare();
    void compare_tables();
    void compare_table(const tid_table &table);
    void compare_routes(const tid_table &table);
    void compare_route(const route &r);
    void compare_intfs(const route &r);
    void compare_idbs();
    void compare_signals(const tid_table &table);
    void compare_encaps();
    static void compare_outputs(const route &r);
    void compare_changed_routes();
    void compare_retry_queue();

    const bool async_;
    bool oor_mode_ = false;
    hardware hw_;
    std::map<uint32_t, std::unique_ptr<tid_table>> tids_;
    std::list<std::unique_ptr<vrf_table>> vrfs_;
    std::map<ifhtype, idb> idbs_;
    std::list<signal *> changed_;
    std::map<uint32_t, encap> encaps_;
    std::list<queued_object> retry_queue_;
    std::unique_ptr<event_manager_t, void (*)(event_manager_t *)> evm_;
};

// The library of this process, started at the first call on a window that all inputs use in turn.
void start_process();

// The proof of the whole window (apps/check).
void check_window();

// Between two inputs: the proof of the whole window, that nothing is half done in it, and that no
// more blocks live there than at the first call.
void check_nothing_left();

}  // namespace fuzz

#endif
