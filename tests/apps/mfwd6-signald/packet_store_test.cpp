#include "apps/mfwd6-signald/packet_store.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <fstream>

#include "tests/kit/run_dir.h"

namespace {

using mfwd6::signald::packet_room;
using mfwd6::signald::packet_slots;
using mfwd6::signald::packet_store;
using mfwd6::signald::read_kept_packet;
using bytes = std::vector<uint8_t>;

class PacketStore : public testing::Test {
  protected:
    cerrno read(const void *handle) { return read_kept_packet(dir_.path(), handle, &packet_); }

    kit::run_dir dir_;
    bytes packet_;
};

TEST_F(PacketStore, GivesBackWhatItKept) {
    packet_store store;
    ASSERT_EQ(store.open(dir_.path()), 0U);
    const bytes first = {1, 2, 3};
    const bytes second(100, 7);
    void *const a = store.keep(first.data(), first.size());
    void *const b = store.keep(second.data(), second.size());
    EXPECT_NE(a, nullptr);
    EXPECT_NE(a, b);
    EXPECT_EQ(read(a), 0U);
    EXPECT_EQ(packet_, first);
    EXPECT_EQ(read(b), 0U);
    EXPECT_EQ(packet_, second);
}

TEST_F(PacketStore, APacketWhoseRoomWasNeededIsNotThere) {
    packet_store store;
    ASSERT_EQ(store.open(dir_.path()), 0U);
    const bytes first = {1, 2, 3};
    void *const a = store.keep(first.data(), first.size());
    for (uint32_t i = 0; i < packet_slots; ++i) {
        EXPECT_EQ(read(a), 0U);
        store.keep(first.data(), 1);
    }
    EXPECT_EQ(read(a), static_cast<cerrno>(ENOENT));
}

TEST_F(PacketStore, OutlivesItsWriter) {
    void *a = nullptr;
    const bytes first = {9, 8};
    {
        packet_store store;
        ASSERT_EQ(store.open(dir_.path()), 0U);
        a = store.keep(first.data(), first.size());
    }
    EXPECT_EQ(read(a), 0U);
    packet_store next;
    ASSERT_EQ(next.open(dir_.path()), 0U);
    EXPECT_EQ(read(a), 0U);
    EXPECT_NE(next.keep(first.data(), 1), a);
}

TEST_F(PacketStore, CutsWhatIsTooLong) {
    packet_store store;
    ASSERT_EQ(store.open(dir_.path()), 0U);
    const bytes jumbo(9000, 5);
    ASSERT_EQ(read(store.keep(jumbo.data(), jumbo.size())), 0U);
    EXPECT_EQ(packet_.size(), packet_room);
}

TEST_F(PacketStore, HandlesThatNameNothing) {
    EXPECT_EQ(read(reinterpret_cast<void *>(1)), static_cast<cerrno>(ENOENT));  // no file
    packet_store store;
    EXPECT_EQ(store.keep(nullptr, 0), nullptr);  // not open
    ASSERT_EQ(store.open(dir_.path()), 0U);
    EXPECT_EQ(read(nullptr), static_cast<cerrno>(ENOENT));
    EXPECT_EQ(read(reinterpret_cast<void *>(77)), static_cast<cerrno>(ENOENT));
}

TEST_F(PacketStore, AFileOfAnotherKindIsMadeAnew) {
    std::ofstream(dir_.path() + "/packets") << "something else";
    EXPECT_EQ(read(reinterpret_cast<void *>(1)), static_cast<cerrno>(ENOENT));
    packet_store store;
    ASSERT_EQ(store.open(dir_.path()), 0U);
    const uint8_t one = 1;
    EXPECT_EQ(read(store.keep(&one, 1)), 0U);
}

TEST_F(PacketStore, SaysWhyItCannotBeOpened) {
    packet_store store;
    EXPECT_EQ(store.open(dir_.path() + "/nowhere"), static_cast<cerrno>(ENOENT));
}

}  // namespace
