// The command socket of a running daemon: good requests, bad clients, many of them.
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <memory>
#include <random>
#include <thread>

#include "tests/apps/mfwd6d/bed.h"

using bed::json;

namespace {

using texts = std::multiset<std::string>;

class Protocol : public testing::Test {
  protected:
    void SetUp() override {
        NEEDS_NAMESPACE();
        daemon = std::make_unique<bed::keeper>(dir);
        ASSERT_TRUE(daemon->ready());
    }
    double status_ms() const {
        const auto begin = std::chrono::steady_clock::now();
        bed::client c(dir);
        EXPECT_EQ(c.call("status")["code"], 0);
        return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - begin)
            .count();
    }
    texts routes() const { return bed::look(dir).routes; }

    bed::folder dir;
    std::unique_ptr<bed::keeper> daemon;
};

TEST_F(Protocol, TheSocketIsForItsUserOnly) {
    struct stat st {};
    ASSERT_EQ(stat(dir.file("command").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600U);
}

// Another user of the machine, to whom the file was opened by mistake.
TEST_F(Protocol, AnotherUserIsRefused) {
    if (geteuid() != 0 || !bed::shell("setpriv --reuid 65534 --clear-groups true"))
        GTEST_SKIP() << "only root can become another user";
    ASSERT_EQ(chmod(dir.path().c_str(), 0755), 0);
    ASSERT_EQ(chmod(dir.file("command").c_str(), 0666), 0);
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const pid_t pid = fork();
    if (pid == 0) {
        std::string said;
        if (setresuid(65534, 65534, 65534) == 0) {
            try {
                bed::client c(dir);
                said = c.receive();
            } catch (const std::exception &e) {
                said = e.what();
            }
        }
        _exit(write(ends[1], said.data(), said.size()) < 0 ? 1 : 0);
    }
    close(ends[1]);
    char text[512] = "";
    EXPECT_GT(read(ends[0], text, sizeof(text) - 1), 0);
    close(ends[0]);
    const json answer = json::parse(text);
    EXPECT_EQ(answer["code"], EPERM);
    EXPECT_EQ(answer["text"], "commands are for root and the daemon's user");
}

TEST_F(Protocol, RoutesAreMadeChangedAndDeleted) {
    bed::client c(dir);
    const json key = {{"source", "2001:db8::1"}, {"group", "ff3e::1"}};
    json add = key;
    add["from"] = {"eth0"};
    add["to"] = {"eth1", "eth2"};
    EXPECT_EQ(c.call("route.add", add)["code"], 0);
    EXPECT_EQ(routes(), texts{"default (2001:db8::1,ff3e::1) in eth0 out eth1 eth2"});
    add["to"] = {"eth2", "eth3"};
    add["from"] = {"eth4"};
    add["flags"] = {"signal"};
    EXPECT_EQ(c.call("route.add", add)["code"], 0);
    EXPECT_EQ(routes(), texts{"default (2001:db8::1,ff3e::1) signal in eth4 out eth2 eth3"});
    json outputs = key;
    outputs["interfaces"] = {"eth4", "eth5"};
    EXPECT_EQ(c.call("output.add", outputs)["code"], 0);
    EXPECT_EQ(routes(),
              texts{"default (2001:db8::1,ff3e::1) signal in eth4 out eth2 eth3 eth4 eth5"});
    outputs["interfaces"] = {"eth4", "eth2", "eth7"};  // eth7 is none of them: passed over
    EXPECT_EQ(c.call("output.delete", outputs)["code"], 0);
    EXPECT_EQ(routes(), texts{"default (2001:db8::1,ff3e::1) signal in eth4 out eth3 eth5"});
    EXPECT_EQ(c.call("route.delete", key)["code"], 0);
    EXPECT_EQ(routes(), texts{});
    const json again = c.call("route.delete", key);
    EXPECT_EQ(again["code"], ENOENT);
    EXPECT_EQ(again["text"], "there is no route (2001:db8::1,ff3e::1)");
    EXPECT_EQ(c.call("output.add", outputs)["code"], ENOENT);
}

TEST_F(Protocol, TablesComeAndGo) {
    bed::client c(dir);
    EXPECT_EQ(c.call("table.add", {{"name", "red"}, {"id", 7}, {"interfaces", {"eth6"}}})["code"],
              0);
    EXPECT_EQ(c.call("table.add", {{"name", "red"}, {"id", 7}, {"interfaces", {"eth7"}}})["code"],
              0);
    EXPECT_EQ(c.call("table.add", {{"name", "red"}, {"id", 8}})["code"], EEXIST);
    EXPECT_EQ(c.call("table.add", {{"name", "blue"}, {"id", 7}})["code"], EEXIST);
    EXPECT_EQ(c.call("table.add", {{"name", "blue"}, {"id", 8}, {"interfaces", {"eth7"}}})["text"],
              "interface eth7 is in VRF red");
    EXPECT_EQ(
        c.call(
            "route.add",
            {{"table", "red"}, {"group", "ff3e::1"}, {"from", {"eth6"}}, {"to", {"eth7"}}})["code"],
        0);
    EXPECT_EQ(
        c.call(
            "route.add",
            {{"table", "red"}, {"group", "ff3e::2"}, {"from", {"eth6"}}, {"to", {"eth0"}}})["text"],
        "interface eth0 is in VRF default, the route in VRF red");
    EXPECT_EQ(c.call("route.add", {{"table", "blue"},
                                   {"group", "ff3e::1"},
                                   {"from", {"eth6"}},
                                   {"to", {"eth7"}}})["text"],
              "there is no VRF blue");
    EXPECT_EQ(routes(), texts{"red (*,ff3e::1) in eth6 out eth7"});
    EXPECT_EQ(c.call("table.delete", {{"name", "red"}})["code"], 0);
    EXPECT_EQ(routes(), texts{});
    EXPECT_EQ(c.call("table.delete", {{"name", "red"}})["code"], ENOENT);
    EXPECT_EQ(c.call("table.delete", {{"name", "default"}})["code"], EINVAL);
    EXPECT_EQ(c.line("mroute from eth6 group ff3e::1 to eth7"), 0U);  // they are free again
    const bed::view seen = bed::look(dir);
    EXPECT_EQ(seen.faults, std::vector<std::string>());
}

TEST_F(Protocol, BadArgumentsAreToldAndChangeNothing) {
    bed::client c(dir);
    struct {
        const char *action;
        json args;
        const char *text;
    } const rows[] = {
        {"route.add", json::object(), "\"group\" is missing"},
        {"route.add", {{"group", 1}}, "\"group\" is no text"},
        {"route.add", {{"group", "ff3e::1"}, {"from", "eth0"}}, "\"from\" is no array of texts"},
        {"route.add", {{"group", "ff3e::1"}, {"from", {1}}}, "\"from\" is no array of texts"},
        {"route.add",
         {{"group", "ff3e::1"}, {"from", {"eth0"}}, {"to", {"eth1 eth2"}}},
         "\"to\" is not one word"},
        {"route.add",
         {{"group", "ff3e::1"}, {"from", {"eth0"}}, {"to", {"#"}}},
         "\"to\" is not one word"},
        {"route.add",
         {{"group", "ff3e::1"}, {"from", {"eth0"}}, {"to", {"eth1"}}, {"flags", {"fast"}}},
         "a flag is inherit-accept, signal or drop, not \"fast\""},
        {"route.add",
         {{"group", "2001:db8::1"}, {"from", {"eth0"}}, {"to", {"eth1"}}},
         "\"2001:db8::1\" is not within ff00::/8, the multicast addresses"},
        {"route.add",
         {{"group", "ff3e::1"}, {"from", {"eth0"}}, {"to", {"nowhere0"}}},
         "there is no interface nowhere0"},
        {"output.add", {{"group", "ff3e::1"}}, "\"interfaces\" is empty"},
        {"table.add", {{"name", "red"}}, "\"id\" is no number"},
        {"table.add", {{"name", "red"}, {"id", -1}}, "\"id\" is no number"},
        {"table.add", {{"name", "red blue"}, {"id", 7}}, "\"name\" is not one word"},
        {"interface.set", {{"interface", "nowhere0"}}, "there is no interface nowhere0"},
        {"interface.set",
         {{"interface", "eth0"}, {"enabled", 1}},
         "\"enabled\" is neither true nor false"},
        {"interface.set",
         {{"interface", "eth0"}, {"ttl_threshold", 256}},
         "\"ttl_threshold\" is a number from 0 (none) to 255"},
        {"interface.set",
         {{"interface", "eth0"}, {"boundary", {"2001:db8::/32"}}},
         "\"2001:db8::/32\" is not within ff00::/8, the multicast addresses"},
        {"signal.clear", {{"table", "none"}}, "there is no VRF none"},
        {"signal.clear", {{"group", "x"}}, "\"x\" is no IPv6 address"},
        {"shutdown", {{"keep", "yes"}}, "\"keep\" is neither true nor false"},
        {"line", {{"line", "nonsense"}}, "unknown keyword \"nonsense\""},
        {"line", {{"line", "include x"}}, "include is for files"},
        {"lines", {{"lines", "x"}}, "\"lines\" takes an array of at most 8192 texts"},
        {"fly", json::object(), "there is no action \"fly\""},
    };
    for (const auto &row : rows) {
        const json answer = c.call(row.action, row.args);
        EXPECT_NE(answer["code"], 0) << answer.dump();
        EXPECT_EQ(answer["text"], row.text);
    }
    EXPECT_EQ(routes(), texts{});
}

TEST_F(Protocol, InterfacesKeepTheirSettings) {
    bed::client c(dir);
    EXPECT_EQ(c.call("interface.set", {{"interface", "eth0"},
                                       {"enabled", true},
                                       {"ttl_threshold", 9},
                                       {"boundary", {"ff05::/16", "ff08::/16"}}})["code"],
              0);
    EXPECT_EQ(c.line("no boundary eth0 group ff05::/16"), 0U);
    EXPECT_EQ(c.line("no boundary eth0 group ff05::/16"), uint32_t{ENOENT});
    EXPECT_EQ(c.line("phyint eth3 disable"), 0U);
    EXPECT_EQ(c.call("line", {{"line", "mroute from eth3 group ff3e::1 to eth1"}})["text"],
              "interface eth3 is disabled");
    kill(bed::owner_pid(dir), SIGKILL);
    bed::wait_until_served(dir);
    bed::client next(dir);
    EXPECT_EQ(next.call("line", {{"line", "mroute from eth3 group ff3e::1 to eth1"}})["text"],
              "interface eth3 is disabled");
    EXPECT_EQ(next.line("no boundary eth0 group ff08::/16"), 0U);
    EXPECT_EQ(next.line("no phyint eth3"), 0U);
    EXPECT_EQ(next.line("mroute from eth3 group ff3e::1 to eth1"), 0U);
}

TEST_F(Protocol, AnswersComeInTheOrderOfRequests) {
    bed::client c(dir);
    std::string requests;
    constexpr int count = 3000;
    for (int n = 0; n < count; ++n) {
        char line[160];
        const char *const texts_of_thirds[] = {"mroute from eth0 group ff3e::1 to eth1", "bad",
                                               "# nothing"};
        snprintf(line, sizeof(line),
                 "{\"id\":\"q%d\",\"action\":\"line\",\"args\":{\"line\":\"%s\"}}\n", n,
                 texts_of_thirds[n % 3]);
        requests += line;
    }
    std::thread sender([&] { c.send(requests); });
    for (int n = 0; n < count; ++n) {
        const json answer = json::parse(c.receive());
        ASSERT_EQ(answer["id"], std::string("q").append(std::to_string(n)));
        ASSERT_EQ(answer["code"], n % 3 == 1 ? EINVAL : 0);
    }
    sender.join();
}

TEST_F(Protocol, BulkLinesAreAnsweredTogether) {
    bed::client c(dir);
    json lines = json::array();
    for (int n = 0; n < 8192; ++n) {
        char line[80];
        snprintf(line, sizeof(line),
                 n % 1000 == 17 ? "mroute from eth0 group %x"
                                : "mroute from eth0 group ff3e::%x to eth1",
                 n + 1);
        lines.push_back(line);
    }
    json answer = c.call("lines", {{"lines", lines}});
    EXPECT_EQ(answer["code"], 0);
    EXPECT_EQ(answer["result"]["accepted"], 8192 - 9);
    ASSERT_EQ(answer["result"]["failed"].size(), 9U);
    EXPECT_EQ(answer["result"]["failed"][1]["index"], 1017);
    EXPECT_EQ(answer["result"]["failed"][1]["code"], EINVAL);
    EXPECT_EQ(routes().size(), 8192U - 9);
    lines.push_back("# one more");
    answer = c.call("lines", {{"lines", lines}});
    EXPECT_EQ(answer["code"], EINVAL);
    EXPECT_EQ(c.call("lines", {{"lines",
                                {"no mroute group \\u0066f3e::1",
                                 "no mroute group ff3e::1"}}})["result"]["accepted"],
              1);
}

TEST_F(Protocol, ALineThatIsTooLongEndsTheConnection) {
    bed::client c(dir);
    const std::string part(100'000, 'x');
    try {
        for (int n = 0; n < 40; ++n)
            c.send(part);
    } catch (const std::runtime_error &) {
        // It has hung up already.
    }
    const json answer = json::parse(c.receive());
    EXPECT_EQ(answer["code"], EMSGSIZE);
    EXPECT_EQ(answer["id"], nullptr);
    EXPECT_TRUE(c.is_closed());
    status_ms();
}

// The longest line that is allowed is one.
TEST_F(Protocol, ALongLineIsTaken) {
    bed::client c(dir);
    std::string request = R"({"id":1,"action":"status","args":{"x":")";
    request += std::string((1U << 20) - request.size() - 4, 'y') + "\"}}\n";
    ASSERT_EQ(request.size(), 1U << 20);
    c.send(request);
    EXPECT_EQ(json::parse(c.receive())["code"], 0);
    c.send(" " + request);
    EXPECT_EQ(json::parse(c.receive())["code"], EMSGSIZE);
}

TEST_F(Protocol, GarbageEndsTheConnectionAndNothingElse) {
    std::mt19937 random(1);
    for (int n = 0; n < 200; ++n) {
        bed::client c(dir);
        std::string bytes;
        for (auto length = 1 + random() % 4000; length > 0; --length)
            bytes += static_cast<char>(random());
        bytes += '\n';
        try {
            c.send(bytes);
        } catch (const std::runtime_error &) {
        }
        ASSERT_NE(json::parse(c.receive())["code"], 0);
        ASSERT_TRUE(c.is_closed());
    }
    EXPECT_EQ(routes(), texts{});
    EXPECT_FALSE(daemon->hears("was ended", 0));
}

TEST_F(Protocol, AFloodOfGarbageHoldsNobodyUp) {
    std::atomic<bool> stop{false};
    std::vector<std::thread> floods;
    for (int n = 0; n < 4; ++n) {
        floods.emplace_back([&, n] {
            const std::string garbage(50000 + static_cast<size_t>(n), n % 2 == 0 ? '\n' : '{');
            while (!stop) {
                try {
                    bed::client c(dir);
                    for (int i = 0; i < 30; ++i)
                        c.send(garbage);
                } catch (const std::exception &) {
                }
            }
        });
    }
    for (int n = 0; n < 20; ++n)
        EXPECT_LT(status_ms(), 2000);
    stop = true;
    for (std::thread &t : floods)
        t.join();
    EXPECT_FALSE(daemon->hears("was ended", 0));
}

TEST_F(Protocol, AClientThatDoesNotReadIsDropped) {
    bed::client slow(dir);
    const std::string request = "{\"id\":1,\"action\":\"status\",\"args\":{}}\n";
    // The daemon stops reading from it, or drops it; either way it holds nobody up.
    std::thread sender([&] {
        try {
            for (int n = 0; n < 20000; ++n)
                slow.send(request);
        } catch (const std::runtime_error &) {
        }
    });
    EXPECT_TRUE(daemon->hears("a client that does not read its answers is dropped"));
    EXPECT_LT(status_ms(), 2000);
    sender.join();
    EXPECT_TRUE(slow.is_closed());
}

TEST_F(Protocol, SilentClientsMakeRoomForNewOnes) {
    std::vector<std::unique_ptr<bed::client>> silent;
    for (int n = 0; n < 100; ++n) {
        silent.push_back(std::make_unique<bed::client>(dir));
        if (n % 2 == 0)
            silent.back()->send("{\"id\":1,\"act");  // half a request
    }
    EXPECT_LT(status_ms(), 2000);
    EXPECT_TRUE(silent.front()->is_closed());
    // Those heard of last are still there.
    EXPECT_FALSE(silent.back()->is_closed(0.1));
}

TEST_F(Protocol, ABulkLoadLeavesTurnsToOthers) {
    bed::client bulk(dir);
    std::string request = R"({"id":1,"action":"lines","args":{"lines":[)";
    for (int n = 0; n < 8192; ++n) {
        char line[128];
        snprintf(line, sizeof(line),
                 "%s\"mroute from eth0 group ff3e::%x to eth1 eth2 eth3 eth4 eth5\"",
                 n == 0 ? "" : ",", n + 1);
        request += line;
    }
    request += "]}}\n";
    std::string all;
    for (int n = 0; n < 4; ++n)
        all += request;
    std::thread sender([&] { bulk.send(all); });
    int served = 0;
    std::atomic<bool> done{false};
    std::thread other([&] {
        bed::client c(dir);
        while (!done) {
            c.call("status");
            ++served;
        }
    });
    for (int n = 0; n < 4; ++n)
        EXPECT_EQ(json::parse(bulk.receive())["result"]["accepted"], 8192);
    done = true;
    other.join();
    sender.join();
    EXPECT_GT(served, 10) << "answers to the other client during the load";
}

// A client that goes away in the middle takes nothing with it.
TEST_F(Protocol, AClientThatLeavesHoldsNobodyUp) {
    {
        bed::client c(dir);
        std::string request = R"({"id":1,"action":"lines","args":{"lines":[)";
        for (int n = 0; n < 8000; ++n) {
            char line[80];
            snprintf(line, sizeof(line), "%s\"mroute from eth0 group ff3e::%x to eth1\"",
                     n == 0 ? "" : ",", n + 1);
            request += line;
        }
        c.send(request + "]}}\n");
    }
    EXPECT_LT(status_ms(), 2000);
    const bed::view seen = bed::look(dir);
    EXPECT_EQ(seen.faults, std::vector<std::string>());
}

// What was sent before the end of the sending side is answered.
TEST_F(Protocol, AClientMayEndItsSendingSide) {
    bed::client c(dir);
    c.send("{\"id\":1,\"action\":\"status\"}\n{\"id\":2,\"action\":\"status\"}\n");
    shutdown(c.fd(), SHUT_WR);
    EXPECT_EQ(json::parse(c.receive())["id"], 1);
    EXPECT_EQ(json::parse(c.receive())["id"], 2);
    EXPECT_TRUE(c.is_closed());
}

}  // namespace
