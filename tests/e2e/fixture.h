// What the end-to-end tests share: a privilege asked for once, a router with hosts around it, and
// words for what they expect of traffic.
#ifndef MFWD6_TESTS_E2E_FIXTURE_H
#define MFWD6_TESTS_E2E_FIXTURE_H

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "apps/netlab/lab.h"
#include "apps/netlab/programs.h"
#include "apps/netlab/receiver.h"
#include "apps/netlab/sender.h"

namespace e2e {

using namespace std::chrono_literals;
using json = nlohmann::json;

// How long a packet that must not arrive is waited for, and one that must.
constexpr auto grace = 60ms;
constexpr auto patience = 5s;

// Skips, with the reason, where network namespaces cannot be made.
class EndToEnd : public testing::Test {
  protected:
    static void SetUpTestSuite() {
        static const std::string reason = netlab::gain_privilege();
        why_not_ = reason;
    }

    void SetUp() override {
        if (!why_not_.empty()) {
            GTEST_SKIP() << why_not_;
        }
    }

    static inline std::string why_not_;
};

// Hosts that send, hosts that receive, each with a receiver at work.
struct site {
    netlab::lab lab;
    std::map<std::string, netlab::host *> hosts;
    std::map<std::string, std::unique_ptr<netlab::receiver>> receivers;

    void add_source(const std::string &name, const std::string &address) {
        hosts[name] = &lab.add_host(name, address);
    }
    void add_receiver(const std::string &name, const std::string &address) {
        add_source(name, address);
        receivers[name] = std::make_unique<netlab::receiver>(*hosts[name]);
    }

    // Who has had at least one packet of the stream.
    std::vector<std::string> who_got(uint32_t stream) const {
        std::vector<std::string> names;
        for (const auto &[name, receiver] : receivers) {
            if (receiver->packets(stream) > 0) {
                names.push_back(name);
            }
        }
        return names;
    }
};

// One source and three receivers on the interfaces source, one, two and three.
inline std::unique_ptr<site> small_site() {
    auto s = std::make_unique<site>();
    s->add_source("source", "fd00:1::10");
    s->add_receiver("one", "fd00:11::10");
    s->add_receiver("two", "fd00:12::10");
    s->add_receiver("three", "fd00:13::10");
    return s;
}

inline const std::string small_interfaces =
    "phyint source enable\nphyint one enable\nphyint two enable\nphyint three enable\n";

// A small site whose router runs with a configuration; not started where the test is skipped.
class SmallSite : public EndToEnd {
  protected:
    void SetUp() override { start(""); }

    // `lines` come behind those of the interfaces. False: the test is skipped.
    bool start(const std::string &lines) {
        EndToEnd::SetUp();
        if (IsSkipped()) {
            return false;
        }
        site_ = small_site();
        router_ = std::make_unique<netlab::router>(site_->lab.router(), small_interfaces + lines);
        return true;
    }

    std::unique_ptr<site> site_;
    std::unique_ptr<netlab::router> router_;
};

// Waits until `what` holds; false after `limit`.
template <class F>
bool eventually(F what, std::chrono::milliseconds limit = patience) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!what()) {
        if (std::chrono::steady_clock::now() >= end) {
            return false;
        }
        std::this_thread::sleep_for(2ms);
    }
    return true;
}

// The window is whole: `mfwd6ctl check` finds nothing.
inline void expect_clean(const netlab::router &r) {
    const netlab::ended check = r.ctl({"check"});
    EXPECT_EQ(check.code, 0) << check.out << check.err;
}

}  // namespace e2e

#endif
