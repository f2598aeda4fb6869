// Bulk loads: order, failures by line, limits, an owner that is slow or goes away, ^C.
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <fstream>

#include "tests/apps/mfwd6ctl/program.h"
#include "tests/apps/mfwd6ctl/stand_in.h"
#include "tests/kit/run_dir.h"

namespace {

using namespace ctl_test;
using nlohmann::json;

#if defined(__SANITIZE_ADDRESS__)
constexpr uint64_t most_resident = uint64_t{1} << 30;  // it keeps freed memory for a while
#else
constexpr uint64_t most_resident = uint64_t{64} << 20;
#endif

// Takes every line but those that contain "bad".
std::string take_lines(const json &request) {
    json failed = json::array();
    uint64_t accepted = 0;
    size_t index = 0;
    for (const std::string line : request["args"]["lines"]) {
        if (line.find("bad") != std::string::npos) {
            failed.push_back(
                {{"index", index}, {"code", 22}, {"text", "no word \"" + line + "\""}});
        } else {
            ++accepted;
        }
        ++index;
    }
    return good(request, {{"accepted", accepted}, {"failed", failed}});
}

class Load : public testing::Test {
  protected:
    std::string file(const std::string &text) {
        const std::string path = dir_.path() + "/lines.conf";
        std::ofstream(path) << text;
        return path;
    }
    words with(const words &more) const {
        words all{"--run-dir", dir_.path(), "load"};
        all.insert(all.end(), more.begin(), more.end());
        return all;
    }
    static words lines_of(const stand_in &owner) {
        words all;
        for (const json &r : owner.requests()) {
            EXPECT_EQ(r["action"], "lines");
            EXPECT_LE(r["args"]["lines"].size(), 8192U);
            EXPECT_LE(r.dump().size(), size_t{1} << 20);
            for (const json &line : r["args"]["lines"]) {
                all.push_back(line);
            }
        }
        return all;
    }

    kit::run_dir dir_;
};

TEST_F(Load, EveryLineInOrder) {
    const stand_in owner(dir_.path(), take_lines);
    std::string text = "# a comment\n\n";
    words expected;
    for (int n = 0; n < 20000; ++n) {
        expected.push_back(fmt::format("mroute from eth0 group ff3e::{} to eth1", n % 10000));
        text += expected.back() + "\n";
    }
    const ended e = run(with({file(text), "--json"}));
    EXPECT_EQ(e.code, 0) << e.err;
    EXPECT_EQ(e.json()["accepted"], 20000);
    EXPECT_EQ(e.json()["lines"], 20000);
    EXPECT_GT(e.json()["rate"], 0);
    EXPECT_EQ(lines_of(owner), expected);
}

TEST_F(Load, FailuresByFileAndLine) {
    const stand_in owner(dir_.path(), take_lines);
    const std::string path = file("one\n# two\nbad three\n\n  \r\nsix\r\n bad seven");
    const ended e = run(with({path}));
    EXPECT_EQ(e.code, 1);
    EXPECT_EQ(e.err, path + ":3: no word \"bad three\"\n" + path + ":7: no word \" bad seven\"\n");
    EXPECT_EQ(e.out.substr(0, e.out.find(", in")), "2 lines accepted, 2 failed");
    EXPECT_EQ(lines_of(owner), (words{"one", "bad three", "six", " bad seven"}));
}

TEST_F(Load, FromStandardInput) {
    const stand_in owner(dir_.path(), take_lines);
    const ended e = run(with({"-"}), "one\nbad two\n");
    EXPECT_EQ(e.code, 1);
    EXPECT_EQ(e.err, "standard input:2: no word \"bad two\"\n");
}

TEST_F(Load, APipeThatIsSlowIsNotWaitedFor) {
    const stand_in owner(dir_.path(), take_lines);
    program p(with({"-"}));
    p.type("one\ntwo");
    for (int tries = 0; owner.requests().empty() && tries < 300; ++tries) {
        usleep(10'000);
    }
    EXPECT_EQ(lines_of(owner), words{"one"});
    p.type(" and a half\n");
    EXPECT_EQ(p.wait().code, 0);
    EXPECT_EQ(lines_of(owner), (words{"one", "two and a half"}));
}

TEST_F(Load, NothingToLoad) {
    const stand_in owner(dir_.path(), take_lines);
    EXPECT_EQ(run(with({file("# nothing\n")})).code, 0);
    EXPECT_TRUE(owner.requests().empty());
}

TEST_F(Load, AFileThatIsNotThere) {
    const stand_in owner(dir_.path(), take_lines);
    const ended e = run(with({dir_.path() + "/none"}));
    EXPECT_EQ(e.code, 1);
    EXPECT_EQ(e.err, "mfwd6ctl: cannot open " + dir_.path() + "/none: No such file or directory\n");
}

TEST_F(Load, ALineThatIsTooLong) {
    const stand_in owner(dir_.path(), take_lines);
    const std::string path = file("one\n" + std::string(100'000, 'x') + "\nthree\n");
    const ended e = run(with({path}));
    EXPECT_EQ(e.code, 1);
    EXPECT_EQ(e.err, path + ":2: the line is too long\n");
    EXPECT_EQ(lines_of(owner), (words{"one", "three"}));
}

TEST_F(Load, ALineWithoutEndIsLeftByControlC) {
    const stand_in owner(dir_.path(), take_lines);
    program p(with({"/dev/zero"}));
    usleep(300'000);
    std::ifstream status("/proc/" + std::to_string(p.pid()) + "/statm");
    uint64_t pages = 0;
    uint64_t resident = 0;
    status >> pages >> resident;
    EXPECT_LT(resident * static_cast<uint64_t>(getpagesize()), most_resident);
    p.signal(SIGINT);
    EXPECT_EQ(p.wait().code, 130);
}

TEST_F(Load, BytesThatAreNoText) {
    const stand_in owner(dir_.path(), take_lines);
    EXPECT_EQ(run(with({file("bad \xff\xfe line\n")})).code, 1);
}

TEST_F(Load, ManyFailuresAreCutForPeopleOnly) {
    const stand_in owner(dir_.path(), take_lines);
    std::string text;
    for (int n = 0; n < 150; ++n) {
        text += "bad\n";
    }
    const std::string path = file(text);
    EXPECT_NE(run(with({path})).err.find("50 more lines failed; --json tells of all"),
              std::string::npos);
    EXPECT_EQ(run(with({path, "--json"})).json()["failed"].size(), 150U);
}

TEST_F(Load, ARequestThatIsRefusedAsAWhole) {
    const stand_in owner(dir_.path(), [](const json &r) { return bad(r, 16, "later"); });
    const std::string path = file("one\ntwo\n");
    const ended e = run(with({path}));
    EXPECT_EQ(e.code, 1);
    EXPECT_EQ(e.err, path + ":1: later\n" + path + ":2: later\n");
}

TEST_F(Load, AnOwnerThatEndsInTheMiddle) {
    int count = 0;
    const stand_in owner(dir_.path(), [&](const json &r) {
        return ++count > 2 ? std::string("close") : take_lines(r);
    });
    std::string text;
    for (int n = 0; n < 20000; ++n) {
        text += "line\n";
    }
    const ended e = run(with({file(text)}));
    EXPECT_EQ(e.code, 3);
    EXPECT_NE(e.err.find("closed the connection"), std::string::npos) << e.err;
    EXPECT_NE(e.err.find("2048 lines are done"), std::string::npos) << e.err;
}

TEST_F(Load, AnOwnerThatDoesNotAnswer) {
    const stand_in owner(dir_.path(), [](const json &) { return ""; });
    const ended e = run(with({file("one\n"), "--timeout", "0.3"}));
    EXPECT_EQ(e.code, 3);
    EXPECT_NE(e.err.find("0 lines are done; from line 1 on it is not known"), std::string::npos)
        << e.err;
}

TEST_F(Load, ControlCSendsNoMoreAndTellsWhatWasDone) {
    const stand_in owner(dir_.path(), [](const json &r) {
        usleep(100'000);
        return take_lines(r);
    });
    std::string text;
    for (int n = 0; n < 100'000; ++n) {
        text += "line\n";
    }
    program p(with({file(text), "--json", "--progress"}));
    ASSERT_TRUE(p.says("lines"));  // the bar
    p.signal(SIGINT);
    const ended e = p.wait();
    EXPECT_EQ(e.code, 130);
    const json result = json::parse(e.out);
    EXPECT_EQ(result["interrupted"], true);
    EXPECT_EQ(result["accepted"], lines_of(owner).size());
    EXPECT_LT(result["accepted"], 100'000);
}

TEST_F(Load, ABarWhereItIsAskedFor) {
    const stand_in owner(dir_.path(), take_lines);
    const std::string path = file("one\n");
    EXPECT_EQ(run(with({path})).err, "");
    EXPECT_NE(run(with({path, "--progress"})).err.find("] 100%"), std::string::npos);
}

}  // namespace
