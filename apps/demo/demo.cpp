// mfwd6-demo: a source, a router and three receivers on this machine, real packets, and what
// happens to them when the router's processes are killed.
//
// Everything lives in network namespaces and in one folder on tmpfs, and ends with this process,
// also on Ctrl-C. Exit code: 0 all went as told, 1 it did not, 2 it cannot be run here, 130 ended
// by Ctrl-C.
#include <signal.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "apps/netlab/lab.h"
#include "apps/netlab/programs.h"
#include "apps/netlab/receiver.h"
#include "apps/netlab/sender.h"

namespace {

using namespace std::chrono_literals;

constexpr uint32_t pace = 5000;
constexpr char film[] = "ff3e::8000:1";
constexpr char news[] = "ff3e::9:0:1";
constexpr char surprise[] = "ff3e::8000:99";
constexpr char configuration[] =
    "phyint source enable\n"
    "phyint one enable\n"
    "phyint two enable\n"
    "phyint three enable\n";

volatile sig_atomic_t interrupted = 0;

struct ended_by_user {};

void pass_time(std::chrono::milliseconds time) {
    const auto end = std::chrono::steady_clock::now() + time;
    while (std::chrono::steady_clock::now() < end) {
        if (interrupted != 0) {
            throw ended_by_user();
        }
        std::this_thread::sleep_for(10ms);
    }
}

void say(const char *format, ...) __attribute__((format(printf, 1, 2)));
void say(const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    std::vprintf(format, arguments);
    va_end(arguments);
    std::printf("\n");
    std::fflush(stdout);
}

std::string indented(const std::string &text) {
    std::string out;
    size_t from = 0;
    while (from < text.size()) {
        const size_t eol = std::min(text.find('\n', from), text.size());
        out += "      " + text.substr(from, eol - from) + "\n";
        from = eol + 1;
    }
    return out;
}

class demonstration {
  public:
    demonstration()
        : source_(lab_.add_host("source", "fd00:1::10")),
          hosts_{&lab_.add_host("one", "fd00:11::10"), &lab_.add_host("two", "fd00:12::10"),
                 &lab_.add_host("three", "fd00:13::10")},
          film_(source_, film),
          news_(source_, news) {
        for (const netlab::host *host : hosts_) {
            receivers_.push_back(std::make_unique<netlab::receiver>(*host));
        }
    }

    // The exit code.
    int run() {
        begin();
        watch(4);
        kill_owner();
        add_receiver();
        kill_both();
        answer_signal();
        film_.stop();
        news_.stop();
        pass_time(200ms);
        return sum_up();
    }

  private:
    void begin() {
        say("1. A source, a router and the receivers one, two and three, each in a network\n"
            "   namespace of its own, are wired. The router is started:");
        say("      $ mfwd6d run --run-dir DIR --config FILE");
        router_ = std::make_unique<netlab::router>(lab_.router(), configuration);
        wait_for_path();
        say("      keeper %d, owner %d, packet path %d", router_->keeper(), router_->owner(),
            router_->signald());
        say("   One route for a film, one for every group of a /96:");
        ctl({"add", "route", "fd00:1::10", film, "--from", "source", "--to", "one", "two"});
        ctl({"add", "route", "any", "ff3e::9:0:0/96", "--from", "source", "--to", "one", "two",
             "three"});
        say("2. The source sends the film with %u packets a second, and news in a group of the "
            "/96.",
            pace);
        film_.start(pace);
        news_.start(pace / 10);
    }

    void kill_owner() {
        const pid_t owner = router_->owner();
        say("3. In mid-stream: kill -9 %d, the owner of all state.", owner);
        const double ms = kill_and_wait(owner, 0);
        say("      a new owner, %d, took commands after %.0f ms", router_->owner(), ms);
        watch(2);
    }

    void add_receiver() {
        say("4. The new owner has everything, so a change takes effect: three sees the film too.");
        ctl({"add", "output", "fd00:1::10", film, "three"});
        joined_at_ = film_.sent() + 1;
        watch(2);
    }

    void kill_both() {
        const pid_t owner = router_->owner();
        const pid_t path = router_->signald();
        say("5. kill -9 %d %d, the owner and the packet path together.", owner, path);
        const double ms = kill_and_wait(owner, path);
        say("      both are back after %.0f ms: owner %d, packet path %d", ms, router_->owner(),
            router_->signald());
        watch(2);
    }

    void answer_signal() {
        say("6. The source sends to a group that no route takes. The router says so:");
        netlab::sender unknown(source_, surprise);
        unknown.start(100);
        pass_time(300ms);
        ctl({"show", "signals"});
        say("   A route for it, and it flows:");
        ctl({"add", "route", "fd00:1::10", surprise, "--from", "source", "--to", "two"});
        pass_time(500ms);
        const uint64_t got = receivers_[1]->packets(unknown.stream());
        say("      two has had %lu packets of it", got);
        failed_ |= got == 0;
        unknown.stop();
    }

    int sum_up() {
        say("\nSummary");
        say("   %-8s %-14s %10s %10s %6s %10s %12s", "receiver", "group", "sent", "received",
            "lost", "duplicates", "median delay");
        sum_up_stream(film_, {1, 1, joined_at_ + pace / 10});
        sum_up_stream(news_, {1, 1, 1});
        say("\nThe tree, as the window has it:\n");
        ctl({"show", "routes", "--tree"});
        say("\n%s", failed_ ? "It did NOT go as it should."
                            : "The owner was killed twice, the packet path once; no packet was "
                              "lost and no route.");
        return failed_ ? 1 : 0;
    }

    // `from`: the first sequence number that counts at each receiver.
    void sum_up_stream(const netlab::sender &stream, const std::vector<uint64_t> &from) {
        for (size_t i = 0; i < receivers_.size(); ++i) {
            const netlab::stream_report got = receivers_[i]->report(stream.stream());
            const uint64_t first = from[i];
            const uint64_t lost = got.missing(first, stream.sent());
            say("   %-8s %-14s %10lu %10lu %6lu %10lu %9u us", hosts_[i]->name.c_str(),
                stream.group().c_str(), stream.sent() - first + 1, stream.sent() - first + 1 - lost,
                lost, got.duplicates, got.latency(50));
            failed_ |= lost != 0 || got.duplicates != 0;
        }
    }

    // A line each half second: what every receiver has had so far.
    void watch(int halves) {
        for (int i = 0; i < halves; ++i) {
            pass_time(500ms);
            std::string line;
            for (size_t r = 0; r < receivers_.size(); ++r) {
                line += "   " + hosts_[r]->name + " " +
                        std::to_string(receivers_[r]->packets(film_.stream())) + " + " +
                        std::to_string(receivers_[r]->packets(news_.stream()));
            }
            say("      sent %lu + %lu  received%s", film_.sent(), news_.sent(), line.c_str());
        }
    }

    // Milliseconds until they are back.
    double kill_and_wait(pid_t owner, pid_t path) {
        const uint64_t began = netlab::now_ns();
        kill(owner, SIGKILL);
        if (path != 0) {
            kill(path, SIGKILL);
        }
        failed_ |= !router_->wait_owner(owner);
        if (path != 0) {
            failed_ |= !router_->wait_signald(path);
        }
        return static_cast<double>(netlab::now_ns() - began) / 1e6;
    }

    void wait_for_path() {
        for (int i = 0; i < 300 && router_->signald() == 0; ++i) {
            pass_time(10ms);
        }
    }

    // Runs the operator's tool, and shows both the command and what it says.
    void ctl(const std::vector<std::string> &arguments) {
        std::string words;
        for (const std::string &argument : arguments) {
            words += " " + argument;
        }
        say("      $ mfwd6ctl%s", words.c_str());
        const netlab::ended end = router_->ctl(arguments);
        std::printf("%s%s", indented(end.out).c_str(), indented(end.err).c_str());
        failed_ |= end.code != 0;
    }

    netlab::lab lab_;
    netlab::host &source_;
    std::vector<netlab::host *> hosts_;
    std::vector<std::unique_ptr<netlab::receiver>> receivers_;
    std::unique_ptr<netlab::router> router_;
    netlab::sender film_;
    netlab::sender news_;
    uint64_t joined_at_ = 1;
    bool failed_ = false;
};

int run() {
    const std::string why_not = netlab::gain_privilege();
    if (!why_not.empty()) {
        std::fprintf(stderr, "mfwd6-demo: this machine does not let it make hosts: %s\n",
                     why_not.c_str());
        return 2;
    }
    try {
        return demonstration().run();
    } catch (const ended_by_user &) {
        std::printf("\nended; everything is cleaned up\n");
        return 130;
    } catch (const std::exception &e) {
        std::fprintf(stderr, "mfwd6-demo: %s\n", e.what());
        return interrupted != 0 ? 130 : 1;
    }
}

void on_interrupt(int) {
    interrupted = 1;
}

}  // namespace

int main(int argc, char **) {
    if (argc > 1) {
        std::printf(
            "usage: mfwd6-demo\n\n"
            "Makes a source, a router and three receivers from network namespaces (as root, or in "
            "a\n"
            "user namespace), sends real packets, kills the router's processes in mid-stream, and\n"
            "says what arrived. Takes half a minute; Ctrl-C ends it; nothing is left behind.\n");
        return 2;
    }
    struct sigaction act = {};
    act.sa_handler = on_interrupt;
    sigaction(SIGINT, &act, nullptr);
    sigaction(SIGTERM, &act, nullptr);
    return run();
}
