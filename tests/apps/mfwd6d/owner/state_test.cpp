// A configuration that asks for less than is there, on a platform that does not let it go.
#include "apps/mfwd6d/owner/state.h"

#include <gtest/gtest.h>

#include <memory>

#include "apps/mfwd6d/owner/window.h"
#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "platforms/sim/sim.h"
#include "tests/kit/run_dir.h"

using namespace mfwd6;
using namespace mfwd6::daemon;

namespace {

config::document document_of(const std::string &text) {
    config::document d;
    std::string error;
    EXPECT_TRUE(config::parse_document(text, "test.conf", &d, &error)) << error;
    return d;
}

class State : public testing::Test {
  protected:
    State() {
        sim_reset();
        EXPECT_EQ(start_library(nullptr, nullptr).text, "");
    }
    ~State() override {
        state_ = nullptr;
        sim_reset();
        stop_library(false);
    }

    void start() {
        state_ = std::make_unique<state>(&none_, dir_.path(), [](uint32_t) { return -EPERM; });
        ASSERT_EQ(state_->start(true).text, "");
        state_->appeared(1, "e1");
        state_->appeared(2, "e2");
    }
    state::applied_counts apply(const std::string &text) {
        problems_.clear();
        return state_->apply(document_of(text),
                             [this](const std::string &p) { problems_.push_back(p); });
    }

    kit::run_dir dir_;
    platform none_;
    std::unique_ptr<state> state_;
    std::vector<std::string> problems_;
};

TEST_F(State, ARouteThatCannotGoIsToldOfAndTriedAgain) {
    start();
    EXPECT_EQ(apply("mroute from e1 group ff3e::1 to e2\n").made, 1U);
    ASSERT_EQ(sim_arm_fault(SIM_OP_INTF, IPV4MC_ACTION_DELETE, 0, 1, EIO), 0U);
    state::applied_counts counts = apply("");
    EXPECT_EQ(counts.gone, 0U);
    EXPECT_EQ(counts.failed, 1U);
    ASSERT_EQ(problems_.size(), 1U);
    EXPECT_EQ(problems_[0].rfind("test.conf:1: ", 0), 0U) << problems_[0];
    counts = apply("");
    EXPECT_EQ(counts.gone, 1U);
    EXPECT_EQ(counts.failed, 0U);
    EXPECT_EQ(problems_, std::vector<std::string>());
    EXPECT_EQ(apply("").gone, 0U);
}

TEST_F(State, ATableLeftHalfMadeThatCannotGoEndsTheStart) {
    tables first;
    ASSERT_EQ(first.start().text, "");
    ASSERT_EQ(first.add("red", 7).text, "");
    first.find("red")->record->active = 0;  // as an owner leaves it that died in a deletion
    ASSERT_EQ(sim_arm_fault(SIM_OP_TABLE, IPV4MC_ACTION_DELETE, 0, 1, EIO), 0U);
    tables second;
    const outcome o = second.start();
    EXPECT_NE(o.text.find("table 7, left half made"), std::string::npos) << o.text;
    tables third;
    EXPECT_EQ(third.start().text, "");
    EXPECT_EQ(third.find("red"), nullptr);
}

}  // namespace
