#include "platforms/sim/slots.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <random>
#include <set>

namespace {

using mfwd6::sim::no_slot;
using mfwd6::sim::slot_committed;
using mfwd6::sim::slot_head;
using mfwd6::sim::slot_index;
using mfwd6::sim::slot_table;

struct number_key {
    uint64_t number;
};

struct number_slot {
    slot_head head;
    number_key key;
    uint64_t value;
};

// Random insertions and removals against a map, with the given hash.
template <class Hash>
void compare_with_map(Hash hash, uint32_t steps, uint32_t range) {
    slot_index index;
    std::map<uint32_t, uint32_t> model;  // number to slot
    std::vector<uint32_t> numbers;       // slot to number
    std::mt19937 random(1);
    for (uint32_t step = 0; step < steps; ++step) {
        const uint32_t number = static_cast<uint32_t>(random()) % range;
        const auto is_it = [&](uint32_t slot) { return numbers[slot] == number; };
        const auto known = model.find(number);
        ASSERT_EQ(index.find(hash(number), is_it), known == model.end() ? no_slot : known->second);
        if (known == model.end()) {
            const auto slot = static_cast<uint32_t>(numbers.size());
            numbers.push_back(number);
            ASSERT_TRUE(index.insert(hash(number), slot));
            model[number] = slot;
        } else {
            index.erase(hash(number), known->second);
            model.erase(known);
        }
        ASSERT_EQ(index.count(), model.size());
    }
    for (const auto &held : model) {
        const uint32_t number = held.first;
        const uint32_t slot = held.second;
        ASSERT_EQ(index.find(hash(number), [&](uint32_t s) { return numbers[s] == number; }), slot);
    }
}

TEST(SlotIndex, AgreesWithAMapUnderRandomChanges) {
    compare_with_map([](uint32_t n) { return mfwd6::sim::hash_key(number_key{n}); }, 20000, 700);
}

TEST(SlotIndex, AgreesWithAMapWhenAllHashesAreEqual) {
    compare_with_map([](uint32_t) { return 0x80000001U; }, 2000, 60);
}

TEST(SlotIndex, AgreesWithAMapWhenHashesCrowdTheEndOfTheArray) {
    compare_with_map([](uint32_t n) { return 0xfffffff0U + n % 16; }, 4000, 100);
}

TEST(SlotIndex, ErasingWhatIsNotThereChangesNothing) {
    slot_index index;
    ASSERT_TRUE(index.insert(5, 1));
    ASSERT_TRUE(index.insert(5, 2));
    index.erase(5, 9);
    EXPECT_EQ(index.find(5, [](uint32_t slot) { return slot == 2; }), 2U);
}

TEST(SlotTable, SlotsAreUsedAgainAndComeZeroed) {
    slot_table<number_slot> table;
    ASSERT_EQ(table.open(-1, "", 1000), 0U);
    uint32_t first = no_slot;
    ASSERT_EQ(table.add({1}, slot_committed, &first), 0U);
    table.at(first).value = 99;
    table.remove(first);
    uint32_t second = no_slot;
    ASSERT_EQ(table.add({2}, slot_committed, &second), 0U);
    EXPECT_EQ(first, second);
    EXPECT_EQ(table.at(second).value, 0U);
    EXPECT_EQ(table.find({1}), no_slot);
    EXPECT_EQ(table.find({2}), second);
    table.close();
}

TEST(SlotTable, MoreThanFitsInTheReservedRangeIsRefused) {
    slot_table<number_slot> table;
    ASSERT_EQ(table.open(-1, "", 1), 0U);
    cerrno failed = 0;
    uint64_t held = 0;
    for (uint32_t slot = 0; failed == 0; ++held) {
        failed = table.add({held}, slot_committed, &slot);
    }
    EXPECT_EQ(failed, static_cast<cerrno>(ENOSPC));
    EXPECT_GT(held, 1U);
    EXPECT_NE(table.find({held - 2}), no_slot) << "what was there stays";
    table.close();
}

TEST(SlotTable, ATableThatIsNotOpenHoldsNothingAndTakesNothing) {
    slot_table<number_slot> table;
    uint32_t slot = 0;
    EXPECT_EQ(table.used(), 0U);
    EXPECT_EQ(table.add({1}, slot_committed, &slot), static_cast<cerrno>(ENOMEM));
    table.clear();
}

class SlotFile : public testing::Test {
  protected:
    void SetUp() override {
        char name[] = "/dev/shm/mfwd6-slots-XXXXXX";
        ASSERT_NE(mkdtemp(name), nullptr);
        path = name;
        folder = open(name, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        ASSERT_GE(folder, 0);
    }
    void TearDown() override {
        close(folder);
        std::filesystem::remove_all(path);
    }
    std::filesystem::path path;
    int folder = -1;
};

TEST_F(SlotFile, WhatWasKeptIsFoundByTheNextOpening) {
    slot_table<number_slot> table;
    ASSERT_EQ(table.open(folder, "numbers", 1 << 20), 0U);
    for (uint64_t n = 0; n < 100000; ++n) {
        uint32_t slot = no_slot;
        ASSERT_EQ(table.add({n}, slot_committed, &slot), 0U);
        table.at(slot).value = n * 3;
    }
    for (uint64_t n = 0; n < 100000; n += 2) {
        table.remove(table.find({n}));
    }
    table.close();
    slot_table<number_slot> again;
    ASSERT_EQ(again.open(folder, "numbers", 1 << 20), 0U);
    for (uint64_t n = 0; n < 100000; ++n) {
        const uint32_t slot = again.find({n});
        ASSERT_EQ(slot != no_slot, n % 2 == 1) << n;
        if (slot != no_slot) {
            ASSERT_EQ(again.at(slot).value, n * 3);
        }
    }
    const uint32_t used = again.used();
    uint32_t slot = no_slot;
    ASSERT_EQ(again.add({1000000}, slot_committed, &slot), 0U);
    EXPECT_EQ(again.used(), used) << "a free slot was found again";
    again.close();
}

TEST_F(SlotFile, AFileOfAnotherBuildIsRefused) {
    slot_table<number_slot> table;
    ASSERT_EQ(table.open(folder, "numbers", 100), 0U);
    table.close();
    mfwd6::sim::region other;
    EXPECT_EQ(other.open_file(folder, "numbers", 16, 100), static_cast<cerrno>(EINVAL));
    EXPECT_FALSE(other.opened());
}

TEST_F(SlotFile, AFileWhoseMakingWasCutShortIsMadeAnew) {
    std::filesystem::path file = path / "numbers";
    const int fd = open(file.c_str(), O_WRONLY | O_CREAT, 0600);
    ASSERT_EQ(ftruncate(fd, 100), 0);
    close(fd);
    slot_table<number_slot> table;
    ASSERT_EQ(table.open(folder, "numbers", 100), 0U);
    EXPECT_EQ(table.used(), 0U);
    table.close();
}

TEST_F(SlotFile, ALinkIsNotFollowed) {
    std::filesystem::create_symlink("/dev/null", path / "numbers");
    slot_table<number_slot> table;
    EXPECT_NE(table.open(folder, "numbers", 100), 0U);
}

}  // namespace
