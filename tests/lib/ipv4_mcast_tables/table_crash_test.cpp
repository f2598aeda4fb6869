// The owner is killed around every journaled store of the table operation; the next one finds a
// whole window and repeats the operation.
#include <csignal>
#include <cstdlib>

#include "services/journal/journal.h"
#include "tests/kit/child.h"
#include "tests/lib/ipv4_mcast_tables/tables.h"

using namespace tables;

namespace {

uint64_t points_left = 0;

void count_down() {
    if (--points_left == 0) {
        raise(SIGKILL);
    }
}

struct operation {
    const char *name;
    void (*before)();
    cerrno (*work)();
    bool deletes;
};

cerrno activate(uint32_t tid, uint32_t vrf_id = 6, const char *name = "red") {
    ipv4mc_table_st *table = nullptr;
    return operate(9, tid, vrf_id, name, &table);
}

// By all the keys that there are, as a client that starts anew would.
cerrno end_red(ipv4mc_action_type action) {
    ipv4mc_table_st *tid = ip6mc_table_lookup_by_tbl_id(5);
    ipv4mc_table_st *vrf = find(6, "red");
    ipv4mc_table_st *given = vrf != nullptr ? vrf : tid;
    if (given == nullptr) {
        return 0;
    }
    return operate(action, tid != nullptr ? 5 : 0, vrf != nullptr ? 6 : 0,
                   vrf != nullptr ? "red" : "", &given);
}

const operation operations[] = {
    {"create", [] {},
     [] {
         ipv4mc_table_st *t = nullptr;
         return operate(3, 0, 6, "red", &t);
     },
     false},
    {"create an orphan", [] {},
     [] {
         ipv4mc_table_st *t = nullptr;
         return operate(3, 5, 0, nullptr, &t);
     },
     false},
    {"activate", [] {}, [] { return activate(5); }, false},
    {"activate behind the VRF side",
     [] {
         ipv4mc_table_st *t = nullptr;
         operate(3, 0, 6, "red", &t);
     },
     [] { return activate(5); }, false},
    {"reactivate with a new id", [] { activate(5), end_red(10); }, [] { return activate(7); },
     false},
    {"deactivate", [] { activate(5); }, [] { return end_red(10); }, false},
    {"delete", [] { activate(5); }, [] { return end_red(4); }, true},
    {"clear", [] { activate(5); }, [] { return end_red(6); }, false},
};

class TableCrash : public testing::TestWithParam<int> {};
INSTANTIATE_TEST_SUITE_P(, TableCrash, testing::Values(0, 1), sharing_name);

// Killed at its n-th point; false when it came to its end first.
bool killed_at(uint64_t point, const operation &what, int sharing) {
    kit::child owner([&](const kit::post &) {
        ip6mc_gtrie_set_sharing(sharing);
        if (kit::start_library() != 0)
            return 1;
        activate(100, 101, "other");
        what.before();
        points_left = point;
        mfwd6::journal::crash_hook = count_down;
        const cerrno rc = what.work();
        mfwd6::journal::crash_hook = nullptr;
        return rc == 0 ? 0 : 2;
    });
    const int code = owner.wait();
    EXPECT_TRUE(code == 0 || code == 128 + SIGKILL) << what.name << " " << code;
    return code == 128 + SIGKILL;
}

// What the next owner finds wrong.
std::string look(const operation &what) {
    std::string wrong = faults();
    if (!wrong.empty())
        return "found: " + wrong;
    if (what.work() != 0)
        return "not repeated";
    wrong = faults();
    if (!wrong.empty())
        return "repeated: " + wrong;
    if (what.deletes && (find(0, "red") != nullptr || ip6mc_table_lookup_by_tbl_id(5) != nullptr))
        return "not deleted";
    if (activate(5) != 0 || ip6mc_table_is_valid(find(6, nullptr)) == 0)
        return "not usable";
    if (ip6mc_table_is_valid(find(101, nullptr)) == 0 || find(0, "other") != find(101, nullptr))
        return "other table";
    while (ipv4mc_table_st *tid = ip6mc_table_tid_get_first()) {
        if (operate(4, 0, 0, nullptr, &tid) != 0)
            return "not drained";
    }
    if (find(0, "red") != nullptr || find(0, "other") != nullptr)
        return "VRF side left";
    wrong = faults();
    if (!wrong.empty())
        return "drained: " + wrong;
    // The search key of the dead owner is all that may be left over.
    counts left = live_blocks();
    for (uint32_t type : {8U, 9U, 12U, 21U, 22U, 23U}) {
        if (type == IPMC_SHMWIN_ALLOC_GTRIE_NODE || type == IPMC_SHMWIN_ALLOC_GTRIE_INDEX ||
            type == IPMC_SHMWIN_ALLOC_GTRIE_HANDLE)
            continue;
        if (left[type] != 0)
            return "blocks of type " + std::to_string(type);
    }
    return left[IPMC_SHMWIN_ALLOC_AVL] <= 3 ? "" : "objects of the tree of table ids";
}

TEST_P(TableCrash, TheNextOwnerFindsAWholeWindowAndRepeats) {
    const char *step_text = getenv("MFWD6_CRASH_STEP");  // 1: every point
    const uint64_t step = step_text != nullptr ? strtoull(step_text, nullptr, 10) : 7;
    for (const operation &what : operations) {
        uint64_t points = 0;
        for (uint64_t point = 1;; point += step) {
            kit::run_dir dir;
            if (!killed_at(point, what, GetParam()))
                break;
            kit::child next([&](const kit::post &) {
                ip6mc_gtrie_set_sharing(GetParam());
                if (kit::start_library() != 0) {
                    fprintf(stderr, "%s: point %lu: no start\n", what.name, point);
                    return 1;
                }
                const std::string wrong = look(what);
                if (!wrong.empty()) {
                    fprintf(stderr, "%s: point %lu: %s\n", what.name, point, wrong.c_str());
                    return 2;
                }
                return ip6mc_lib_terminate(0, IPV4MC_TERMINATE_END) == 0 ? 0 : 3;
            });
            ASSERT_EQ(next.wait(), 0) << what.name << " at point " << point;
            ++points;
        }
        EXPECT_GT(points, 5U) << what.name;
        printf("%s: killed at %lu points\n", what.name, points);
    }
}

}  // namespace
