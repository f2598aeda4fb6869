// Sound windows have no findings, and the report counts what is there.
#include <nlohmann/json.hpp>

#include "tests/apps/check/rich_state.h"

using mfwd6::check::check_window;
using mfwd6::check::report;

TEST(Check, AProcessWithoutAWindowGetsAFindingThatSaysSo) {
    const report found = check_window();
    ASSERT_EQ(found.findings.size(), 1U);
    EXPECT_EQ(to_string(found.findings[0]), "window: this process has no window open");
    EXPECT_FALSE(found.clean());
}

TEST(Check, ANewWindowIsClean) {
    kit::run_dir dir;
    kit::library owner;
    const report found = check_window();
    EXPECT_TRUE(found.clean()) << rich::lines(found);
    EXPECT_TRUE(found.leftovers.empty() && found.orphans.empty()) << rich::lines(found);
    EXPECT_EQ(found.search_keys, 1U);
    EXPECT_EQ(found.owner, static_cast<uint32_t>(getpid()));
    EXPECT_EQ(found.processes, 1U);
}

TEST(Check, AWindowWithSomethingOfEverythingIsClean) {
    rich::state state;
    const report found = check_window();
    EXPECT_EQ(rich::lines(found), "");
    const auto walked = [&](const char *record) { return found.walked.at(record); };
    EXPECT_EQ(walked("VRF table"), 4U);
    EXPECT_EQ(walked("table"), 3U);
    EXPECT_EQ(walked("route"), 2U + 400U + 2U + 3U + 2U);
    EXPECT_EQ(walked("signal route"), 3U);
    EXPECT_EQ(walked("interface entry"), 6U + 4U);
    EXPECT_EQ(walked("interface"), 5U);
    EXPECT_EQ(walked("bundle child"), 3U);
    EXPECT_EQ(walked("encap"), 2U);
    EXPECT_EQ(walked("encap leaf"), 2U);
    EXPECT_EQ(walked("transport"), 3U);
    EXPECT_EQ(walked("retry element"), 2U);
    EXPECT_EQ(walked("interface request"), 3U);
    EXPECT_EQ(walked("BVI entry"), 1U);
    EXPECT_EQ(walked("BVI tie"), 1U);
    EXPECT_EQ(walked("object id"), walked("route") + 6U);
    EXPECT_EQ(found.blocks[IPMC_SHMWIN_ALLOC_IDB].live, 5U);
}

TEST(Check, TheReportIsJson) {
    rich::state state;
    state.busy->intf_local_EG_cnt = 0;
    const nlohmann::json out = check_window();
    EXPECT_EQ(out["clean"], false);
    EXPECT_EQ(out["findings"][0]["record"], "route");
    EXPECT_EQ(out["findings"][0]["field"], "intf_local_EG_cnt");
    EXPECT_EQ(out["findings"][0]["name"], "(2001:db8::1,ff3e::1)");
    EXPECT_EQ(out["blocks"]["IDB"]["live"], 5);
    EXPECT_EQ(out["walked"]["encap"], 2);
    EXPECT_GT(out["ns"], 0);
}

TEST(Check, AWindowThatIsEmptiedStaysClean) {
    rich::state state;
    for (uint32_t n = 0; n < 200; ++n) {
        rig::erase(state.red, bed::find(state.red, bed::sg(n + 0x1000)));
    }
    const report found = check_window();
    EXPECT_EQ(rich::lines(found), "");
    uint64_t pooled = 0;
    for (const auto &each : found.blocks) {
        pooled += each.pooled;
    }
    EXPECT_GE(pooled, 1U);
}

// Counts that a killed owner leaves too high are no faults.
TEST(Check, WhatAnOwnersDeathMayLeaveIsListedApart) {
    rich::state state;
    state.busy->counted_intf_cnt = 2;
    ipv4mc_route_entry_st *detached = bed::create(state.red, bed::sg(0xfff));
    bed::join(detached, {IPV4MC_INTF_ORDINARY, 0x101, 0, 0});
    bed::create(state.red, bed::sg(0xffe));
    ipv4mc_intf_entry_st *lost = nullptr;
    bed::intf_operate(IPV4MC_ACTION_CREATE, state.busy, {IPV4MC_INTF_ORDINARY, 0x777, 0, 0}, &lost,
                      1);
    const report found = check_window();
    EXPECT_TRUE(found.clean()) << rich::lines(found);
    ASSERT_EQ(found.leftovers.size(), 4U) << rich::lines(found);
    EXPECT_EQ(found.walked.at("unpublished route"), 2U);
    ASSERT_EQ(found.orphans.size(), 1U);
    EXPECT_EQ(found.orphans[0].type, IPMC_SHMWIN_ALLOC_INTF);
    EXPECT_EQ(found.orphans[0].address, reinterpret_cast<uint64_t>(lost));
    EXPECT_EQ(found.blocks[IPMC_SHMWIN_ALLOC_INTF].orphans, 1U);
}

TEST(Check, AnAttachedClientAndAReaderWithoutAnOwnerSeeTheSame) {
    kit::run_dir dir;
    kit::child owner([](const kit::post &parent) {
        kit::library library;
        bed::start_interfaces();
        ipv4mc_table_st *table = bed::make_table(5, 6, "red");
        bed::join(bed::add(table, bed::sg(1)), {IPV4MC_INTF_ORDINARY, 0x10, 0, 0});
        parent.tell();
        parent.hear();
        return 0;
    });
    ASSERT_EQ(owner.hear(), '.');
    kit::start how;
    how.attach_only = 1;
    kit::library client(how);
    mfwd6::check::options live;
    live.live = true;
    live.pause_ms = 1;
    report found = check_window(live);
    EXPECT_EQ(rich::lines(found), "");
    EXPECT_EQ(found.processes, 2U);
    EXPECT_EQ(found.owner, static_cast<uint32_t>(owner.pid()));
    owner.kill();
    found = check_window();
    EXPECT_TRUE(found.clean()) << rich::lines(found);
    EXPECT_EQ(found.owner, 0U);
    EXPECT_EQ(found.processes, 1U);
    EXPECT_EQ(found.orphans.size(), 1U);  // the dead owner's search key
}
