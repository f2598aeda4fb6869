#include "services/gtrie/slots.h"

#include <gtest/gtest.h>

#include <random>

using namespace mfwd6::gtrie;

namespace {

const leaf *at(uint64_t address) {
    return reinterpret_cast<const leaf *>(address);
}

constexpr uint64_t highest_address = (uint64_t{1} << 47) - 8;

TEST(Slots, KeepAddressAndHashBits) {
    std::mt19937_64 random(1);
    for (int i = 0; i < 1000; ++i) {
        const uint64_t hash = random();
        const uint64_t address = i == 0 ? highest_address : random() & highest_address;
        const uint64_t slot = make_slot(hash, at(address));
        EXPECT_EQ(slot_leaf(slot), at(address));
        for (uint32_t bit = first_tag_bit; bit < first_tag_bit + tag_bits; ++bit) {
            EXPECT_EQ(slot_bit(slot, bit), (hash >> bit & 1U) != 0) << bit;
        }
    }
}

TEST(Slots, SearchFindsEverySlotOfTheHashWhereverItStands) {
    std::mt19937_64 random(2);
    for (uint32_t taken = 0; taken < 1U << bucket_slots; ++taken) {
        const uint64_t hash = random();
        bucket b{};
        b.waiting = make_slot(hash, at(0x1000));
        for (uint32_t i = 0; i < bucket_slots; ++i) {
            const bool same = (taken >> i & 1U) != 0;
            // Another leaf differs in one of the bits that are compared, with all else the same.
            const uint64_t other = hash ^ uint64_t { 1 } << (first_tag_bit + 4 + random() % 16);
            b.slot[i] = make_slot(same ? hash : other, at(random() & highest_address));
        }
        EXPECT_EQ(slots_with(&b, hash), taken);
    }
}

TEST(Slots, EmptyOneIsNobodysLeaf) {
    const bucket b{};
    EXPECT_EQ(slots_with(&b, ~uint64_t{0}), 0u);
    // A hash whose bits are all zero looks like an empty slot.
    EXPECT_EQ(leaf_in_slot(&b, 0, key{{0, 0, 0, 0}, 0, max_length}), nullptr);
}

TEST(Slots, LeafIsComparedInEveryPartOfItsKey) {
    leaf l{};
    l.length = 100;
    l.table = 7;
    bucket b{};
    b.slot[6] = make_slot(0, &l);
    const key same = key_of(&l);
    EXPECT_EQ(leaf_in_slot(&b, 6, same), &l);
    for (uint64_t &word : l.word) {
        word ^= 1U;
        EXPECT_EQ(leaf_in_slot(&b, 6, same), nullptr);
        word ^= 1U;
    }
    key other = same;
    other.length = 101;
    EXPECT_EQ(leaf_in_slot(&b, 6, other), nullptr);
    other = same;
    other.table = 8;
    EXPECT_EQ(leaf_in_slot(&b, 6, other), nullptr);
}

}  // namespace
