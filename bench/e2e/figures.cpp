// e2e_figures: what the whole system costs, measured with real packets and the kernel's own tables.
//
// Each figure stands beside its yardstick. Needs root or unprivileged user namespaces; makes its
// own hosts and leaves nothing behind. Not for a busy machine.
//
//   e2e_figures [forwarding] [kills] [signals] [load] [restart]     all of them without arguments
#include <signal.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>
#include <numeric>
#include <string>
#include <vector>

#include "apps/netlab/by_hand.h"
#include "apps/netlab/lab.h"
#include "apps/netlab/programs.h"
#include "apps/netlab/receiver.h"
#include "apps/netlab/sender.h"
#include "tests/e2e/window_view.h"

namespace {

using namespace std::chrono_literals;
using json = nlohmann::json;

const std::string group = "ff3e::8000:1";
const std::vector<std::string> outputs = {"one", "two", "three"};
const std::string interfaces =
    "phyint source enable\nphyint one enable\nphyint two enable\nphyint three enable\n";

double seconds_since(uint64_t began_ns) {
    return static_cast<double>(netlab::now_ns() - began_ns) / 1e9;
}

template <class T>
T median(std::vector<T> values) {
    std::sort(values.begin(), values.end());
    return values.empty() ? T{} : values[values.size() / 2];
}

struct site {
    netlab::lab lab;
    const netlab::host &source = lab.add_host("source", "fd00:1::10");
    std::vector<const netlab::host *> hosts = {&lab.add_host("one", "fd00:11::10"),
                                               &lab.add_host("two", "fd00:12::10"),
                                               &lab.add_host("three", "fd00:13::10")};

    // Packets that have arrived at all receivers' interfaces.
    uint64_t arrived() const {
        uint64_t sum = 0;
        for (const netlab::host *host : hosts) {
            const json links = json::parse(host->space.shell("ip -s -j link show dev eth0"));
            sum += links[0]["stats64"]["rx"]["packets"].get<uint64_t>();
        }
        return sum;
    }
};

// ---- forwarding rate

// Packets a second that reach each of three receivers when one sender sends as fast as it can.
double forwarding_rate(const site &s) {
    constexpr uint64_t packets = 200000;
    netlab::sender stream(s.source, group, 200);
    stream.burst(1000);
    const uint64_t before = s.arrived();
    const uint64_t began = netlab::now_ns();
    stream.burst(packets);
    const double took = seconds_since(began);
    const uint64_t copies = s.arrived() - before;
    if (copies < packets * 3 * 99 / 100) {
        std::printf("    only %lu of %lu copies arrived\n", copies, packets * 3);
    }
    return static_cast<double>(copies) / 3 / took;
}

double rate_by_hand() {
    const site s;
    netlab::by_hand kernel(s.lab.router());
    const unsigned from = kernel.add_interface("source");
    std::vector<unsigned> to;
    for (const std::string &name : outputs) {
        to.push_back(kernel.add_interface(name));
    }
    kernel.add_route("fd00:1::10", group, from, to);
    return forwarding_rate(s);
}

double rate_with_state() {
    const site s;
    const netlab::router router(
        s.lab.router(),
        interfaces + "mroute from source source fd00:1::10 group " + group + " to one two three\n");
    return forwarding_rate(s);
}

void measure_forwarding() {
    std::vector<double> hand;
    std::vector<double> state;
    for (int i = 0; i < 7; ++i) {
        hand.push_back(rate_by_hand());
        state.push_back(rate_with_state());
    }
    std::printf(
        "forwarding, one sender, three receivers, 200 bytes, packets/s in: by hand %.0f, "
        "with state %.0f, ratio %.3f (medians of %zu)\n",
        median(hand), median(state), median(state) / median(hand), hand.size());
}

// ---- kills

void measure_kills() {
    constexpr int kills = 30;
    const site s;
    const netlab::router router(
        s.lab.router(),
        interfaces + "mroute from source source fd00:1::10 group " + group + " to one two three\n");
    std::vector<std::unique_ptr<netlab::receiver>> receivers;
    for (const netlab::host *host : s.hosts) {
        receivers.push_back(std::make_unique<netlab::receiver>(*host));
    }
    netlab::sender stream(s.source, group);
    stream.start(5000);
    std::vector<double> back;
    for (int i = 0; i < kills; ++i) {
        const pid_t owner = router.owner();
        const pid_t path = router.signald();
        const uint64_t began = netlab::now_ns();
        kill(owner, SIGKILL);
        if (i % 2 == 1) {
            kill(path, SIGKILL);
        }
        if (!router.wait_owner(owner)) {
            std::printf("the owner did not come back:\n%s", router.log().c_str());
            return;
        }
        back.push_back(seconds_since(began) * 1e3);
        std::this_thread::sleep_for(100ms);
    }
    stream.stop();
    std::this_thread::sleep_for(200ms);
    uint64_t lost = 0;
    for (const auto &receiver : receivers) {
        lost += receiver->report(stream.stream()).missing(1, stream.sent());
    }
    std::printf(
        "kill -9 of the owner, each second time of the packet path too, at 5,000 packets/s "
        "to three receivers: %d kills, %lu packets, %lu lost; first command answered %.1f ms "
        "after the kill (median; worst %.1f)\n",
        kills, stream.sent() * 3, lost, median(back), *std::max_element(back.begin(), back.end()));
}

// ---- signals

void measure_signals() {
    constexpr int flows = 200;
    const site s;
    const netlab::router router(s.lab.router(), interfaces);
    const e2e::window_view window(router.run_dir());
    std::vector<double> took;
    int missed = 0;
    for (int i = 0; i < flows; ++i) {
        const std::string g = "ff3e::7:" + std::to_string(i % 9 + 1) + ":" + std::to_string(i + 1);
        netlab::sender stream(s.source, g);
        const uint64_t began = netlab::now_ns();
        stream.burst(1);
        while (e2e::window_view::signal("fd00:1::10", g) == nullptr && seconds_since(began) < 1) {
            std::this_thread::sleep_for(20us);
        }
        missed += seconds_since(began) >= 1 ? 1 : 0;
        took.push_back(seconds_since(began) * 1e3);
    }
    std::sort(took.begin(), took.end());
    std::printf(
        "first packet of an unknown flow to its signal in the window: median %.2f ms, 99 %% "
        "%.2f ms, worst %.2f ms, %d flows, %d missed (goal 100 ms)\n",
        took[took.size() / 2], took[took.size() * 99 / 100], took.back(), flows, missed);
}

// ---- load and restart

std::string group_number(uint32_t n) {
    char text[64];
    std::snprintf(text, sizeof(text), "ff3e::%x:%x", n >> 16, n & 0xffff);
    return text;
}

// Seconds for so many routes over the command socket, kernel entries included.
double load(const netlab::router &router, uint32_t routes) {
    constexpr uint32_t at_once = 8192;
    std::vector<std::string> requests;
    for (uint32_t n = 0; n < routes;) {
        json lines = json::array();
        for (; n < routes && lines.size() < at_once; ++n) {
            lines.push_back("mroute from source source fd00:1::10 group " + group_number(n + 1) +
                            " to one");
        }
        requests.push_back(
            json{{"id", n}, {"action", "lines"}, {"args", {{"lines", lines}}}}.dump() + "\n");
    }
    netlab::command_line line(router.run_dir() + "/command");
    const uint64_t began = netlab::now_ns();
    for (const std::string &request : requests) {
        line.send_raw(request);
        const json answer = json::parse(line.read_line(60s));
        if (answer.value("code", -1) != 0) {
            throw std::runtime_error("not loaded: " + answer.dump().substr(0, 500));
        }
    }
    return seconds_since(began);
}

double load_by_hand(uint32_t routes) {
    const site s;
    netlab::by_hand kernel(s.lab.router());
    const unsigned from = kernel.add_interface("source");
    const unsigned to = kernel.add_interface("one");
    std::vector<std::string> groups;
    for (uint32_t n = 0; n < routes; ++n) {
        groups.push_back(group_number(n + 1));
    }
    const uint64_t began = netlab::now_ns();
    for (const std::string &g : groups) {
        kernel.add_route("fd00:1::10", g, from, {to});
    }
    return seconds_since(began);
}

void measure_load() {
    for (const uint32_t routes : {10000U, 100000U}) {
        std::vector<double> hand;
        std::vector<double> ours;
        for (int i = 0; i < 3; ++i) {
            hand.push_back(load_by_hand(routes));
            const site s;
            const netlab::router router(s.lab.router(), interfaces);
            ours.push_back(load(router, routes));
        }
        std::printf(
            "%u routes over the command socket to kernel entries: %.2f us each; MRT6_ADD_MFC "
            "alone %.2f us; ratio %.2f (medians of 3, goal 1.8)\n",
            routes, median(ours) / routes * 1e6, median(hand) / routes * 1e6,
            median(ours) / median(hand));
    }
}

void measure_restart() {
    constexpr uint32_t routes = 100000;
    const site s;
    const netlab::router router(s.lab.router(), interfaces);
    load(router, routes);
    std::vector<double> back;
    for (int i = 0; i < 5; ++i) {
        const pid_t owner = router.owner();
        const uint64_t began = netlab::now_ns();
        kill(owner, SIGKILL);
        if (!router.wait_owner(owner, 60s)) {
            std::printf("the owner did not come back\n");
            return;
        }
        back.push_back(seconds_since(began) * 1e3);
    }
    std::printf(
        "%u routes in the kernel, kill -9 to the first answered command: median %.0f ms, "
        "worst %.0f ms; then: %s\n",
        routes, median(back), *std::max_element(back.begin(), back.end()),
        router.must("status").dump().c_str());
}

}  // namespace

int main(int argc, char **argv) {
    const std::string why_not = netlab::gain_privilege();
    if (!why_not.empty()) {
        std::printf("cannot measure here: %s\n", why_not.c_str());
        return 2;
    }
    const auto wanted = [&](const char *name) {
        return argc == 1 || std::any_of(argv + 1, argv + argc, [&](const char *argument) {
                   return std::strcmp(argument, name) == 0;
               });
    };
    setvbuf(stdout, nullptr, _IOLBF, 0);
    try {
        // Signals come last: they map the window into this process.
        const std::pair<const char *, void (*)()> figures[] = {{"forwarding", measure_forwarding},
                                                               {"kills", measure_kills},
                                                               {"load", measure_load},
                                                               {"restart", measure_restart},
                                                               {"signals", measure_signals}};
        for (const auto &[name, measure] : figures) {
            if (wanted(name)) {
                measure();
            }
        }
    } catch (const std::exception &e) {
        std::printf("failed: %s\n", e.what());
        return 1;
    }
    return 0;
}
