#include "services/gtrie/lengths.h"

#include <gtest/gtest.h>

#include <vector>

using namespace mfwd6::gtrie;

namespace {

struct map {
    uint64_t word[5] = {};
    explicit map(const std::vector<uint32_t> &lengths) {
        for (const uint32_t length : lengths) {
            word[length / 64] |= uint64_t{1} << (63 - length % 64);
        }
    }
};

std::vector<uint32_t> unpacked(uint64_t lengths) {
    std::vector<uint32_t> all;
    for (; (lengths & ~many_lengths) != 0; lengths = without_longest(lengths)) {
        all.push_back(longest_length(lengths));
    }
    return all;
}

TEST(Lengths, StandFromTheLongestDown) {
    const uint64_t packed = pack_lengths(map({0, 8, 63, 64, 128, 256}).word);
    EXPECT_EQ(packed & many_lengths, 0u);
    EXPECT_EQ(unpacked(packed), (std::vector<uint32_t>{256, 128, 64, 63, 8, 0}));
}

TEST(Lengths, NoneIsZeroAndNoLength) {
    EXPECT_EQ(pack_lengths(map({}).word), 0u);
    EXPECT_GT(longest_length(0), 256u);
}

TEST(Lengths, EachAloneIsItself) {
    for (uint32_t length = 0; length <= 256; ++length) {
        EXPECT_EQ(unpacked(pack_lengths(map({length}).word)), std::vector<uint32_t>{length});
    }
}

TEST(Lengths, OfTooManyOnlyTheLongestIsNamed) {
    const uint64_t packed = pack_lengths(map({0, 1, 2, 3, 127, 128, 255}).word);
    EXPECT_NE(packed & many_lengths, 0u);
    EXPECT_EQ(unpacked(packed), std::vector<uint32_t>{255});
    EXPECT_EQ(without_longest(packed), many_lengths);
}

}  // namespace
