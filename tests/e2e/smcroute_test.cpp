// Lines as a user of the usual static multicast routing daemon has them, taken as they are.
#include "tests/e2e/fixture.h"

namespace {

using namespace e2e;

const std::string lines = R"(#
# smcroute.conf example
#
# Assuming all interfaces are disabled at first. Enable what is needed for
# inbound and outbound traffic.
phyint source enable ttl-threshold 1
phyint one enable mrdisc
phyint two    enable ttl-threshold 5
phyint three disable

# Join, then route, one stream of one source
mgroup from source                     group ff3e::8000:1
mroute from source source fd00:1::10 group ff3e::8000:1 to one two

# Similarly, but using source-specific group join
mgroup from source source fd00:1::10 group ff3e::8000:2
mroute from source source fd00:1::10 group ff3e::8000:2 to one

# Any source
mgroup from source group ff3e::8000:3
mroute from source group ff3e::8000:3 to two

# A range of groups	(and a tab)
mroute from source group ff3e::9:0:0/96 to one two
mroute from source source :: group ff3e::8000:5 to one

include @/more-*.conf
)";

TEST_F(EndToEnd, AConfigurationOfAStaticRoutingDaemonIsTakenAsItIs) {
    const auto s = small_site();
    char folder[] = "/dev/shm/mfwd6-lab-XXXXXX";
    const std::string dir = mkdtemp(folder);
    const auto more = [&](const std::string &name, const std::string &text) {
        s->lab.router().shell("echo '" + text + "' > " + dir + "/" + name);
    };
    more("more-1.conf", "mroute from source group ff3e::8000:6 to two # behind it a comment");
    more("more-2.conf", "mroute from sou+ group ff3e::8000:7 to one");
    std::string text = lines;
    text.replace(text.find('@'), 1, dir);
    const netlab::router router(s->lab.router(), text);

    const struct {
        const char *group;
        std::vector<std::string> out;
    } expected[] = {
        {"ff3e::8000:1", {"one", "two"}}, {"ff3e::8000:2", {"one"}}, {"ff3e::8000:3", {"two"}},
        {"ff3e::9:0:77", {"one", "two"}}, {"ff3e::8000:5", {"one"}}, {"ff3e::8000:6", {"two"}},
        {"ff3e::8000:7", {"one"}},        {"ff3e::8000:4", {}},
    };
    for (const auto &e : expected) {
        SCOPED_TRACE(e.group);
        netlab::sender stream(*s->hosts.at("source"), e.group);
        stream.burst(3);
        for (const std::string &name : e.out) {
            EXPECT_TRUE(s->receivers.at(name)->wait_packets(stream.stream(), 3, patience));
        }
        std::this_thread::sleep_for(grace);
        EXPECT_EQ(s->who_got(stream.stream()), e.out);
    }
    expect_clean(router);
    s->lab.router().shell("rm -r " + dir);
}

}  // namespace
