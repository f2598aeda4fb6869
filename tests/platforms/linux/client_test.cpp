// The platform in an attached client: the ledger, counters, and what is a signal.
#include <fcntl.h>
#include <unistd.h>

#include "tests/kit/child.h"
#include "tests/platforms/linux/router.h"

namespace {

using bed::A;
using bed::any;
using bed::F;
using bed::sg;

constexpr const char *S1 = "2001:db8::1";
constexpr const char *G1 = "ff3e::1";

linux_flow report(const char *source, const char *group, uint16_t mif,
                  uint8_t kind = LINUX_REPORT_UNKNOWN_FLOW) {
    return {254, mif, kind, 0, net::address(source), net::address(group)};
}

uint64_t packets(ipv4mc_table_st *table, const bed::key &k) {
    const ip_maddr_st source = net::address(k.source);
    const ip_maddr_st group = net::address(k.group);
    uint64_t count = 0;
    EXPECT_EQ(ip6mc_platform_get_hw_in_stats(table, &source, &group, k.length, nullptr, &count),
              0U);
    return count;
}

int look(const std::string &folder) {
    EXPECT_EQ(linux_ledger_attach(folder.c_str()), 0U);
    kit::start how;
    how.attach_only = 1;
    const kit::library client(how);
    EXPECT_EQ(linux_ledger_attach(folder.c_str()), 0U);
    ifhtype ifh = 0;
    EXPECT_EQ(linux_mif_handle(254, 0, &ifh), 0U);
    EXPECT_EQ(ifh, net::network::handle(1));
    EXPECT_EQ(linux_mif_handle(254, 9, &ifh), uint32_t{ENOENT});
    EXPECT_EQ(linux_mif_handle(7, 0, &ifh), uint32_t{ENOENT});
    uint32_t tid = 0;
    EXPECT_EQ(linux_table_tid(254, &tid), 0U);
    EXPECT_EQ(tid, kit::default_tid);
    uint32_t tables[4];
    uint32_t count = 0;
    EXPECT_EQ(linux_list_tables(tables, 4, &count), 0U);
    EXPECT_EQ(count, 1U);
    std::vector<linux_flow_entry> flows;
    const auto take = [](const linux_flow_entry *flow, void *context) -> cerrno {
        static_cast<std::vector<linux_flow_entry> *>(context)->push_back(*flow);
        return 0;
    };
    EXPECT_EQ(linux_walk_flows(take, &flows), 0U);
    EXPECT_EQ(flows.size(), 2U);
    std::vector<linux_interface> interfaces;
    EXPECT_EQ(linux_walk_interfaces(
                  [](const linux_interface *one, void *context) -> cerrno {
                      static_cast<std::vector<linux_interface> *>(context)->push_back(*one);
                      return 0;
                  },
                  &interfaces),
              0U);
    EXPECT_EQ(interfaces.size(), 3U);
    EXPECT_STREQ(interfaces.at(0).name, "if1");

    ipv4mc_table_st *table = ip6mc_table_lookup_by_tbl_id(kit::default_tid);
    EXPECT_EQ(packets(table, sg(S1, G1)), 1U);
    EXPECT_EQ(packets(table, any("ff3e:1::", 32)), 2U);
    const auto signals = [&](const linux_flow &flow) {
        ifhtype at = 0;
        EXPECT_EQ(linux_report_interface(table, &flow, &at), 0U);
        return linux_report_signals(table, &flow, at);
    };
    EXPECT_EQ(signals(report("2001:db8::7", "ff3e:7::1", 0)), 1);
    EXPECT_EQ(signals(report("fe80::7", "ff3e:7::1", 0)), 0);
    EXPECT_EQ(signals(report("2001:db8::7", "ff3e:1::1", 0)), 0);
    EXPECT_EQ(signals(report("2001:db8::7", "ff3e:2::1", 0)), 1);
    EXPECT_EQ(signals(report("2001:db8::7", "ff35::1", 0)), 0);  // inside a boundary
    // A client changes nothing.
    const linux_flow flow = report(S1, G1, 0);
    EXPECT_EQ(linux_answer_flow(&flow, nullptr), uint32_t{EBADF});
    EXPECT_EQ(linux_resync(nullptr), uint32_t{EBADF});
    return testing::Test::HasFailure() ? 1 : 0;
}

TEST(LinuxClient, ReadsLedgerAndCountersBesideTheOwner) {
    if (const std::string why = net::enter_namespace(); !why.empty()) {
        std::cout << "skipped: " << why << "\n";
        GTEST_SKIP() << why;
    }
    kit::run_dir dir;
    // Before the owner has mapped the window, which a child would inherit.
    kit::child client([&](const kit::post &parent) {
        parent.hear();
        return look(dir.path());
    });
    EXPECT_EQ(linux_ledger_attach(dir.path().c_str()), uint32_t{ENOENT});
    {
        net::network network({1, 2, 3});
        bed::sockets keeper;
        keeper.use();
        bed::owner o(dir.path());
        ipv4mc_table_st *table = o.table();
        ASSERT_EQ(linux_set_interface_table(net::network::handle(1), kit::default_tid), 0U);
        ASSERT_EQ(o.add(table, sg(S1, G1), {{1, A}, {2, F}}), 0U);
        ASSERT_EQ(o.add(table, any("ff3e:1::", 32), {{1, A}, {3, F}}), 0U);
        ASSERT_EQ(o.add(table, any("ff3e:2::", 32), {{1, A}}, MRIB_ROUTE_SIGNAL), 0U);
        const linux_prefix site = {net::address("ff35::"), 16};
        ASSERT_EQ(linux_set_boundary(net::network::handle(1), &site, 1), 0U);
        network.send(1, {S1, G1, 1, 64});
        network.send(1, {S1, "ff3e:1::7", 2, 64});
        network.send(1, {S1, "ff3e:9::7", 2, 64});
        o.pump();
        network.send(1, {S1, "ff3e:1::7", 3, 64});
        o.pump();
        client.tell();
        EXPECT_EQ(client.wait(), 0);
    }
}

TEST(LinuxClient, ALedgerOfAnotherVersionIsReplacedAndItsReadersAreTold) {
    if (const std::string why = net::enter_namespace(); !why.empty()) {
        std::cout << "skipped: " << why << "\n";
        GTEST_SKIP() << why;
    }
    kit::run_dir dir;
    kit::child reader([&](const kit::post &parent) {
        parent.hear();
        EXPECT_EQ(linux_ledger_attach(dir.path().c_str()), 0U);
        parent.tell();
        parent.hear();
        uint32_t count = 0;
        EXPECT_EQ(linux_list_tables(nullptr, 0, &count), uint32_t{ESTALE});
        EXPECT_EQ(linux_ledger_attach(dir.path().c_str()), 0U);
        EXPECT_EQ(linux_list_tables(nullptr, 0, &count), 0U);
        linux_ledger_detach();
        EXPECT_EQ(linux_list_tables(nullptr, 0, &count), uint32_t{EBADF});
        return testing::Test::HasFailure() ? 1 : 0;
    });
    {
        bed::owner first(dir.path());
        reader.tell();
        reader.hear();
    }
    const std::string path = dir.path() + "/" LINUX_LEDGER_NAME;
    const int fd = open(path.c_str(), O_WRONLY);
    const uint32_t version = 77;
    ASSERT_EQ(pwrite(fd, &version, sizeof(version), 8), 4);
    close(fd);
    EXPECT_EQ(linux_ledger_attach(dir.path().c_str()), uint32_t{EPROTO});
    {
        bed::owner second(dir.path());
        reader.tell();
        EXPECT_EQ(reader.wait(), 0);
    }
}

}  // namespace
