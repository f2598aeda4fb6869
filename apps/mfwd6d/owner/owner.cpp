#include "apps/mfwd6d/owner/owner.h"

#include <signal.h>
#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "apps/mfwd6d/config/files.h"
#include "apps/mfwd6d/monotonic.h"
#include "apps/mfwd6d/owner/owner_process.h"
#include "apps/mfwd6d/owner/resync.h"
#include "apps/mfwd6d/owner/window.h"
#include "apps/mfwd6d/say.h"
#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "services/diag/messages.h"
#include "services/diag/run_dir.h"
#include "services/events/ptimer.h"
#include "services/imc/rtnl/imc_rtnl.h"
#include "services/window/inspect.h"
#include "services/window/setup.h"

namespace mfwd6::daemon {
namespace {

constexpr uint32_t flows_of_turn = 64;
constexpr int signal_pause_ms = 10;
constexpr uint32_t blocks_of_turn = 4096;
constexpr mode_t folder_mode = 0700;

sigset_t handled_signals() {
    sigset_t signals;
    sigemptyset(&signals);
    for (const int number : {SIGTERM, SIGINT, SIGHUP}) {
        sigaddset(&signals, number);
    }
    return signals;
}

void close_if_open(int *fd) {
    if (*fd >= 0) {
        close(*fd);
        *fd = -1;
    }
}

// What it was asked for may still come: it has the message.
void tell_of_keeper(const char *what, cerrno code) {
    if (code != 0) {
        say(weight::error, "the keeper {}: {}", what, cerr_strerror(code));
    }
}

}  // namespace

// ---- start --------------------------------------------------------------------------------------

outcome owner_process::start() {
    started_ns_ = monotonic_ns();
    cerrno rc = link_.open();
    if (rc != 0) {
        hopeless_ = true;
        return failure_of(rc, "the owner is started by `mfwd6d run`, not by hand");
    }
    rc = event_manager_create(&evm_);
    if (rc != 0) {
        return failure_of(rc, "the event loop");
    }
    outcome o = open_window();
    if (o.failed()) {
        return o;
    }
    state_ = std::make_unique<state>(&platform_, options_.run_dir, [this](uint32_t number) {
        int fd = -1;
        const cerrno asked = link_.membership(number, &fd);
        return asked == 0 ? fd : -static_cast<int>(asked);
    });
    o = state_->start(is_new_window_);
    if (!o.failed()) {
        o = follow_links();
    }
    if (!o.failed()) {
        start_platform();
        apply_configuration();
        o = changed_routes_.start();
    }
    if (!o.failed()) {
        o = take_from_keeper();
    }
    if (!o.failed()) {
        o = start_timer();
    }
    if (o.failed()) {
        return o;
    }
    start_took_ns_ = monotonic_ns() - started_ns_;
    tell_of_keeper("does not start the packet path", link_.ready());
    say(weight::notice, "ready after {:.1f} ms: {} kept, {} programmed, {} removed",
        static_cast<double>(start_took_ns_) / 1e6, resync_.kept, resync_.programmed,
        resync_.removed);
    return {};
}

outcome owner_process::open_window() {
    shmwin_set_run_dir(options_.run_dir.c_str());
    diag_set_run_dir(options_.run_dir.c_str());
    const std::string problem = load_platform(options_.platform, &platform_);
    if (!problem.empty()) {
        hopeless_ = true;
        return failure(EINVAL, problem);
    }
    if (platform_.is_linux()) {
        const linux_sockets sockets{socket_of_table, release_table, this};
        platform_.use_sockets(&sockets);
        platform_.set_folder(options_.run_dir.c_str());
    }
    if (platform_.open_hardware != nullptr) {
        const std::string folder = options_.run_dir + "/sim";
        mkdir(folder.c_str(), folder_mode);
        const cerrno rc = platform_.open_hardware(folder.c_str());
        if (rc != 0) {
            return failure_of(rc, "the simulated hardware in " + folder);
        }
    }
    outcome o = look_at_window();
    if (o.failed() && !options_.new_window) {
        hopeless_ = true;
        return o;
    }
    cerrno rc = imc_rtnl_open(evm_, &im_of_library_);
    rc = rc == 0 ? imc_rtnl_open(evm_, &im_) : rc;
    if (rc != 0) {
        return failure_of(rc, "the kernel's list of interfaces");
    }
    o = start_library(evm_, im_of_library_);
    if (o.failed()) {
        return o;
    }
    library_started_ = true;
    shmwin_opening opening{};
    shmwin_get_opening(ipv4mc_desc->shmwin_id, &opening);
    is_new_window_ = opening.found == SHMWIN_FOUND_NEW;
    return {};
}

outcome owner_process::follow_links() {
    const auto tell = [](uint32_t ifh, const char *name, uint16_t, uint32_t,
                         void *context) -> cerrno {
        static_cast<owner_process *>(context)->state_->all_interfaces().appeared(ifh, name);
        return 0;
    };
    cerrno rc = imc_watch(im_, on_link, this);
    rc = rc == 0 ? imc_interface_walk(im_, tell, this) : rc;
    return rc == 0 ? outcome{} : failure_of(rc, "the kernel's list of interfaces");
}

// A platform that does not take all is no reason to stop: commands can mend it.
void owner_process::start_platform() {
    state_->before_resync();
    outcome o;
    if (platform_.is_linux()) {
        const cerrno rc = platform_.resync(&resync_);
        o = rc == 0 ? o : failure_of(rc, "the kernel does not take all routes of the window");
    } else {
        o = resynchronise(platform_, &resync_);
    }
    if (o.failed()) {
        say(weight::error, "{}", o.text);
    }
    state_->after_resync();
}

// A configuration with a mistake changes nothing: what is in force goes on.
void owner_process::apply_configuration() {
    if (options_.config.empty()) {
        return;
    }
    config::document wanted;
    std::string error;
    if (!config::read_document(options_.config, config::disk(), &wanted, &error)) {
        say(weight::error, "{} (the configuration is not applied)", error);
        return;
    }
    for (const std::string &warning : wanted.warnings) {
        say(weight::warning, "{}", warning);
    }
    const state::applied_counts counts = state_->apply(
        wanted, [](const std::string &problem) { say(weight::warning, "{}", problem); });
    routes_changed_ = true;
    say(weight::notice, "{}: {} routes made, {} gone, {} as before, {} lines failed",
        options_.config, counts.made, counts.gone, counts.same, counts.failed);
}

outcome owner_process::take_from_keeper() {
    cerrno rc = link_.listener(&listener_);
    rc = rc == 0 ? link_.flow_channel(&flow_fd_) : rc;
    if (rc != 0) {
        return failure_of(rc, "what the keeper holds");
    }
    const sigset_t signals = handled_signals();
    signal_fd_ = signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
    server_ = std::make_unique<command_server>(evm_, handler());
    rc = event_fd_watch(evm_, signal_fd_, EPOLLIN, on_signal, this);
    rc = rc == 0 ? event_fd_watch(evm_, link_.fd(), EPOLLIN, on_keeper, this) : rc;
    rc = rc == 0 ? event_fd_watch(evm_, flow_fd_, EPOLLIN, on_flow, this) : rc;
    rc =
        rc == 0 ? event_fd_watch(evm_, changed_routes_.fd(), EPOLLIN, on_changed_routes, this) : rc;
    return rc == 0 ? server_->start(listener_) : failure_of(rc, "the event loop");
}

outcome owner_process::start_timer() {
    const uint32_t handle = event_timer_attach(evm_, EVENT_TIMER_PERIODIC, on_second, this);
    second_ = handle == EVENT_TIMER_INVALID ? nullptr : event_timer_leaf_new(evm_, handle, nullptr);
    const timespec second{1, 0};
    if (second_ == nullptr || mgd_timer_leaf_start(second_, &second) != 0) {
        return failure(ENOMEM, "the timer cannot be started");
    }
    return {};
}

// ---- the loop -----------------------------------------------------------------------------------

void owner_process::run() {
    while (!ending_) {
        const bool more = server_->work();
        end_signals_of_routes(more);
        if (shutdown_asked_) {
            server_->flush();
            shutdown_asked_ = false;
            tell_of_keeper("does not end the daemon", link_.shut_down(shutdown_keeps_));
        }
        const int wait_ms = more ? 0 : routes_changed_ ? signal_pause_ms : -1;
        const cerrno rc = event_manager_run_once(evm_, wait_ms, nullptr);
        if (rc != 0 && rc != EINTR) {
            say(weight::error, "the event loop: {}", cerr_strerror(rc));
            return;
        }
    }
}

// Not between the slices of a bulk load, and not for each of many commands: all signals are looked
// at.
void owner_process::end_signals_of_routes(bool more_work) {
    const uint64_t now = monotonic_ns();
    if (!routes_changed_ || more_work || now - signals_ended_ns_ < signal_pause_ms * 1'000'000ULL) {
        return;
    }
    routes_changed_ = false;
    signals_ended_ns_ = now;
    for (const auto &[name, t] : state_->all_tables().all()) {
        end_answered_signals(t);
    }
}

void owner_process::on_second(mgd_timer_leaf_t *, void *context) {
    auto &o = *static_cast<owner_process *>(context);
    if (o.platform_.age != nullptr) {
        timespec now{};
        ptimer_gettime(&now);
        o.platform_.age(static_cast<uint64_t>(now.tv_sec));
    }
    reclaim_blocks(blocks_of_turn);
    orv_msg_tick();
}

void owner_process::on_changed_routes(event_manager_t *, int, uint32_t, void *context) {
    auto &o = *static_cast<owner_process *>(context);
    if (o.changed_routes_.drain() != 0) {
        o.routes_changed_ = true;
    }
}

void owner_process::on_flow(event_manager_t *, int fd, uint32_t, void *context) {
    static_cast<owner_process *>(context)->answer_flows(fd);
}

void owner_process::answer_flows(int fd) {
    for (uint32_t n = 0; n < flows_of_turn; ++n) {
        linux_flow flow{};
        const ssize_t size = recv(fd, &flow, sizeof(flow), MSG_DONTWAIT | MSG_TRUNC);
        if (size < 0) {
            return;
        }
        if (size == sizeof(flow) && platform_.answer_flow != nullptr) {
            platform_.answer_flow(&flow, nullptr);
            ++flows_answered_;
        }
    }
}

void owner_process::on_link(imc_context_t *, enum imc_change change, uint32_t ifh, const char *name,
                            void *context) {
    state &s = *static_cast<owner_process *>(context)->state_;
    switch (change) {
        case IMC_ADDED:
        case IMC_CHANGED:
            s.appeared(ifh, name);
            break;
        case IMC_REMOVED:
            s.disappeared(ifh);
            break;
        case IMC_CONNECTION_LOST:
            say(weight::warning, "news of interfaces were lost; they are listed anew");
            break;
    }
}

// ---- keeper and signals -------------------------------------------------------------------------

int owner_process::socket_of_table(void *context, uint32_t kernel_table) {
    auto &o = *static_cast<owner_process *>(context);
    const auto at = o.table_sockets_.find(kernel_table);
    if (at != o.table_sockets_.end()) {
        return at->second;
    }
    int fd = -1;
    const cerrno rc = o.link_.table(kernel_table, &fd);
    if (rc != 0) {
        return -static_cast<int>(rc);
    }
    o.table_sockets_[kernel_table] = fd;
    return fd;
}

void owner_process::release_table(void *context, uint32_t kernel_table) {
    auto &o = *static_cast<owner_process *>(context);
    const auto at = o.table_sockets_.find(kernel_table);
    if (at != o.table_sockets_.end()) {
        close(at->second);
        o.table_sockets_.erase(at);
    }
    tell_of_keeper("still holds a kernel table", o.link_.release(kernel_table));
}

void owner_process::end(bool keep) {
    ending_ = true;
    keep_ = keep;
    event_manager_stop(evm_);
}

void owner_process::on_keeper(event_manager_t *, int, uint32_t, void *context) {
    auto &o = *static_cast<owner_process *>(context);
    for (;;) {
        keeper::event e;
        if (o.link_.next(&e) != 0 || e.kind == keeper::event_kind::keeper_gone) {
            say(weight::warning, "the keeper has gone; the window stays for the next one");
            o.end(true);
            return;
        }
        if (e.fd >= 0) {
            close(e.fd);
        }
        if (e.kind == keeper::event_kind::none) {
            return;
        }
        if (e.kind == keeper::event_kind::stop) {
            o.end(e.keep);
        }
    }
}

void owner_process::on_signal(event_manager_t *, int fd, uint32_t, void *context) {
    auto &o = *static_cast<owner_process *>(context);
    signalfd_siginfo info{};
    while (read(fd, &info, sizeof(info)) == sizeof(info)) {
        if (info.ssi_signo == SIGTERM) {
            o.end(true);
        } else if (info.ssi_signo == SIGHUP) {
            o.apply_configuration();
        }
    }
}

// ---- end ----------------------------------------------------------------------------------------

void owner_process::stop() {
    if (server_ != nullptr) {
        server_->flush();
        server_ = nullptr;
    }
    changed_routes_.stop();
    if (library_started_) {
        stop_library(keep_);
        library_started_ = false;
        if (!keep_ && state_ != nullptr) {
            state_->forget_files();
        }
    }
}

owner_process::~owner_process() {
    server_ = nullptr;
    changed_routes_.stop();
    state_ = nullptr;
    imc_context_close(im_);
    imc_context_close(im_of_library_);
    for (auto &[kernel_table, fd] : table_sockets_) {
        close(fd);
    }
    close_if_open(&listener_);
    close_if_open(&flow_fd_);
    close_if_open(&signal_fd_);
    event_manager_destroy(evm_);
}

int run_owner(const options &o) {
    speak_as("owner", o.to_syslog);
    // Before there are threads: all of them leave these to the loop.
    const sigset_t signals = handled_signals();
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    owner_process owner(o);
    const outcome started = owner.start();
    if (started.failed()) {
        say(weight::error, "{}", started.text);
        owner.stop();
        return owner.hopeless() ? exit_hopeless : exit_error;
    }
    owner.run();
    owner.stop();
    return 0;
}

}  // namespace mfwd6::daemon
