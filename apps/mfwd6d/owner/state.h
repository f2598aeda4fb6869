// All that the owner keeps: tables, interfaces, routes, memberships; how lines and configurations
// change it.
//
// The window is the truth for tables and routes. What has no place there (settings of interfaces,
// memberships, which interface is in which VRF) stands in the file `settings` of the run dir, in
// the form of lines; and what the configuration said when it was last applied, in `applied`. A
// configuration is applied as the difference to that: what commands changed since stays, unless the
// difference names it.
#ifndef MFWD6_APPS_MFWD6D_OWNER_STATE_H
#define MFWD6_APPS_MFWD6D_OWNER_STATE_H

#include <functional>
#include <string>
#include <vector>

#include "apps/mfwd6d/config/document.h"
#include "apps/mfwd6d/owner/interfaces.h"
#include "apps/mfwd6d/owner/memberships.h"
#include "apps/mfwd6d/owner/outcome.h"
#include "apps/mfwd6d/owner/routes.h"
#include "apps/mfwd6d/owner/tables.h"

namespace mfwd6::daemon {

// Files of the run dir.
inline constexpr char settings_file[] = "settings";
inline constexpr char applied_file[] = "applied";

class state {
  public:
    state(const platform *p, std::string run_dir,
          std::function<int(uint32_t number)> membership_socket)
        : interfaces_(p),
          routes_(&interfaces_),
          memberships_(&interfaces_, std::move(membership_socket)),
          run_dir_(std::move(run_dir)) {}

    // Takes over what the window and the files hold. With `is_new_window` the files are of an
    // earlier one and go. Behind it links are told.
    outcome start(bool is_new_window);
    // Tell the platform the settings that it forgot with the last process.
    void before_resync();
    void after_resync();

    // News of the kernel's links.
    void appeared(uint32_t index, const char *name);
    void disappeared(uint32_t index);

    // Executes a line. The whole of it or nothing is done.
    outcome execute(const config::line &l);

    // The commands behind lines, for callers with parts at hand. `from` and `to` are names.
    struct route_request {
        std::string_view vrf;
        ip_maddr_st source{};
        config::prefix group;
        uint8_t flags = 0;
        std::vector<std::string_view> from;
        std::vector<std::string_view> to;
    };
    outcome make_route(const route_request &request) { return make_route(request, false); }
    outcome delete_route(const route_request &request);
    // `to` is added to the route's outputs, or taken from them.
    outcome change_outputs(const route_request &request, bool add);
    outcome add_table(std::string_view vrf, uint32_t id,
                      const std::vector<std::string_view> &names);
    outcome delete_table(std::string_view vrf);

    struct interface_request {
        std::string_view name;
        config::switch_word enabled = config::switch_word::none;  // none: as it is
        int ttl = -1;                                             // -1: as it is
        bool sets_boundary = false;
        std::vector<config::prefix> boundary;
    };
    outcome set_interface(const interface_request &request);

    // Applies a configuration. What it asks for and cannot be had is told one by one to `problem`
    // ("FILE:LINE: reason") and tried again with the next one.
    struct applied_counts {
        uint64_t made = 0;
        uint64_t gone = 0;
        uint64_t same = 0;
        uint64_t failed = 0;
    };
    applied_counts apply(const config::document &wanted,
                         const std::function<void(const std::string &problem)> &problem);

    tables &all_tables() { return tables_; }
    interfaces &all_interfaces() { return interfaces_; }

    // Removes the files of the run dir.
    void forget_files() const;

  private:
    void join_patterns(interface &i);
    void join_patterns_of_new_interfaces();
    outcome make_route(const route_request &request, bool may_await);
    outcome ports_of(const route_request &request, const table &t, bool may_await);
    outcome add_port(const table &t, std::string_view name, uint64_t bit, bool may_await);
    void add_ports_of_pattern(const table &t, std::string_view pattern);
    void add_bits(interface *i, uint64_t bit);
    outcome put_in_table(interface &i, const std::string &vrf, uint32_t tid);
    outcome boundary_line(const config::line &l);
    outcome phyint_line(const config::line &l);
    outcome remove_phyint(interface &i, const config::line &l);
    outcome set_one(interface &i, const interface_request &request);
    void restore_interface(interface &i, config::switch_word enabled, uint8_t ttl);
    outcome load_settings();
    outcome save_settings() const;
    template <class Fn>
    outcome and_save(const Fn &change);

    class application;  // one run of apply

    tables tables_;
    interfaces interfaces_;
    routes routes_;
    memberships memberships_;
    std::string run_dir_;
    config::document applied_;
    std::vector<route_port> ports_;  // of the route at hand; kept for its memory
};

}  // namespace mfwd6::daemon

#endif
