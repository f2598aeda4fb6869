// Beside an owner that works, nothing is found; what is really wrong is found all the same.
#include <atomic>
#include <random>

#include "tests/apps/check/rich_state.h"

using mfwd6::check::check_window;
using mfwd6::check::report;

namespace {

int work(const kit::post &parent) {
    kit::library library;
    bed::start_interfaces();
    ipv4mc_table_st *table = bed::make_table(5, 6, "red");
    std::mt19937 random(3);
    parent.tell();
    for (;;) {
        const bed::key k = bed::sg(static_cast<uint32_t>(random() % 300));
        ipv4mc_route_entry_st *route = nullptr;
        int is_new = 0;
        bed::operate(IPV4MC_ACTION_CREATE, table, k, &route, &is_new);
        if (is_new == 0) {
            rig::erase(table, route);
            continue;
        }
        for (ifhtype ifh = 1; ifh < 4; ++ifh) {
            ipv4mc_intf_entry_st *entry = nullptr;
            bed::intf_operate(IPV4MC_ACTION_CREATE, route, {0, ifh, 0, 0}, &entry, 1);
            bed::intf_operate(IPV4MC_ACTION_COMMIT, route, {0, ifh, 0, 0}, &entry, 1);
        }
        bed::commit(table, route, 1);
    }
}

}  // namespace

TEST(CheckBesideAnOwner, FindsNothingThatIsOnlyInMotion) {
    kit::run_dir dir;
    kit::child owner(work);
    ASSERT_EQ(owner.hear(), '.');
    kit::start how;
    how.attach_only = 1;
    kit::library client(how);
    mfwd6::check::options live;
    live.live = true;
    live.rounds = 12;
    live.pause_ms = 15;
    uint64_t routes = 0;
    for (int n = 0; n < 20; ++n) {
        usleep(10'000);
        const report found = check_window(live);
        EXPECT_TRUE(found.clean()) << rich::lines(found);
        EXPECT_TRUE(found.orphans.empty()) << rich::lines(found);
        const auto walked = found.walked.find("route");
        routes += walked != found.walked.end() ? walked->second : 0;
    }
    EXPECT_GT(routes, 500U);
    owner.kill();
}

TEST(CheckBesideAnOwner, FindsWhatIsWrong) {
    kit::run_dir dir;
    kit::child owner(work);
    ASSERT_EQ(owner.hear(), '.');
    kit::start how;
    how.attach_only = 1;
    kit::library client(how);
    ipv4mc_table_st *table = ip6mc_table_lookup_by_tbl_id(5);
    ASSERT_NE(table, nullptr);
    table->vtable->table_type = IPV4MC_TABLE_TID;
    mfwd6::check::options live;
    live.live = true;
    live.pause_ms = 3;
    const report found = check_window(live);
    ASSERT_EQ(found.findings.size(), 1U) << rich::lines(found);
    EXPECT_EQ(found.findings[0].field, "table_type");
    owner.kill();
}
