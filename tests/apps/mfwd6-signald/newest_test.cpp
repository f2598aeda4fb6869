#include "apps/mfwd6-signald/newest.h"

#include <gtest/gtest.h>

namespace {

using mfwd6::signald::newest;

TEST(Newest, GivesOutWhatCameFirst) {
    newest<int> queue(3);
    queue.put(1);
    queue.put(2);
    EXPECT_EQ(queue.oldest(), 1);
    queue.take_oldest();
    EXPECT_EQ(queue.oldest(), 2);
    queue.take_oldest();
    EXPECT_TRUE(queue.empty());
    EXPECT_EQ(queue.dropped(), 0U);
}

TEST(Newest, DropsTheOldestWhenFullAndCountsIt) {
    newest<int> queue(3);
    for (int i = 1; i <= 10; ++i) {
        queue.put(i);
    }
    EXPECT_EQ(queue.size(), 3U);
    EXPECT_EQ(queue.oldest(), 8);
    EXPECT_EQ(queue.dropped(), 7U);
}

}  // namespace
