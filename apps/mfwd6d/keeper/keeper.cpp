#include "apps/mfwd6d/keeper/keeper.h"

#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <memory>

#include "apps/keeper/keeper_link.h"
#include "apps/keeper/message.h"
#include "apps/mfwd6d/config/document.h"
#include "apps/mfwd6d/config/files.h"
#include "apps/mfwd6d/keeper/child.h"
#include "apps/mfwd6d/keeper/held_sockets.h"
#include "apps/mfwd6d/keeper/run_folder.h"
#include "apps/mfwd6d/monotonic.h"
#include "apps/mfwd6d/say.h"

namespace mfwd6::daemon {
namespace {

using keeper::message;
using keeper::what;

// For a child that was told to end. The owner may have a hundred thousand routes to take out.
constexpr uint64_t patience_ms = 5000;
constexpr uint64_t owner_patience_ms = 60000;
constexpr char new_window_word[] = "--new-window";
constexpr int flow_buffer_bytes = 1 << 20;

uint64_t now_ms() {
    return monotonic_ns() / 1'000'000U;
}

std::string own_path() {
    char path[4096];
    const ssize_t n = readlink("/proc/self/exe", path, sizeof(path) - 1);
    return std::string(path, n > 0 ? static_cast<size_t>(n) : 0);
}

std::vector<std::string> owner_command(const options &o) {
    std::vector<std::string> command = {own_path(), "owner",      "--run-dir",
                                        o.run_dir,  "--platform", o.platform};
    if (!o.config.empty()) {
        command.insert(command.end(), {"--config", o.config});
    }
    if (o.new_window) {
        command.emplace_back(new_window_word);
    }
    if (!o.to_syslog) {
        command.emplace_back("--no-syslog");
    }
    return command;
}

class keeper_process {
  public:
    explicit keeper_process(const options &o)
        : options_(o),
          folder_(o.run_dir),
          owner_("owner", owner_command(o), o.run_dir),
          packet_path_("packet path", {o.signald, "--run-dir", o.run_dir}, o.run_dir) {}
    ~keeper_process();
    keeper_process(const keeper_process &) = delete;
    keeper_process &operator=(const keeper_process &) = delete;

    outcome start();
    int run();

  private:
    enum class phase {
        working,
        ending_packet_path,  // it was told to end; then the owner
        ending_owner,
        parked,  // only the sockets are left
        over
    };

    outcome check_rights() const;
    outcome check_configuration() const;
    void begin(child &c);
    void on_signal();
    void on_death(pid_t pid, int status);
    void on_link(child &c);
    void answer(child &c, const message &asked);
    cerrno give(child &c, const message &asked, int *fd);
    void tell_packet_path(const message &m, int fd);
    void begin_end(bool keep);
    void end_owner();
    void after_owner();
    void look_at_time();
    int wait_ms() const;

    const options &options_;
    run_folder folder_;
    held_sockets sockets_;
    child owner_;
    child packet_path_;
    int listener_ = -1;
    int flows_[2] = {-1, -1};  // packet path's end, owner's end
    int signal_fd_ = -1;
    phase phase_ = phase::working;
    bool keep_ = false;
    uint64_t until_ms_ = 0;  // a child that ends late is ended then
    int exit_code_ = 0;
};

keeper_process::~keeper_process() {
    for (const int fd : {listener_, flows_[0], flows_[1], signal_fd_}) {
        if (fd >= 0) {
            close(fd);
        }
    }
}

// ---- start --------------------------------------------------------------------------------------

outcome keeper_process::check_rights() const {
    if (options_.platform != "linux") {
        return {};
    }
    const cerrno rc = may_route();
    if (rc == ENOPROTOOPT) {
        return failure(rc, "this kernel has no IPv6 multicast routing (CONFIG_IPV6_MROUTE)");
    }
    return rc == 0 ? outcome{}
                   : failure(rc,
                             "routing multicast needs root, or the capabilities CAP_NET_ADMIN "
                             "and CAP_NET_RAW in this network namespace. Without them: "
                             "`unshare -Urn mfwd6d run ...` for a namespace of your own, or "
                             "--platform sim, which forwards nothing");
}

// A mistake is told before anything is begun.
outcome keeper_process::check_configuration() const {
    config::document ignored;
    std::string error;
    if (options_.config.empty() ||
        config::read_document(options_.config, config::disk(), &ignored, &error)) {
        return {};
    }
    return failure(EINVAL, error);
}

outcome keeper_process::start() {
    outcome o = check_configuration();
    if (!o.failed()) {
        o = check_rights();
    }
    if (!o.failed()) {
        o = folder_.take(&sockets_);
    }
    if (!o.failed()) {
        o = folder_.listen_for_commands(&listener_);
    }
    if (o.failed()) {
        return o;
    }
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, flows_) != 0) {
        return failure_of(static_cast<cerrno>(errno), "the flow channel");
    }
    setsockopt(flows_[0], SOL_SOCKET, SO_SNDBUF, &flow_buffer_bytes, sizeof(flow_buffer_bytes));
    sigset_t signals;
    sigemptyset(&signals);
    for (const int number : {SIGCHLD, SIGTERM, SIGINT, SIGHUP}) {
        sigaddset(&signals, number);
    }
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    signal_fd_ = signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
    if (signal_fd_ < 0) {
        return failure_of(static_cast<cerrno>(errno), "signals");
    }
    say(weight::notice, "keeps {}, platform {}{}", options_.run_dir, options_.platform,
        sockets_.tables().empty() ? "" : "; took over the kernel's tables");
    begin(owner_);
    return {};
}

void keeper_process::begin(child &c) {
    const outcome o = c.start(now_ms());
    if (o.failed()) {
        say(weight::error, "{}", o.text);
        return;
    }
    if (&c == &packet_path_) {
        for (const auto &[kernel_table, fd] : sockets_.tables()) {
            tell_packet_path({what::table, kernel_table}, fd);
        }
    }
}

// ---- the loop -----------------------------------------------------------------------------------

int keeper_process::wait_ms() const {
    uint64_t next = UINT64_MAX;
    for (const uint64_t due : {owner_.due_ms(), packet_path_.due_ms(), until_ms_}) {
        next = due != 0 && due < next ? due : next;
    }
    if (next == UINT64_MAX) {
        return -1;
    }
    const uint64_t now = now_ms();
    return next <= now ? 0 : static_cast<int>(next - now);
}

int keeper_process::run() {
    while (phase_ != phase::over) {
        pollfd ready[] = {{signal_fd_, POLLIN, 0},
                          {folder_.successor_fd(), POLLIN, 0},
                          {owner_.link(), POLLIN, 0},
                          {packet_path_.link(), POLLIN, 0}};
        if (poll(ready, 4, wait_ms()) < 0 && errno != EINTR) {
            say(weight::error, "poll: {}", std::strerror(errno));
            return exit_error;
        }
        // Questions first: the last ones of a child that has died are still of interest.
        if (ready[2].revents != 0) {
            on_link(owner_);
        }
        if (ready[3].revents != 0) {
            on_link(packet_path_);
        }
        if (ready[0].revents != 0) {
            on_signal();
        }
        if (ready[1].revents != 0 && folder_.answer_successor(phase_ == phase::parked, sockets_)) {
            say(weight::notice, "another mfwd6d has taken over");
            phase_ = phase::over;
        }
        look_at_time();
    }
    return exit_code_;
}

void keeper_process::look_at_time() {
    const uint64_t now = now_ms();
    if (until_ms_ != 0 && now >= until_ms_) {
        until_ms_ = 0;
        child &late = phase_ == phase::ending_packet_path ? packet_path_ : owner_;
        say(weight::warning, "the {} does not end and is killed", late.name());
        late.signal(SIGKILL);
    }
    if (phase_ != phase::working) {
        return;
    }
    for (child *c : {&owner_, &packet_path_}) {
        if (!c->runs() && c->due_ms() != 0 && now >= c->due_ms()) {
            begin(*c);
        }
    }
}

void keeper_process::on_signal() {
    signalfd_siginfo info{};
    while (read(signal_fd_, &info, sizeof(info)) == sizeof(info)) {
        if (info.ssi_signo == SIGHUP) {
            owner_.signal(SIGHUP);
        } else if (info.ssi_signo != SIGCHLD) {
            begin_end(false);
        }
    }
    int status = 0;
    for (pid_t pid = 0; (pid = waitpid(-1, &status, WNOHANG)) > 0;) {
        on_death(pid, status);
    }
}

void keeper_process::on_death(pid_t pid, int status) {
    child *c = pid == owner_.pid() ? &owner_ : pid == packet_path_.pid() ? &packet_path_ : nullptr;
    if (c == nullptr) {
        return;
    }
    if (c->link() >= 0) {
        on_link(*c);
    }
    const bool hopeless = WIFEXITED(status) && WEXITSTATUS(status) == exit_hopeless;
    if (phase_ == phase::working && c == &owner_ && hopeless && !c->was_ready()) {
        exit_code_ = exit_error;  // it has said why
        c->ended();
        begin_end(false);
    } else if (phase_ == phase::working) {
        c->died(status, now_ms());
    } else {
        c->ended();
        until_ms_ = 0;
        c == &packet_path_ ? end_owner() : after_owner();
    }
}

// ---- what children ask --------------------------------------------------------------------------

void keeper_process::on_link(child &c) {
    for (;;) {
        message m{};
        int fd = -1;
        const int socket = c.link();
        if (socket < 0) {
            return;
        }
        const cerrno rc = keeper::receive_message(socket, false, &m, &fd);
        if (fd >= 0) {
            close(fd);
        }
        if (rc == EAGAIN) {
            return;
        }
        if (rc == EPIPE) {  // its end is told by SIGCHLD
            c.close_link();
            return;
        }
        if (rc == 0) {
            answer(c, m);
        }
    }
}

cerrno keeper_process::give(child &c, const message &asked, int *fd) {
    const bool is_owner = &c == &owner_;
    if (asked.kind == what::ask_flow_channel) {
        *fd = flows_[is_owner ? 1 : 0];
        return 0;
    }
    if (asked.kind == what::ask_ready) {
        c.ready();
        c.drop_word(new_window_word);
        return 0;
    }
    if (!is_owner) {
        return EPERM;
    }
    switch (asked.kind) {
        case what::ask_listener:
            *fd = listener_;
            return 0;
        case what::ask_membership:
            return sockets_.membership(asked.argument, fd);
        case what::ask_table: {
            bool is_new = false;
            const cerrno rc = sockets_.table(asked.argument, fd, &is_new);
            if (rc == 0 && is_new) {
                tell_packet_path({what::table, asked.argument}, *fd);
            }
            return rc;
        }
        case what::ask_release:
            if (sockets_.release(asked.argument)) {
                tell_packet_path({what::table_gone, asked.argument}, -1);
            }
            return 0;
        default:
            return EINVAL;
    }
}

void keeper_process::answer(child &c, const message &asked) {
    int fd = -1;
    const bool ends = asked.kind == what::ask_shut_down && &c == &owner_;
    const cerrno rc = ends ? 0 : give(c, asked, &fd);
    keeper::send_message(c.link(), {what::answer, rc}, fd);
    if (ends) {
        begin_end(asked.argument != 0);
    }
    // The packet path reads the window that the owner makes.
    if (asked.kind == what::ask_ready && &c == &owner_ && !options_.signald.empty() &&
        !packet_path_.runs() && phase_ == phase::working) {
        begin(packet_path_);
    }
}

// A packet path that reads nothing any more is ended; the next one is told everything.
void keeper_process::tell_packet_path(const message &m, int fd) {
    if (packet_path_.link() >= 0 && keeper::send_message(packet_path_.link(), m, fd) == EAGAIN) {
        packet_path_.signal(SIGKILL);
    }
}

// ---- the end ------------------------------------------------------------------------------------

// The packet path goes first: it is attached to the window that the owner may remove.
void keeper_process::begin_end(bool keep) {
    if (phase_ == phase::parked) {
        phase_ = phase::over;
        return;
    }
    if (phase_ != phase::working) {
        return;
    }
    keep_ = keep;
    say(weight::notice, "ends{}", keep ? "; the state and the kernel's entries stay" : "");
    packet_path_.do_not_restart();
    owner_.do_not_restart();
    if (!packet_path_.runs()) {
        end_owner();
        return;
    }
    phase_ = phase::ending_packet_path;
    until_ms_ = now_ms() + patience_ms;
    packet_path_.signal(SIGTERM);
}

void keeper_process::end_owner() {
    phase_ = phase::ending_owner;
    if (!owner_.runs()) {
        after_owner();
        return;
    }
    until_ms_ = now_ms() + owner_patience_ms;
    if (keeper::send_message(owner_.link(), {what::stop, keep_ ? 1U : 0U}, -1) != 0) {
        owner_.signal(SIGTERM);
    }
}

void keeper_process::after_owner() {
    close(listener_);
    listener_ = -1;
    unlink((options_.run_dir + "/command").c_str());
    phase_ = keep_ ? phase::parked : phase::over;
    if (phase_ == phase::parked) {
        say(weight::notice,
            "holds the sockets, so that the kernel goes on forwarding; `mfwd6d run` takes them "
            "over, SIGTERM ends it");
    }
}

}  // namespace

int run_keeper(const options &o) {
    speak_as("keeper", o.to_syslog);
    keeper_process keeper(o);
    const outcome started = keeper.start();
    if (started.failed()) {
        say(weight::error, "{}", started.text);
        return exit_error;
    }
    return keeper.run();
}

}  // namespace mfwd6::daemon
