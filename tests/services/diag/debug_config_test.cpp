#include "services/diag/debug_config.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr const char *path = "/debug/ipv6/mcast/netio/";

struct delivery {
    uint32_t operation;
    std::string event;
    uint32_t type;
    std::string text;
};

struct filter_record {
    int wanted;
};

int shows_wanted(void *item, void *record) {
    return *static_cast<int *>(item) == static_cast<filter_record *>(record)->wanted ? 1 : 0;
}

class DebugConfig : public ::testing::Test {
  protected:
    void SetUp() override {
        const char *names[] = {"drop", "packet", "detailpacket", "dumppacket", "dev"};
        for (uint32_t i = 0; i < 5; ++i) {
            events[i] = {i,       DEBUG_CAN_ALL, names[i], DEBUG_FORM_FILTER, 0, nullptr,
                         nullptr, nullptr,       0};
            ASSERT_EQ(debug_init_event(&events[0], &events[i]), 0U);
        }
    }
    void TearDown() override { debug_cleanup(path); }

    cerrno add() { return debug_register(path, &events[0], nullptr, 0, this, configure, 0); }

    // Frees the old record, then installs one that wants the number in the text; "bad" fails after
    // the free.
    static cerrno configure(uint32_t operation, const char *, debug_event *event,
                            const debug_value *value, void *context) {
        auto *self = static_cast<DebugConfig *>(context);
        uint32_t type = DEBUG_VALUE_NONE;
        const void *data = nullptr;
        debug_get_type_value(value, &type, &data);
        const std::string text = type == DEBUG_VALUE_STRING ? static_cast<const char *>(data) : "";
        self->deliveries.push_back({operation, event->name, type, text});
        if (operation == DEBUG_EVENT_SET && text.empty()) {
            return 0;
        }
        delete static_cast<filter_record *>(debug_get_app_reference(event));
        if (operation == DEBUG_EVENT_UNSET) {
            return 0;
        }
        return text == "bad"
                   ? ENOENT
                   : debug_install_filter(event, shows_wanted, new filter_record{std::stoi(text)});
    }

    debug_event events[5] = {};
    std::vector<delivery> deliveries;
    int three = 3;
    int four = 4;
};

TEST_F(DebugConfig, AnEventIsSwitchedOnAndOff) {
    ASSERT_EQ(add(), 0U);
    EXPECT_FALSE(debug_event_active(&events[1]));
    ASSERT_EQ(debug_set_event(path, "packet", nullptr), 0U);
    EXPECT_TRUE(debug_event_active(&events[1]));
    EXPECT_FALSE(debug_event_active(&events[2]));
    EXPECT_TRUE(debug_event_shows(&events[1], &three)) << "no filter shows everything";
    ASSERT_EQ(debug_unset_event(path, "packet"), 0U);
    EXPECT_FALSE(debug_event_shows(&events[1], &three));
    ASSERT_EQ(deliveries.size(), 2U);
    EXPECT_EQ(deliveries[0].operation, 1U);
    EXPECT_EQ(deliveries[0].type, 1U);
    EXPECT_EQ(deliveries[1].operation, 2U);
    EXPECT_EQ(debug_unset_event(path, "packet"), 0U);
    EXPECT_EQ(deliveries.size(), 2U) << "an event that is off is not switched off again";
}

TEST_F(DebugConfig, AFilterDecidesWhatIsShown) {
    ASSERT_EQ(add(), 0U);
    ASSERT_EQ(debug_set_event(path, "drop", "3"), 0U);
    EXPECT_EQ(deliveries[0].type, 8U);
    EXPECT_TRUE(debug_event_shows(&events[0], &three));
    EXPECT_FALSE(debug_event_shows(&events[0], &four));
    ASSERT_EQ(debug_set_event(path, "drop", ""), 0U);
    EXPECT_TRUE(debug_event_shows(&events[0], &three)) << "the former filter stays";
    ASSERT_EQ(debug_set_event(path, "drop", "4"), 0U);
    EXPECT_TRUE(debug_event_shows(&events[0], &four));
    ASSERT_EQ(debug_unset_event(path, "drop"), 0U);
    EXPECT_EQ(debug_get_app_reference(&events[0]), nullptr);
}

TEST_F(DebugConfig, ARefusedValueLeavesNoStaleFilter) {
    ASSERT_EQ(add(), 0U);
    ASSERT_EQ(debug_set_event(path, "dev", "3"), 0U);
    EXPECT_EQ(debug_set_event(path, "dev", "bad"), static_cast<cerrno>(ENOENT));
    EXPECT_FALSE(debug_event_active(&events[4]));
    EXPECT_EQ(debug_get_app_reference(&events[4]), nullptr);
}

TEST_F(DebugConfig, AValueSetBeforeTheRegistrationIsDelivered) {
    ASSERT_EQ(debug_set_event(path, "drop", "4"), 0U);
    ASSERT_EQ(debug_set_event(path, "drop", "3"), 0U);
    ASSERT_EQ(debug_set_event(path, "packet", nullptr), 0U);
    ASSERT_EQ(debug_unset_event(path, "packet"), 0U);
    ASSERT_EQ(add(), 0U);
    ASSERT_EQ(deliveries.size(), 1U);
    EXPECT_EQ(deliveries[0].text, "3");
    EXPECT_TRUE(debug_event_shows(&events[0], &three));
}

TEST_F(DebugConfig, CleanupSwitchesEverythingOff) {
    ASSERT_EQ(add(), 0U);
    ASSERT_EQ(debug_set_event(path, "drop", "3"), 0U);
    ASSERT_EQ(debug_cleanup(path), 0U);
    EXPECT_EQ(deliveries.back().operation, 2U);
    EXPECT_FALSE(debug_event_active(&events[0]));
    EXPECT_EQ(debug_cleanup(path), static_cast<cerrno>(ENOENT));
    ASSERT_EQ(add(), 0U) << "it may be registered again";
}

TEST_F(DebugConfig, BadArgumentsAreRefused) {
    constexpr auto invalid = static_cast<cerrno>(EINVAL);
    ASSERT_EQ(add(), 0U);
    EXPECT_EQ(add(), static_cast<cerrno>(EEXIST));
    EXPECT_EQ(debug_register(nullptr, &events[0], nullptr, 0, nullptr, configure, 0), invalid);
    EXPECT_EQ(debug_register("x", nullptr, nullptr, 0, nullptr, configure, 0), invalid);
    EXPECT_EQ(debug_register("x", &events[0], nullptr, 0, nullptr, nullptr, 0), invalid);
    EXPECT_EQ(debug_set_event(path, "nothing", nullptr), static_cast<cerrno>(ENOENT));
    EXPECT_EQ(debug_unset_event(path, "nothing"), static_cast<cerrno>(ENOENT));
    EXPECT_EQ(debug_set_event(nullptr, "drop", nullptr), invalid);
    EXPECT_EQ(debug_install_filter(nullptr, nullptr, nullptr), invalid);
    EXPECT_EQ(debug_install_filter(&events[0], nullptr, &three), invalid);
    uint32_t type = 0;
    const void *data = nullptr;
    EXPECT_EQ(debug_get_type_value(nullptr, &type, &data), invalid);
    EXPECT_EQ(debug_get_app_reference(nullptr), nullptr);
    EXPECT_FALSE(debug_event_shows(nullptr, nullptr));
    debug_event twin = {9, DEBUG_CAN_ALL, "drop", DEBUG_FORM_FLAG, 0, nullptr, nullptr, nullptr, 0};
    EXPECT_EQ(debug_init_event(&events[0], &twin), static_cast<cerrno>(EEXIST));
    EXPECT_EQ(debug_init_event(&events[0], nullptr), invalid);
    debug_event nameless = {};
    EXPECT_EQ(debug_init_event(&nameless, &nameless), invalid);
    EXPECT_EQ(debug_install_filter(&nameless, shows_wanted, nullptr), invalid);
}

TEST_F(DebugConfig, AFilterIsNeverRunOnARecordThatWasFreed) {
    ASSERT_EQ(add(), 0U);
    std::atomic<bool> stop = false;
    std::thread packets([this, &stop] {
        while (!stop.load()) {
            debug_event_shows(&events[0], &three);
        }
    });
    for (int i = 0; i < 500; ++i) {
        ASSERT_EQ(debug_set_event(path, "drop", i % 2 == 0 ? "3" : "4"), 0U);
        if (i % 7 == 0) {
            ASSERT_EQ(debug_unset_event(path, "drop"), 0U);
        }
    }
    stop = true;
    packets.join();
}

}  // namespace
