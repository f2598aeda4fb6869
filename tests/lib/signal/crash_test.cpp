// A client is killed at its journaled stores, one after the other, while it posts and removes.
#include <csignal>

#include "tests/kit/child.h"
#include "tests/lib/signal/fixture.h"

namespace {

using namespace signals;

int left = 0;

void count_down() {
    if (--left == 0)
        raise(SIGKILL);
}

// 0 when it got through.
int work_until(const kit::post &parent, int store, bool remove) {
    parent.hear();
    if (kit::start_library({.attach_only = 1}) != 0)
        return 1;
    ipv4mc_table_st *table = ip6mc_table_lookup_by_tbl_id(tid);
    if (table == nullptr)
        return 2;
    left = store;
    mfwd6::journal::crash_hook = count_down;
    const ip_maddr_st s = source(1);
    const ip_maddr_st g = group(1);
    const cerrno rc =
        remove ? ip6mc_signal_remove_mutex(table, &s, &g, ifh_a) : add(table, 1, 1, ifh_a);
    mfwd6::journal::crash_hook = nullptr;
    return rc != 0 ? 3 : ip6mc_lib_terminate(1, IPV4MC_TERMINATE_END) != 0 ? 4 : 0;
}

// Posts and takes back a signal of a route of its own.
cerrno mark_another(ipv4mc_table_st *table) {
    const ip_maddr_st s = source(3);
    const ip_maddr_st g = group(3);
    const cerrno rc = add(table, 3, 3, ifh_a);
    return rc != 0 ? rc : ip6mc_signal_remove_mutex(table, &s, &g, ifh_a);
}

// A fresh client for each store, in batches, until one gets through.
void run(bool remove) {
    constexpr int batch = 24;
    bool through = false;
    for (int first = 1; !through; first += batch) {
        ASSERT_LT(first, 100000);
        kit::run_dir dir;
        std::vector<std::unique_ptr<kit::child>> clients;
        for (int i = 0; i < batch; ++i) {
            const int store = first + i;
            clients.push_back(
                std::make_unique<kit::child>([store, remove](const kit::post &parent) {
                    return work_until(parent, store, remove);
                }));
        }
        sim_reset();
        kit::library owner;
        ipv4mc_table_st *table = make_table();
        ASSERT_NE(table, nullptr);
        ipv4mc_route_entry_st *other = nullptr;
        ASSERT_EQ(add(table, 2, 2, ifh_a, &other), 0U);  // the trie has more than the one leaf
        ASSERT_EQ(ipv4mc_changelist_remove_route(other), 0U);
        for (auto &client : clients) {
            if (remove) {
                ASSERT_EQ(add(table, 1, 1, ifh_a), 0U);
            }
            ipv4mc_desc->shmwin_info->changed_route_wake = 0;
            client->tell();
            const int code = client->wait();
            ASSERT_TRUE(code == 0 || code == 128 + SIGKILL) << code;
            through = code == 0;
            const bool there = route_of(table, 1, 1) != nullptr;  // takes the mutex from the dead
            ASSERT_EQ(table->signal_route_count, there ? 2U : 1U);
            ASSERT_EQ(changed().size(), there ? 1U : 0U);
            ASSERT_EQ(faults(table), "");
            ASSERT_TRUE(!through || there != remove);
            const ip_maddr_st s = source(1);
            const ip_maddr_st g = group(1);
            if (there && !remove) {
                // If the dead one has not woken the reader, this does.
                ASSERT_EQ(mark_another(table), 0U);
                ASSERT_EQ(ipv4mc_desc->shmwin_info->changed_route_wake, 1);
                ASSERT_EQ(ipv4mc_desc->shmwin_info->changed_route_due, 0);
            }
            if (there) {
                ASSERT_EQ(ip6mc_signal_remove_mutex(table, &s, &g, ifh_a), 0U);
            }
            ASSERT_EQ(faults(table), "");
            if (through)
                break;
        }
    }
}

TEST(SignalCrash, APosterIsKilledAnywhere) {
    run(false);
}

TEST(SignalCrash, ARemoverIsKilledAnywhere) {
    run(true);
}

}  // namespace
