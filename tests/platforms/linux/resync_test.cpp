// What a new owner finds, keeps, makes again and takes out; and lifetimes of flows.
#include <netinet/in.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "tests/platforms/linux/router.h"

namespace {

using bed::A;
using bed::any;
using bed::F;
using bed::sg;
using list = std::vector<uint32_t>;

constexpr const char *S1 = "2001:db8::1";
constexpr const char *G1 = "ff3e::1";

TEST(LinuxResync, WhatIsRightIsKept) {
    ROUTER_OR_SKIP(r, {1, 2, 3});
    ASSERT_EQ(r.o->add(r.table, sg(S1, G1), {{1, A}, {2, F}}), 0U);
    ASSERT_EQ(r.o->add(r.table, any("ff3e::2"), {{1, A}, {3, F}}), 0U);
    ASSERT_EQ(r.o->add(r.table, any("ff3e:1::", 32), {{1, A}, {3, F}}), 0U);
    EXPECT_EQ(r.forward(1, S1, G1), list{2});
    EXPECT_EQ(r.forward(1, S1, "ff3e:1::7"), list{3});
    const auto before = bed::kernel_entries(254);
    r.restart();
    EXPECT_EQ(r.net.received(2).size(), 0U);
    const linux_resync_counts counts = bed::owner::resync();
    // The keys of the last calls are told again: that is all of them here.
    EXPECT_EQ(counts.kept + counts.programmed, 3U);
    EXPECT_EQ(counts.removed, 0U);
    EXPECT_EQ(counts.failed, 0U);
    EXPECT_EQ(counts.interfaces, 3U);
    EXPECT_EQ(counts.tables, 1U);
    EXPECT_EQ(bed::kernel_entries(254), before);
    // Nothing was under way now.
    r.restart();
    const linux_resync_counts again = bed::owner::resync();
    EXPECT_EQ(again.kept, 3U);
    EXPECT_EQ(again.programmed, 0U);
    EXPECT_EQ(r.forward(1, S1, G1), list{2});
    EXPECT_EQ(r.forward(1, S1, "ff3e:1::7"), list{3});
    EXPECT_TRUE(r.reports.empty());
    EXPECT_EQ(r.o->packets(r.table, sg(S1, G1)), 2U);
    EXPECT_EQ(r.o->packets(r.table, any("ff3e:1::", 32)), 2U);
    // And a change takes effect.
    ASSERT_EQ(r.o->set_leg(r.table, sg(S1, G1), {3, F}), 0U);
    EXPECT_EQ(r.forward(1, S1, G1), (list{2, 3}));
    ASSERT_EQ(r.o->remove(r.table, any("ff3e:1::", 32)), 0U);
    EXPECT_EQ(r.forward(1, S1, "ff3e:1::7"), list{});
}

TEST(LinuxResync, WhatIsMissingIsMade) {
    ROUTER_OR_SKIP(r, {1, 2, 3});
    for (int n = 1; n <= 300; ++n) {
        ASSERT_EQ(r.o->add(r.table, sg(S1, "ff3e::" + std::to_string(n)), {{1, A}, {2, F}}), 0U);
    }
    ASSERT_EQ(r.o->add(r.table, any("ff3e:1::", 32), {{1, A}, {3, F}}), 0U);
    EXPECT_EQ(r.forward(1, S1, "ff3e:1::7"), list{3});
    r.o->leave();
    r.o.reset();
    // Somebody empties the kernel; the sockets stay.
    const int flush_all = 1 | 2 | 4 | 8;
    ASSERT_EQ(setsockopt(r.keeper.open.at(254), IPPROTO_IPV6, 212, &flush_all, sizeof(flush_all)),
              0);
    ASSERT_EQ(bed::kernel_entries(254).size(), 0U);
    r.restart();
    const linux_resync_counts counts = bed::owner::resync();
    EXPECT_EQ(counts.programmed, 301U);
    EXPECT_EQ(r.forward(1, S1, "ff3e::1"), list{2});
    EXPECT_EQ(r.forward(1, S1, "ff3e:1::7"), list{3});
    EXPECT_TRUE(r.reports.empty());
}

TEST(LinuxResync, AllIsMadeAgainWhenTheSocketsWereLost) {
    ROUTER_OR_SKIP(r, {1, 2, 3});
    (void)r.o->table(100, "red");
    ASSERT_EQ(r.o->add(r.table, sg(S1, G1), {{1, A}, {2, F}}), 0U);
    ASSERT_EQ(r.o->add(ip6mc_table_lookup_by_tbl_id(100), sg(S1, G1), {{3, A}, {2, F}}), 0U);
    r.o->leave();
    r.o.reset();
    for (const auto &[table, fd] : r.keeper.open) {
        close(fd);
    }
    r.keeper.open.clear();
    r.restart();
    const linux_resync_counts counts = bed::owner::resync();
    EXPECT_EQ(counts.programmed, 2U);
    EXPECT_EQ(counts.tables, 2U);
    EXPECT_EQ(r.forward(1, S1, G1), list{2});
    EXPECT_EQ(r.forward(3, S1, G1), list{2});
}

TEST(LinuxResync, StraysAndForeignTablesGo) {
    ROUTER_OR_SKIP(r, {1, 2, 3});
    ASSERT_EQ(r.o->add(r.table, sg(S1, G1), {{1, A}, {2, F}}), 0U);
    (void)r.o->table(100, "red");
    ASSERT_EQ(linux_set_interface_table(net::network::handle(3), 100), 0U);
    r.o->leave();
    r.o.reset();
    struct {
        sockaddr_in6 source;
        sockaddr_in6 group;
        uint16_t parent;
        uint32_t outputs[8];
    } stray = {};
    stray.source.sin6_family = stray.group.sin6_family = AF_INET6;
    const ip_maddr_st source = net::address("2001:db8::66");
    const ip_maddr_st group = net::address("ff3e::66");
    memcpy(&stray.source.sin6_addr, &source, 16);
    memcpy(&stray.group.sin6_addr, &group, 16);
    stray.outputs[0] = 2;
    ASSERT_EQ(setsockopt(r.keeper.open.at(254), IPPROTO_IPV6, 204, &stray, sizeof(stray)), 0);
    ASSERT_EQ(bed::kernel_entries(254).size(), 2U);
    r.restart();
    ipv4mc_table_st *red = ip6mc_table_lookup_by_tbl_id(100);
    ASSERT_NE(red, nullptr);
    red->active = 0;  // as an owner leaves it that dies in a deactivation
    const linux_resync_counts counts = bed::owner::resync();
    EXPECT_EQ(counts.removed, 2U);
    EXPECT_EQ(bed::kernel_entries(254).size(), 1U);
    EXPECT_EQ(r.keeper.open.count(100), 0U);
    EXPECT_EQ(r.forward(1, S1, G1), list{2});
}

TEST(LinuxResync, ALostLedgerIsMadeAnew) {
    ROUTER_OR_SKIP(r, {1, 2, 3});
    ASSERT_EQ(r.o->add(r.table, sg(S1, G1), {{1, A}, {2, F}}), 0U);
    ASSERT_EQ(r.o->add(r.table, any("ff3e:1::", 32), {{3, A}, {2, F}}), 0U);
    EXPECT_EQ(r.forward(3, S1, "ff3e:1::7"), list{2});
    r.o->leave();
    r.o.reset();
    ASSERT_EQ(unlink((r.dir.path() + "/" LINUX_LEDGER_NAME).c_str()), 0);
    r.restart();
    const linux_resync_counts counts = bed::owner::resync();
    EXPECT_EQ(counts.programmed, 1U);
    EXPECT_EQ(r.forward(1, S1, G1), list{2});
    EXPECT_EQ(r.forward(3, S1, "ff3e:1::7"), list{2});
    EXPECT_EQ(r.reports.size(), 1U);
    EXPECT_EQ(bed::kernel_entries(254).size(), 2U);
}

TEST(LinuxResync, ALinkThatWasMadeAgainMeanwhileIsFound) {
    ROUTER_OR_SKIP(r, {1, 2, 3});
    ASSERT_EQ(r.o->add(r.table, sg(S1, G1), {{1, A}, {2, F}, {3, F}}), 0U);
    EXPECT_EQ(r.forward(1, S1, G1), (list{2, 3}));
    r.o->leave();
    r.o.reset();
    r.net.remove(3);
    r.net.remove(1);
    r.net.add(3);
    r.net.add(1);
    r.restart();
    EXPECT_EQ(bed::owner::resync().failed, 0U);
    EXPECT_EQ(r.forward(1, S1, G1), (list{2, 3}));
}

TEST(LinuxResync, RecordsThatChangedBeforeTheKernelWasToldAreFound) {
    ROUTER_OR_SKIP(r, {1, 2, 3});
    for (int n = 1; n <= 300; ++n) {
        ASSERT_EQ(r.o->add(r.table, sg(S1, "ff3e::" + std::to_string(n)), {{1, A}, {2, F}}), 0U);
    }
    // The caller writes the word, then dies.
    ipv4mc_route_entry_st *route = r.o->find(r.table, sg(S1, "ff3e::1"));
    ASSERT_NE(route, nullptr);
    route->attributes = MRIB_ROUTE_DROP;
    r.restart();
    const linux_resync_counts counts = bed::owner::resync();
    EXPECT_EQ(counts.failed, 0U);
    EXPECT_EQ(counts.kept + counts.programmed, 300U);
    EXPECT_GE(counts.programmed, 1U);
    EXPECT_EQ(r.forward(1, S1, "ff3e::1"), list{});
    EXPECT_EQ(r.forward(1, S1, "ff3e::2"), list{2});
}

TEST(LinuxResync, RulesStandOnceAndGoWithTheirTable) {
    ROUTER_OR_SKIP(r, {1, 2, 3});
    ipv4mc_table_st *red = r.o->table(100, "red");
    ASSERT_EQ(r.o->add(red, sg(S1, G1), {{1, A}, {2, F}}), 0U);
    const auto rules = [] {
        FILE *ip = popen("ip -6 mrule show | grep -c 'lookup 100'", "r");
        int count = -1;
        EXPECT_EQ(fscanf(ip, "%d", &count), 1);
        pclose(ip);
        return count;
    };
    EXPECT_EQ(rules(), 2);
    r.restart();
    // Settings come before resync, as in a program.
    ASSERT_EQ(linux_set_interface_table(net::network::handle(3), 100), 0U);
    bed::owner::resync();
    EXPECT_EQ(rules(), 4);
    EXPECT_EQ(r.forward(1, S1, G1), list{2});
    // An owner that dies in its beginning and one that ends it all.
    r.restart();
    r.o.reset();
    EXPECT_EQ(rules(), 0);
    EXPECT_EQ(bed::kernel_entries(100).size(), 0U);
}

// A folder of its own on a file system of so many kilobytes.
class small_folder {
  public:
    explicit small_folder(const char *size) {
        if (unshare(CLONE_NEWNS) != 0 ||
            mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mkdtemp(path_) == nullptr ||
            mount("tmpfs", path_, "tmpfs", 0, (std::string("size=") + size).c_str()) != 0) {
            path_[0] = 0;
        }
    }
    ~small_folder() {
        umount(path_);
        rmdir(path_);
    }
    const char *path() const { return path_; }

  private:
    char path_[64] = "/tmp/mfwd6-small-XXXXXX";
};

TEST(LinuxResync, AFullFileSystemIsACode) {
    ROUTER_OR_SKIP(r, {1, 2});
    r.o.reset();
    {
        const small_folder folder("512k");
        if (folder.path()[0] == 0) {
            std::cout << "skipped: no file system may be mounted\n";
            GTEST_SKIP();
        }
        ASSERT_EQ(linux_set_folder(folder.path()), 0U);
        EXPECT_EQ(kit::start_library(), uint32_t{ENOSPC});
        EXPECT_EQ(ip6mc_lib_terminate(0, 0), 0U);
    }
    const small_folder folder("1400k");  // for the ledger, not for flows
    r.o = std::make_unique<bed::owner>(folder.path());
    r.table = r.o->table();
    ASSERT_EQ(r.o->add(r.table, sg(S1, G1), {{1, A}, {2, F}}), 0U);
    ASSERT_EQ(r.o->add(r.table, any("ff3e:1::", 32), {{1, A}, {2, F}}), 0U);
    EXPECT_EQ(r.forward(1, S1, "ff3e:1::1"), list{});
    ASSERT_EQ(r.reports.size(), 1U);
    EXPECT_EQ(r.reports[0].code, uint32_t{ENOSPC});
    EXPECT_EQ(bed::owner::status().full, 1U);
    EXPECT_EQ(r.forward(1, S1, G1), list{2});
    r.o.reset();
}

TEST(LinuxResync, WindowThatEndsTakesTheKernelsEntriesWithIt) {
    ROUTER_OR_SKIP(r, {1, 2});
    ASSERT_EQ(r.o->add(r.table, sg(S1, G1), {{1, A}, {2, F}}), 0U);
    r.o.reset();
    EXPECT_EQ(bed::kernel_entries(254).size(), 0U);
    EXPECT_TRUE(r.keeper.open.empty());
}

TEST(LinuxResync, TwoOwnersOfALedgerAreRefused) {
    ROUTER_OR_SKIP(r, {1});
    pid_t child = fork();
    if (child == 0) {
        // The ledger alone: the window refuses a second owner by itself.
        ipv4mc_descriptor_struct descriptor = {};
        (void)ip6mc_platform_lib_terminate(1, 3);
        plat_params.route_extension_size = 40;
        plat_params.intf_extension_size = 8;
        _exit(ip6mc_platform_lib_init(nullptr, 0, &descriptor) == EBUSY ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST(LinuxResync, EnumerateReadsTheKernel) {
    ROUTER_OR_SKIP(r, {1, 2, 3});
    ASSERT_EQ(r.o->add(r.table, sg(S1, G1), {{1, A}, {2, F}}), 0U);
    ASSERT_EQ(r.o->add(r.table, any("ff3e::2"), {{1, A}, {3, F}}), 0U);
    ASSERT_EQ(r.o->add(r.table, any("ff3e:1::", 32), {{1, A}, {3, F}}), 0U);
    EXPECT_EQ(r.forward(1, S1, "ff3e:1::7"), list{3});
    std::vector<ip6mc_platform_held_st> held;
    const auto take = [](const ip6mc_platform_held_st *one, void *context) -> cerrno {
        static_cast<std::vector<ip6mc_platform_held_st> *>(context)->push_back(*one);
        return 0;
    };
    ASSERT_EQ(ip6mc_platform_enumerate(IP6MC_PLATFORM_ROUTE, take, &held), 0U);
    std::vector<std::string> routes;
    for (const auto &one : held) {
        routes.push_back(net::text_of(one.source) + " " + net::text_of(one.group) + "/" +
                         std::to_string(one.pfx_len));
    }
    std::sort(routes.begin(), routes.end());
    EXPECT_EQ(routes, (std::vector<std::string>{"2001:db8::1 ff3e::1/256", ":: ff3e:1::/32",
                                                ":: ff3e::2/128"}));
    held.clear();
    ASSERT_EQ(ip6mc_platform_enumerate(IP6MC_PLATFORM_INTF, take, &held), 0U);
    EXPECT_EQ(held.size(), 6U);
    for (const auto &one : held) {
        EXPECT_EQ(one.attributes, one.ifh == net::network::handle(1) ? A : F);
    }
    // What is taken out is gone.
    held.clear();
    ASSERT_EQ(ip6mc_platform_enumerate(IP6MC_PLATFORM_KINDS, take, &held), 0U);
    for (const auto &one : held) {
        if (one.kind == IP6MC_PLATFORM_ROUTE) {
            EXPECT_EQ(ip6mc_platform_remove_held(&one), 0U);
        }
    }
    EXPECT_EQ(bed::owner::status().own_entries, 0U);
    // The flow of the range, which the window still has, is all that is left.
    EXPECT_EQ(bed::kernel_entries(254).size(), 1U);
}

TEST(LinuxFlows, AHeldFlowEndsAndIsReportedAgain) {
    ROUTER_OR_SKIP(r, {1, 2});
    ASSERT_EQ(linux_set_interface_table(net::network::handle(1), kit::default_tid), 0U);
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    const auto seconds = static_cast<uint64_t>(now.tv_sec);
    EXPECT_EQ(r.forward(1, S1, G1), list{});
    EXPECT_EQ(r.reports.size(), 1U);
    linux_age(seconds + LINUX_HELD_SECONDS - 1);
    EXPECT_EQ(bed::owner::status().held_entries, 1U);
    linux_age(seconds + LINUX_HELD_SECONDS + 2);
    EXPECT_EQ(bed::owner::status().held_entries, 0U);
    EXPECT_EQ(r.forward(1, S1, G1), list{});
    EXPECT_EQ(r.reports.size(), 1U);
}

TEST(LinuxFlows, AnIdleFlowEndsAndOneWithPacketsStays) {
    ROUTER_OR_SKIP(r, {1, 2});
    ASSERT_EQ(r.o->add(r.table, any("ff3e::", 32), {{1, A}, {2, F}}), 0U);
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    auto seconds = static_cast<uint64_t>(now.tv_sec);
    EXPECT_EQ(r.forward(1, S1, "ff3e::1"), list{2});
    EXPECT_EQ(r.forward(1, S1, "ff3e::2"), list{2});
    linux_age(seconds += LINUX_IDLE_SECONDS + 2);  // sees their first packets
    EXPECT_EQ(bed::owner::status().derived_entries, 2U);
    EXPECT_EQ(r.forward(1, S1, "ff3e::2"), list{2});
    linux_age(seconds += LINUX_IDLE_SECONDS + 2);
    EXPECT_EQ(bed::owner::status().derived_entries, 1U);
    EXPECT_EQ(r.forward(1, S1, "ff3e::2"), list{2});
    EXPECT_TRUE(r.reports.empty());
    // Its packets still count for the route.
    EXPECT_EQ(r.o->packets(r.table, any("ff3e::", 32)), 4U);
    EXPECT_EQ(r.forward(1, S1, "ff3e::1"), list{2});
    EXPECT_EQ(r.o->packets(r.table, any("ff3e::", 32)), 5U);
}

TEST(LinuxFlows, ThousandsOfUnwantedFlowsDoNotStopAWantedOne) {
    ROUTER_OR_SKIP(r, {1, 2});
    ASSERT_EQ(r.o->add(r.table, any("ff3e::", 32), {{1, A}, {2, F}}), 0U);
    for (uint32_t n = 0; n < 3000; ++n) {
        char group[40];
        snprintf(group, sizeof(group), "ff3e:99::%x", n + 1);
        r.net.send(1, {S1, group, n, 64});
        if (n % 64 == 0) {
            r.o->pump(0);
        }
    }
    r.o->pump();
    EXPECT_EQ(r.forward(1, S1, "ff3e::1"), list{2});
    EXPECT_GT(bed::owner::status().held_entries, 2000U);
}

TEST(LinuxFlows, LateAndForeignReportsDoNoHarm) {
    ROUTER_OR_SKIP(r, {1, 2});
    ASSERT_EQ(r.o->add(r.table, sg(S1, G1), {{1, A}, {2, F}}), 0U);
    linux_flow flow = {254, 0, LINUX_REPORT_UNKNOWN_FLOW, 0, net::address(S1), net::address(G1)};
    uint32_t answer = 99;
    EXPECT_EQ(linux_answer_flow(&flow, &answer), 0U);
    EXPECT_EQ(answer, uint32_t{LINUX_ANSWER_THERE});
    flow.mif = 31;
    EXPECT_EQ(linux_answer_flow(&flow, &answer), uint32_t{ENODEV});
    flow.mif = 60000;
    EXPECT_EQ(linux_answer_flow(&flow, &answer), uint32_t{ENODEV});
    flow.mif = 0;
    flow.kernel_table = 77;
    EXPECT_EQ(linux_answer_flow(&flow, &answer), uint32_t{ENOENT});
    EXPECT_EQ(linux_answer_flow(nullptr, nullptr), uint32_t{EINVAL});
    EXPECT_EQ(r.forward(1, S1, G1), list{2});
    EXPECT_EQ(bed::kernel_entries(254).size(), 1U);
    // A report of a flow that was derived already.
    ASSERT_EQ(r.o->add(r.table, any("ff3e::", 32), {{1, A}, {2, F}}), 0U);
    EXPECT_EQ(r.forward(1, S1, "ff3e::5"), list{2});
    flow = {254, 0, LINUX_REPORT_UNKNOWN_FLOW, 0, net::address(S1), net::address("ff3e::5")};
    EXPECT_EQ(linux_answer_flow(&flow, &answer), 0U);
    EXPECT_EQ(answer, uint32_t{LINUX_ANSWER_THERE});
    EXPECT_EQ(bed::owner::status().derived_entries, 1U);
}

TEST(LinuxFlows, ReportsAreReadFromTheirBytes) {
    linux_flow flow = {};
    const uint8_t icmp[] = {135, 0, 0, 0};
    EXPECT_EQ(linux_parse_report(icmp, sizeof(icmp), 254, &flow), uint32_t{EAGAIN});
    uint8_t report[40] = {0, 1, 5, 0};
    report[8] = 0x20;
    report[24] = 0xff;
    EXPECT_EQ(linux_parse_report(report, 39, 254, &flow), uint32_t{EINVAL});
    EXPECT_EQ(linux_parse_report(nullptr, 40, 254, &flow), uint32_t{EINVAL});
    EXPECT_EQ(linux_parse_report(report, 0, 254, &flow), uint32_t{EINVAL});
    ASSERT_EQ(linux_parse_report(report, 40, 254, &flow), 0U);
    EXPECT_EQ(flow.kernel_table, 254U);
    EXPECT_EQ(flow.mif, 5U);
    EXPECT_EQ(flow.report, LINUX_REPORT_UNKNOWN_FLOW);
    EXPECT_EQ(flow.source.bytes[0], 0x20);
    EXPECT_EQ(flow.group.bytes[0], 0xff);
    report[1] = 9;
    EXPECT_EQ(linux_parse_report(report, 40, 254, &flow), uint32_t{EAGAIN});
}

}  // namespace
