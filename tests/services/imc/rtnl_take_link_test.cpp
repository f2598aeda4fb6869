#include <gtest/gtest.h>
#include <linux/if_arp.h>

#include <cerrno>

#include "services/imc/imc.h"
#include "services/imc/rtnl/take_link.h"
#include "services/imc/table.h"
#include "tests/services/failing_malloc/failing_malloc.h"
#include "tests/services/imc/link_message.h"

namespace {

using mfwd6::imc_rtnl::take_link;
using rtnl_test::message;

class take_link_test : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_EQ(imc_table_open(&context), 0U); }
    void TearDown() override { imc_context_close(context); }

    cerrno take(message m) { return take_link(context, m.head()); }

    uint16_t type(uint32_t ifh) {
        uint16_t t = 0;
        imc_interface_get_type(context, ifh, &t, nullptr);
        return t;
    }

    static message vlan(int index, const char *name, uint32_t below) {
        return message(index, ARPHRD_ETHER).name(name).kind("vlan").below(below);
    }
    static message bridge(int index, const char *name) {
        return message(index, ARPHRD_ETHER).name(name).kind("bridge");
    }

    imc_context_t *context = nullptr;
};

TEST_F(take_link_test, a_link_comes_and_goes) {
    EXPECT_EQ(take(message(4, ARPHRD_ETHER).name("eth4")), 0U);
    EXPECT_EQ(type(4), IMC_TYPE_PHYSICAL);
    EXPECT_EQ(take(message(4, ARPHRD_ETHER, RTM_DELLINK).name("eth4")), 0U);
    EXPECT_EQ(type(4), IMC_TYPE_NONE);
    EXPECT_EQ(take(message(4, ARPHRD_ETHER, RTM_DELLINK).name("eth4")), 0U);
}

TEST_F(take_link_test, a_vlan_of_a_bridge_is_an_svi_whichever_is_heard_of_first) {
    ASSERT_EQ(take(message(1, ARPHRD_ETHER).name("eth0")), 0U);
    ASSERT_EQ(take(vlan(2, "eth0.5", 1)), 0U);
    ASSERT_EQ(take(vlan(3, "br0.5", 9)), 0U);
    ASSERT_EQ(take(vlan(4, "br0.6", 9)), 0U);
    EXPECT_EQ(type(3), IMC_TYPE_SUBINTERFACE);
    ASSERT_EQ(take(bridge(9, "br0")), 0U);
    ASSERT_EQ(take(vlan(10, "br0.7", 9)), 0U);
    EXPECT_EQ(type(9), IMC_TYPE_BVI);
    EXPECT_EQ(type(2), IMC_TYPE_SUBINTERFACE);
    for (const uint32_t svi : {3U, 4U, 10U}) {
        EXPECT_EQ(type(svi), IMC_TYPE_SVI) << svi;
        uint32_t parent = 0;
        EXPECT_EQ(imc_control_parent_interface_lookup(context, svi, &parent), 0U);
        EXPECT_EQ(parent, 9U);
    }
}

TEST_F(take_link_test, a_message_without_a_name_is_passed_over) {
    EXPECT_EQ(take(message(4, ARPHRD_ETHER)), 0U);
    EXPECT_EQ(type(4), IMC_TYPE_NONE);
    EXPECT_EQ(take(message(4, ARPHRD_ETHER, RTM_NEWADDR).name("eth4")), 0U);
    EXPECT_EQ(type(4), IMC_TYPE_NONE);
}

TEST_F(take_link_test, lack_of_memory_is_told) {
    SKIP_WITHOUT_FAILING_MALLOC();
    const failing_malloc::scope none(0);
    EXPECT_EQ(take(message(4, ARPHRD_ETHER).name("eth4")), static_cast<cerrno>(ENOMEM));
}

}  // namespace
