#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <vector>

#include "services/imc/backend.h"
#include "services/imc/imc.h"
#include "services/imc/table.h"
#include "tests/services/failing_malloc/failing_malloc.h"

namespace {

std::string numbered(const char *stem, uint64_t number) {
    std::string name = stem;
    name += std::to_string(number);
    return name;
}

constexpr cerrno einval = EINVAL;

class interfaces_test : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(imc_table_open(&context), 0U);
        ASSERT_EQ(imc_table_add(context, 7, "eth0", IMC_TYPE_PHYSICAL, 0), 0U);
        ASSERT_EQ(imc_table_add(context, 3, "eth0.5", IMC_TYPE_SUBINTERFACE, 7), 0U);
        ASSERT_EQ(imc_watch(context, note, this), 0U);
    }
    void TearDown() override { imc_context_close(context); }

    static void note(imc_context_t *, imc_change change, uint32_t ifh, const char *name,
                     void *self) {
        static_cast<interfaces_test *>(self)->changes.push_back(std::to_string(change) + ":" +
                                                                std::to_string(ifh) + ":" + name);
    }

    std::string name_of(uint32_t ifh) {
        char name[IMC_NAME_SIZE] = "-";
        return imc_interface_name(context, ifh, name, sizeof name) == 0 ? name : "-";
    }

    using texts = std::vector<std::string>;

    imc_context_t *context = nullptr;
    texts changes;
};

TEST_F(interfaces_test, are_found_by_name_and_by_handle) {
    uint32_t ifh = 0;
    uint32_t parent = 9;
    uint16_t type = 0;
    cerrno answer = 9;
    EXPECT_EQ(imc_interface_find(context, "eth0.5", &ifh), 0U);
    EXPECT_EQ(ifh, 3U);
    EXPECT_EQ(name_of(3), "eth0.5");
    EXPECT_EQ(imc_interface_get_type(context, 3, &type, &answer), 0U);
    EXPECT_EQ(type, 25);
    EXPECT_EQ(answer, 0U);
    EXPECT_EQ(imc_control_parent_interface_lookup(context, 3, &parent), 0U);
    EXPECT_EQ(parent, 7U);
    EXPECT_EQ(imc_control_parent_interface_lookup(context, 7, &parent), 0U);
    EXPECT_EQ(parent, 0U);
}

TEST_F(interfaces_test, what_is_not_there_is_not_known) {
    uint32_t number = 55;
    uint16_t type = 55;
    cerrno answer = 0;
    char name[IMC_NAME_SIZE] = "old";
    EXPECT_EQ(imc_interface_find(context, "eth", &number), IMC_NO_INTERFACE);
    EXPECT_EQ(imc_control_parent_interface_lookup(context, 4, &number), IMC_NO_INTERFACE);
    EXPECT_EQ(imc_interface_name(context, 0, name, sizeof name), IMC_NO_INTERFACE);
    EXPECT_EQ(imc_interface_get_type(context, 4, &type, &answer), 0U);
    EXPECT_EQ(answer, IMC_NO_INTERFACE);
    EXPECT_EQ(imc_interface_get_type(context, 4, &type, nullptr), IMC_NO_INTERFACE);
    EXPECT_EQ(number, 55U);
    EXPECT_EQ(type, 55);
    EXPECT_STREQ(name, "old");
}

TEST_F(interfaces_test, a_name_fits_with_its_terminator_or_is_not_written) {
    char name[8] = "old";
    EXPECT_EQ(imc_interface_name(context, 7, name, 4), static_cast<cerrno>(ERANGE));
    EXPECT_STREQ(name, "old");
    EXPECT_EQ(imc_interface_name(context, 7, name, 5), 0U);
    EXPECT_STREQ(name, "eth0");
}

TEST_F(interfaces_test, changes_are_told_once_and_only_when_something_changed) {
    ASSERT_EQ(imc_table_add(context, 7, "eth0", IMC_TYPE_PHYSICAL, 0), 0U);
    EXPECT_EQ(changes, texts{});
    ASSERT_EQ(imc_table_add(context, 7, "wan0", IMC_TYPE_PHYSICAL, 0), 0U);
    ASSERT_EQ(imc_table_add(context, 9, "eth0", IMC_TYPE_PHYSICAL, 0), 0U);
    ASSERT_EQ(imc_table_remove(context, 3), 0U);
    EXPECT_EQ(changes, (texts{"2:7:wan0", "1:9:eth0", "3:3:eth0.5"}));
    EXPECT_EQ(name_of(7), "wan0");
    uint32_t ifh = 0;
    EXPECT_EQ(imc_interface_find(context, "eth0", &ifh), 0U);
    EXPECT_EQ(ifh, 9U);
    ASSERT_EQ(imc_watch(context, nullptr, nullptr), 0U);
    ASSERT_EQ(imc_table_remove(context, 9), 0U);
    EXPECT_EQ(changes.size(), 3U);
}

TEST_F(interfaces_test, a_table_keeps_names_apart) {
    EXPECT_EQ(imc_table_add(context, 8, "eth0", IMC_TYPE_PHYSICAL, 0), static_cast<cerrno>(EEXIST));
    EXPECT_EQ(name_of(7), "eth0");
    EXPECT_EQ(imc_table_remove(context, 8), IMC_NO_INTERFACE);
}

TEST_F(interfaces_test, a_backend_lets_a_name_move_to_another_handle) {
    EXPECT_EQ(imc_backend_put(context, 8, "eth0", IMC_TYPE_PHYSICAL, 0), 0U);
    EXPECT_EQ(changes, (texts{"3:7:eth0", "1:8:eth0"}));
    EXPECT_EQ(imc_backend_put(context, 8, "eth0.5", IMC_TYPE_PHYSICAL, 0), 0U);
    EXPECT_EQ(name_of(8), "eth0.5");
    EXPECT_EQ(name_of(3), "-");
}

TEST_F(interfaces_test, a_sweep_removes_what_was_not_put) {
    imc_backend_sweep_begin(context);
    ASSERT_EQ(imc_backend_put(context, 7, "eth0", IMC_TYPE_PHYSICAL, 0), 0U);
    ASSERT_EQ(imc_backend_put(context, 11, "new", IMC_TYPE_PHYSICAL, 0), 0U);
    imc_backend_sweep_end(context);
    EXPECT_EQ(changes, (texts{"1:11:new", "3:3:eth0.5"}));
}

TEST_F(interfaces_test, while_the_connection_is_lost_nothing_is_known_to_be_absent) {
    uint32_t ifh = 0;
    uint16_t type = 0;
    cerrno answer = 0;
    imc_backend_lost(context, 1);
    imc_backend_lost(context, 1);
    EXPECT_EQ(changes, (texts{"4:0:"}));
    EXPECT_EQ(imc_interface_find(context, "eth0", &ifh), 0U);
    EXPECT_EQ(imc_interface_find(context, "eth9", &ifh), IMC_LOST);
    EXPECT_EQ(imc_interface_get_type(context, 4, &type, &answer), 0U);
    EXPECT_EQ(answer, IMC_LOST);
    imc_backend_lost(context, 0);
    EXPECT_EQ(imc_interface_find(context, "eth9", &ifh), IMC_NO_INTERFACE);
}

TEST_F(interfaces_test, are_walked_by_ascending_handle_until_told_to_stop) {
    ASSERT_EQ(imc_table_add(context, 5, "lo", IMC_TYPE_LOOPBACK, 0), 0U);
    std::vector<uint32_t> seen;
    const imc_interface_fn fn = [](uint32_t ifh, const char *, uint16_t, uint32_t, void *to) {
        static_cast<std::vector<uint32_t> *>(to)->push_back(ifh);
        return ifh == 7 ? cerrno{44} : cerrno{0};
    };
    EXPECT_EQ(imc_interface_walk(context, fn, &seen), 44U);
    EXPECT_EQ(seen, (std::vector<uint32_t>{3, 5, 7}));
    ASSERT_EQ(imc_table_remove(context, 7), 0U);
    EXPECT_EQ(imc_interface_walk(context, fn, &seen), 0U);
    EXPECT_EQ(imc_interface_walk(context, nullptr, &seen), einval);
}

TEST_F(interfaces_test, many_interfaces_stay_in_both_orders) {
    for (uint32_t i = 0; i < 300; ++i) {
        const uint32_t n = i * 77 % 300 + 100;
        ASSERT_EQ(
            imc_table_add(context, n, numbered("if", n * 31 % 1000).c_str(), IMC_TYPE_PHYSICAL, 0),
            0U);
    }
    for (uint32_t n = 100; n < 400; n += 3) {
        ASSERT_EQ(imc_table_remove(context, n), 0U);
    }
    for (uint32_t n = 100; n < 400; ++n) {
        const std::string name = numbered("if", n * 31 % 1000);
        const bool there = n % 3 != 1;
        uint32_t ifh = 0;
        EXPECT_EQ(imc_interface_find(context, name.c_str(), &ifh), there ? 0U : IMC_NO_INTERFACE);
        EXPECT_EQ(ifh, there ? n : 0U);
        EXPECT_EQ(name_of(n), there ? name : "-");
    }
}

TEST_F(interfaces_test, refuses_bad_arguments) {
    uint32_t number = 0;
    uint16_t type = 0;
    char name[8];
    EXPECT_EQ(imc_interface_find(nullptr, "eth0", &number), einval);
    EXPECT_EQ(imc_interface_find(context, nullptr, &number), einval);
    EXPECT_EQ(imc_interface_find(context, "eth0", nullptr), einval);
    EXPECT_EQ(imc_interface_name(nullptr, 7, name, 8), einval);
    EXPECT_EQ(imc_interface_name(context, 7, nullptr, 8), einval);
    EXPECT_EQ(imc_interface_get_type(nullptr, 7, &type, nullptr), einval);
    EXPECT_EQ(imc_interface_get_type(context, 7, nullptr, nullptr), einval);
    EXPECT_EQ(imc_control_parent_interface_lookup(nullptr, 7, &number), einval);
    EXPECT_EQ(imc_control_parent_interface_lookup(context, 7, nullptr), einval);
    EXPECT_EQ(imc_interface_walk(nullptr, nullptr, nullptr), einval);
    EXPECT_EQ(imc_table_add(nullptr, 1, "x", 1, 0), einval);
    EXPECT_EQ(imc_table_add(context, 0, "x", 1, 0), einval);
    EXPECT_EQ(imc_table_add(context, 1, nullptr, 1, 0), einval);
    EXPECT_EQ(imc_table_add(context, 1, "", 1, 0), einval);
    EXPECT_EQ(imc_table_add(context, 1, std::string(64, 'n').c_str(), 1, 0), einval);
    EXPECT_EQ(imc_table_add(context, 1, std::string(63, 'n').c_str(), 1, 0), 0U);
    EXPECT_EQ(imc_table_remove(nullptr, 1), einval);
    EXPECT_EQ(imc_backend_drop(nullptr, 1), einval);
}

TEST_F(interfaces_test, without_memory_nothing_is_added) {
    SKIP_WITHOUT_FAILING_MALLOC();
    {
        const failing_malloc::scope none(0);
        EXPECT_EQ(imc_table_add(context, 20, "x", 1, 0), static_cast<cerrno>(ENOMEM));
    }
    EXPECT_EQ(name_of(20), "-");
    // Also where the lists must grow, after any number of allocations that still succeed.
    uint32_t next = 100;
    while (next < 130) {
        ASSERT_EQ(imc_table_add(context, next, numbered("n", next).c_str(), 1, 0), 0U);
        ++next;
    }
    for (long succeed = 0; succeed < 3; ++succeed) {
        const failing_malloc::scope few(succeed);
        EXPECT_EQ(imc_table_add(context, next, "full", 1, 0), static_cast<cerrno>(ENOMEM));
    }
    EXPECT_EQ(imc_table_add(context, next, "full", 1, 0), 0U);
    EXPECT_EQ(name_of(3), "eth0.5");
    EXPECT_EQ(name_of(next), "full");
}

}  // namespace
