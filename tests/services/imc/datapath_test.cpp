#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>

#include "services/imc/imc.h"
#include "services/imc/table.h"
#include "tests/services/failing_malloc/failing_malloc.h"

namespace {

constexpr cerrno einval = EINVAL;
constexpr uint32_t code = 0x8004820e;

class datapath_test : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(imc_table_open(&context), 0U);
        std::strcpy(text, "acl-1");
        control = {5, 1, 2, code, sizeof text, text, {3, 4}};
    }
    void TearDown() override { imc_context_close(context); }

    static cerrno take(const imc_datapath_control_t *c, void *self) {
        auto *const t = static_cast<datapath_test *>(self);
        t->seen = *c;
        ++t->calls;
        std::strcpy(static_cast<char *>(c->data), "answer");
        return t->result;
    }

    imc_context_t *context = nullptr;
    char text[66] = {};
    imc_datapath_control_t control = {};
    imc_datapath_control_t seen = {};
    int calls = 0;
    cerrno result = 0;
};

TEST_F(datapath_test, a_code_reaches_its_receiver_with_its_buffer) {
    ASSERT_EQ(imc_datapath_receiver_set(context, code, take, this), 0U);
    EXPECT_EQ(imc_caps_datapath_control(context, &control), 0U);
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(seen.ifh, 5U);
    EXPECT_EQ(seen.protocol, 1);
    EXPECT_EQ(seen.caps, 2);
    EXPECT_EQ(seen.length, 66U);
    EXPECT_EQ(seen.data, text);
    EXPECT_EQ(seen.extra[1], 4U);
    EXPECT_STREQ(text, "answer");
}

TEST_F(datapath_test, the_receivers_result_comes_back) {
    ASSERT_EQ(imc_datapath_receiver_set(context, code, take, this), 0U);
    result = EIO;
    EXPECT_EQ(imc_caps_datapath_control(context, &control), static_cast<cerrno>(EIO));
}

TEST_F(datapath_test, a_code_without_receiver_is_refused) {
    EXPECT_EQ(imc_datapath_receiver_set(context, code, nullptr, nullptr), 0U);
    EXPECT_EQ(imc_caps_datapath_control(context, &control), IMC_NO_RECEIVER);
    ASSERT_EQ(imc_datapath_receiver_set(context, code, take, this), 0U);
    control.code = code + 1;
    EXPECT_EQ(imc_caps_datapath_control(context, &control), IMC_NO_RECEIVER);
    control.code = code;
    ASSERT_EQ(imc_datapath_receiver_set(context, code, nullptr, nullptr), 0U);
    EXPECT_EQ(imc_caps_datapath_control(context, &control), IMC_NO_RECEIVER);
    EXPECT_EQ(calls, 0);
}

TEST_F(datapath_test, protocol_and_caps_must_be_set) {
    ASSERT_EQ(imc_datapath_receiver_set(context, code, take, this), 0U);
    control.protocol = 0;
    EXPECT_EQ(imc_caps_datapath_control(context, &control), IMC_BAD_PROTOCOL);
    control.protocol = 1;
    control.caps = 0;
    EXPECT_EQ(imc_caps_datapath_control(context, &control), IMC_BAD_PROTOCOL);
    EXPECT_EQ(calls, 0);
}

TEST_F(datapath_test, refuses_bad_arguments_and_reports_lack_of_memory) {
    EXPECT_EQ(imc_caps_datapath_control(nullptr, &control), einval);
    EXPECT_EQ(imc_caps_datapath_control(context, nullptr), einval);
    EXPECT_EQ(imc_datapath_receiver_set(nullptr, code, take, this), einval);
    control.data = nullptr;
    EXPECT_EQ(imc_caps_datapath_control(context, &control), einval);
    SKIP_WITHOUT_FAILING_MALLOC();
    const failing_malloc::scope none(0);
    EXPECT_EQ(imc_datapath_receiver_set(context, code, take, this), static_cast<cerrno>(ENOMEM));
}

}  // namespace
