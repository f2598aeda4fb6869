#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <vector>

#include "services/acl/ipv6_acl.h"
#include "tests/services/failing_malloc/failing_malloc.h"

namespace {

std::string error_of(const char *text, cerrno expected) {
    char error[128] = "old";
    EXPECT_EQ(ipv6_acl_set_text("green", text, error, sizeof error), expected) << text;
    return error;
}

std::string show(const uint8_t (&address)[16], uint8_t length) {
    char text[INET6_ADDRSTRLEN];
    return std::string(inet_ntop(AF_INET6, address, text, sizeof text)) + "/" +
           std::to_string(length);
}

std::vector<std::string> read_back() {
    std::vector<std::string> all;
    ipv6_acl_handle_t acl = nullptr;
    EXPECT_EQ(ipv6_acl_get_list(&acl, "green", nullptr), 0U);
    for (const ipv6_acl_entry_t *e = ipv6_acl_get_next(acl, nullptr); e != nullptr;
         e = ipv6_acl_get_next(acl, e)) {
        all.push_back(
            std::to_string(e->sequence) + (e->action == IPV6_ACL_PERMIT ? " permit " : " deny ") +
            show(e->source, e->source_length) + " " + show(e->destination, e->destination_length));
    }
    EXPECT_EQ(ipv6_acl_release(acl), 0U);
    return all;
}

TEST(acl_text, is_read_line_by_line) {
    EXPECT_EQ(error_of("# who may send\n"
                       "permit 2001:db8::/32 ff3e::/16\r\n"
                       "\n"
                       "  15 deny host 2001:db9::1 any  # not this one\n"
                       "\tpermit any host ff0e::1\n"
                       "deny ff00::/8",
                       0),
              "");
    EXPECT_EQ(read_back(), (std::vector<std::string>{
                               "10 permit 2001:db8::/32 ff3e::/16", "15 deny 2001:db9::1/128 ::/0",
                               "25 permit ::/0 ff0e::1/128", "35 deny ff00::/8 ::/0"}));
}

TEST(acl_text, may_be_empty) {
    EXPECT_EQ(error_of("", 0), "");
    EXPECT_TRUE(read_back().empty());
    EXPECT_EQ(error_of(" # nothing\n\n", 0), "");
}

TEST(acl_text, says_which_line_is_wrong_and_why) {
    ASSERT_EQ(error_of("permit any", 0), "");
    const struct {
        const char *text;
        const char *error;
    } rows[] = {
        {"allow any", "line 1: expected permit or deny"},
        {"permit any\n\n11", "line 3: expected permit or deny"},
        {"permit", "line 1: expected ADDRESS/LENGTH, host ADDRESS or any"},
        {"permit ff00::", "line 1: expected ADDRESS/LENGTH, host ADDRESS or any"},
        {"permit 224.0.0.0/4", "line 1: not an IPv6 address"},
        {"permit host", "line 1: not an IPv6 address"},
        {"permit host ff00::/8", "line 1: not an IPv6 address"},
        {"permit /8", "line 1: not an IPv6 address"},
        {"permit 1111:2222:3333:4444:5555:6666:7777:8888:9999:aaaa/8",
         "line 1: not an IPv6 address"},
        {"permit ff00::/129", "line 1: prefix length is not a number from 0 to 128"},
        {"permit ff00::/300", "line 1: prefix length is not a number from 0 to 128"},
        {"permit ff00::/", "line 1: prefix length is not a number from 0 to 128"},
        {"permit ff00::/-1", "line 1: prefix length is not a number from 0 to 128"},
        {"permit ff00::/8x", "line 1: prefix length is not a number from 0 to 128"},
        {"permit ff80::/8", "line 1: address has bits behind the prefix length"},
        {"permit any any any", "line 1: something follows the entry"},
        {"permit any\n10 permit any", "line 2: sequence numbers must ascend, from 1"},
        {"0 permit any", "line 1: sequence numbers must ascend, from 1"},
        {"4294967296 permit any", "line 1: sequence is not a number from 1 to 4294967295"},
        {"12x permit any", "line 1: sequence is not a number from 1 to 4294967295"},
        {"4294967295 permit any\ndeny any", "line 2: no sequence number is left"},
    };
    for (const auto &row : rows) {
        EXPECT_EQ(error_of(row.text, IPV6_ACL_SYNTAX), row.error);
    }
    EXPECT_EQ(read_back(), (std::vector<std::string>{"10 permit ::/0 ::/0"}));
}

TEST(acl_text, the_error_is_cut_to_its_room) {
    char error[8] = "old";
    EXPECT_EQ(ipv6_acl_set_text("green", "x", error, sizeof error), IPV6_ACL_SYNTAX);
    EXPECT_STREQ(error, "line 1:");
    EXPECT_EQ(ipv6_acl_set_text("green", "x", nullptr, 0), IPV6_ACL_SYNTAX);
    EXPECT_EQ(ipv6_acl_set_text("green", "x", error, 0), IPV6_ACL_SYNTAX);
    EXPECT_EQ(ipv6_acl_set_text("green", nullptr, error, sizeof error),
              static_cast<cerrno>(EINVAL));
    EXPECT_EQ(ipv6_acl_set_text("", "permit any", error, sizeof error),
              static_cast<cerrno>(EINVAL));
}

TEST(acl_text, too_many_entries_are_refused) {
    std::string text;
    for (int i = 0; i < IPV6_ACL_MAX_ENTRIES; ++i) {
        text += "permit any\n";
    }
    EXPECT_EQ(error_of(text.c_str(), 0), "");
    text += "permit any\n";
    EXPECT_EQ(error_of(text.c_str(), IPV6_ACL_TOO_MANY), "line 65537: too many entries");
}

TEST(acl_text, without_memory_the_list_stays) {
    SKIP_WITHOUT_FAILING_MALLOC();
    ASSERT_EQ(error_of("deny any", 0), "");
    char error[64] = "";
    for (long succeed = 0; succeed < 2; ++succeed) {
        const failing_malloc::scope few(succeed);
        EXPECT_EQ(ipv6_acl_set_text("green", "permit any", error, sizeof error),
                  static_cast<cerrno>(ENOMEM));
    }
    EXPECT_EQ(read_back(), (std::vector<std::string>{"10 deny ::/0 ::/0"}));
}

}  // namespace
