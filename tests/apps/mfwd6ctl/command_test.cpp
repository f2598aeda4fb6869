// What the changing commands ask the owner for, and what they make of its answers.
#include <gtest/gtest.h>
#include <unistd.h>

#include "tests/apps/mfwd6ctl/program.h"
#include "tests/apps/mfwd6ctl/stand_in.h"
#include "tests/kit/run_dir.h"

namespace {

using namespace ctl_test;
using nlohmann::json;

struct example {
    words arguments;
    const char *action;
    const char *args;
};

const std::vector<example> examples = {
    {{"add", "route", "2001:db8::1", "ff3e::1", "--from", "eth0", "--to", "eth1", "eth2"},
     "route.add",
     R"({"table":"default","source":"2001:db8::1","group":"ff3e::1","from":["eth0"],
         "to":["eth1","eth2"],"flags":[]})"},
    {{"add", "route", "any", "ff3e::5/32", "-i", "a,b", "-o", "c", "--vrf", "red",
      "--inherit-accept", "--signal", "--drop"},
     "route.add",
     R"({"table":"red","group":"ff3e::/32","from":["a","b"],"to":["c"],
         "flags":["inherit-accept","signal","drop"]})"},
    {{"delete", "route", "*", "ff3e::1"},
     "route.delete",
     R"({"table":"default","group":"ff3e::1"})"},
    {{"add", "output", "2001:db8::1", "ff3e::1", "eth3", "eth4"},
     "output.add",
     R"({"table":"default","source":"2001:db8::1","group":"ff3e::1","interfaces":["eth3","eth4"]})"},
    {{"delete", "output", "any", "ff3e::/96", "eth3", "--vrf", "red"},
     "output.delete",
     R"({"table":"red","group":"ff3e::/96","interfaces":["eth3"]})"},
    {{"add", "vrf", "red", "--table", "10", "--interface", "eth3", "eth4"},
     "table.add",
     R"({"name":"red","id":10,"interfaces":["eth3","eth4"]})"},
    {{"delete", "vrf", "red"}, "table.delete", R"({"name":"red"})"},
    {{"set", "interface", "eth1", "--enable", "--ttl", "16", "--boundary", "ff05::1/16"},
     "interface.set",
     R"({"interface":"eth1","enabled":true,"ttl_threshold":16,"boundary":["ff05::/16"]})"},
    {{"set", "interface", "eth1", "--disable", "--no-boundary"},
     "interface.set",
     R"({"interface":"eth1","enabled":false,"boundary":[]})"},
    {{"clear", "signals"}, "signal.clear", "{}"},
    {{"clear", "signals", "2001:db8::1", "ff3e::1", "--vrf", "red"},
     "signal.clear",
     R"({"table":"red","source":"2001:db8::1","group":"ff3e::1"})"},
    {{"shutdown"}, "shutdown", R"({"keep":false})"},
    {{"shutdown", "--keep"}, "shutdown", R"({"keep":true})"},
};

words with(const kit::run_dir &dir, const words &more) {
    words all{"--run-dir", dir.path()};
    all.insert(all.end(), more.begin(), more.end());
    return all;
}

TEST(Command, AsksForWhatWasSaid) {
    const kit::run_dir dir;
    const stand_in owner(dir.path(), [](const json &r) { return good(r); });
    for (const example &x : examples) {
        const ended e = run(with(dir, x.arguments));
        EXPECT_EQ(e.code, 0) << x.action << e.err;
        EXPECT_EQ(e.out, "") << x.action;
        const json request = owner.requests().back();
        EXPECT_EQ(request["action"], x.action);
        EXPECT_EQ(request["args"], json::parse(x.args)) << x.action;
    }
}

TEST(Command, ARefusalIsToldWithTheOwnersText) {
    const kit::run_dir dir;
    const stand_in owner(dir.path(), [](const json &r) { return bad(r, 2, "eth9 is not there"); });
    const ended e = run(with(dir, {"delete", "route", "any", "ff3e::1"}));
    EXPECT_EQ(e.code, 1);
    EXPECT_EQ(e.err, "mfwd6ctl: eth9 is not there\n");
}

TEST(Command, ARefusalForWantOfPermissionHasItsOwnCode) {
    const kit::run_dir dir;
    const stand_in owner(dir.path(), [](const json &r) { return bad(r, 1, "not you"); });
    EXPECT_EQ(run(with(dir, {"shutdown"})).code, 5);
}

TEST(Command, NobodyListens) {
    const kit::run_dir dir;
    const ended e = run(with(dir, {"shutdown"}));
    EXPECT_EQ(e.code, 3);
    EXPECT_EQ(e.err, "mfwd6ctl: no mfwd6d answers: nobody listens on " + dir.path() + "/command\n");
}

TEST(Command, NobodyAnswers) {
    const kit::run_dir dir;
    const stand_in owner(dir.path(), [](const json &) { return ""; });
    const ended e = run(with(dir, {"shutdown", "--timeout", "0.3"}));
    EXPECT_EQ(e.code, 3);
    EXPECT_NE(e.err.find("has not answered within 0.3 s"), std::string::npos) << e.err;
}

TEST(Command, TheOwnerEndsInstead) {
    const kit::run_dir dir;
    const stand_in owner(dir.path(), [](const json &) { return "close"; });
    const ended e = run(with(dir, {"shutdown"}));
    EXPECT_EQ(e.code, 3);
    EXPECT_NE(e.err.find("closed the connection"), std::string::npos) << e.err;
}

TEST(Command, AnAnswerThatIsNone) {
    const kit::run_dir dir;
    for (const char *rubbish : {"rubbish", "[]", "{}", R"({"code":"x"})", R"({"code":-1})",
                                R"({"code":0,"text":7})", R"({"code":1.5})"}) {
        const stand_in owner(dir.path(), [&](const json &) { return rubbish; });
        const ended e = run(with(dir, {"shutdown"}));
        EXPECT_EQ(e.code, 1) << rubbish;
        EXPECT_NE(e.err.find("something that is no answer"), std::string::npos) << e.err;
        unlink((dir.path() + "/command").c_str());
    }
}

TEST(Command, ArgumentsThatMakeNoSenseReachNobody) {
    const kit::run_dir dir;
    const stand_in owner(dir.path(), [](const json &r) { return good(r); });
    for (const words &w : std::vector<words>{
             {"add", "route", "2001:db8::1", "2001:db8::2"},
             {"add", "route", "ff3e::1", "ff3e::1"},
             {"add", "route", "2001:db8::1", "ff3e::/64"},
             {"add", "route", "any", "ff3e::/129"},
             {"add", "route", "any", "ff3e::/x"},
             {"add", "route", "192.0.2.1", "ff3e::1"},
             {"add", "output", "any", "ff3e::1"},
             {"add", "vrf", "red"},
             {"add", "vrf", "red", "--table", "x"},
             {"set", "interface", "eth1"},
             {"set", "interface", "eth1", "--ttl", "256"},
             {"set", "interface", "eth1", "--enable", "--disable"},
             {"clear", "signals", "2001:db8::1"},
             {"shutdown", "now"},
         }) {
        const ended e = run(with(dir, w));
        EXPECT_EQ(e.code, 2) << w[0] << " " << w[1] << e.err;
        EXPECT_NE(e.err, "");
    }
    EXPECT_TRUE(owner.requests().empty());
}

TEST(Command, ResultsAsJson) {
    const kit::run_dir dir;
    const stand_in owner(dir.path(), [](const json &r) { return good(r, {{"ended", 3}}); });
    EXPECT_EQ(run(with(dir, {"clear", "signals", "--json"})).json()["ended"], 3);
}

}  // namespace
