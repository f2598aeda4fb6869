#include "tests/lib/signal/model.h"

#include <sys/mman.h>
#include <unistd.h>

#include <thread>

#include "tests/kit/child.h"

namespace {

using namespace signals;

class SignalModel : public with_owner {};

TEST_F(SignalModel, ARandomRunAgreesAfterEachStep) {
    table_model model;
    dice random(7);
    for (int step = 0; step < 6000; ++step) {
        const uint32_t s = 1 + random(4);
        const uint32_t g = 1 + random(4);
        const ifhtype ifh = 0x10 * (1 + random(4));
        const ip_maddr_st sa = source(s);
        const ip_maddr_st ga = group(g);
        cerrno rc = 0;
        switch (random(8)) {
            case 0:
            case 1:
                rc = add(table, s, g, ifh);
                model.add(s, g, ifh);
                break;
            case 2:
                rc = probe(table, s, g, ifh);
                model.probe(s, g, ifh);
                break;
            case 3:
            case 4:
                rc = ip6mc_signal_remove_mutex(table, &sa, &ga, ifh);
                model.remove(s, g, ifh);
                break;
            case 5:
                rc = ip6mc_signal_remove_all_mutex(table, &sa, &ga);
                model.remove_one(s, g);
                break;
            case 6:
                rc = ip6mc_signal_remove_route_pak_mutex(table, &sa, &ga, 0);
                model.remove_one(s, g);
                break;
            default:
                if (!model.changed.empty()) {
                    rc = ipv4mc_changelist_remove_route(
                        ipv4mc_desc->shmwin_info->changed_route_head);
                    model.changed.erase(model.changed.begin());
                }
        }
        if (step % 500 == 499) {
            // Takes one interface off each route.
            rc = ip6mc_signal_remove_all_routes(table, random(4), 0);
            std::vector<table_model::key> all;
            for (const auto &[k, route] : model.routes)
                all.push_back(k);
            for (const auto &k : all)
                model.remove_one(k.second, k.first);
        }
        ASSERT_EQ(rc, 0U) << step;
        ASSERT_EQ(model.differs(table), "") << step;
        heard->clear();
    }
    EXPECT_EQ(faults(table), "");
}

// What all processes of the next test see: the signals of each poster's threads.
struct shared_models {
    static constexpr uint32_t posters = 6;
    static constexpr uint32_t threads = 2;
    std::atomic<bool> stop;
    own_signals of[posters][threads];
};

constexpr ifhtype ifh_of(uint32_t poster, uint32_t thread) {
    return 0x100 * (poster + 1) + thread;
}

int post_until_told(const kit::post &parent, shared_models *all, uint32_t me) {
    parent.hear();
    if (kit::start_library({.attach_only = 1}) != 0)
        return 1;
    ipv4mc_table_st *table = ip6mc_table_lookup_by_tbl_id(tid);
    parent.tell();
    std::atomic<int> code{0};
    std::vector<std::thread> threads;
    for (uint32_t t = 0; t < shared_models::threads; ++t) {
        threads.emplace_back([&, t] {
            dice random(100 * me + t);
            while (!all->stop && code == 0) {
                if (all->of[me][t].step(table, ifh_of(me, t), random) != 0)
                    code = 2;
            }
        });
    }
    for (auto &t : threads)
        t.join();
    const cerrno rc = ip6mc_lib_terminate(1, IPV4MC_TERMINATE_END);
    return code != 0 ? code.load() : rc != 0 ? 3 : 0;
}

// The owner's part beside them: signals of its own, walks, the reader's drain.
cerrno owners_round(ipv4mc_table_st *table, own_signals *mine, dice &random) {
    cerrno rc = mine->step(table, ifh_a, random);
    const auto nothing = [](ipv4mc_table_st *, ipv4mc_route_entry_st *route, void *) {
        return route->intf_list == nullptr ? cerrno{EIO} : cerrno{0};
    };
    rc = rc != 0 ? rc : ip6mc_signal_walk(table, random(3), 0, nothing, nullptr);
    if (ip6mc_changed_routes_wait(0) == 0 && ip6mc_shmwin_mutex_lock("drain", 1) == 0) {
        while (ipv4mc_desc->shmwin_info->changed_route_head != nullptr)
            ipv4mc_changelist_remove_route(ipv4mc_desc->shmwin_info->changed_route_head);
        rc = rc != 0 ? rc : ip6mc_shmwin_mutex_unlock();
    }
    return rc;
}

// Each thread of each poster knows what it has posted, on routes that all share. Posters are killed
// at any instant: what they had done stays, the call at work is there or not, the others go on.
TEST(SignalModelProcesses, EverySignalOfEveryPosterIsThereWhoeverIsKilled) {
    kit::run_dir dir;
    void *memory = mmap(nullptr, sizeof(shared_models), PROT_READ | PROT_WRITE,
                        MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(memory, MAP_FAILED);
    auto *all = static_cast<shared_models *>(memory);
    std::vector<std::unique_ptr<kit::child>> posters;
    for (uint32_t p = 0; p < shared_models::posters; ++p) {
        posters.push_back(std::make_unique<kit::child>(
            [all, p](const kit::post &parent) { return post_until_told(parent, all, p); }));
    }
    sim_reset();
    kit::library owner;
    ipv4mc_table_st *table = make_table();
    ASSERT_NE(table, nullptr);
    for (auto &p : posters) {
        p->tell();
        ASSERT_NE(p->hear(), 0);
    }
    own_signals mine{};
    dice random(3);
    constexpr uint32_t survivors = 2;
    for (uint32_t p = shared_models::posters; p > survivors; --p) {
        const uint32_t until = all->of[p - 1][0].steps + 50 + random(100);
        while (all->of[p - 1][0].steps < until)
            ASSERT_EQ(owners_round(table, &mine, random), 0U);
        posters[p - 1]->kill();
    }
    for (int i = 0; i < 200; ++i)
        ASSERT_EQ(owners_round(table, &mine, random), 0U);
    all->stop = true;
    for (uint32_t p = 0; p < survivors; ++p)
        EXPECT_EQ(posters[p]->wait(), 0);
    for (uint32_t p = 0; p < shared_models::posters; ++p) {
        for (uint32_t t = 0; t < shared_models::threads; ++t) {
            EXPECT_EQ(all->of[p][t].differs(table, ifh_of(p, t)), "");
            EXPECT_GT(all->of[p][t].steps, 0U);
        }
    }
    EXPECT_EQ(mine.differs(table, ifh_a), "");
    EXPECT_EQ(faults(table), "");
    EXPECT_EQ(ipv4mc_desc->shmwin_info->shmwin_lock_count, 0U);
    munmap(memory, sizeof(shared_models));
}

}  // namespace
