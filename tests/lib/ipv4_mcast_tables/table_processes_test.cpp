// An owner that makes and deletes tables, and clients that look them up beside it, all of them real
// processes.
#include <sys/wait.h>

#include <atomic>
#include <csignal>
#include <random>
#include <thread>

#include "tests/kit/child.h"
#include "tests/lib/ipv4_mcast_tables/tables.h"

using namespace tables;

namespace {

// Tables 1000, 1010, ... stay for ever; those in between come and go. Only of the former a client
// may read the record: the owner may free the others at any time.
using numbers = std::minstd_rand;
constexpr uint32_t first_tid = 1000;
constexpr uint32_t staying = 40;
uint32_t tid_of(uint32_t i) {
    return first_tid + i * 10;
}
uint32_t vrf_id_of(uint32_t tid) {
    return tid + 0x10000;
}
std::string name_of(uint32_t tid) {
    return "vrf-" + std::to_string(tid);
}

bool make(uint32_t tid) {
    ipv4mc_table_st *table = nullptr;
    return operate(9, tid, vrf_id_of(tid), name_of(tid).c_str(), &table) == 0;
}

// Each side by itself: an owner that died may have left one of them only.
bool remove(uint32_t tid) {
    ipv4mc_table_st *table = ip6mc_table_lookup_by_tbl_id(tid);
    if (table != nullptr && operate(4, 0, 0, nullptr, &table) != 0) {
        return false;
    }
    table = find(0, name_of(tid).c_str());
    return table == nullptr || operate(4, 0, 0, nullptr, &table) == 0;
}

bool make_staying() {
    for (uint32_t i = 0; i < staying; ++i) {
        if (!make(tid_of(i)))
            return false;
    }
    return true;
}

// Makes and deletes tables between those that stay, telling of each round, until told to stop.
int churn(const kit::post &parent, unsigned seed, uint32_t rounds) {
    numbers random(seed);
    for (uint32_t round = 0; round < rounds; ++round) {
        const uint32_t tid = first_tid + static_cast<uint32_t>(random()) % (staying * 10);
        if (tid % 10 == 0)
            continue;
        if (ip6mc_table_lookup_by_tbl_id(tid) != nullptr ||
            find(0, name_of(tid).c_str()) != nullptr) {
            if (!remove(tid))
                return 11;
            if (ip6mc_table_lookup_by_tbl_id(tid) != nullptr)
                return 12;
        } else if (!make(tid)) {
            return 13;
        }
        if (round % 16 == 0)
            parent.tell();
    }
    return faults().empty() ? 0 : 14;
}

const char *wrong_vrf(const ipv4mc_table_st *vrf, uint32_t tid) {
    if (vrf == nullptr)
        return "VRF table not found";
    if (vrf->table_type != IPV4MC_TABLE_VRF || vrf->vrf_id != vrf_id_of(tid) ||
        name_of(tid) != vrf->vrf_name)
        return "VRF keys";
    if (vrf->active != 1 || vrf->mtu != 9000 || vrf->table_limit != -1)
        return "VRF record";
    const ipv4mc_table_st *other = vrf->tid_table;
    if (other == nullptr || other->tid != tid || other->vtable != vrf ||
        ip6mc_table_is_valid(vrf) == 0)
        return "VRF link";
    return nullptr;
}

const char *wrong_tid(const ipv4mc_table_st *table, uint32_t tid) {
    if (table == nullptr)
        return "TID table not found";
    if (table->table_type != IPV4MC_TABLE_TID || table->tid != tid || table->active != 1)
        return "TID record";
    return wrong_vrf(table->vtable, tid);
}

// One round of lookups of everything that stays; what is wrong, or null. Searches by table id share
// a key in the process: `by_tid` in one thread only.
const char *look_round(numbers &random, bool by_tid) {
    const uint32_t i = static_cast<uint32_t>(random()) % staying;
    const uint32_t tid = tid_of(i);
    if (const char *wrong = wrong_vrf(find(vrf_id_of(tid), nullptr), tid))
        return wrong;
    if (const char *wrong = wrong_vrf(find(0, name_of(tid).c_str()), tid))
        return wrong;
    if (find(0xdead, nullptr) != nullptr || find(0, "nobody") != nullptr)
        return "found what is not there";
    if (!by_tid)
        return nullptr;
    if (const char *wrong = wrong_tid(ip6mc_table_lookup_by_tbl_id(tid), tid))
        return wrong;
    if (const char *wrong = wrong_tid(ip6mc_table_tid_get_next_eq(tid), tid))
        return wrong;
    if (const char *wrong = wrong_tid(ip6mc_table_tid_get_first(), first_tid))
        return wrong;
    if (ip6mc_table_lookup_by_tbl_id(7) != nullptr)
        return "found what is not there";
    if (i + 1 < staying && ip6mc_table_tid_get_next(tid) == nullptr)
        return "walk cut short";
    if (i + 1 == staying && ip6mc_table_tid_get_next(tid + 9) != nullptr)
        return "walk past the end";
    return nullptr;
}

// An attached client that looks until told to stop, on two threads.
int look(const kit::post &parent, unsigned seed, int sharing) {
    ip6mc_gtrie_set_sharing(sharing);
    kit::start how;
    how.attach_only = 1;
    if (kit::start_library(how) != 0)
        return 20;
    std::atomic<bool> stop = false;
    std::atomic<const char *> wrong = nullptr;
    std::atomic<uint64_t> rounds = 0;
    const auto work = [&](unsigned thread) {
        numbers random(seed + thread);
        while (!stop && wrong == nullptr) {
            if (const char *found = look_round(random, thread == 0))
                wrong = found;
            ++rounds;
        }
    };
    std::thread first(work, 0);
    std::thread second(work, 1);
    parent.tell('r');
    parent.hear();
    stop = true;
    first.join();
    second.join();
    if (wrong != nullptr)
        fprintf(stderr, "client: %s\n", wrong.load());
    ip6mc_lib_terminate(1, IPV4MC_TERMINATE_END);
    return wrong != nullptr ? 21 : rounds == 0 ? 22 : 0;
}

int own(const kit::post &parent, unsigned seed, uint32_t rounds, int sharing) {
    ip6mc_gtrie_set_sharing(sharing);
    if (kit::start_library() != 0)
        return 1;
    if (!faults().empty()) {
        fprintf(stderr, "owner: %s\n", faults().c_str());
        return 2;
    }
    if (!make_staying())
        return 3;
    parent.tell('r');
    return churn(parent, seed, rounds);
}

class TableProcesses : public testing::TestWithParam<int> {};
INSTANTIATE_TEST_SUITE_P(, TableProcesses, testing::Values(0, 1), sharing_name);

TEST_P(TableProcesses, ClientsFindWhatStaysWhileTablesComeAndGo) {
    kit::run_dir dir;
    kit::child owner([](const kit::post &parent) {
        const int sharing = GetParam();
        ip6mc_gtrie_set_sharing(sharing);
        if (kit::start_library() != 0 || !make_staying())
            return 1;
        parent.tell('r');
        parent.hear();  // clients look
        return churn(parent, 1, 4000);
    });
    ASSERT_EQ(owner.hear(), 'r');
    kit::child one([](const kit::post &parent) { return look(parent, 2, GetParam()); });
    kit::child two([](const kit::post &parent) { return look(parent, 3, GetParam()); });
    ASSERT_EQ(one.hear(), 'r');
    ASSERT_EQ(two.hear(), 'r');
    owner.tell();
    while (owner.hear() != 0) {
    }
    EXPECT_EQ(owner.wait(), 0);
    one.tell();
    two.tell();
    EXPECT_EQ(one.wait(), 0);
    EXPECT_EQ(two.wait(), 0);
}

TEST_P(TableProcesses, ClientsOutliveOwnersThatAreKilledAnywhere) {
    kit::run_dir dir;
    numbers random(4);
    auto owner = std::make_unique<kit::child>(
        [](const kit::post &parent) { return own(parent, 5, UINT32_MAX, GetParam()); });
    ASSERT_EQ(owner->hear(), 'r');
    kit::child one([](const kit::post &parent) { return look(parent, 6, GetParam()); });
    kit::child two([](const kit::post &parent) { return look(parent, 7, GetParam()); });
    ASSERT_EQ(one.hear(), 'r');
    ASSERT_EQ(two.hear(), 'r');
    for (unsigned life = 0; life < 25; ++life) {
        for (uint32_t heard = static_cast<uint32_t>(random()) % 8; heard > 0; --heard) {
            ASSERT_EQ(owner->hear(), '.');
        }
        for (uint32_t spin = static_cast<uint32_t>(random()) % 200'000; spin > 0; --spin) {
            asm volatile("");
        }
        owner->kill();
        owner = std::make_unique<kit::child>([life](const kit::post &parent) {
            return own(parent, 100 + life, UINT32_MAX, GetParam());
        });
        ASSERT_EQ(owner->hear(), 'r') << "life " << life << ": " << owner->wait();
    }
    owner->kill();
    one.tell();
    two.tell();
    EXPECT_EQ(one.wait(), 0);
    EXPECT_EQ(two.wait(), 0);
}

}  // namespace
