// The kernel backend in a network namespace of its own.
#include <gtest/gtest.h>
#include <sched.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include "services/events/event_manager.h"
#include "services/imc/imc.h"
#include "services/imc/rtnl/imc_rtnl.h"
#include "tests/services/failing_malloc/failing_malloc.h"

namespace {

// Why there is no namespace to test in, or an empty string. The process stays in the namespace.
std::string enter_namespace() {
    static const std::string why = [] {
        if (unshare(CLONE_NEWNET) != 0) {
            return std::string("cannot make a network namespace: ") + std::strerror(errno);
        }
        return std::string(std::system("ip link show >/dev/null 2>&1") == 0
                               ? ""
                               : "there is no working ip command");
    }();
    return why;
}

bool ip(const std::string &arguments) {
    return std::system(("ip " + arguments + " 2>/dev/null").c_str()) == 0;
}

class rtnl_test : public ::testing::Test {
  protected:
    void SetUp() override {
        const std::string why = enter_namespace();
        if (!why.empty()) {
            GTEST_SKIP() << why;
        }
        ASSERT_TRUE(ip("link add v0 type veth peer name v1"));
        ASSERT_EQ(event_manager_create(&evm), 0U);
        ASSERT_EQ(imc_rtnl_open(evm, &context), 0U);
        ASSERT_EQ(imc_watch(context, count, this), 0U);
    }
    void TearDown() override {
        imc_context_close(context);
        event_manager_destroy(evm);
        if (evm != nullptr) {
            EXPECT_TRUE(ip("link del v0"));
        }
    }

    static void count(imc_context_t *, imc_change change, uint32_t, const char *name, void *self) {
        auto *const t = static_cast<rtnl_test *>(self);
        ++t->changes;
        t->last = std::to_string(change) + ":" + name;
    }

    // Takes in what the kernel has told by now: ip(8) ends after the kernel has sent it.
    void catch_up() {
        uint32_t n = 1;
        while (n != 0) {
            ASSERT_EQ(event_manager_run_once(evm, 0, &n), 0U);
        }
    }

    uint32_t handle(const char *name) {
        uint32_t ifh = 0;
        imc_interface_find(context, name, &ifh);
        return ifh;
    }

    uint16_t type(const char *name) {
        uint16_t t = 0;
        imc_interface_get_type(context, handle(name), &t, nullptr);
        return t;
    }

    uint32_t parent(const char *name) {
        uint32_t p = 999;
        imc_control_parent_interface_lookup(context, handle(name), &p);
        return p;
    }

    event_manager_t *evm = nullptr;
    imc_context_t *context = nullptr;
    int changes = 0;
    std::string last;
};

TEST_F(rtnl_test, knows_the_links_that_are_there) {
    EXPECT_EQ(handle("lo"), 1U);
    EXPECT_EQ(type("lo"), IMC_TYPE_LOOPBACK);
    EXPECT_EQ(type("v0"), IMC_TYPE_PHYSICAL);
    EXPECT_EQ(parent("v0"), 0U);
    EXPECT_EQ(handle("nothing"), 0U);
    char name[IMC_NAME_SIZE];
    ASSERT_EQ(imc_interface_name(context, handle("v1"), name, sizeof name), 0U);
    EXPECT_STREQ(name, "v1");
}

TEST_F(rtnl_test, hears_of_links_that_come_change_and_go) {
    ASSERT_TRUE(ip("link add w0 type veth peer name w1"));
    catch_up();
    const uint32_t w1 = handle("w1");
    EXPECT_NE(w1, 0U);
    ASSERT_TRUE(ip("link set w1 name x1"));
    catch_up();
    EXPECT_EQ(handle("x1"), w1);
    EXPECT_EQ(handle("w1"), 0U);
    EXPECT_EQ(last, "2:x1");
    ASSERT_TRUE(ip("link del w0"));
    catch_up();
    EXPECT_EQ(handle("w0"), 0U);
    EXPECT_EQ(handle("x1"), 0U);
}

TEST_F(rtnl_test, a_state_change_alone_is_no_news) {
    const int before = changes;
    ASSERT_TRUE(ip("link set v0 up"));
    catch_up();
    EXPECT_EQ(changes, before);
}

TEST_F(rtnl_test, a_name_may_wander) {
    ASSERT_TRUE(ip("link set v0 name t0") && ip("link set v1 name v0") &&
                ip("link set t0 name v1"));
    const uint32_t first = handle("v0");
    const uint32_t other = handle("v1");
    catch_up();
    EXPECT_EQ(handle("v1"), first);
    EXPECT_EQ(handle("v0"), other);
}

TEST_F(rtnl_test, a_vlan_rests_on_its_parent) {
    if (!ip("link add link v0 name v0.5 type vlan id 5")) {
        GTEST_SKIP() << "this kernel has no vlan links";
    }
    catch_up();
    EXPECT_EQ(type("v0.5"), IMC_TYPE_SUBINTERFACE);
    EXPECT_EQ(parent("v0.5"), handle("v0"));
}

TEST_F(rtnl_test, a_vlan_of_a_bridge_is_its_routed_interface) {
    if (!ip("link add br0 type bridge")) {
        GTEST_SKIP() << "this kernel has no bridges";
    }
    if (!ip("link add link br0 name br0.9 type vlan id 9")) {
        EXPECT_TRUE(ip("link del br0"));
        GTEST_SKIP() << "this kernel has no vlan links";
    }
    catch_up();
    EXPECT_EQ(type("br0"), IMC_TYPE_BVI);
    EXPECT_EQ(type("br0.9"), IMC_TYPE_SVI);
    EXPECT_EQ(parent("br0.9"), handle("br0"));
    ASSERT_TRUE(ip("link del br0"));
    catch_up();
    EXPECT_EQ(handle("br0.9"), 0U);
}

TEST_F(rtnl_test, catches_up_after_messages_were_lost) {
    // Far more than the receive buffer holds, before the loop runs once.
    ASSERT_EQ(std::system("i=0; while [ $i -lt 60 ]; do echo link add b$i type veth peer name c$i;"
                          " i=$((i+1)); done | ip -batch - 2>/dev/null"),
              0);
    for (int i = 0; i < 25; ++i) {
        ASSERT_EQ(std::system("for s in up down; do i=0; while [ $i -lt 60 ]; do"
                              " echo link set b$i $s; i=$((i+1)); done; done | ip -batch -"),
                  0);
    }
    ASSERT_EQ(std::system("i=0; while [ $i -lt 59 ]; do echo link del b$i; i=$((i+1)); done"
                          " | ip -batch -"),
              0);
    catch_up();
    EXPECT_EQ(handle("b58"), 0U);
    EXPECT_NE(handle("b59"), 0U);
    EXPECT_NE(handle("v0"), 0U);
    int known = 0;
    const imc_interface_fn tally = [](uint32_t, const char *name, uint16_t, uint32_t, void *n) {
        *static_cast<int *>(n) += name[0] == 'b' || name[0] == 'c' ? 1 : 0;
        return cerrno{0};
    };
    EXPECT_EQ(imc_interface_walk(context, tally, &known), 0U);
    EXPECT_EQ(known, 2);
    EXPECT_TRUE(ip("link del b59"));
}

TEST_F(rtnl_test, without_an_event_manager_it_stays_as_it_was) {
    imc_context_t *still = nullptr;
    ASSERT_EQ(imc_context_open("rtnl", nullptr, &still), 0U);
    ASSERT_TRUE(ip("link add w0 type veth peer name w1"));
    catch_up();
    uint32_t ifh = 0;
    EXPECT_EQ(imc_interface_find(still, "v0", &ifh), 0U);
    EXPECT_EQ(imc_interface_find(still, "w0", &ifh), IMC_NO_INTERFACE);
    EXPECT_NE(handle("w0"), 0U);
    imc_context_close(still);
    EXPECT_TRUE(ip("link del w0"));
}

TEST_F(rtnl_test, without_memory_it_does_not_open) {
    SKIP_WITHOUT_FAILING_MALLOC();
    imc_context_t *none = nullptr;
    cerrno rc = ENOMEM;
    long succeed = 0;
    for (; rc != 0 && succeed < 50; ++succeed) {
        const failing_malloc::scope few(succeed);
        rc = imc_rtnl_open(evm, &none);
        EXPECT_TRUE(rc == 0 || rc == ENOMEM) << rc;
        EXPECT_EQ(none == nullptr, rc != 0);
    }
    EXPECT_EQ(rc, 0U);
    EXPECT_GT(succeed, 4);
    imc_context_close(none);
}

}  // namespace
