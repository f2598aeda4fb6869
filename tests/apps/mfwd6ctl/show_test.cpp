// What the reading commands say about an owner of known state, and about one that died.
#include <gtest/gtest.h>

#include "ipv4/multicast/lib/ip6mc_locks.h"
#include "ipv4/multicast/lib/ip6mc_types.h"
#include "services/diag/trace.h"
#include "tests/apps/mfwd6ctl/owner.h"

namespace {

using namespace ctl_test;
using nlohmann::json;

constexpr const char *routes_text =
    "VRF      SOURCE       GROUP        FROM  TO         FLAGS                   PACKETS  BYTES  "
    "AGE\n"
    "default  2001:db8::1  ff3e::1      eth0  eth1,eth2  -                             -      - "
    "AGE\n"
    "default  2001:db8::2  ff3e::1      eth0  -          drop                          -      - "
    "AGE\n"
    "default  *            ff3e:1::/96  eth0  eth2       signal,inherit-forward        -      - "
    "AGE\n"
    "red      2001:db8::1  ff3e::1      eth3  eth3,eth2  -                             -      - "
    "AGE\n";

TEST(Show, RoutesAsATable) {
    const owner o;
    const ended e = o.run({"show", "routes"});
    EXPECT_EQ(e.code, 0);
    EXPECT_EQ(without_ages(e.out), routes_text);
    EXPECT_EQ(e.err, "");
}

TEST(Show, RoutesOfADeadOwner) {
    owner o;
    o.kill();
    const ended e = o.run({"show", "routes"});
    EXPECT_EQ(e.code, 0);
    EXPECT_EQ(without_ages(e.out), routes_text);
    EXPECT_EQ(e.err, "");
}

TEST(Show, RoutesAsJson) {
    const owner o;
    const ended e = o.run({"show", "routes", "--vrf", "red", "--json"});
    ASSERT_EQ(e.code, 0) << e.err;
    const json expected = json::parse(R"({"routes": [{
        "table": "red", "table_id": 3766484997,
        "source": "2001:db8::1", "group": "ff3e::1", "group_length": 128,
        "attributes": [], "state": "programmed",
        "from": ["eth3"], "to": ["eth3", "eth2"],
        "interfaces": [
            {"name": "eth3", "handle": 4, "attributes": ["accept", "forward"]},
            {"name": "eth2", "handle": 3, "attributes": ["forward"]}],
        "parent": null, "counters": null}]})");
    EXPECT_EQ(without(e.json(), {"age_seconds"}), expected);
}

TEST(Show, RoutesThatAreAskedFor) {
    const owner o;
    const auto count = [&](const words &filter) {
        words all{"show", "routes", "--count", "--json"};
        all.insert(all.end(), filter.begin(), filter.end());
        return o.run(all).json()["count"].get<int>();
    };
    EXPECT_EQ(count({}), 4);
    EXPECT_EQ(count({"--vrf", "default"}), 3);
    EXPECT_EQ(count({"--source", "any"}), 1);
    EXPECT_EQ(count({"--source", "2001:db8::1"}), 2);
    EXPECT_EQ(count({"--group", "ff3e::1"}), 3);
    EXPECT_EQ(count({"--group", "ff3e:1::/32"}), 1);
    EXPECT_EQ(count({"--group", "ff3e::/16"}), 4);
    EXPECT_EQ(count({"--group", "ff3f::/16"}), 0);
    EXPECT_EQ(count({"--interface", "eth2"}), 3);
}

TEST(Show, AVrfThatIsNotThere) {
    const owner o;
    const ended e = o.run({"show", "routes", "--vrf", "blue"});
    EXPECT_EQ(e.code, 1);
    EXPECT_EQ(e.err, "mfwd6ctl: there is no VRF \"blue\"\n");
}

TEST(Show, OneRoute) {
    const owner o;
    const ended e = o.run({"show", "route", "any", "ff3e:1::/96", "--no-history"});
    EXPECT_EQ(e.code, 0);
    EXPECT_EQ(without_ages(e.out),
              "(*, ff3e:1::/96) in VRF default\n"
              "  table id     0xe0800000\n"
              "  attributes   signal, inherit-forward\n"
              "  state        programmed\n"
              "  age AGE\n"
              "  counters     the platform has none\n"
              "\n"
              "INTERFACE  ATTRIBUTES  HANDLE  AGE\n"
              "eth0       accept         0x1 AGE\n"
              "eth2       forward        0x3 AGE\n");
}

TEST(Show, TheRouteThatAPacketTakes) {
    const owner o;
    const ended e = o.run({"show", "route", "2001:db8::77", "ff3e:1::7", "--match", "--json"});
    ASSERT_EQ(e.code, 0) << e.err;
    EXPECT_EQ(e.json()["group"], "ff3e:1::");
    EXPECT_EQ(e.json()["group_length"], 96);
    const ended none = o.run({"show", "route", "2001:db8::77", "ff3e:2::7", "--match"});
    EXPECT_EQ(none.code, 1);
    EXPECT_EQ(none.err, "mfwd6ctl: no route takes (2001:db8::77, ff3e:2::7) in VRF default\n");
}

TEST(Show, ARouteThatIsNotThere) {
    const owner o;
    const ended e = o.run({"show", "route", "2001:db8::3", "ff3e::1", "--vrf", "red"});
    EXPECT_EQ(e.code, 1);
    EXPECT_EQ(e.err, "mfwd6ctl: there is no route (2001:db8::3, ff3e::1) in VRF red\n");
}

TEST(Show, HistoryOfARouteFromTheTracesOfADeadOwner) {
    owner o([](const world &, const kit::post &parent) {
        _lstrace(ip6mc_mlib_err_ltrace(), 0x42, nullptr, "(2001:db8::1,ff3e::1/256) is in trouble");
        _lstrace(ip6mc_mlib_err_ltrace(), 0x43, nullptr, "(2001:db8::1,ff3e::11/256) is another");
        parent.tell();
        return 0;
    });
    ASSERT_EQ(o.process().hear(), '.');
    o.kill();
    const ended e = o.run({"show", "route", "2001:db8::1", "ff3e::1", "--json"});
    ASSERT_EQ(e.code, 0) << e.err;
    const json history = e.json()["history"];
    ASSERT_EQ(history.size(), 1U) << history;
    EXPECT_EQ(history[0]["event"], "0x42 (2001:db8::1,ff3e::1/256) is in trouble");
}

TEST(Show, Tables) {
    const owner o;
    const ended e = o.run({"show", "tables"});
    EXPECT_EQ(e.code, 0);
    EXPECT_EQ(e.out,
              "VRF        TABLE ID      VRF ID  ACTIVE  INTERFACES  ROUTES  SIGNALS  EVER\n"
              "default  0xe0800000  0x60000000  yes              0       3        1     1\n"
              "red      0xe0800005  0x60000006  yes              0       1        0     0\n");
}

TEST(Show, Interfaces) {
    const owner o;
    const ended e = o.run({"show", "interfaces"});
    EXPECT_EQ(e.code, 0);
    EXPECT_EQ(e.out,
              "NAME  HANDLE  TYPE      VRF  MULTICAST  TTL  BOUNDARY  ROUTES  REFERENCES\n"
              "eth0     0x1  physical  -    off          0  -              3           4\n"
              "eth1     0x2  physical  -    off          0  -              1           2\n"
              "eth2     0x3  physical  -    off          0  -              3           4\n"
              "eth3     0x4  physical  -    off          0  -              1           2\n");
}

TEST(Show, Signals) {
    const owner o;
    const ended e = o.run({"show", "signals"});
    EXPECT_EQ(e.code, 0);
    EXPECT_EQ(without_ages(e.out),
              "VRF      SOURCE       GROUP     CAME IN BY  PACKET KEPT  AGE\n"
              "default  2001:db8::9  ff3e::99  eth0        no AGE\n");
    EXPECT_EQ(o.run({"show", "signals", "--vrf", "red", "--json"}).out, "{\"signals\": []}\n");
}

TEST(Show, NoEncapsAndNoBvi) {
    const owner o;
    EXPECT_EQ(o.run({"show", "encaps", "--json"}).out, "{\"encaps\": []}\n");
    EXPECT_EQ(o.run({"show", "bvi", "--json"}).out, "{\"bvi\": []}\n");
}

json route_blocks(const json &memory) {
    for (const json &type : memory["types"]) {
        if (type["name"] == "route") {
            return type;
        }
    }
    return nullptr;
}

TEST(Show, MemoryByType) {
    const owner o;
    const ended e = o.run({"show", "memory", "--json"});
    ASSERT_EQ(e.code, 0) << e.err;
    const json memory = e.json();
    EXPECT_GT(memory["used"], 0);
    EXPECT_GE(memory["peak"], memory["used"]);
    EXPECT_GE(memory["limit"], memory["committed"]);
    EXPECT_EQ(memory["kept_for_readers"], 0);
    const json routes = route_blocks(memory);
    EXPECT_EQ(routes["type"], 9);
    EXPECT_EQ(routes["blocks"], 5);  // four routes, one signal
    EXPECT_EQ(routes["counted"], 5);
    EXPECT_EQ(o.run({"show", "counters", "--json"}).json()["types"], memory["types"]);
}

// Blocks that are free but not yet back in the heap are no use of the window.
TEST(Show, MemoryTellsBlocksInUseFromFreedOnes) {
    const owner o([](const world &w, const kit::post &parent) {
        parent.hear();
        delete_route(w.standard, "2001:db8::1", "ff3e::1", 256);  // into the pool
        parent.tell();
        return 0;
    });
    const json before = o.run({"show", "memory", "--json"}).json();
    for (const json &type : before["types"]) {
        EXPECT_EQ(type["freed_blocks"], 0) << type;
    }
    o.process().tell();
    ASSERT_NE(o.process().hear(), 0);
    const json memory = o.run({"show", "memory", "--json"}).json();
    uint64_t freed = 0;
    for (const json &type : memory["types"]) {
        EXPECT_EQ(type["blocks"], type["counted"]) << type;
        EXPECT_EQ(type["freed_blocks"] == 0, type["freed_bytes"] == 0) << type;
        freed += type["freed_blocks"].get<uint64_t>();
    }
    EXPECT_GT(freed, 0U);
    EXPECT_EQ(memory["pooled_blocks"], freed);
    EXPECT_EQ(route_blocks(memory)["blocks"], 4);
    const std::string text = o.run({"show", "memory"}).out;
    EXPECT_NE(text.find("FREED"), std::string::npos) << text;
}

TEST(Show, ClientsAndWhatTheyDo) {
    owner o;
    json clients = o.run({"show", "clients", "--json"}).json()["clients"];
    ASSERT_EQ(clients.size(), 2U);
    EXPECT_EQ(clients[0]["role"], "owner");
    EXPECT_EQ(clients[0]["pid"], o.process().pid());
    EXPECT_EQ(clients[0]["alive"], true);
    EXPECT_EQ(clients[1]["name"], "mfwd6ctl");
    o.kill();
    clients = o.run({"show", "clients", "--json"}).json()["clients"];
    EXPECT_EQ(clients[0]["role"], "owner");
    EXPECT_EQ(clients[0]["alive"], false);
    EXPECT_EQ(clients[0]["activity"], "dead");
}

TEST(Show, StatusOfAWindowWithoutAnOwner) {
    owner o;
    o.kill();
    const ended e = o.run({"show", "status", "--json"});
    EXPECT_EQ(e.code, 3);
    EXPECT_EQ(e.json()["owner"], nullptr);
    EXPECT_EQ(e.json()["window"]["owner_alive"], false);
    EXPECT_EQ(e.json()["window"]["layout_version"], "1.15");
    EXPECT_EQ(e.json()["errors"].size(), 1U);
}

TEST(Show, TreeInPlainText) {
    const owner o;
    EXPECT_EQ(o.run({"show", "routes", "--tree"}).out,
              "VRF default\n"
              "├─ ff3e::1\n"
              "│  ├─ 2001:db8::1 ──▶ [eth0]\n"
              "│  │  ├──▶ eth1\n"
              "│  │  └──▶ eth2\n"
              "│  └─ 2001:db8::2 ──▶ [eth0]  (drop)\n"
              "│     └──▶ nowhere\n"
              "└─ ff3e:1::/96\n"
              "   └─ * ──▶ [eth0]  (signal, inherit-forward)\n"
              "      └──▶ eth2\n"
              "VRF red\n"
              "└─ ff3e::1\n"
              "   └─ 2001:db8::1 ──▶ [eth3]\n"
              "      ├──▶ eth3\n"
              "      └──▶ eth2\n");
    EXPECT_EQ(o.run({"show", "routes", "--tree", "--ascii", "--vrf", "red"}).out,
              "VRF red\n"
              "`- ff3e::1\n"
              "   `- 2001:db8::1 --> [eth3]\n"
              "      |--> eth3\n"
              "      `--> eth2\n");
}

TEST(Show, TreeForGraphviz) {
    const owner o;
    const ended e = o.run({"show", "routes", "--dot", "--vrf", "red"});
    EXPECT_EQ(e.code, 0);
    EXPECT_EQ(e.out,
              "digraph mfwd6 {\n"
              "  rankdir=LR;\n"
              "  node [shape=ellipse, fontsize=10];\n"
              "  edge [fontsize=9];\n"
              "  \"source 2001:db8::1\" [label=\"2001:db8::1\", shape=plaintext];\n"
              "  subgraph cluster_0 {\n"
              "    label=\"VRF red\";\n"
              "    \"red router\" [label=\"red\", shape=box, style=bold];\n"
              "    \"red in eth3\" [label=\"eth3\"];\n"
              "    \"red out eth2\" [label=\"eth2\"];\n"
              "    \"red out eth3\" [label=\"eth3\"];\n"
              "  }\n"
              "  \"red in eth3\" -> \"red router\" [label=\"ff3e::1\"];\n"
              "  \"red router\" -> \"red out eth2\" [label=\"ff3e::1\"];\n"
              "  \"red router\" -> \"red out eth3\" [label=\"ff3e::1\"];\n"
              "  \"source 2001:db8::1\" -> \"red in eth3\" [label=\"ff3e::1\"];\n"
              "}\n");
}

TEST(Show, LocksHeldAndWaitedFor) {
    const owner o([](const world &, const kit::post &parent) {
        ip6mc_shmwin_mutex_lock("a_test", 12);
        parent.tell();
        parent.hear();
        ip6mc_shmwin_mutex_unlock();
        return 0;
    });
    ASSERT_EQ(o.process().hear(), '.');
    program waiting(o.with({"show", "signals"}));
    ASSERT_TRUE(waiting.says("waiting for the window mutex"));
    json window;
    const json all = o.run({"show", "locks", "--json"}).json();
    for (const json &lock : all["locks"]) {
        if (lock["name"] == "window") {
            window = lock;
        }
    }
    ASSERT_EQ(window["holders"].size(), 1U);
    EXPECT_EQ(window["holders"][0]["pid"], o.process().pid());
    EXPECT_EQ(window["taken_at"], "a_test:12");
    EXPECT_EQ(window["contended"], true);
    ASSERT_EQ(window["waiters"].size(), 1U);
    EXPECT_EQ(window["waiters"][0]["pid"], waiting.pid());
    o.process().tell();
    EXPECT_EQ(waiting.wait().code, 0);
}

TEST(Show, FlowsOfAPlatformThatDerivesNone) {
    const owner o;
    const ended e = o.run({"show", "flows"});
    EXPECT_EQ(e.code, 2);
    EXPECT_EQ(e.err, "mfwd6ctl: this platform derives no flows\n");
}

}  // namespace
