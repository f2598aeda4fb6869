// The owner is killed at each journaled store of each operation on routes and their interfaces. The next
// owner must find lists, trees and counts whole; what was not committed may be left over, detached.
#include <sys/wait.h>
#include <unistd.h>

#include "services/gtrie/gtrie.h"
#include "services/journal/journal.h"
#include "services/window/inspect.h"
#include "tests/kit/child.h"
#include "tests/lib/routes/bed.h"

using namespace bed;

namespace {

constexpr uint32_t tid = 0xe0000005;
constexpr ifhtype wan = 0x100;
constexpr ifhtype lan = 0x200;
constexpr int killed = 43;

int points_left = 0;

void die_at_point() {
    if (--points_left == 0) {
        _exit(killed);
    }
}

void start() {
    platform_info_t info{};
    platform_info_defaults(&info);
    info.router_type = 0;
    platform_info_set(&info);
    if (kit::start_library() != 0) _exit(90);
    start_interfaces();
}

const intf_key on_wan{IPV4MC_INTF_ORDINARY, wan, 0, 0};
const intf_key on_lan{IPV4MC_INTF_ORDINARY, lan, 0, 0};

// A route with one interface stands there before: (S, ff3e::1) on `wan`.
void prepare() {
    auto *route = add(make_table(tid, 0x60000006, "red"), sg(1));
    join(route, on_wan);
}

ipv4mc_table_st *table() { return ip6mc_table_lookup_by_tbl_id(tid); }

struct operation {
    const char *name;
    void (*work)();
};

const operation operations[] = {
    {"a new route with two interfaces",
     [] {
         auto *route = create(table(), sg(2));
         join(route, on_wan);
         join(route, on_lan);
         commit(table(), route, 1);
     }},
    {"an interface more on a route that is there",
     [] {
         auto *route = find(table(), sg(1));
         join(route, on_lan);
     }},
    {"an address and attributes on a route that is there",
     [] {
         ipv4mc_route_entry_st *route = nullptr;
         int is_new = 0;
         const ip_maddr_st aux = address("2001:db8:aaaa:bbbb:aaaa:bbbb:aaaa:bbbb");
         operate(IPV4MC_ACTION_CREATE, table(), sg(1), &route, &is_new, 0, &aux);
         commit(table(), route, 0);
         operate(15, table(), sg(1), &route, &is_new);
         route->rate_per_route = 1;
         operate(16, table(), sg(1), &route, &is_new);
     }},
    {"an interface that goes", [] { intf_operate(IPV4MC_ACTION_DELETE, find(table(), sg(1)), on_wan, nullptr, 0); }},
    {"an entry that moves to another interface",
     [] {
         auto *route = find(table(), sg(1));
         join(route, {IPV4MC_INTF_AMT, wan, 7, 7});
         ipv4mc_intf_entry_st *entry = nullptr;
         intf_operate(IPV4MC_ACTION_CREATE, route, {IPV4MC_INTF_AMT, lan, 7, 7}, &entry, 0);
     }},
    {"a commit that the platform refuses",
     [] {
         auto *route = find(table(), sg(1));
         ipv4mc_intf_entry_st *entry = nullptr;
         intf_operate(IPV4MC_ACTION_CREATE, route, on_lan, &entry, 1);
         sim_arm_fault(SIM_OP_INTF, IPV4MC_ACTION_COMMIT, 0, 1, 5);
         intf_operate(IPV4MC_ACTION_COMMIT, route, on_lan, &entry, 1);
     }},
};

int fail(const char *what) {
    fprintf(stderr, "next owner: %s\n", what);
    return 1;
}

// What the next owner finds. Two things may be left over, of a route or entry between CREATE and COMMIT:
// a detached leaf, with those of its entries that joined it (they stand on their interfaces and are whole),
// and one detached entry that stands nowhere.
int verify() {
    start();
    char why[256] = {};
    if (shmwin_check_heap(ipv4mc_desc->shmwin_id, why, sizeof(why)) != 0) return fail(why);
    const char *trie = ip6mc_gtrie_verify(table()->ingress_gtrie);
    if (trie != nullptr) return fail(trie);
    uint32_t reached = 0;  // entries on interfaces, and the one that has moved
    for (const uint32_t n : {1U, 2U}) {
        ipv4mc_route_entry_st *route = find(table(), sg(n));
        if (route == nullptr) {
            if (n == 1) return fail("the route from before is gone");
            continue;
        }
        const std::string interfaces = check_interfaces(route);
        if (!interfaces.empty()) return fail(interfaces.c_str());
        for (const auto *entry = route->intf_list; entry != nullptr; entry = entry->next_intf) {
            const bool moved = entry->intf_type == IPV4MC_INTF_AMT && entry->ifh == lan;
            if ((entry->on_idb_list == 0) != moved) return fail("an entry of a route is on no interface");
            reached += moved ? 1 : 0;
        }
        const ip_maddr_st none{};
        const ip_maddr_st whole = address("2001:db8:aaaa:bbbb:aaaa:bbbb:aaaa:bbbb");
        if (memcmp(&route->aux_addr, &none, sizeof(none)) != 0 && memcmp(&route->aux_addr, &whole, sizeof(none)) != 0) {
            return fail("half an address");
        }
    }
    for (const ifhtype ifh : {wan, lan}) {
        ipv4mc_idb_st *idb = nullptr;
        ip6mc_idb_lookup(ifh, &idb);
        if (idb == nullptr) continue;
        const std::string list = check_idb(idb);
        if (!list.empty()) return fail(list.c_str());
        if (idb->refcount != idb->route_count) return fail("references and routes of an interface");
        if (idb->refcount == 0) return fail("an interface that nobody holds");
        reached += idb->route_count;
    }
    const uint32_t live = ipv4mc_desc->shmwin_info->alloc_count[IPMC_SHMWIN_ALLOC_INTF];
    if (live > reached + 1) return fail("more than one detached entry");
    // The owner goes on working.
    auto *route = add(table(), sg(3));
    join(route, on_lan);
    if (!check_interfaces(route).empty()) return fail("work after the restart");
    return 0;
}

}  // namespace

TEST(RoutesOfAKilledOwner, AreWholeAfterEveryStore) {
    for (const operation &op : operations) {
        SCOPED_TRACE(op.name);
        int points = 0;
        for (int point = 1;; ++point) {
            kit::run_dir dir;
            kit::child owner([&](const kit::post &) {
                start();
                prepare();
                points_left = point;
                mfwd6::journal::crash_hook = die_at_point;
                op.work();
                mfwd6::journal::crash_hook = nullptr;
                return 0;
            });
            const int end = owner.wait();
            ASSERT_TRUE(end == 0 || end == killed) << end;
            kit::child next([&](const kit::post &) { return verify(); });
            ASSERT_EQ(next.wait(), 0) << "killed at store " << point;
            if (end == 0) {
                points = point - 1;
                break;
            }
            // Past the first hundred stores each third one: the whole of it is a campaign.
            if (point > 100) point += 2;
        }
        printf("%s: %d crash points\n", op.name, points);
        EXPECT_GT(points, 20);
    }
}

// A client reads beside an owner that adds and commits: what it finds is whole.
TEST(RoutesOfALiveOwner, AreNeverSeenHalfMade) {
    kit::run_dir dir;
    constexpr uint32_t count = 2000;
    kit::child owner([&](const kit::post &parent) {
        start();
        auto *made = make_table(tid, 0x60000006, "red");
        parent.tell('r');
        parent.hear();
        for (uint32_t n = 1; n <= count; ++n) {
            auto *route = create(made, sg(n));
            route->attributes = 0x5500;
            join(route, on_wan, 0x700);
            join(route, on_lan, 0x700);
            commit(made, route, 1);
            join(route, {IPV4MC_INTF_ORDINARY, 0x300, 0, 0}, 0x700);
        }
        parent.tell('d');
        parent.hear();
        return 0;
    });
    ASSERT_EQ(owner.hear(), 'r');
    kit::child client([&](const kit::post &parent) {
        kit::start how;
        how.attach_only = 1;
        if (kit::start_library(how) != 0) return 2;
        auto *seen = table();
        if (seen == nullptr) return 3;
        parent.tell('r');
        uint32_t found = 0;
        uint32_t next = 1;
        while (next <= count) {
            ipv4mc_route_entry_st *route = nullptr;
            const key k = sg(next);
            if (operate(IPV4MC_ACTION_EXACT_LOOKUP, seen, k, &route, nullptr) != 0) return 4;
            if (route == nullptr) continue;
            ++next;
            ++found;
            if (route->attributes != 0x5500 || route->table != seen) return 5;
            if (memcmp(&route->group, &k.group, sizeof(k.group)) != 0) return 6;
            uint32_t intfs = 0;
            for (auto *entry = ip6mc_get_first_intf(route, MRIB_INTF_ANY); entry != nullptr;
                 entry = ip6mc_get_next_intf(route, entry, MRIB_INTF_ANY)) {
                if (entry->attributes != 0x700 || entry->route != route) return 7;
                ++intfs;
            }
            if (intfs < 2 || intfs > 3) return 8;
            if (ip6mc_intf_route_lookup(route, 0, wan, 0, 0) == nullptr) return 9;
        }
        return found == count ? 0 : 10;
    });
    ASSERT_EQ(client.hear(), 'r');
    owner.tell();
    EXPECT_EQ(client.wait(), 0);
    EXPECT_EQ(owner.hear(), 'd');
    owner.tell();
    EXPECT_EQ(owner.wait(), 0);
}
