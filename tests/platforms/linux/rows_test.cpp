// The rows that all platforms share, with real packets.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "tests/platforms/forwarding_rows.h"
#include "tests/platforms/linux/router.h"

namespace {

// A socket of this node that asked for no group itself.
class receiver {
  public:
    receiver() : fd_(socket(AF_INET6, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) {
        sockaddr_in6 any = {};
        any.sin6_family = AF_INET6;
        any.sin6_port = htons(5001);
        EXPECT_EQ(bind(fd_, reinterpret_cast<sockaddr *>(&any), sizeof(any)), 0);
    }
    ~receiver() { close(fd_); }
    bool got() {
        char bytes[2048];
        bool any = false;
        while (recv(fd_, bytes, sizeof(bytes), 0) > 0) {
            any = true;
        }
        return any;
    }

  private:
    int fd_;
};

bed::key key_of(const forwarding::row_route &route) {
    return {route.source, route.group, route.pfx_len};
}

// A row's packet is sent twice: what a flow's first packet brings about holds for the second.
class LinuxRows : public testing::TestWithParam<size_t> {};

TEST_P(LinuxRows, PacketsGoWhereTheRowSays) {
    const forwarding::row &row = forwarding::rows[GetParam()];
    SCOPED_TRACE(row.what);
    ROUTER_OR_SKIP(r, {1, 2, 3, 5, 9, 10, 20, 30});
    receiver node;
    // Interfaces whose packets are looked up: as in a network that is configured.
    ASSERT_EQ(linux_set_interface_table(net::network::handle(row.in), kit::default_tid), 0U);
    for (const forwarding::row_route &route : row.routes) {
        std::vector<bed::leg> legs;
        for (const forwarding::leg &l : route.legs) {
            legs.push_back({l.ifh, l.attributes});
        }
        ASSERT_EQ(r.o->add(r.table, key_of(route), legs, route.attributes), 0U);
    }
    const std::vector<uint32_t> expected(row.out.begin(), row.out.end());
    EXPECT_EQ(r.forward(row.in, row.source, row.group), expected);
    std::vector<bed::owner::report> reports = r.reports;
    node.got();
    EXPECT_EQ(r.forward(row.in, row.source, row.group), expected);
    EXPECT_EQ(node.got(), row.to_node == 1);
    reports.insert(reports.end(), r.reports.begin(), r.reports.end());
    bool signalled = false;
    for (const bed::owner::report &report : reports) {
        EXPECT_EQ(report.code, 0U);
        EXPECT_EQ(report.ifh, net::network::handle(row.in));
        signalled = signalled || report.signals == 1;
    }
    // A flow that nothing matches is a signal here.
    EXPECT_EQ(signalled, row.signalled == 1 || row.verdict == forwarding::no_route);
}

TEST(LinuxLocalCopy, ComesAgainWithItsLink) {
    ROUTER_OR_SKIP(r, {1, 2, 3});
    receiver node;
    const bed::key key = bed::sg("2001:db8::1", "ff3e::1");
    ASSERT_EQ(r.o->add(r.table, key, {{1, bed::A}, {2, bed::F}, {3, bed::L}}), 0U);
    r.forward(1, key.source, key.group);
    EXPECT_TRUE(node.got());
    r.net.remove(1);
    r.net.add(1);
    linux_age(1);
    r.forward(1, key.source, key.group);
    EXPECT_TRUE(node.got());
    // Another route of the group holds it, too; the last one ends it.
    const bed::key other = bed::sg("2001:db8::2", "ff3e::1");
    ASSERT_EQ(r.o->add(r.table, other, {{1, bed::A}, {3, bed::L}}), 0U);
    ASSERT_EQ(r.o->set_leg(r.table, key, {3, 0}), 0U);
    r.forward(1, other.source, other.group);
    EXPECT_TRUE(node.got());
    r.restart();
    bed::owner::resync();
    r.forward(1, other.source, other.group);
    EXPECT_TRUE(node.got());
    ASSERT_EQ(r.o->remove(r.table, other), 0U);
    r.forward(1, other.source, other.group);
    EXPECT_FALSE(node.got());
}

INSTANTIATE_TEST_SUITE_P(Rows, LinuxRows, testing::Range<size_t>(0, std::size(forwarding::rows)));

}  // namespace
