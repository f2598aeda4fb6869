#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "services/acl/ipv6_acl.h"
#include "tests/services/failing_malloc/failing_malloc.h"

namespace {

constexpr cerrno einval = EINVAL;

ipv6_acl_entry_t entry(uint32_t sequence, uint32_t action, uint8_t first_byte) {
    ipv6_acl_entry_t e = {};
    e.sequence = sequence;
    e.action = action;
    e.source[0] = first_byte;
    e.source_length = 8;
    return e;
}

class acl_test : public ::testing::Test {
  protected:
    void SetUp() override { set("green", {entry(0, IPV6_ACL_PERMIT, 0xff)}); }
    void TearDown() override {
        ipv6_acl_remove("green");
        EXPECT_EQ(ipv6_acl_count(), 0U) << "a list is left over";
    }

    static void set(const char *name, const std::vector<ipv6_acl_entry_t> &entries) {
        ASSERT_EQ(ipv6_acl_set(name, entries.data(), entries.size()), 0U);
    }

    static std::vector<uint32_t> sequences(ipv6_acl_handle_t acl) {
        std::vector<uint32_t> all;
        for (const ipv6_acl_entry_t *e = ipv6_acl_get_next(acl, nullptr); e != nullptr;
             e = ipv6_acl_get_next(acl, e)) {
            all.push_back(e->sequence);
        }
        return all;
    }

    static uint32_t holds(const char *name) {
        uint32_t count = 99;
        EXPECT_EQ(ipv6_acl_holds(name, &count), 0U);
        return count;
    }
};

TEST_F(acl_test, a_list_is_walked_from_its_first_entry_to_its_end) {
    set("green",
        {entry(5, IPV6_ACL_PERMIT, 1), entry(0, IPV6_ACL_DENY, 2), entry(30, IPV6_ACL_PERMIT, 3)});
    ipv6_acl_handle_t acl = nullptr;
    ASSERT_EQ(ipv6_acl_get_list(&acl, "green", nullptr), 0U);
    EXPECT_EQ(sequences(acl), (std::vector<uint32_t>{5, 15, 30}));
    const ipv6_acl_entry_t *const e = ipv6_acl_get_next(acl, ipv6_acl_get_next(acl, nullptr));
    EXPECT_EQ(e->action, IPV6_ACL_DENY);
    EXPECT_EQ(e->source[0], 2);
    EXPECT_EQ(ipv6_acl_release(acl), 0U);
}

TEST_F(acl_test, holds_are_counted) {
    ipv6_acl_handle_t first = nullptr;
    ipv6_acl_handle_t again = nullptr;
    ASSERT_EQ(ipv6_acl_get_list(&first, "green", nullptr), 0U);
    ASSERT_EQ(ipv6_acl_get_list(&again, "green", nullptr), 0U);
    EXPECT_EQ(first, again);
    EXPECT_EQ(holds("green"), 2U);
    EXPECT_EQ(ipv6_acl_release(first), 0U);
    EXPECT_EQ(ipv6_acl_release(first), 0U);
    EXPECT_EQ(ipv6_acl_release(first), IPV6_ACL_BAD_HANDLE);
    EXPECT_EQ(holds("green"), 0U);
    EXPECT_EQ(ipv6_acl_get_next(first, nullptr), nullptr);
}

TEST_F(acl_test, a_held_list_survives_its_replacement_and_removal) {
    ipv6_acl_handle_t old = nullptr;
    ASSERT_EQ(ipv6_acl_get_list(&old, "green", nullptr), 0U);
    set("green", {entry(77, IPV6_ACL_DENY, 1)});
    ipv6_acl_handle_t fresh = nullptr;
    ASSERT_EQ(ipv6_acl_get_list(&fresh, "green", nullptr), 0U);
    EXPECT_NE(old, fresh);
    EXPECT_EQ(sequences(old), (std::vector<uint32_t>{10}));
    EXPECT_EQ(sequences(fresh), (std::vector<uint32_t>{77}));
    EXPECT_EQ(holds("green"), 1U);
    EXPECT_EQ(ipv6_acl_remove("green"), 0U);
    EXPECT_EQ(ipv6_acl_count(), 2U);
    EXPECT_EQ(sequences(fresh), (std::vector<uint32_t>{77}));
    EXPECT_EQ(ipv6_acl_release(old), 0U);
    EXPECT_EQ(ipv6_acl_count(), 1U);
    EXPECT_EQ(ipv6_acl_release(fresh), 0U);
    EXPECT_EQ(ipv6_acl_count(), 0U);
}

TEST_F(acl_test, a_handle_that_is_not_of_this_process_is_refused) {
    int object = 0;
    for (auto *const wrong : {static_cast<void *>(nullptr), static_cast<void *>(&object),
                              reinterpret_cast<void *>(uint64_t{0x200000001000})}) {
        auto *const acl = static_cast<ipv6_acl_handle_t>(wrong);
        EXPECT_EQ(ipv6_acl_release(acl), IPV6_ACL_BAD_HANDLE);
        EXPECT_EQ(ipv6_acl_get_next(acl, nullptr), nullptr);
    }
}

TEST_F(acl_test, a_name_without_a_list_is_not_found) {
    ipv6_acl_handle_t acl = nullptr;
    uint32_t count = 0;
    EXPECT_EQ(ipv6_acl_get_list(&acl, "red", nullptr), IPV6_ACL_NOT_FOUND);
    EXPECT_EQ(acl, nullptr);
    EXPECT_EQ(ipv6_acl_remove("red"), IPV6_ACL_NOT_FOUND);
    EXPECT_EQ(ipv6_acl_holds("red", &count), IPV6_ACL_NOT_FOUND);
}

TEST_F(acl_test, refuses_bad_names_and_null) {
    ipv6_acl_handle_t acl = nullptr;
    const std::string longest(65, 'n');
    const std::string too_long(66, 'n');
    EXPECT_EQ(ipv6_acl_set(longest.c_str(), nullptr, 0), 0U);
    EXPECT_EQ(ipv6_acl_remove(longest.c_str()), 0U);
    for (const char *bad : {static_cast<const char *>(nullptr), "", too_long.c_str()}) {
        EXPECT_EQ(ipv6_acl_set(bad, nullptr, 0), einval);
        EXPECT_EQ(ipv6_acl_get_list(&acl, bad, nullptr), einval);
        EXPECT_EQ(ipv6_acl_remove(bad), einval);
    }
    EXPECT_EQ(ipv6_acl_get_list(nullptr, "green", nullptr), einval);
    EXPECT_EQ(ipv6_acl_set("green", nullptr, 1), einval);
    EXPECT_EQ(ipv6_acl_holds("green", nullptr), einval);
}

TEST_F(acl_test, a_bad_entry_leaves_the_list_as_it_was) {
    ipv6_acl_entry_t behind = entry(0, IPV6_ACL_PERMIT, 0xff);
    behind.source_length = 4;
    ipv6_acl_entry_t long_prefix = entry(0, IPV6_ACL_PERMIT, 0xff);
    long_prefix.destination_length = 129;
    for (const std::vector<ipv6_acl_entry_t> &bad :
         std::vector<std::vector<ipv6_acl_entry_t>>{{behind},
                                                    {long_prefix},
                                                    {entry(0, 0, 1)},
                                                    {entry(0, 3, 1)},
                                                    {entry(7, 1, 1), entry(7, 1, 2)},
                                                    {entry(7, 1, 1), entry(6, 1, 2)},
                                                    {entry(UINT32_MAX, 1, 1), entry(0, 1, 2)}}) {
        EXPECT_EQ(ipv6_acl_set("green", bad.data(), bad.size()), einval);
    }
    const std::vector<ipv6_acl_entry_t> many(IPV6_ACL_MAX_ENTRIES + 1,
                                             entry(0, IPV6_ACL_PERMIT, 1));
    EXPECT_EQ(ipv6_acl_set("green", many.data(), many.size()), IPV6_ACL_TOO_MANY);
    EXPECT_EQ(ipv6_acl_set("green", many.data(), IPV6_ACL_MAX_ENTRIES), 0U);
}

TEST_F(acl_test, an_empty_list_has_no_entry) {
    set("green", {});
    ipv6_acl_handle_t acl = nullptr;
    ASSERT_EQ(ipv6_acl_get_list(&acl, "green", nullptr), 0U);
    EXPECT_TRUE(sequences(acl).empty());
    EXPECT_EQ(ipv6_acl_release(acl), 0U);
}

TEST_F(acl_test, without_memory_the_name_keeps_its_list) {
    SKIP_WITHOUT_FAILING_MALLOC();
    const ipv6_acl_entry_t e = entry(99, IPV6_ACL_DENY, 1);
    {
        const failing_malloc::scope none(0);
        EXPECT_EQ(ipv6_acl_set("green", &e, 1), static_cast<cerrno>(ENOMEM));
    }
    ipv6_acl_handle_t acl = nullptr;
    ASSERT_EQ(ipv6_acl_get_list(&acl, "green", nullptr), 0U);
    EXPECT_EQ(sequences(acl), (std::vector<uint32_t>{10}));
    EXPECT_EQ(ipv6_acl_release(acl), 0U);
}

TEST_F(acl_test, lists_are_replaced_beside_their_users) {
    std::thread users[2];
    for (std::thread &u : users) {
        u = std::thread([] {
            for (int i = 0; i < 2000; ++i) {
                ipv6_acl_handle_t acl = nullptr;
                ASSERT_EQ(ipv6_acl_get_list(&acl, "green", nullptr), 0U);
                EXPECT_EQ(sequences(acl).size(), 1U);
                EXPECT_EQ(ipv6_acl_release(acl), 0U);
            }
        });
    }
    for (uint32_t i = 1; i < 2000; ++i) {
        set("green", {entry(i, IPV6_ACL_PERMIT, 1)});
    }
    for (std::thread &u : users) {
        u.join();
    }
    EXPECT_EQ(holds("green"), 0U);
    EXPECT_EQ(ipv6_acl_count(), 1U);
}

}  // namespace
