#include <gtest/gtest.h>

#include <cstring>
#include <memory>

#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "services/diag/debug.h"
#include "services/diag/trace.h"
#include "tests/kit/listener.h"
#include "tests/kit/run_dir.h"

using lines = std::vector<std::string>;

namespace {

constexpr uint64_t error_trace_id = 0x200600060009;

// A failure of the library that needs nothing: its report comes from ip6mc_get_state.
void fail() {
    EXPECT_EQ(ip6mc_get_state(nullptr, nullptr), 22U);
}

}  // namespace

TEST(ErrorReport, IsTracedWithAllClassesOff) {
    const kit::run_dir dir;
    kit::listener heard(0);
    fail();
    EXPECT_TRUE(heard.lines().empty());
    const auto traces = heard.traces(ip6mc_mlib_err_ltrace(), error_trace_id);
    ASSERT_EQ(traces.size(), 1U);
    EXPECT_STREQ(traces[0].text, "ERR: ipv4_mlib_buginf_err: NULL state pointer");
    EXPECT_NE(traces[0].traceback.address[0], 0U);
    EXPECT_NE(traces[0].traceback.address[1], 0U);
}

TEST(ErrorReport, HasALineOfClassZeroWithFunctionAndLine) {
    const kit::run_dir dir;
    kit::listener heard;
    fail();
    ASSERT_EQ(heard.lines().size(), 1U);
    EXPECT_EQ(heard.lines()[0].debug_class, 0U);
    EXPECT_EQ(heard.lines()[0].text, "NULL state pointer");
    int line = 0;
    char rest = '\0';
    EXPECT_EQ(
        sscanf(heard.lines()[0].header.c_str(), "ML-ERR: ip6mc_get_state %d: %c", &line, &rest), 1);
    EXPECT_GT(line, 0);
    EXPECT_EQ(heard.errors(), lines{"NULL state pointer"});
}

TEST(ErrorReport, OtherClassesDoNotSwitchItsLineOn) {
    const kit::run_dir dir;
    kit::listener heard(~uint64_t{1});
    fail();
    EXPECT_TRUE(heard.lines().empty());
    EXPECT_EQ(heard.errors().size(), 1U);
}

TEST(DebugLine, HasTheHeaderOfItsClass) {
    const kit::run_dir dir;
    kit::listener heard;
    EXPECT_EQ(ip6mc_set_transaction_flag(), 9U);  // warns
    EXPECT_EQ(ip6mc_shmwin_close(), 0U);          // event
    ASSERT_EQ(heard.lines().size(), 2U);
    EXPECT_TRUE(heard.lines()[0].header.starts_with("ML-WRN: ip6mc_set_transaction_flag "));
    EXPECT_TRUE(heard.lines()[1].header.starts_with("ML-EV: ip6mc_shmwin_close "));
    EXPECT_TRUE(heard.lines()[1].header.ends_with(": "));
    EXPECT_TRUE(heard.errors().empty());  // a debug line leaves no error trace
}

TEST(DebugLine, IsSwitchedByItsClassAlone) {
    const kit::run_dir dir;
    kit::listener heard(uint64_t{1} << IPV4_DEBUG_EV);
    EXPECT_EQ(ip6mc_set_transaction_flag(), 9U);
    EXPECT_EQ(ip6mc_shmwin_close(), 0U);
    ASSERT_EQ(heard.lines().size(), 1U);
    EXPECT_EQ(heard.lines()[0].debug_class, static_cast<uint32_t>(IPV4_DEBUG_EV));
}
