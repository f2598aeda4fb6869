#include "services/peers/peers.h"

#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "tests/services/locks/shared_page.h"

namespace mfwd6 {
namespace {

using test::child;
using test::shared_page;

TEST(Peers, FirstOpeningTakesTheFirstSlot) {
    shared_page p;
    ASSERT_EQ(p.open(peers::role::owner), 0);
    EXPECT_EQ(peers::slot_of(p.env->self), 0U);
    EXPECT_NE(p.env->self, peers::private_peer);
    const peers::slot &s = p.at->peers.slots[0];
    EXPECT_EQ(s.id, p.env->self);
    EXPECT_EQ(s.pid, getpid());
    EXPECT_EQ(s.role, static_cast<uint32_t>(peers::role::owner));
    EXPECT_GT(s.started, 0U);
    EXPECT_TRUE(peers::alive(p.env, p.env->self));
}

TEST(Peers, SecondJoinIsRefused) {
    shared_page p;
    ASSERT_EQ(p.open(), 0);
    EXPECT_EQ(peers::join(p.env, peers::role::attached), EALREADY);
}

TEST(Peers, IdIsNeverGivenTwice) {
    shared_page p;
    peers::peer_id before = 0;
    for (int i = 0; i < 20; ++i) {
        ASSERT_EQ(p.open(), 0);
        EXPECT_NE(p.env->self, before);
        EXPECT_FALSE(peers::alive(p.env, before));
        before = p.env->self;
        p.shut();
    }
    EXPECT_EQ(p.at->peers.openings, 20U);
}

TEST(Peers, SlotWithNoGenerationLeftIsPassedOver) {
    shared_page p;
    p.at->peers.slots[0].generation = peers::last_generation;
    p.at->peers.slots[1].generation = peers::last_generation - 1;
    ASSERT_EQ(p.open(), 0);
    EXPECT_EQ(p.env->self, (peers::last_generation << 8) | 2U);
    p.shut();
    ASSERT_EQ(p.open(), 0);
    EXPECT_EQ(peers::slot_of(p.env->self), 2U);
}

TEST(Peers, AllRetiredSlotsAreEmfile) {
    shared_page p;
    for (peers::slot &s : p.at->peers.slots) {
        s.generation = peers::last_generation;
    }
    EXPECT_EQ(p.open(), EMFILE);
    EXPECT_EQ(p.env->self, 0U);
}

TEST(Peers, NobodyAndStrangersAreDead) {
    shared_page p;
    ASSERT_EQ(p.open(), 0);
    EXPECT_FALSE(peers::alive(p.env, 0));
    EXPECT_FALSE(peers::alive(p.env, peers::private_peer));
    EXPECT_FALSE(peers::alive(p.env, p.env->self + 0x100));
    EXPECT_FALSE(peers::alive(p.env, 0x1ff));
    EXPECT_TRUE(peers::alive(nullptr, peers::private_peer));
    EXPECT_FALSE(peers::alive(nullptr, 0));
}

TEST(Peers, KilledProcessIsDeadAndStoppedOneLives) {
    shared_page p;
    child other([&](child &c) {
        if (p.open() == 0) {
            p.at->words[0] = p.env->self;
            c.tell_and_hang('j');
        }
    });
    ASSERT_EQ(other.hear(), 'j');
    ASSERT_EQ(p.open(), 0);
    const auto id = static_cast<peers::peer_id>(p.at->words[0]);
    EXPECT_NE(id, p.env->self);
    EXPECT_TRUE(peers::alive(p.env, id));
    ::kill(other.pid(), SIGSTOP);
    int status;
    waitpid(other.pid(), &status, WUNTRACED);
    EXPECT_TRUE(peers::alive(p.env, id));
    other.kill();
    EXPECT_FALSE(peers::alive(p.env, id));
}

TEST(Peers, ChildOfForkDoesNotKeepItsParentAlive) {
    shared_page p;
    int hold[2];
    ASSERT_EQ(pipe(hold), 0);
    child parent([&](child &c) {
        if (p.open() != 0) {
            _exit(1);
        }
        p.at->words[0] = p.env->self;
        const pid_t grandchild = fork();
        if (grandchild == 0) {
            close(hold[1]);
            // Closed here: no identity, no descriptor, locks refuse.
            const timespec soon = test::in_ms(10);
            p.at->words[1] = p.env->self == 0 && p.env->fd == -1 &&
                             rrw_lock_get_timedrdlock(&p.at->rw, &soon) == EBADF &&
                             locks::lock(&p.at->mutex, {.window = p.env}) == locks::outcome::closed;
            c.tell('g');
            char end;
            (void)!read(hold[0], &end, 1);
            _exit(0);
        }
        c.tell_and_hang('p');
    });
    close(hold[0]);
    const char first = parent.hear();
    const char second = parent.hear();
    EXPECT_EQ(first + second, 'g' + 'p');
    ASSERT_EQ(p.open(), 0);
    const auto id = static_cast<peers::peer_id>(p.at->words[0]);
    EXPECT_TRUE(peers::alive(p.env, id));
    parent.kill();
    EXPECT_FALSE(peers::alive(p.env, id));
    EXPECT_EQ(p.at->words[1], 1U);
    close(hold[1]);
}

TEST(Peers, DeadSlotsAreTakenOnlyWhenNoneIsFree) {
    shared_page p;
    for (int i = 0; i < 3; ++i) {
        child c([&](child &me) {
            if (p.open() == 0) {
                me.tell_and_hang('j');
            }
        });
        ASSERT_EQ(c.hear(), 'j');
    }
    ASSERT_EQ(p.open(), 0);
    EXPECT_EQ(peers::slot_of(p.env->self), 3U);
}

TEST(Peers, DeadHolderOfTheSlotIsRecoveredBeforeJoinReturns) {
    shared_page p;
    {
        child c([&](child &me) {
            if (p.open() == 0) {
                journal::bind_process(p.log(peers::domain::owner), p.env->self);
                journal::group g;
                journal::store(p.at->words[3], 77);
                me.tell_and_hang('j');
            }
        });
        ASSERT_EQ(c.hear(), 'j');
    }
    ASSERT_EQ(p.at->words[3], 77U);
    for (uint32_t i = 1; i < peers::max_peers; ++i) {
        p.at->peers.slots[i].generation = peers::last_generation;
    }
    ASSERT_EQ(p.open(peers::role::owner), 0);
    EXPECT_EQ(peers::slot_of(p.env->self), 0U);
    EXPECT_EQ(p.at->words[3], 0U);
    EXPECT_EQ(p.at->peers.slots[0].predecessor, 0U);
}

TEST(Peers, WhoAttachesRecoversNobody) {
    shared_page p;
    for (uint32_t i = 1; i < peers::max_peers; ++i) {
        p.at->peers.slots[i].generation = peers::last_generation;
    }
    peers::peer_id dead = 0;
    {
        child c([&](child &me) {
            if (p.open() == 0) {
                journal::bind_process(p.log(peers::domain::owner), p.env->self);
                journal::group g;
                journal::store(p.at->words[3], 77);
                p.at->words[4] = p.env->self;
                me.tell_and_hang('j');
            }
        });
        ASSERT_EQ(c.hear(), 'j');
        dead = static_cast<peers::peer_id>(p.at->words[4]);
    }
    child attaches([&](child &) {
        p.recover = [](peers::env *, peers::peer_id) { _exit(7); };
        _exit(p.open() == 0 && !peers::alive(p.env, dead) ? 0 : 1);
    });
    EXPECT_TRUE(test::exited_with(attaches.wait(), 0));
    EXPECT_EQ(p.at->words[3], 77U);
    ASSERT_EQ(p.open(peers::role::owner), 0);
    EXPECT_EQ(p.at->words[3], 0U);
}

TEST(Peers, RecoveryThatItsJoinerDidNotFinishIsDoneByTheNext) {
    shared_page p;
    for (uint32_t i = 1; i < peers::max_peers; ++i) {
        p.at->peers.slots[i].generation = peers::last_generation;
    }
    {
        child c([&](child &me) {
            if (p.open() == 0) {
                journal::bind_process(p.log(peers::domain::owner), p.env->self);
                journal::group g;
                journal::store(p.at->words[3], 77);
                me.tell_and_hang('j');
            }
        });
        ASSERT_EQ(c.hear(), 'j');
    }
    for (int i = 0; i < 3; ++i) {
        child dies([&](child &) {
            p.recover = [](peers::env *, peers::peer_id) { _exit(7); };
            p.open(peers::role::owner);
        });
        EXPECT_TRUE(test::exited_with(dies.wait(), 7));
        EXPECT_EQ(p.at->words[3], 77U);
        EXPECT_NE(p.at->peers.slots[0].predecessor, 0U);
    }
    ASSERT_EQ(p.open(peers::role::owner), 0);
    EXPECT_EQ(p.at->words[3], 0U);
    EXPECT_EQ(p.at->peers.slots[0].predecessor, 0U);
}

TEST(Peers, FullTableIsEmfileUntilSomebodyDies) {
    shared_page p;
    for (uint32_t i = 4; i < peers::max_peers; ++i) {
        p.at->peers.slots[i].generation = peers::last_generation;
    }
    std::vector<std::unique_ptr<child>> all;
    for (int i = 0; i < 4; ++i) {
        all.push_back(std::make_unique<child>([&](child &me) {
            if (p.open() == 0) {
                me.tell_and_hang('j');
            }
        }));
        ASSERT_EQ(all.back()->hear(), 'j');
    }
    EXPECT_EQ(p.open(), EMFILE);
    p.shut();
    all[2]->kill();
    EXPECT_EQ(p.open(), 0);
    EXPECT_EQ(peers::slot_of(p.env->self), 2U);
}

TEST(Peers, JoinsAtOnceGetDifferentSlots) {
    shared_page p;
    constexpr int processes = 24;
    std::vector<std::unique_ptr<child>> all;
    for (int i = 0; i < processes; ++i) {
        all.push_back(std::make_unique<child>([&, i](child &me) {
            while (std::atomic_ref<uint64_t>(p.at->words[63]).load() == 0) {
                sched_yield();
            }
            if (p.open() == 0) {
                p.at->words[i] = p.env->self;
                me.tell_and_hang('j');
            }
        }));
    }
    std::atomic_ref<uint64_t>(p.at->words[63]).store(1);
    std::vector<bool> taken(peers::max_peers);
    for (int i = 0; i < processes; ++i) {
        ASSERT_EQ(all[static_cast<size_t>(i)]->hear(), 'j');
        const uint32_t slot = peers::slot_of(static_cast<peers::peer_id>(p.at->words[i]));
        EXPECT_FALSE(taken[slot]);
        taken[slot] = true;
    }
}

TEST(Peers, TwoWindowsOfOneProcessHaveTwoSlotsWhenThreadsOpenThem) {
    shared_page p;
    peers::env a{}, b{};
    a.peers = b.peers = &p.at->peers;
    const std::string path = "/proc/self/fd/";
    ASSERT_EQ(p.open(), 0);
    a.fd = ::open((path + std::to_string(p.env->fd)).c_str(), O_RDWR | O_CLOEXEC);
    b.fd = ::open((path + std::to_string(p.env->fd)).c_str(), O_RDWR | O_CLOEXEC);
    std::thread one([&] { EXPECT_EQ(peers::join(&a, peers::role::attached), 0); });
    std::thread two([&] { EXPECT_EQ(peers::join(&b, peers::role::attached), 0); });
    one.join();
    two.join();
    EXPECT_NE(peers::slot_of(a.self), peers::slot_of(b.self));
    EXPECT_TRUE(peers::alive(&a, b.self));
    peers::leave(&b);
    EXPECT_FALSE(peers::alive(&a, b.self | 0x200));
    peers::leave(&a);
    close(a.fd);
    close(b.fd);
}

TEST(Peers, LookupFindsTheWindowThatCoversAnAddress) {
    shared_page p;
    int private_word = 0;
    EXPECT_EQ(peers::env_of(p.at), nullptr);
    ASSERT_EQ(p.open(), 0);
    EXPECT_EQ(peers::env_of(p.at), p.env);
    EXPECT_EQ(peers::env_of(reinterpret_cast<char *>(p.at) + sizeof(test::page) - 1), p.env);
    EXPECT_EQ(peers::env_of(reinterpret_cast<char *>(p.at) + sizeof(test::page)), nullptr);
    EXPECT_EQ(peers::env_of(&private_word), nullptr);
    peers::env_remove(p.env);
    EXPECT_EQ(peers::env_of(p.at), nullptr);
}

TEST(Peers, NinthWindowIsRefused) {
    static char memory[9][64];
    peers::env envs[9] = {};
    for (int i = 0; i < 9; ++i) {
        envs[i].base = memory[i];
        envs[i].length = 64;
        envs[i].fd = -1;
        envs[i].self = 1;
        EXPECT_EQ(peers::env_add(&envs[i]), i < 8);
    }
    EXPECT_EQ(peers::env_of(&memory[7][5]), &envs[7]);
    for (peers::env &e : envs) {
        peers::env_remove(&e);
    }
    EXPECT_EQ(peers::env_of(&memory[7][5]), nullptr);
}

}  // namespace
}  // namespace mfwd6
