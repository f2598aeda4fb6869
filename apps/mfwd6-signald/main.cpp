// mfwd6-signald: the packet path. It reads what the kernel reports about flows, posts signals for
// those that the control plane should hear of, and hands every report on to the owner.
//
// Any of the processes around it may be dead or stuck, and it may be killed at any moment itself:
// reports that were not read wait in the sockets, of which the keeper holds copies.
#include <sys/signalfd.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <string>

#include "apps/keeper/keeper_link.h"
#include "apps/mfwd6-signald/forwarder.h"
#include "apps/mfwd6-signald/log.h"
#include "apps/mfwd6-signald/poster.h"
#include "apps/mfwd6-signald/tables.h"
#include "services/diag/errors.h"
#include "services/diag/run_dir.h"
#include "services/window/setup.h"

namespace mfwd6::signald {
namespace {

constexpr int poll_ms = 250;

// Reports that are dropped are told of at most this often.
constexpr time_t tell_seconds = 10;

class packet_path {
  public:
    packet_path(keeper::link *keeper, int channel, int signals, poster *post)
        : keeper_(keeper), forwarder_(channel), channel_(channel), signals_(signals), post_(post) {}

    // Until it is told to end; the exit code.
    int run() {
        hear_keeper();  // what it told while this process asked for the channel
        while (!ended_ && !post_->should_restart()) {
            wait();
            tell_of_drops();
        }
        return 0;
    }

  private:
    void wait() {
        std::vector<pollfd> list = {{keeper_->fd(), POLLIN, 0}, {signals_, POLLIN, 0}};
        if (forwarder_.waiting()) {
            list.push_back({channel_, POLLOUT, 0});
        }
        const size_t fixed = list.size();
        tables_.poll_for(&list);
        if (poll(list.data(), list.size(), poll_ms) <= 0) {
            return;
        }
        for (size_t i = fixed; i < list.size(); ++i) {
            if (list[i].revents != 0) {
                tables_.read(list[i].fd, [this](const auto &...report) { take(report...); });
            }
        }
        forwarder_.flush();
        if (list[1].revents != 0) {
            hear_signal();
        }
        if (list[0].revents != 0) {
            hear_keeper();
        }
    }

    void take(const linux_flow &flow, const uint8_t *packet, size_t packet_bytes) {
        // A copy of a packet that was forwarded as well: there is nothing to answer.
        if (flow.report != LINUX_REPORT_PACKET) {
            forwarder_.forward(flow);
        }
        post_->take(flow, packet, packet_bytes);
    }

    void hear_keeper() {
        keeper::event e;
        while (keeper_->next(&e) == 0 && e.kind != keeper::event_kind::none) {
            switch (e.kind) {
                case keeper::event_kind::table:
                    tables_.add(e.kernel_table, e.fd);
                    break;
                case keeper::event_kind::table_gone:
                    tables_.remove(e.kernel_table);
                    break;
                default:
                    ended_ = true;
                    return;
            }
        }
    }

    void hear_signal() {
        signalfd_siginfo what = {};
        if (read(signals_, &what, sizeof(what)) != sizeof(what)) {
            return;
        }
        if (what.ssi_signo == SIGUSR1) {
            show_counts();
        } else {
            ended_ = true;
        }
    }

    void show_counts() const {
        const poster_counts c = post_->counts();
        say("reports %lu (%lu times too many at once), forwarded %lu, dropped %lu",
            tables_.reports(), tables_.overruns(), forwarder_.forwarded(), forwarder_.dropped());
        say("signals posted %lu, there already %lu, not wanted %lu, failed %lu, dropped %lu; "
            "packets "
            "kept %lu",
            c.posted, c.there, c.unwanted, c.failed, c.dropped, c.packets);
    }

    void tell_of_drops() {
        const uint64_t dropped =
            forwarder_.dropped() + post_->counts().dropped + tables_.overruns();
        const time_t now = time(nullptr);
        if (dropped != dropped_told_ && now - told_at_ >= tell_seconds) {
            say("%lu reports dropped since the last word; the owner or the window is slow",
                dropped - dropped_told_);
            dropped_told_ = dropped;
            told_at_ = now;
        }
    }

    keeper::link *keeper_;
    tables tables_;
    forwarder forwarder_;
    int channel_;
    int signals_;
    poster *post_;
    bool ended_ = false;
    uint64_t dropped_told_ = 0;
    time_t told_at_ = 0;
};

// A descriptor that tells of SIGTERM, SIGINT and SIGUSR1, which no thread is interrupted by then.
int open_signals() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGUSR1);
    sigprocmask(SIG_BLOCK, &set, nullptr);
    return signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
}

int fail(const char *what, cerrno code) {
    say("%s: %s", what, cerr_strerror(code));
    return 1;
}

int start(const std::string &run_dir) {
    keeper::link keeper;
    cerrno code = keeper.open();
    if (code == ENOENT) {
        say("it is started by `mfwd6d run`, not by hand");
        return 1;
    }
    if (code != 0) {
        return fail("no connection to the keeper", code);
    }
    int channel = -1;
    code = keeper.flow_channel(&channel);
    if (code != 0) {
        return fail("no flow channel from the keeper", code);
    }
    if ((code = diag_set_run_dir(run_dir.c_str())) != 0 ||
        (code = shmwin_set_run_dir(run_dir.c_str())) != 0) {
        return fail(run_dir.c_str(), code);
    }
    const int signals = open_signals();
    if (signals < 0) {
        return fail("signals", static_cast<cerrno>(errno));
    }
    code = keeper.ready();
    if (code != 0) {
        return fail("the keeper does not answer", code);
    }
    // Never deleted, see its destructor.
    auto *const post = new poster(run_dir);
    return packet_path(&keeper, channel, signals, post).run();
}

std::string default_run_dir() {
    const char *const named = std::getenv(keeper::run_dir_variable);
    return named != nullptr && *named != '\0' ? named : diag_run_dir();
}

}  // namespace
}  // namespace mfwd6::signald

int main(int argc, char **argv) {
    CLI::App app(
        "The packet path of mfwd6: kernel reports about flows become signals in the shared "
        "window,\n"
        "and go to the owner, which answers them. `mfwd6d run` starts it and starts it again; "
        "there\n"
        "is no need to do so by hand.\n\n"
        "Signals: SIGTERM ends it, SIGUSR1 makes it write its counters to standard error.");
    std::string run_dir = mfwd6::signald::default_run_dir();
    app.add_option("--run-dir", run_dir, "Folder that all processes share (also: MFWD6_RUN_DIR)")
        ->capture_default_str();
    app.set_version_flag("--version", "mfwd6-signald " MFWD6_VERSION);
    CLI11_PARSE(app, argc, argv);
    const int code = mfwd6::signald::start(run_dir);
    // Without destructors: the posting thread may be waiting for a lock.
    _exit(code);
}
