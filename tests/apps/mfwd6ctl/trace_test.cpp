// Traces of living and dead processes, and debug classes.
#include "services/diag/trace.h"

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>

#include "services/diag/debug.h"
#include "tests/apps/mfwd6ctl/program.h"
#include "tests/kit/child.h"
#include "tests/kit/run_dir.h"

namespace {

using namespace ctl_test;
using nlohmann::json;

constexpr uint64_t first_id = 0x7700;

void write_some(uint64_t id, int count) {
    for (int n = 0; n < count; ++n) {
        _ltrace_3(ip6mc_mlib_eve_ltrace(), id, static_cast<uint64_t>(n), 0xabcdef, 2);
        const std::string text = fmt::format("text {}", n);
        _lstrace(ip6mc_mlib_err_ltrace(), id + 1, nullptr, text.c_str());
    }
}

words with(const kit::run_dir &dir, const words &more) {
    words all{"--run-dir", dir.path()};
    all.insert(all.end(), more.begin(), more.end());
    return all;
}

size_t lines_of(const std::string &text) {
    return static_cast<size_t>(std::count(text.begin(), text.end(), '\n'));
}

class Trace : public testing::Test {
  protected:
    // Writes five records to each of two rings, and dies.
    Trace() {
        kit::child writer([](const kit::post &parent) {
            write_some(first_id, 5);
            parent.tell();
            parent.hear();
            return 0;
        });
        if (writer.hear() != '.') {
            throw std::runtime_error("the writer ends early");
        }
        writer.kill();
    }
    ended trace(const words &more) const {
        words all{"trace"};
        all.insert(all.end(), more.begin(), more.end());
        return run(with(dir_, all));
    }

    kit::run_dir dir_;
};

TEST_F(Trace, OfAProcessThatDied) {
    const ended e = trace({});
    EXPECT_EQ(e.code, 0);
    EXPECT_EQ(lines_of(e.out), 10U);
    EXPECT_NE(e.out.find(" eve  0x7700 4 0xabcdef 2\n"), std::string::npos) << e.out;
    EXPECT_NE(e.out.find(" err  0x7701 text 4\n"), std::string::npos) << e.out;
    // In the order of time, whatever the ring.
    EXPECT_LT(e.out.find("0x7701 text 3"), e.out.find("0x7700 4"));
    EXPECT_LT(e.out.find("0x7700 4"), e.out.find("0x7701 text 4"));
}

TEST_F(Trace, OnlyWhatIsAskedFor) {
    EXPECT_EQ(lines_of(trace({"--last", "3"}).out), 3U);
    EXPECT_EQ(lines_of(trace({"--id", "0x7700"}).out), 5U);
    EXPECT_EQ(lines_of(trace({"--id", "30464", "--id", "0x7701"}).out), 10U);
    EXPECT_EQ(lines_of(trace({"--kind", "err"}).out), 5U);
    EXPECT_EQ(lines_of(trace({"--text", "text 2"}).out), 1U);
    EXPECT_EQ(lines_of(trace({"--program", "ctl_trace_test"}).out), 10U);
    EXPECT_EQ(lines_of(trace({"--program", "other"}).out), 0U);
    EXPECT_EQ(lines_of(trace({"--pid", "1"}).out), 0U);
    EXPECT_EQ(trace({"--id", "seven"}).code, 2);
}

TEST_F(Trace, AsJsonLines) {
    const ended e = trace({"--last", "1", "--json"});
    ASSERT_EQ(e.code, 0) << e.err;
    const json record = e.json();
    EXPECT_EQ(record["id"], 0x7701);
    EXPECT_EQ(record["text"], "text 4");
    EXPECT_EQ(record["kind"], "err");
    EXPECT_EQ(record["program"], "ctl_trace_test");
    EXPECT_EQ(record["words"], json::array());
    EXPECT_EQ(trace({"--last", "1", "--kind", "eve", "--json"}).json()["words"],
              json({4, 0xabcdef, 2}));
}

TEST_F(Trace, Rings) {
    const json all = trace({"--list", "--json"}).json();
    ASSERT_EQ(all["rings"].size(), 2U);
    for (const json &ring : all["rings"]) {
        EXPECT_EQ(ring["alive"], false);
        EXPECT_EQ(ring["dropped"], 0);
        EXPECT_GE(ring["written"], 5);
    }
}

TEST_F(Trace, FollowsWhatComesAlsoFromNewProcesses) {
    program p(with(dir_, {"trace", "--follow", "--last", "2"}));
    ASSERT_TRUE(p.says("0x7701 text 4\n"));
    EXPECT_EQ(lines_of(p.output()), 2U);
    kit::child writer([](const kit::post &) {
        write_some(0x8800, 3);
        return 0;
    });
    ASSERT_TRUE(p.says("0x8801 text 2\n"));
    writer.wait();
    p.signal(SIGINT);
    const ended e = p.wait();
    EXPECT_EQ(e.code, 130);
    EXPECT_EQ(lines_of(e.out), 8U);
}

TEST_F(Trace, AFileThatIsNoRingIsPassedOver) {
    FILE *file = fopen((dir_.path() + "/trace/rubbish").c_str(), "w");
    ASSERT_NE(file, nullptr);
    fputs("rubbish", file);
    fclose(file);
    EXPECT_EQ(lines_of(trace({}).out), 10U);
}

TEST(NoTrace, HasItsOwnCode) {
    const kit::run_dir dir;
    const ended e = run(with(dir, {"trace"}));
    EXPECT_EQ(e.code, 3);
    EXPECT_EQ(e.err, "mfwd6ctl: no traces in " + dir.path() + "/trace\n");
}

json classes_of(const json &shown, const std::string &name) {
    for (const json &one : shown["programs"]) {
        if (one["program"] == name) {
            return one["on"];
        }
    }
    return nullptr;
}

TEST(Debug, SwitchesClassesOfAProgram) {
    const kit::run_dir dir;
    const auto debug = [&](const words &more) {
        words all{"debug"};
        all.insert(all.end(), more.begin(), more.end());
        return run(with(dir, all));
    };
    EXPECT_EQ(debug({"on", "ROUTE", "intf", "--program", "mfwd6d"}).code, 0);
    json shown = debug({"show", "--json"}).json();
    EXPECT_EQ(classes_of(shown, "mfwd6d"), json({"INTF", "ROUTE"}));
    EXPECT_EQ(shown["every_program"], json::array());

    EXPECT_EQ(debug({"off", "ROUTE", "--program", "mfwd6d"}).code, 0);
    EXPECT_EQ(debug({"on", "SIG"}).code, 0);
    shown = debug({"show", "--json"}).json();
    EXPECT_EQ(classes_of(shown, "mfwd6d"), json({"INTF", "SIG"}));
    EXPECT_EQ(shown["every_program"], json({"SIG"}));

    EXPECT_EQ(debug({"off", "all"}).code, 0);
    const ended e = debug({"on", "NONSENSE"});
    EXPECT_EQ(e.code, 2);
    EXPECT_NE(e.err.find("NONSENSE is no debug class"), std::string::npos) << e.err;
}

TEST(Debug, ReachesAProcessThatRuns) {
    const kit::run_dir dir;
    kit::child runs([](const kit::post &parent) {
        ipv4_mlib_debug_init(nullptr);
        parent.tell();
        parent.hear();
        return ipv4_debug_event_active(IPV4_DEBUG_BVI) ? 0 : 1;
    });
    ASSERT_EQ(runs.hear(), '.');
    EXPECT_EQ(run(with(dir, {"debug", "on", "BVI", "--program", "ctl_trace_test"})).code, 0);
    runs.tell();
    EXPECT_EQ(runs.wait(), 0);
}

}  // namespace
