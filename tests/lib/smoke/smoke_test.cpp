#include <gtest/gtest.h>

#include "ipv4/multicast/lib/ip6mc_table.h"
#include "tests/kit/library.h"
#include "tests/kit/listener.h"
#include "tests/kit/run_dir.h"

TEST(Library, StartsOnAFreshWindowAndMakesATable) {
    kit::run_dir dir;
    kit::listener heard;
    kit::library owner;
    uint32_t state = 0;
    EXPECT_EQ(ip6mc_get_state(&state, nullptr), 0U);
    EXPECT_EQ(state, 2U);
    ipv4mc_table_st *table = nullptr;
    EXPECT_EQ(ip6mc_table_operation(IPV4MC_ACTION_ACTIVATE, 5, 6, "red", &table, 16), 0U);
    ASSERT_NE(table, nullptr);
    EXPECT_EQ(ip6mc_table_operation(IPV4MC_ACTION_DELETE, 0, 0, nullptr, &table, 16), 0U);
    for (const auto &text : heard.errors())
        ADD_FAILURE() << text;
    for (const auto &line : heard.lines())
        printf("%s%s\n", line.header.c_str(), line.text.c_str());
}
