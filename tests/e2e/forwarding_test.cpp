// Real packets through the kernel, as the routes say: the rows, and routes that change while
// packets come.
#include "tests/e2e/fixture.h"
#include "tests/e2e/rows.h"

namespace {

using namespace e2e;

const std::string row_configuration =
    "vrf red table 100 interface sred rred\n"
    "phyint s1 enable\nphyint s2 enable\nphyint sred enable\nphyint rred enable\n"
    "phyint r1 enable\nphyint r2 enable\nphyint r3 enable\n";

json arguments_of(const row_route &r) {
    json args = {{"table", r.vrf}, {"group", r.group}, {"from", r.from}, {"to", r.to}};
    if (!r.source.empty()) {
        args["source"] = r.source;
    }
    if (!r.flags.empty()) {
        args["flags"] = r.flags;
    }
    return args;
}

json key_of(const row_route &r) {
    json key = {{"table", r.vrf}, {"group", r.group}};
    if (!r.source.empty()) {
        key["source"] = r.source;
    }
    return key;
}

class Rows : public EndToEnd {
  protected:
    void SetUp() override {
        EndToEnd::SetUp();
        if (IsSkipped()) {
            return;
        }
        site_.add_source("s1", s1_address);
        site_.add_source("s2", s2_address);
        site_.add_source("sred", sred_address);
        site_.add_receiver("r1", "fd00:11::10");
        site_.add_receiver("r2", "fd00:12::10");
        site_.add_receiver("r3", "fd00:13::10");
        site_.add_receiver("rred", "fd00:14::10");
        router_ = std::make_unique<netlab::router>(site_.lab.router(), row_configuration);
    }

    void run_packet(const row_packet &p) {
        SCOPED_TRACE("(" + p.source + ", " + p.group + ") from " + p.from);
        netlab::sender stream(*site_.hosts.at(p.from), p.group, 100, p.source);
        stream.burst(3);
        for (const std::string &name : p.out) {
            EXPECT_TRUE(site_.receivers.at(name)->wait_packets(stream.stream(), 3, patience))
                << name << " got " << site_.receivers.at(name)->packets(stream.stream());
        }
        std::this_thread::sleep_for(grace);
        EXPECT_EQ(site_.who_got(stream.stream()), p.out);
        for (const std::string &name : p.out) {
            EXPECT_EQ(site_.receivers.at(name)->report(stream.stream()).duplicates, 0U);
        }
    }

    site site_;
    std::unique_ptr<netlab::router> router_;
};

// One daemon for all rows: what a row leaves behind is the next one's failure.
TEST_F(Rows, EveryPacketGoesWhereItsRowSays) {
    for (const row &r : rows()) {
        SCOPED_TRACE(r.description);
        for (const row_route &route : r.routes) {
            ASSERT_NO_THROW(router_->must("route.add", arguments_of(route)));
        }
        for (const row_packet &packet : r.packets) {
            run_packet(packet);
        }
        for (const row_route &route : r.routes) {
            EXPECT_NO_THROW(router_->must("route.delete", key_of(route)));
        }
    }
    expect_clean(*router_);
}

class UnderTraffic : public SmallSite {
  protected:
    void add_route(const std::vector<std::string> &to) {
        router_->must("route.add", {{"table", "default"},
                                    {"source", "fd00:1::10"},
                                    {"group", group_},
                                    {"from", {"source"}},
                                    {"to", to}});
    }

    // Waits until the receiver has a packet that is sent from now on.
    bool flows_to(const std::string &name, const netlab::sender &stream) {
        return site_->receivers.at(name)->wait_sequence(stream.stream(), stream.sent() + 1,
                                                        patience);
    }

    // No packet that is sent from a moment from now on arrives.
    bool stays_away_from(const std::string &name, const netlab::sender &stream) {
        std::this_thread::sleep_for(grace);
        const uint64_t before = site_->receivers.at(name)->packets(stream.stream());
        std::this_thread::sleep_for(grace);
        return site_->receivers.at(name)->packets(stream.stream()) == before;
    }

    const std::string group_ = "ff3e::8000:1";
};

TEST_F(UnderTraffic, AReceiverThatStaysLosesNothingWhenOthersComeAndGo) {
    add_route({"one"});
    netlab::sender stream(*site_->hosts.at("source"), group_);
    stream.start(2000);
    ASSERT_TRUE(flows_to("one", stream));
    for (int i = 0; i < 10; ++i) {
        add_route({"one", "two", "three"});
        EXPECT_TRUE(flows_to("three", stream));
        add_route({"one"});
        EXPECT_TRUE(stays_away_from("three", stream));
        router_->must("output.add", {{"table", "default"},
                                     {"source", "fd00:1::10"},
                                     {"group", group_},
                                     {"interfaces", {"two"}}});
        EXPECT_TRUE(flows_to("two", stream));
        router_->must("output.delete", {{"table", "default"},
                                        {"source", "fd00:1::10"},
                                        {"group", group_},
                                        {"interfaces", {"two"}}});
        EXPECT_TRUE(stays_away_from("two", stream));
    }
    stream.stop();
    ASSERT_TRUE(
        site_->receivers.at("one")->wait_sequence(stream.stream(), stream.sent(), patience));
    const netlab::stream_report got = site_->receivers.at("one")->report(stream.stream());
    EXPECT_EQ(got.missing(1, stream.sent()), 0U);
    EXPECT_EQ(got.duplicates, 0U);
    expect_clean(*router_);
}

TEST_F(UnderTraffic, ADeletedRouteEndsTheFlowAndAnAddedOneStartsIt) {
    add_route({"one", "two"});
    netlab::sender stream(*site_->hosts.at("source"), group_);
    stream.start(2000);
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(flows_to("one", stream));
        EXPECT_TRUE(flows_to("two", stream));
        router_->must("route.delete",
                      {{"table", "default"}, {"source", "fd00:1::10"}, {"group", group_}});
        EXPECT_TRUE(stays_away_from("one", stream));
        EXPECT_TRUE(stays_away_from("two", stream));
        add_route({"one", "two"});
    }
    EXPECT_TRUE(flows_to("one", stream));
    expect_clean(*router_);
}

TEST_F(UnderTraffic, ARangeThatChangesTakesItsDerivedFlowsAlong) {
    const json range = {{"table", "default"}, {"group", "ff3e::8000:0/112"}};
    json wish = range;
    wish["from"] = {"source"};
    wish["to"] = {"one"};
    router_->must("route.add", wish);
    netlab::sender stream(*site_->hosts.at("source"), group_);
    stream.start(2000);
    EXPECT_TRUE(flows_to("one", stream));
    wish["to"] = {"two"};
    router_->must("route.add", wish);
    EXPECT_TRUE(flows_to("two", stream));
    EXPECT_TRUE(stays_away_from("one", stream));
    // A route of its own for the flow, and back to the range.
    add_route({"three"});
    EXPECT_TRUE(flows_to("three", stream));
    EXPECT_TRUE(stays_away_from("two", stream));
    router_->must("route.delete",
                  {{"table", "default"}, {"source", "fd00:1::10"}, {"group", group_}});
    EXPECT_TRUE(flows_to("two", stream));
    router_->must("route.delete", range);
    EXPECT_TRUE(stays_away_from("two", stream));
    expect_clean(*router_);
}

}  // namespace
