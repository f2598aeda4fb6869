// The parts of the owner process, and the actions that commands ask for.
#ifndef MFWD6_APPS_MFWD6D_OWNER_OWNER_PROCESS_H
#define MFWD6_APPS_MFWD6D_OWNER_OWNER_PROCESS_H

#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>

#include "apps/keeper/keeper_link.h"
#include "apps/mfwd6d/command/server.h"
#include "apps/mfwd6d/options.h"
#include "apps/mfwd6d/owner/platform.h"
#include "apps/mfwd6d/owner/signals.h"
#include "apps/mfwd6d/owner/state.h"
#include "services/events/event_manager.h"
#include "services/events/timer.h"
#include "services/imc/imc.h"

namespace mfwd6::daemon {

class owner_process {
  public:
    explicit owner_process(const options &o) : options_(o) {}
    ~owner_process();
    owner_process(const owner_process &) = delete;
    owner_process &operator=(const owner_process &) = delete;

    // In this order. A failure of `start` that another start would not mend is told by `hopeless`.
    outcome start();
    bool hopeless() const { return hopeless_; }
    void run();
    void stop();

  private:
    outcome open_window();
    void start_platform();
    outcome follow_links();
    outcome take_from_keeper();
    outcome start_timer();
    void apply_configuration();

    static void on_signal(event_manager_t *evm, int fd, uint32_t events, void *context);
    static void on_keeper(event_manager_t *evm, int fd, uint32_t events, void *context);
    static void on_flow(event_manager_t *evm, int fd, uint32_t events, void *context);
    static void on_changed_routes(event_manager_t *evm, int fd, uint32_t events, void *context);
    static void on_second(mgd_timer_leaf_t *leaf, void *context);
    static void on_link(imc_context_t *context, enum imc_change change, uint32_t ifh,
                        const char *name, void *change_context);
    static int socket_of_table(void *context, uint32_t kernel_table);
    static void release_table(void *context, uint32_t kernel_table);

    void answer_flows(int fd);
    void end(bool keep);
    void end_signals_of_routes(bool more_work);

    // What commands ask for (actions.cpp).
    command_handler handler();
    outcome run_line(std::string_view text);
    outcome run_action(const std::string &name, const nlohmann::json &args, nlohmann::json *result);
    outcome status(nlohmann::json *result);
    outcome change_output(const nlohmann::json &args, bool add);
    outcome set_interface(const nlohmann::json &args);
    outcome clear_signals(const nlohmann::json &args, nlohmann::json *result);
    outcome shut_down(const nlohmann::json &args);

    const options &options_;
    bool hopeless_ = false;
    keeper::link link_;
    event_manager_t *evm_ = nullptr;
    platform platform_;
    imc_context_t *im_of_library_ = nullptr;
    imc_context_t *im_ = nullptr;
    bool library_started_ = false;
    bool is_new_window_ = false;
    std::unique_ptr<state> state_;
    changed_routes changed_routes_;
    std::unique_ptr<command_server> server_;
    std::unordered_map<uint32_t, int> table_sockets_;
    int listener_ = -1;
    int flow_fd_ = -1;
    int signal_fd_ = -1;
    mgd_timer_leaf_t *second_ = nullptr;
    bool links_known_ = false;

    bool ending_ = false;
    bool keep_ = true;             // the window, at the end
    bool shutdown_asked_ = false;  // by a command that has not been answered yet
    bool shutdown_keeps_ = false;
    bool routes_changed_ = false;  // since signals were compared with routes
    uint64_t signals_ended_ns_ = 0;
    config::line line_;  // of the command at hand

    // For `status`.
    uint64_t started_ns_ = 0;
    uint64_t start_took_ns_ = 0;
    linux_resync_counts resync_{};
    uint64_t flows_answered_ = 0;
    uint64_t commands_ = 0;
};

}  // namespace mfwd6::daemon

#endif
