#include <regex>

#include "services/cbuf/cbuf.h"
#include "tests/lib/routes/bed.h"

using namespace bed;
using EventHistory = bed::Test;

namespace {

const ipv4mc_route_event_st *event(const cbuf *history, uint32_t n) {
    return static_cast<const ipv4mc_route_event_st *>(cbuf_at(history, n));
}

}  // namespace

TEST_F(EventHistory, TheFirstEventMakesTheRing) {
    auto *route = create(table, sg(1));
    EXPECT_EQ(route->event_history, nullptr);
    mfwd_route_entry_event_add_msg(route, 5);
    ASSERT_NE(route->event_history, nullptr);
    ASSERT_EQ(cbuf_count(route->event_history), 1U);
    EXPECT_EQ(event(route->event_history, 0)->event_code, 5U);
    const std::string time = event(route->event_history, 0)->time;
    EXPECT_TRUE(std::regex_match(
        time, std::regex("[A-Z][a-z]{2} [0-9]{2} [0-9]{4} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3}")))
        << time;
    mfwd_route_event_history_destroy(route->event_history);
    EXPECT_NE(route->event_history, nullptr);  // a copy of the handle was destroyed
    route->event_history = nullptr;
}

TEST_F(EventHistory, TheEleventhEventTakesThePlaceOfTheFirst) {
    auto *route = create(table, sg(1));
    for (uint32_t code = 1; code <= 11; ++code) {
        mfwd_route_entry_event_add_msg(route, code);
    }
    ASSERT_EQ(cbuf_count(route->event_history), 10U);
    for (uint32_t n = 0; n < 10; ++n) {
        EXPECT_EQ(event(route->event_history, n)->event_code, n + 2);
    }
    mfwd_route_event_history_destroy(route->event_history);
    route->event_history = nullptr;
}

TEST_F(EventHistory, ARingThatCannotBeMadeIsReported) {
    EXPECT_EQ(mfwd_route_event_history_create(0, 44), nullptr);
    EXPECT_EQ(errors(), texts{"Cannot create Event History for buffer size: 0 and element size: 44\n"});
    mfwd_route_event_history_destroy(nullptr);
}
