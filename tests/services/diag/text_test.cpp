#include "services/diag/text.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <thread>

#include "services/diag/debug.h"

namespace {

in6_addr v6(const char *text) {
    in6_addr address = {};
    inet_pton(AF_INET6, text, &address);
    return address;
}

TEST(Text, StatesHaveWords) {
    EXPECT_STREQ(ipv4_mlib_state_string(0), "DOWN");
    EXPECT_STREQ(ipv4_mlib_state_string(1), "INIT");
    EXPECT_STREQ(ipv4_mlib_platform_state_string(2), "READY");
    EXPECT_STREQ(ipv4_mlib_idb_state_string(1), "WAITING FOR PLATFORM");
    EXPECT_STREQ(ipv4_mlib_platform_idb_state_string(3), "UNKNOWN");
    EXPECT_STREQ(ipv4_mlib_state_string(UINT32_MAX), "UNKNOWN");
}

TEST(Text, EveryActionFitsItsBuffer) {
    char buffer[ipv4_mlib_action_string_size];
    EXPECT_EQ(ipv4_mlib_action_string(3, buffer), buffer);
    EXPECT_STREQ(buffer, "CREATE");
    EXPECT_STREQ(ipv4_mlib_action_string(14, buffer), "FWD-ONLY ACCOUNTING DISABLE");
    EXPECT_STREQ(ipv4_mlib_action_string(22, buffer), "AMT STAT CLEAR");
    EXPECT_STREQ(ipv4_mlib_action_string(17, buffer), "ACTION 17");
    EXPECT_STREQ(ipv4_mlib_action_string(UINT32_MAX, buffer), "ACTION 4294967295");
    EXPECT_STREQ(ipv4_mlib_action_string(8, nullptr), "COMMIT");
    EXPECT_STREQ(ipv4_mlib_action_string(17, nullptr), "UNKNOWN ACTION");
}

TEST(Text, ActionLinesAppearOnlyWhenTheirClassIsOn) {
    std::string seen;
    ipv4_debug_set_sink(
        [](void *context, uint32_t debug_class, const char *header, const char *text) {
            *static_cast<std::string *>(context) +=
                std::to_string(debug_class) + "|" + header + "|" + text;
        },
        &seen);
    auto *record = reinterpret_cast<void *>(uintptr_t{0xabc0});
    ipv4_mlib_buginf_route_action_("p ", 4, record, 0x12);
    EXPECT_EQ(seen, "");
    ipv4_debug_switch(nullptr, 1U << 5U | 1U << 4U, 0);
    ipv4_mlib_buginf_route_action_("p ", 4, record, 0x12);
    EXPECT_EQ(seen, "5|p |DELETE route 0xabc0 0x12");
    seen.clear();
    ipv4_mlib_buginf_intf_action_(nullptr, 8, nullptr, 0);
    EXPECT_EQ(seen, "4||COMMIT intf 0x0 0x0");
    ipv4_debug_switch(nullptr, 0, UINT64_MAX);
    ipv4_debug_set_sink(nullptr, nullptr);
}

TEST(Text, AddressesArePrinted) {
    char buffer[46];
    const in6_addr group = v6("ff1e::1:2");
    EXPECT_STREQ(qv_inet_ntop(10, &group, buffer, sizeof(buffer)), "ff1e::1:2");
    in_addr four = {};
    inet_pton(AF_INET, "192.0.2.7", &four);
    EXPECT_STREQ(qv_inet_ntop(2, &four, buffer, sizeof(buffer)), "192.0.2.7");
    EXPECT_STREQ(inet_ntoa_r(four, buffer, sizeof(buffer)), "192.0.2.7");
    EXPECT_EQ(inet_ntoa_r(four, buffer, 5), nullptr);
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_EQ(qv_inet_ntop(7, &four, buffer, sizeof(buffer)), nullptr);
    EXPECT_EQ(errno, EAFNOSUPPORT);
    EXPECT_STREQ(buffer, "");
    EXPECT_EQ(qv_inet_ntop(10, nullptr, buffer, sizeof(buffer)), nullptr);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(qv_inet_ntop(10, &group, nullptr, 46), nullptr);
    EXPECT_EQ(qv_inet_ntop(10, &group, buffer, 0), nullptr);
}

// Bit by bit against a plain comparison.
TEST(Text, MaskedComparisonLooksAtTheFirstBitsOnly) {
    const in6_addr zero = {};
    for (uint32_t bit = 0; bit < 128; ++bit) {
        in6_addr one = {};
        one.s6_addr[bit / 8] = static_cast<uint8_t>(0x80U >> bit % 8);
        for (uint32_t length = 0; length <= 130; ++length) {
            const int order = inet6_compare_masked(&one, &zero, length);
            ASSERT_EQ(order > 0, bit < length) << bit << " " << length;
            ASSERT_EQ(order == 0, bit >= length);
            ASSERT_EQ(inet6_compare_masked(&zero, &one, length) < 0, bit < length);
        }
    }
    const in6_addr a = v6("ff1e:10::1");
    const in6_addr b = v6("ff1e:1f::2");
    EXPECT_EQ(inet6_compare_masked(&a, &b, 28), 0);
    EXPECT_NE(inet6_compare_masked(&a, &b, 29), 0);
}

TEST(Text, CopiesAreCutAndAlwaysEnded) {
    char field[8];
    memset(field, 'z', sizeof(field));
    EXPECT_EQ(sstrncpy(field, "default", 8), field);
    EXPECT_STREQ(field, "default");
    EXPECT_STREQ(sstrncpy(field, "defaults", 8), "default");
    EXPECT_STREQ(sstrncpy(field, nullptr, 8), "");
    memset(field, 'z', sizeof(field));
    sstrncpy(field, "ab", 8);
    EXPECT_EQ(field[3], 'z');
    sstrncpy(field, "x", 0);
    EXPECT_STREQ(field, "ab");
    EXPECT_STREQ(sstrncpy(field, "x", 1), "");
    EXPECT_EQ(sstrncpy(nullptr, "x", 4), nullptr);
    const char unended[3] = {'a', 'b', 'c'};
    EXPECT_STREQ(sstrncpy(field, unended, 4), "abc") << "reads no further than it copies";
}

TEST(Text, TheThreadIdIsTheKernels) {
    EXPECT_EQ(qv_gettid(), gettid());
    const pid_t child = fork();
    if (child == 0) {
        _exit(qv_gettid() == gettid() && qv_gettid() == getpid() ? 0 : 1);
    }
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
    std::thread([] { EXPECT_EQ(qv_gettid(), gettid()); }).join();
}

}  // namespace
