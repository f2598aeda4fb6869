#include "ipv4/multicast/lib/ip6mc_idb.h"
#include "services/imc/imc.h"
#include "services/imc/table.h"
#include "tests/lib/signal/fixture.h"

namespace {

using namespace signals;

constexpr const char *key = "(2001:db8::1,ff0e::2/256)";

class PreservedPacket : public with_owner {
  protected:
    PreservedPacket() {
        EXPECT_EQ(imc_table_open(&manager), 0U);
        imc_datapath_receiver_set(manager, IPV4MC_DPC_PAK_DROP, take, this);
        start({.im_context = manager});
    }
    ~PreservedPacket() override {
        owner.reset();
        imc_context_close(manager);
    }

    static cerrno take(const imc_datapath_control_t *control, void *self) {
        auto *me = static_cast<PreservedPacket *>(self);
        EXPECT_EQ(control->ifh, 0U);
        EXPECT_EQ(control->length, 24U);
        me->records.push_back(*static_cast<const ipv4mc_dpc_pak_st *>(control->data));
        me->held_inside.push_back(ipv4mc_desc->shmwin_info->shmwin_lock_count);
        if (me->meanwhile)
            me->meanwhile();
        return me->answer;
    }

    ipv4mc_route_entry_st *post(uint32_t n = 1) {
        ipv4mc_route_entry_st *route = nullptr;
        EXPECT_EQ(add(table, n, n + 1, ifh_a, &route), 0U);
        route->preserved_pak = pak;
        heard->clear();
        return route;
    }

    imc_context_t *manager = nullptr;
    std::vector<ipv4mc_dpc_pak_st> records;
    std::vector<uint32_t> held_inside;
    std::function<void()> meanwhile;
    cerrno answer = 0;
    void *const pak = &records;
    const ip_maddr_st s = source(1);
    const ip_maddr_st g = group(2);
};

TEST_F(PreservedPacket, IsFreedByTheDataPathWithoutTheMutex) {
    post();
    EXPECT_EQ(ip6mc_signal_remove_route_pak_mutex(table, &s, &g, 3), 0U);
    ASSERT_EQ(records.size(), 1U);
    EXPECT_EQ(records[0].free_pak, 3U);
    EXPECT_EQ(records[0].pak, pak);
    EXPECT_EQ(held_inside, std::vector<uint32_t>{0});
    EXPECT_TRUE(has(event_lines(), text("%s: Just in %s ", tag.c_str(), key)));
    EXPECT_EQ(route_of(table, 1, 2), nullptr);
    EXPECT_EQ(errors(), texts{});
    EXPECT_EQ(faults(table), "");
}

TEST_F(PreservedPacket, TheFormForAHolderGivesTheMutexUpToo) {
    post();
    ASSERT_EQ(ip6mc_shmwin_mutex_lock("test", 1), 0U);
    EXPECT_EQ(ip6mc_signal_remove_route_pak(table, &s, &g, 2), 0U);
    EXPECT_EQ(held_inside, std::vector<uint32_t>{0});
    EXPECT_EQ(ipv4mc_desc->shmwin_info->shmwin_lock_count, 1U);
    EXPECT_EQ(ip6mc_shmwin_mutex_unlock(), 0U);
    heard->clear();
    EXPECT_EQ(ip6mc_signal_remove_route_pak(table, &s, &g, 2), 0U);
    EXPECT_EQ(ip6mc_signal_remove_route_pak_mutex(table, &s, &g, 2), 0U);
    EXPECT_EQ(signal_lines(), texts(2, text("%s: No signal found on %s", tag.c_str(), key)));
}

TEST_F(PreservedPacket, WithoutTheWishItIsLeftAloneAndTheInterfacesGo) {
    ipv4mc_route_entry_st *route = post();
    ASSERT_EQ(add(table, 1, 2, ifh_b), 0U);
    EXPECT_EQ(ip6mc_signal_remove_route_pak_mutex(table, &s, &g, 0), 0U);
    EXPECT_EQ(records.size(), 0U);
    EXPECT_EQ(route->preserved_pak, pak);
    EXPECT_EQ(interfaces(route), 1U);
    // With it, the packet goes and the route with the last interface.
    EXPECT_EQ(ip6mc_signal_remove_route_pak_mutex(table, &s, &g, 2), 0U);
    EXPECT_EQ(records.size(), 1U);
    EXPECT_EQ(route_of(table, 1, 2), nullptr);
}

TEST_F(PreservedPacket, IsNotNotedAnyMoreOnARouteThatStays) {
    ipv4mc_route_entry_st *route = post();
    ASSERT_EQ(add(table, 1, 2, ifh_b), 0U);
    answer = EIO;  // what the data path answers decides nothing
    EXPECT_EQ(ip6mc_signal_remove_route_pak_mutex(table, &s, &g, 2), 0U);
    EXPECT_EQ(route->preserved_pak, nullptr);
    EXPECT_EQ(errors(), texts{});
}

TEST_F(PreservedPacket, StaysWithoutAWayToTheDataPath) {
    ipv4mc_route_entry_st *route = post();
    ASSERT_EQ(add(table, 1, 2, ifh_b), 0U);
    ASSERT_EQ(add(table, 1, 2, ifh_c), 0U);
    ipv4mc_desc->im_context = nullptr;
    EXPECT_EQ(ip6mc_signal_remove_route_pak_mutex(table, &s, &g, 2), 0U);
    EXPECT_EQ(errors(), texts{text("%s: Invalid IPv4 ifmgr context for %s", tag.c_str(), key)});
    EXPECT_EQ(route->preserved_pak, pak);
    EXPECT_EQ(interfaces(route), 2U);
    ipv4mc_desc->im_context = manager;
    const uint16_t protocol = std::exchange(ipv4mc_desc->protocol, uint16_t{0});
    EXPECT_EQ(ip6mc_signal_remove_route_pak_mutex(table, &s, &g, 2), 0U);
    ipv4mc_desc->protocol = protocol;
    EXPECT_EQ(errors(), texts{text("%s: Invalid IPv4 protocol and caps for %s", tag.c_str(), key)});
    ASSERT_EQ(add(table, 1, 2, ifh_c), 0U);
    const uint16_t caps = std::exchange(ipv4mc_desc->caps, uint16_t{0});
    EXPECT_EQ(ip6mc_signal_remove_route_pak_mutex(table, &s, &g, 2), 0U);
    ipv4mc_desc->caps = caps;
    EXPECT_EQ(errors(), texts{text("%s: Invalid IPv4 protocol and caps for %s", tag.c_str(), key)});
    EXPECT_EQ(route->preserved_pak, pak);
    EXPECT_EQ(records.size(), 0U);
    EXPECT_EQ(interfaces(route), 1U);
}

TEST_F(PreservedPacket, AMutexThatDoesNotComeBackIsReportedAndTheWorkGoesOn) {
    post();
    std::unique_ptr<no_lock> full;
    meanwhile = [&] { full = std::make_unique<no_lock>(); };
    ASSERT_EQ(ip6mc_shmwin_mutex_lock("test", 1), 0U);
    EXPECT_EQ(ip6mc_signal_remove_route_pak(table, &s, &g, 2), 0U);
    full.reset();
    const texts said = errors();
    EXPECT_TRUE(has(said, text("%s: Cannot lock shmwin_mutex %s: %s", tag.c_str(), key,
                               cerr_strerror(ENOLCK))));
    EXPECT_TRUE(has(said, text("%s: Datapath error while freeing reserved packet in %s: %s",
                               tag.c_str(), key, cerr_strerror(ENOLCK))));
    EXPECT_EQ(route_of(table, 1, 2), nullptr);
}

TEST_F(PreservedPacket, AMutexThatIsNotHeldIsReportedAndTheCallIsMade) {
    post();
    EXPECT_EQ(ip6mc_signal_remove_route_pak(table, &s, &g, 2), 0U);
    EXPECT_TRUE(has(errors(), text("%s: Cannot Unlock shmwin_mutex %s: %s", tag.c_str(), key,
                                   cerr_strerror(EPERM))));
    EXPECT_EQ(records.size(), 1U);
    ip6mc_shmwin_mutex_unlock();
}

TEST_F(PreservedPacket, ARouteThatGoesMeanwhileIsNotTouched) {
    post();
    meanwhile = [&] { EXPECT_EQ(ip6mc_signal_remove_mutex(table, &s, &g, ifh_a), 0U); };
    EXPECT_EQ(ip6mc_signal_remove_route_pak_mutex(table, &s, &g, 2), 0U);
    EXPECT_EQ(route_of(table, 1, 2), nullptr);
    // Made anew in the same place, with a packet of its own: that one stays.
    post();
    meanwhile = [&] {
        meanwhile = nullptr;
        EXPECT_EQ(ip6mc_signal_remove_mutex(table, &s, &g, ifh_a), 0U);
        post();
    };
    EXPECT_EQ(ip6mc_signal_remove_route_pak_mutex(table, &s, &g, 2), 0U);
    ASSERT_NE(route_of(table, 1, 2), nullptr);
    EXPECT_EQ(route_of(table, 1, 2)->preserved_pak, pak);
    EXPECT_EQ(faults(table), "");
}

TEST_F(PreservedPacket, AHeldPacketMutexIsReported) {
    post();
    ipv6_mlib_pak_client_mutex_lock("packet path", 9);
    EXPECT_EQ(ip6mc_signal_remove_route_pak_mutex(table, &s, &g, 0), 0U);
    const texts said = errors();
    ASSERT_EQ(said.size(), 1U);
    EXPECT_TRUE(said[0].ends_with("] Mult lock count 1 (packet path/9)")) << said[0];
    ipv6_mlib_pak_client_mutex_unlock("packet path", 10);
}

TEST_F(PreservedPacket, AFailureIsALineAndTheResult) {
    post();
    ip6mc_gtrie_reset_handle_db(0);
    EXPECT_EQ(ip6mc_signal_remove_route_pak_mutex(table, &s, &g, 0), unsigned{EFAULT});
    EXPECT_TRUE(has(signal_lines(), text("%s: Error deleting signal route %s: %s", tag.c_str(), key,
                                         cerr_strerror(EFAULT))));
    EXPECT_TRUE(has(errors(), text("%s: Cannot remove signal %s %s: %s. Continuing...", tag.c_str(),
                                   key, "Er0x00000010", cerr_strerror(EFAULT))));
}

TEST_F(PreservedPacket, AllOfATableGoWithTheirRoutes) {
    for (uint32_t n = 1; n <= 5; ++n)
        post(n);
    EXPECT_EQ(ip6mc_signal_remove_all_routes(table, 2, 2), 0U);
    EXPECT_EQ(records.size(), 5U);
    EXPECT_EQ(table->signal_route_count, 0U);
    EXPECT_TRUE(
        has(signal_lines(), tag + ": Successfuly deleted all signals and preserved packets"));
}

TEST_F(PreservedPacket, WithoutAConnectionTheDataPathIsNotCalled) {
    ipv4mc_desc->im_context = nullptr;
    EXPECT_EQ(ipv4mc_intf_dpc(0, IPV4MC_DPC_PAK_DROP, 0, nullptr, 0, 0), unsigned{EINVAL});
    EXPECT_TRUE(has(heard->lines(IPV4_DEBUG_IDB),
                    "Multicast Library IM connection not initialized - cannot execute DPC"));
}

}  // namespace
