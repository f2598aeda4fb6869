// An owner that is killed at random while it programs; the next one resynchronises; then what the
// kernel has is compared with what the window's records say, worked out here.
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <chrono>
#include <cstring>
#include <iostream>
#include <random>
#include <set>
#include <sstream>
#include <thread>

#include "tests/kit/child.h"
#include "tests/platforms/linux/router.h"

namespace {

using bed::A;
using bed::F;
using bed::key;

constexpr uint32_t red = 100;

// The keeper's side: sockets that exist before the owners do, and stay.
class held_sockets {
  public:
    held_sockets() {
        for (const uint32_t table : {uint32_t{254}, red}) {
            open_.open[table] = socket(AF_INET6, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_ICMPV6);
        }
    }
    void use() {
        const linux_sockets mine = {get, nullptr, this};
        ASSERT_EQ(linux_use_sockets(&mine), 0U);
    }

  private:
    static int get(void *context, uint32_t table) {
        auto &self = *static_cast<held_sockets *>(context);
        const auto there = self.open_.open.find(table);
        return there != self.open_.open.end() ? there->second : -ENOENT;
    }
    bed::sockets open_;
};

// ---- random work --------------------------------------------------------------------------------

class worker {
  public:
    worker(bed::owner &o, uint32_t seed) : o_(o), random_(seed) {
        tables_[0] = o.table();
        tables_[1] = o.table(red, "red");
    }

    // What the last step was.
    std::string last() const { return last_; }

    void step() {
        ipv4mc_table_st *table = tables_[below(2)];
        const key k = random_key();
        const uint32_t what = below(7);
        last_ = std::to_string(what) + " in " + std::to_string(table->tid) + " " + k.source + " " +
                k.group + "/" + std::to_string(k.length);
        switch (what) {
            case 0:
            case 1:
                o_.add(table, k, random_legs(table), random_attributes(k));
                break;
            case 2:
                o_.remove(table, k);
                break;
            case 3:
                o_.set_leg(table, k, random_leg(table));
                break;
            case 4:
                o_.drop_leg(table, k, link_of(table, below(3)));
                break;
            case 5:
                o_.change(table, k, random_attributes(k));
                break;
            default:
                answer(table);
                break;
        }
    }

  private:
    uint32_t below(uint32_t limit) { return static_cast<uint32_t>(random_()) % limit; }
    // Links 1 to 3 are of the default table, 4 to 6 of the other.
    uint32_t link_of(const ipv4mc_table_st *table, uint32_t n) const {
        return (table->tid == red ? 4 : 1) + n;
    }
    key random_key() {
        const std::string group = "ff3e::" + std::to_string(1 + below(8));
        switch (below(4)) {
            case 0:
                return bed::any("ff3e::", below(2) == 0 ? 32 : 112);
            case 1:
                return bed::any(group);
            default:
                return bed::sg("2001:db8::" + std::to_string(1 + below(3)), group);
        }
    }
    bed::leg random_leg(const ipv4mc_table_st *table) {
        const uint64_t words[] = {A, F, A | F, 0};
        return {link_of(table, below(3)), words[below(4)]};
    }
    std::vector<bed::leg> random_legs(const ipv4mc_table_st *table) {
        std::vector<bed::leg> legs = {{link_of(table, 0), A}};
        for (uint32_t n = 1; n < 3; ++n) {
            if (below(2) == 0) {
                legs.push_back({link_of(table, n), below(4) == 0 ? A : F});
            }
        }
        return legs;
    }
    uint64_t random_attributes(const key &k) {
        const uint64_t drop = below(8) == 0 ? MRIB_ROUTE_DROP : 0;
        const uint64_t inherit = below(2) == 0     ? 0
                                 : k.length == 256 ? MRIB_ROUTE_IA
                                 : k.length < 128  ? MRIB_ROUTE_IF
                                                   : 0;
        return drop | inherit;
    }
    void answer(const ipv4mc_table_st *table) {
        const key k = bed::sg("2001:db8::" + std::to_string(1 + below(3)),
                              "ff3e::" + std::to_string(1 + below(8)));
        const linux_flow flow = {table->tid == red ? red : 254,
                                 static_cast<uint16_t>(below(3)),
                                 static_cast<uint8_t>(below(4) == 0 ? LINUX_REPORT_WRONG_INTERFACE
                                                                    : LINUX_REPORT_UNKNOWN_FLOW),
                                 0,
                                 net::address(k.source),
                                 net::address(k.group)};
        linux_answer_flow(&flow, nullptr);
    }

    bed::owner &o_;
    std::mt19937 random_;
    std::string last_;
    ipv4mc_table_st *tables_[2];
};

// ---- what should be there -----------------------------------------------------------------------

std::string link_name(ifhtype ifh) {
    char name[IF_NAMESIZE] = {};
    return if_indextoname(ifh, name) != nullptr ? name : "unresolved";
}

struct legs {
    std::set<std::string> accepts;
    std::set<std::string> outputs;
};

legs legs_of(const ipv4mc_route_entry_st &route) {
    legs l;
    for (const ipv4mc_intf_entry_st *entry = route.intf_list; entry != nullptr;
         entry = entry->next_intf) {
        if ((entry->attributes & A) != 0) {
            l.accepts.insert(link_name(entry->ifh));
        }
        if ((entry->attributes & F) != 0 && (route.attributes & MRIB_ROUTE_DROP) == 0) {
            l.outputs.insert(link_name(entry->ifh));
        }
    }
    if ((route.attributes & MRIB_ROUTE_IA) != 0 && route.IF_parent != nullptr) {
        for (const ipv4mc_intf_entry_st *entry = route.IF_parent->intf_list; entry != nullptr;
             entry = entry->next_intf) {
            if ((entry->attributes & A) != 0) {
                l.accepts.insert(link_name(entry->ifh));
            }
        }
    }
    return l;
}

std::string line_of(const std::string &source, const std::string &group, const std::string &in,
                    const std::set<std::string> &outputs) {
    std::string line = "(" + source + "," + group + ") Iif: " + in;
    if (!outputs.empty()) {
        line += " Oifs:";
        for (const std::string &out : outputs) {
            line += " " + out;
        }
    }
    return line + " State: resolved";
}

std::string describe(const ipv4mc_route_entry_st &route) {
    std::ostringstream text;
    text << net::text_of(route.source) << " " << net::text_of(route.group) << "/" << route.pfx_len
         << " " << route.attributes;
    for (const ipv4mc_intf_entry_st *entry = route.intf_list; entry != nullptr;
         entry = entry->next_intf) {
        text << " " << link_name(entry->ifh) << ":" << entry->attributes;
    }
    if (route.IF_parent != nullptr) {
        text << " below " << describe(*route.IF_parent);
    }
    return text.str();
}

struct expectation {
    ipv4mc_table_st *table;
    uint32_t kernel_table;
    std::map<std::string, std::string> own;  // by key
    std::string routes;                      // all, for a failure
    std::vector<std::string> lines;
};

cerrno expect_route(ipv4mc_route_entry_st *route, void *context) {
    auto &e = *static_cast<expectation *>(context);
    e.routes += describe(*route) + "\n";
    const bool exact = route->pfx_len == 256;
    legs l = legs_of(*route);
    if ((!exact && (route->pfx_len != 128 || (route->attributes & MRIB_ROUTE_DROP) != 0)) ||
        l.accepts.size() != 1) {
        return 0;
    }
    const std::string in = *l.accepts.begin();
    if (exact) {
        l.outputs.erase(in);
    } else {
        l.outputs.insert(in);
    }
    const std::string source = net::text_of(route->source);
    const std::string group = net::text_of(route->group);
    e.own[source + " " + group] = line_of(source, group, in, l.outputs);
    return 0;
}

// Its parent is one of several where the route accepts from several, else the one.
cerrno expect_flow(const linux_flow_entry *flow, void *context) {
    auto &e = *static_cast<expectation *>(context);
    if (flow->kernel_table != e.kernel_table) {
        return 0;
    }
    const std::string source = net::text_of(flow->source);
    const std::string group = net::text_of(flow->group);
    // A held flow may have come in by an interface that no route uses any more.
    ifhtype parent = 0;
    const cerrno known = linux_mif_handle(flow->kernel_table, flow->parent_mif, &parent);
    EXPECT_TRUE(known == 0 || flow->held == 1);
    ipv4mc_route_entry_st *route = nullptr;
    ip6mc_lookup(e.table, &flow->source, &flow->group, 0, &route, nullptr);
    EXPECT_EQ(e.own.count(source + " " + group), 0U)
        << "a flow of a route that has an entry: " << source << " " << group << " "
        << (route != nullptr ? describe(*route) : "none");
    EXPECT_EQ(flow->held == 1, route == nullptr) << source << " " << group;
    std::set<std::string> outputs;
    if (route != nullptr) {
        const legs l = legs_of(*route);
        EXPECT_TRUE(l.accepts.empty() || l.accepts.count(link_name(parent)) == 1);
        outputs = l.accepts.empty() ? std::set<std::string>() : l.outputs;
        outputs.erase(link_name(parent));
        EXPECT_EQ(net::text_of(flow->route_group), net::text_of(route->group));
        EXPECT_EQ(flow->route_pfx_len, route->pfx_len);
    }
    e.lines.push_back(line_of(source, group, link_name(parent), outputs));
    return 0;
}

// ip(8) lists outputs in the order of mifs: they are sorted here.
std::vector<std::string> sorted_outputs(std::vector<std::string> lines) {
    for (std::string &line : lines) {
        std::istringstream words(line);
        std::string word;
        std::string text;
        std::set<std::string> outputs;
        bool in_outputs = false;
        while (words >> word) {
            if (word == "State:") {
                for (const std::string &out : outputs) {
                    text += " " + out;
                }
                in_outputs = false;
            }
            if (in_outputs) {
                outputs.insert(word);
            } else if (word != "Table:") {
                text += (text.empty() ? "" : " ") + word;
            } else {
                words >> word;
            }
            in_outputs = in_outputs || word == "Oifs:";
        }
        line = text;
    }
    std::sort(lines.begin(), lines.end());
    return lines;
}

void compare_with_kernel(uint32_t tid, uint32_t kernel_table) {
    expectation e = {ip6mc_table_lookup_by_tbl_id(tid), kernel_table, {}, {}, {}};
    ASSERT_NE(e.table, nullptr);
    ip6mc_route_walk(e.table, 0, expect_route, &e);
    ASSERT_EQ(linux_walk_flows(expect_flow, &e), 0U);
    for (const auto &[k, line] : e.own) {
        e.lines.push_back(line);
    }
    std::sort(e.lines.begin(), e.lines.end());
    const std::vector<std::string> there = sorted_outputs(bed::kernel_entries(kernel_table));
    for (const std::string &line : there) {
        EXPECT_EQ(std::count(e.lines.begin(), e.lines.end(), line), 1)
            << "not expected: " << line << "\n"
            << e.routes;
    }
    for (const std::string &line : e.lines) {
        EXPECT_EQ(std::count(there.begin(), there.end(), line), 1) << "missing: " << line << "\n"
                                                                   << e.routes;
    }
    EXPECT_EQ(bed::owner::status().kernel_failures, 0U);
}

// The next owner's life: 0 when all is right.
int take_over(held_sockets &sockets, const std::string &folder, uint32_t seed) {
    sockets.use();
    bed::owner o(folder);
    bed::owner::resync();
    const auto table_is_there = [](uint32_t tid) {
        return ip6mc_table_lookup_by_tbl_id(tid) != nullptr &&
               ip6mc_table_lookup_by_tbl_id(tid)->active != 0;
    };
    if (table_is_there(kit::default_tid) && table_is_there(red)) {
        compare_with_kernel(kit::default_tid, 254);
        compare_with_kernel(red, red);
    }
    const linux_resync_counts again = bed::owner::resync();
    EXPECT_EQ(again.programmed, 0U);
    EXPECT_EQ(again.removed, 0U);
    EXPECT_EQ(again.failed, 0U);
    // And it can go on.
    SCOPED_TRACE("after more work");
    worker more(o, seed);
    for (int n = 0; n < 20 && !testing::Test::HasFailure(); ++n) {
        more.step();
        SCOPED_TRACE("step " + std::to_string(n) + " " + more.last());
        compare_with_kernel(kit::default_tid, 254);
        compare_with_kernel(red, red);
    }
    o.leave();
    return testing::Test::HasFailure() ? 1 : 0;
}

// The same without a kill: after each step of random work.
TEST(LinuxKill, AfterEachStepTheKernelHasWhatTheWindowSays) {
    if (const std::string why = net::enter_namespace(); !why.empty()) {
        std::cout << "skipped: " << why << "\n";
        GTEST_SKIP() << why;
    }
    net::network network({1, 2, 3, 4, 5, 6});
    kit::run_dir dir;
    held_sockets sockets;
    const uint32_t seed = std::random_device{}();
    kit::child process([&](const kit::post &) {
        sockets.use();
        bed::owner o(dir.path());
        bed::owner::resync();
        worker work(o, seed);
        for (int n = 0; n < 300 && !testing::Test::HasFailure(); ++n) {
            work.step();
            SCOPED_TRACE("seed " + std::to_string(seed) + " step " + std::to_string(n) + " " +
                         work.last());
            compare_with_kernel(kit::default_tid, 254);
            compare_with_kernel(red, red);
        }
        return testing::Test::HasFailure() ? 1 : 0;
    });
    EXPECT_EQ(process.wait(), 0);
}

TEST(LinuxKill, AtAnyMomentTheNextOwnerBringsAllIntoLine) {
    if (const std::string why = net::enter_namespace(); !why.empty()) {
        std::cout << "skipped: " << why << "\n";
        GTEST_SKIP() << why;
    }
    net::network network({1, 2, 3, 4, 5, 6});
    kit::run_dir dir;
    held_sockets sockets;
    std::mt19937 random(std::random_device{}());
    const char *rounds_text = getenv("MFWD6_KILLS");
    const int rounds = rounds_text != nullptr ? atoi(rounds_text) : 40;
    for (int round = 0; round < rounds; ++round) {
        const uint32_t seed = static_cast<uint32_t>(random());
        SCOPED_TRACE("round " + std::to_string(round) + " seed " + std::to_string(seed));
        kit::child first([&](const kit::post &parent) {
            sockets.use();
            bed::owner o(dir.path());
            bed::owner::resync();
            worker work(o, seed);
            parent.tell();
            for (;;) {
                work.step();
            }
            return 0;
        });
        first.hear();
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 30000));
        first.kill();
        kit::child second(
            [&](const kit::post &) { return take_over(sockets, dir.path(), seed + 1); });
        ASSERT_EQ(second.wait(), 0);
    }
}

TEST(LinuxKill, NoPacketIsLostWhileOwnersDieAndComeBack) {
    if (const std::string why = net::enter_namespace(); !why.empty()) {
        std::cout << "skipped: " << why << "\n";
        GTEST_SKIP() << why;
    }
    net::network network({1, 2, 3, 4});
    kit::run_dir dir;
    held_sockets sockets;
    const auto live = [&](bool first) {
        return [&, first](const kit::post &parent) {
            sockets.use();
            bed::owner o(dir.path());
            bed::owner::resync();
            ipv4mc_table_st *table = o.table();
            if (first) {
                o.add(table, bed::sg("2001:db8::1", "ff3e::1"), {{1, A}, {2, F}, {3, F}, {4, F}});
                o.add(table, bed::any("ff3e:1::", 32), {{1, A}, {2, F}, {3, F}, {4, F}});
                // More, so that what is sent stands no longer among the recent keys.
                for (int n = 2; n < 400; ++n) {
                    o.add(table, bed::sg("2001:db8::1", "ff3e::" + std::to_string(n)),
                          {{1, A}, {2, F}});
                }
            }
            parent.tell();
            for (;;) {
                o.pump(50);
            }
            return 0;
        };
    };
    auto owner = std::make_unique<kit::child>(live(true));
    owner->hear();
    network.send(1, {"2001:db8::1", "ff3e:1::5", 0, 64});
    ASSERT_EQ(network.wait_for(4, 1).size(), 1U);
    network.received(2);
    network.received(3);
    constexpr uint32_t packets = 10000;  // 5,000 a second, of two flows
    std::map<uint32_t, size_t> got;
    std::thread sender([&] {
        const auto begin = std::chrono::steady_clock::now();
        for (uint32_t n = 1; n <= packets; ++n) {
            network.send(1, {"2001:db8::1", n % 2 == 0 ? "ff3e::1" : "ff3e:1::5", n, 64});
            // Receivers of a user without privileges have small buffers.
            for (uint32_t link = 2; n % 16 == 0 && link <= 4; ++link) {
                got[link] += network.received(link).size();
            }
            std::this_thread::sleep_until(begin + std::chrono::microseconds(200) * n);
        }
    });
    for (int kill = 0; kill < 5; ++kill) {
        std::this_thread::sleep_for(std::chrono::milliseconds(150));
        owner->kill();
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        owner = std::make_unique<kit::child>(live(false));
        owner->hear();
    }
    sender.join();
    for (const uint32_t link : {2U, 3U, 4U}) {
        EXPECT_EQ(got[link] + network.wait_for(link, packets - got[link]).size(), packets)
            << "link " << link;
    }
}

}  // namespace
