#include "services/diag/debug.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <fstream>
#include <map>
#include <thread>

#include "services/diag/debug_config.h"
#include "tests/services/diag/scratch.h"

namespace {

struct line {
    uint32_t debug_class;
    std::string header;
    std::string text;
};

class Debug : public Scratch {
  protected:
    void SetUp() override {
        Scratch::SetUp();
        ipv4_debug_set_sink(
            [](void *context, uint32_t debug_class, const char *header, const char *text) {
                static_cast<Debug *>(context)->lines.push_back({debug_class, header, text});
            },
            this);
    }
    void TearDown() override {
        ipv4_mlib_debug_terminate();
        ipv4_debug_set_sink(nullptr, nullptr);
        Scratch::TearDown();
    }
    std::vector<line> lines;
};

constexpr uint64_t bit(uint32_t debug_class) {
    return uint64_t{1} << debug_class;
}

TEST_F(Debug, AllClassesAreOffAtFirst) {
    ASSERT_EQ(ipv4_mlib_debug_init(nullptr), 0U);
    for (uint32_t c = 0; c < 70; ++c) {
        EXPECT_FALSE(ipv4_debug_event_active(c));
        EXPECT_FALSE(ipv4_debug_event_active_inline(c));
    }
}

TEST_F(Debug, AClassIsSwitchedAloneInThisProcess) {
    ASSERT_EQ(ipv4_mlib_debug_init(nullptr), 0U);
    ASSERT_EQ(ipv4_debug_switch(nullptr, bit(5) | bit(63), 0), 0U);
    for (uint32_t c = 0; c < 70; ++c) {
        EXPECT_EQ(ipv4_debug_event_active(c), c == 5 || c == 63);
        EXPECT_EQ(ipv4_debug_event_active_inline(c), c == 5 || c == 63);
    }
    ASSERT_EQ(ipv4_debug_switch(nullptr, bit(6), bit(5)), 0U);
    EXPECT_FALSE(ipv4_debug_event_active(5));
    EXPECT_TRUE(ipv4_debug_event_active(6));
}

TEST_F(Debug, AnotherProcessSwitchesThisProgram) {
    ASSERT_EQ(ipv4_mlib_debug_init(nullptr), 0U);
    const std::string program = diag_program();
    ASSERT_EQ(
        in_child([&] { return static_cast<int>(ipv4_debug_switch(program.c_str(), bit(3), 0)); }),
        0);
    EXPECT_TRUE(ipv4_debug_event_active(3));
    ASSERT_EQ(
        in_child([&] { return static_cast<int>(ipv4_debug_switch(program.c_str(), 0, bit(3))); }),
        0);
    EXPECT_FALSE(ipv4_debug_event_active(3));
}

TEST_F(Debug, AnotherProcessSwitchesAllPrograms) {
    ASSERT_EQ(ipv4_mlib_debug_init(nullptr), 0U);
    ASSERT_EQ(ipv4_debug_switch(nullptr, bit(1), 0), 0U);
    ASSERT_EQ(ipv4_debug_switch("neighbour", bit(2), 0), 0U);
    ASSERT_EQ(in_child([] { return static_cast<int>(ipv4_debug_switch("*", bit(0), 0)); }), 0);
    EXPECT_TRUE(ipv4_debug_event_active(0));
    EXPECT_TRUE(ipv4_debug_event_active(1));
    std::map<std::string, uint64_t> masks;
    ASSERT_EQ(ipv4_debug_walk(
                  [](void *context, const char *program, uint64_t mask) {
                      (*static_cast<std::map<std::string, uint64_t> *>(context))[program] = mask;
                      return 0;
                  },
                  &masks),
              0U);
    EXPECT_EQ(masks.size(), 2U);
    EXPECT_EQ(masks["neighbour"], bit(0) | bit(2));
    EXPECT_EQ(masks[diag_program()], bit(0) | bit(1));
    ASSERT_EQ(ipv4_debug_switch("*", 0, bit(0)), 0U);
    EXPECT_FALSE(ipv4_debug_event_active(0));
    EXPECT_TRUE(ipv4_debug_event_active(1)) << "its own class stays";
}

TEST_F(Debug, AProgramThatStartsLaterFindsWhatIsOnForAll) {
    ASSERT_EQ(ipv4_debug_switch("*", bit(9), 0), 0U);
    uint64_t mask = 0;
    ASSERT_EQ(ipv4_debug_get("*", &mask), 0U);
    EXPECT_EQ(mask, bit(9));
    EXPECT_FALSE(ipv4_debug_event_active(9)) << "not initialised";
    ASSERT_EQ(ipv4_mlib_debug_init(nullptr), 0U);
    EXPECT_TRUE(ipv4_debug_event_active(9));
}

TEST_F(Debug, ClassesSwitchedOnBeforeTheStartStayOn) {
    ASSERT_EQ(ipv4_debug_switch(nullptr, bit(4), 0), 0U);
    EXPECT_TRUE(ipv4_debug_event_active(4));
    ASSERT_EQ(ipv4_mlib_debug_init(nullptr), 0U);
    EXPECT_TRUE(ipv4_debug_event_active(4));
    ipv4_mlib_debug_terminate();
    EXPECT_FALSE(ipv4_debug_event_active(4));
    ASSERT_EQ(ipv4_mlib_debug_init(nullptr), 0U);
    EXPECT_TRUE(ipv4_debug_event_active(4)) << "the operator's choice outlives the process";
}

TEST_F(Debug, WithoutAFileTheMaskIsPrivate) {
    std::ofstream(directory + "/debug") << "a file stands in the way";
    EXPECT_EQ(ipv4_mlib_debug_init(nullptr), static_cast<cerrno>(ENOTDIR));
    ASSERT_EQ(ipv4_debug_switch(nullptr, bit(7), 0), 0U);
    EXPECT_TRUE(ipv4_debug_event_active(7));
    EXPECT_EQ(ipv4_debug_switch("*", bit(8), 0), static_cast<cerrno>(ENOTDIR));
    EXPECT_FALSE(ipv4_debug_event_active(8));
}

TEST_F(Debug, OnAFullFileSystemTheMaskIsPrivate) {
    const int result = in_child([this] {
        if (!mount_full_tmpfs(directory.c_str())) {
            return cannot_mount;
        }
        if (ipv4_mlib_debug_init(nullptr) != ENOSPC) {
            return 1;
        }
        return ipv4_debug_switch(nullptr, bit(2), 0) == 0 && ipv4_debug_event_active(2) ? 0 : 2;
    });
    if (result == cannot_mount) {
        GTEST_SKIP() << "this machine does not let us mount a tmpfs";
    }
    EXPECT_EQ(result, 0);
}

TEST_F(Debug, ALineReachesTheSinkWithClassHeaderAndText) {
    char header[128];
    snprintf(header, sizeof(header), "ML-ERR: %s %d: ", "ip6mc_lib_init", 42);
    ipv4_mlib_buginf_adjust(0, header, "Cannot %s: 0x%lx\n", "open", 0xabcUL);
    ipv4_mlib_bvi_buginf_adjust(13, "ML-BVI-IFH: f 1: ", "%s", "BVI7");
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_EQ(lines[0].debug_class, 0U);
    EXPECT_EQ(lines[0].header, "ML-ERR: ip6mc_lib_init 42: ");
    EXPECT_EQ(lines[0].text, "Cannot open: 0xabc");
    EXPECT_EQ(lines[1].debug_class, 13U);
    EXPECT_EQ(lines[1].text, "BVI7");
    ipv4_mlib_buginf_adjust(1, nullptr, "%s", std::string(5000, 'x').c_str());
    EXPECT_EQ(lines[2].text.size(), 2047U);
    EXPECT_EQ(lines[2].header, "");
}

TEST_F(Debug, WithoutASinkALineGoesToStderrAndToItsRing) {
    ipv4_debug_set_sink(nullptr, nullptr);
    testing::internal::CaptureStderr();
    ipv4_mlib_buginf_adjust(6, "ML-EV: f 1: ", "hello %d", 7);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "ML-EV: f 1: hello 7\n");
    const std::string path =
        directory + "/trace/" + diag_program() + "." + std::to_string(getpid()) + ".debug";
    ltrace_reader *reader = nullptr;
    ASSERT_EQ(ltrace_open(path.c_str(), &reader), 0U);
    const auto records = read_all(reader);
    ASSERT_EQ(records.size(), 1U);
    EXPECT_EQ(records[0].id, 6U);
    EXPECT_STREQ(records[0].text, "ML-EV: f 1: hello 7");
    ltrace_close(reader);
}

TEST_F(Debug, TheErrorReportIsTracedWithAllClassesOff) {
    traceback_record traceback;
    traceback_v2(&traceback, 5);
    char text[2048];
    snprintf(text, sizeof(text),
             "ERR: ipv4_mlib_buginf_err: "
             "Null %s",
             "idb");
    _lstrace(ip6mc_mlib_err_ltrace(), 0x200600060009, &traceback, text);
    ASSERT_FALSE(ipv4_debug_event_active(0));
    ltrace_reader *reader = nullptr;
    ASSERT_EQ(ltrace_open_handle(ip6mc_mlib_err_ltrace(), &reader), 0U);
    const auto records = read_all(reader);
    ASSERT_EQ(records.size(), 1U);
    EXPECT_STREQ(records[0].text, "ERR: ipv4_mlib_buginf_err: Null idb");
    EXPECT_NE(records[0].traceback.address[0], 0U);
    EXPECT_TRUE(lines.empty());
    ltrace_close(reader);
}

TEST_F(Debug, TheEventManagerIsKeptUntilTermination) {
    int manager = 0;
    EXPECT_EQ(netio_dll_get_evm(), nullptr);
    ipv4_mlib_debug_init(&manager);
    EXPECT_EQ(netio_dll_get_evm(), &manager);
    int other = 0;
    netio_dll_set_evm(&other);
    EXPECT_EQ(netio_dll_get_evm(), &other);
    netio_dll_set_evm(nullptr);
    ipv4_mlib_debug_terminate();
    EXPECT_EQ(netio_dll_get_evm(), nullptr);
}

TEST_F(Debug, BadArgumentsAreRefused) {
    uint64_t mask = 0;
    EXPECT_EQ(ipv4_debug_switch("a/b", 1, 0), static_cast<cerrno>(EINVAL));
    EXPECT_EQ(ipv4_debug_switch("", 1, 0), static_cast<cerrno>(EINVAL));
    EXPECT_EQ(ipv4_debug_switch("..", 1, 0), static_cast<cerrno>(EINVAL));
    EXPECT_EQ(ipv4_debug_get("nobody", &mask), static_cast<cerrno>(ENOENT));
    EXPECT_EQ(ipv4_debug_get("../x", &mask), static_cast<cerrno>(EINVAL));
    EXPECT_EQ(ipv4_debug_get(nullptr, nullptr), static_cast<cerrno>(EINVAL));
    EXPECT_EQ(ipv4_debug_walk(nullptr, nullptr), static_cast<cerrno>(EINVAL));
}

TEST_F(Debug, ClassNamesGoBothWays) {
    for (uint32_t c = 0; c < 20; ++c) {
        const char *name = ipv4_debug_class_name(c);
        EXPECT_EQ(name != nullptr, c <= 14 && c != 9);
        if (name != nullptr) {
            EXPECT_EQ(ipv4_debug_class_of(name), static_cast<int>(c));
        }
    }
    EXPECT_EQ(ipv4_debug_class_of("nothing"), -1);
    EXPECT_EQ(ipv4_debug_class_of(nullptr), -1);
}

TEST_F(Debug, SwitchingRunsBesideTheQuestion) {
    ASSERT_EQ(ipv4_mlib_debug_init(nullptr), 0U);
    std::thread reader([] {
        while (!ipv4_debug_event_active(8)) {
            ipv4_debug_event_active_inline(9);
        }
    });
    for (int i = 0; i < 50; ++i) {
        ipv4_debug_switch(nullptr, bit(9), 0);
        ipv4_debug_switch(nullptr, 0, bit(9));
    }
    ipv4_debug_switch(nullptr, bit(8), 0);
    reader.join();
}

}  // namespace
