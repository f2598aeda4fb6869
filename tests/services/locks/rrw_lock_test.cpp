#include "services/locks/rrw_lock.h"

#include <cstdarg>
#include <thread>
#include <vector>

#include "tests/services/locks/shared_page.h"

namespace mfwd6 {
namespace {

using test::child;
using test::in_ms;
using test::shared_page;

constexpr cerrno timed_out = 110;

cerrno write_lock(rrw_lock_t *l, long ms = 5000) {
    const timespec t = in_ms(ms);
    return rrw_lock_get_timedwrlock(l, &t);
}
cerrno read_lock(rrw_lock_t *l, long ms = 5000) {
    const timespec t = in_ms(ms);
    return rrw_lock_get_timedrdlock(l, &t);
}
cerrno write_unlock(rrw_lock_t *l) {
    return rrw_lock_unlock(l, __LINE__, 0);
}
cerrno read_unlock(rrw_lock_t *l) {
    return rrw_lock_unlock(l, __LINE__, 1);
}

uint64_t holds(const rrw_lock_t &l) {
    uint64_t n = 0;
    for (const rrw_lock_slot &s : l.slots) {
        n += s.word & 0xffffffff;
    }
    return n;
}

TEST(RrwLock, LayoutIsThatOfEveryProcess) {
    EXPECT_EQ(sizeof(rrw_lock_t), 8256U);
    EXPECT_EQ(offsetof(rrw_lock_t, gate), 0U);
    EXPECT_EQ(offsetof(rrw_lock_t, turn), 8U);
    EXPECT_EQ(offsetof(rrw_lock_t, magic), 16U);
    EXPECT_EQ(offsetof(rrw_lock_t, known), 32U);
    EXPECT_EQ(offsetof(rrw_lock_t, slots), 64U);
    EXPECT_EQ(offsetof(rrw_lock_slot, line), 8U);
}

TEST(RrwLock, InitRefusesWhatItDoesNotKnow) {
    rrw_lock_t l{};
    EXPECT_EQ(rrw_lock_init(nullptr, 2, 0, nullptr, 0), 22U);
    EXPECT_EQ(rrw_lock_init(&l, 1, 0, nullptr, 0), 22U);
    EXPECT_EQ(rrw_lock_init(&l, 2, 0, nullptr, 1), 22U);
    EXPECT_EQ(rrw_lock_init(&l, 2, 0, nullptr, 0), 0U);
}

TEST(RrwLock, InitMakesALockOfAnyPrivateMemory) {
    rrw_lock_t l;
    memset(&l, 0xa5, sizeof l);
    EXPECT_EQ(rrw_lock_init(&l, 2, 0, nullptr, 0), 0U);
    EXPECT_EQ(write_lock(&l, 0), 0U);
    EXPECT_EQ(write_unlock(&l), 0U);
}

TEST(RrwLock, BadArgumentsAreEinval) {
    rrw_lock_t l{};
    timespec t = in_ms(10);
    EXPECT_EQ(rrw_lock_get_timedrdlock(&l, nullptr), 22U);
    EXPECT_EQ(rrw_lock_get_timedwrlock(&l, nullptr), 22U);
    EXPECT_EQ(rrw_lock_get_timedwrlock(nullptr, &t), 22U);
    EXPECT_EQ(rrw_lock_get_timedrdlock(nullptr, &t), 22U);
    EXPECT_EQ(rrw_lock_unlock(nullptr, 1, 1), 22U);
    t.tv_nsec = 1'000'000'000;
    EXPECT_EQ(rrw_lock_get_timedrdlock(&l, &t), 22U);
    t.tv_nsec = -1;
    EXPECT_EQ(rrw_lock_get_timedwrlock(&l, &t), 22U);
    EXPECT_EQ(l.gate, 0U);
    EXPECT_EQ(holds(l), 0U);
}

TEST(RrwLock, FreeLockIsTakenEvenAfterTheDeadline) {
    rrw_lock_t l{};
    const timespec past = {1, 0};
    EXPECT_EQ(rrw_lock_get_timedrdlock(&l, &past), 0U);
    EXPECT_EQ(read_unlock(&l), 0U);
    EXPECT_EQ(rrw_lock_get_timedwrlock(&l, &past), 0U);
    EXPECT_EQ(write_unlock(&l), 0U);
}

TEST(RrwLock, UnlockOfWhatIsNotHeldIsRefused) {
    rrw_lock_t l{};
    EXPECT_EQ(read_unlock(&l), 1U);
    EXPECT_EQ(write_unlock(&l), 1U);
    ASSERT_EQ(read_lock(&l), 0U);
    EXPECT_EQ(write_unlock(&l), 1U);
    std::thread([&] { EXPECT_EQ(read_unlock(&l), 1U); }).join();
    EXPECT_EQ(read_unlock(&l), 0U);
    EXPECT_EQ(read_unlock(&l), 1U);
}

TEST(RrwLock, NinthLockOfAThreadIsRefused) {
    rrw_lock_t all[9] = {};
    for (int i = 0; i < 8; ++i) {
        ASSERT_EQ(read_lock(&all[i]), 0U);
    }
    EXPECT_EQ(read_lock(&all[8]), 37U);
    EXPECT_EQ(write_lock(&all[8]), 37U);
    EXPECT_EQ(read_unlock(&all[8]), 1U);
    for (int i = 0; i < 8; ++i) {
        EXPECT_EQ(read_unlock(&all[i]), 0U);
    }
    EXPECT_EQ(write_lock(&all[8]), 0U);
    EXPECT_EQ(write_unlock(&all[8]), 0U);
}

TEST(RrwLock, WriterKeepsReadersAndWritersOut) {
    rrw_lock_t l{};
    ASSERT_EQ(write_lock(&l), 0U);
    std::thread([&] {
        EXPECT_EQ(read_lock(&l, 20), timed_out);
        EXPECT_EQ(write_lock(&l, 20), timed_out);
    }).join();
    EXPECT_EQ(holds(l), 0U);
    EXPECT_EQ(write_unlock(&l), 0U);
}

TEST(RrwLock, ReadersShareAndKeepWritersOut) {
    rrw_lock_t l{};
    ASSERT_EQ(read_lock(&l), 0U);
    std::thread([&] {
        EXPECT_EQ(read_lock(&l, 0), 0U);
        EXPECT_EQ(holds(l), 2U);
        EXPECT_EQ(read_unlock(&l), 0U);
        EXPECT_EQ(write_lock(&l, 20), timed_out);
    }).join();
    EXPECT_EQ(l.gate, 0U);
    EXPECT_EQ(read_unlock(&l), 0U);
    EXPECT_EQ(write_lock(&l, 0), 0U);
    EXPECT_EQ(write_unlock(&l), 0U);
}

TEST(RrwLock, SecondWriteLockOfAThreadTimesOut) {
    rrw_lock_t l{};
    ASSERT_EQ(write_lock(&l), 0U);
    const timespec before = in_ms(0);
    EXPECT_EQ(write_lock(&l, 30), timed_out);
    const timespec after = in_ms(0);
    EXPECT_GE((after.tv_sec - before.tv_sec) * 1000 + (after.tv_nsec - before.tv_nsec) / 1000000,
              29);
    EXPECT_EQ(write_unlock(&l), 0U);
    EXPECT_EQ(write_unlock(&l), 1U);
}

TEST(RrwLock, ReaderThatAsksToWriteTimesOut) {
    rrw_lock_t l{};
    ASSERT_EQ(read_lock(&l), 0U);
    EXPECT_EQ(write_lock(&l, 10), timed_out);
    EXPECT_EQ(read_unlock(&l), 0U);
}

TEST(RrwLock, HolderMayReadAgain) {
    rrw_lock_t l{};
    ASSERT_EQ(write_lock(&l), 0U);
    EXPECT_EQ(read_lock(&l, 0), 0U);
    EXPECT_EQ(read_unlock(&l), 0U);
    EXPECT_EQ(write_unlock(&l), 0U);
    ASSERT_EQ(read_lock(&l), 0U);
    std::thread writer([&] {
        EXPECT_EQ(write_lock(&l), 0U);
        EXPECT_EQ(write_unlock(&l), 0U);
    });
    while (std::atomic_ref<uint64_t>(l.gate).load() == 0) {
        sched_yield();
    }
    EXPECT_EQ(read_lock(&l, 0), 0U);
    // A new reader is kept out by the writer that waits.
    std::thread([&] { EXPECT_EQ(read_lock(&l, 5), timed_out); }).join();
    EXPECT_EQ(read_unlock(&l), 0U);
    EXPECT_EQ(read_unlock(&l), 0U);
    writer.join();
    EXPECT_EQ(l.gate, 0U);
}

TEST(RrwLock, ThreadsSeeEachOthersChangesWhole) {
    rrw_lock_t l{};
    uint64_t a = 0;
    uint64_t b = 0;
    std::vector<std::thread> all;
    for (int t = 0; t < 2; ++t) {
        all.emplace_back([&] {
            for (int i = 0; i < 3000; ++i) {
                EXPECT_EQ(write_lock(&l), 0U);
                ++a;
                ++b;
                EXPECT_EQ(write_unlock(&l), 0U);
            }
        });
        all.emplace_back([&] {
            for (int i = 0; i < 3000; ++i) {
                EXPECT_EQ(read_lock(&l), 0U);
                EXPECT_EQ(a, b);
                EXPECT_EQ(read_unlock(&l), 0U);
            }
        });
    }
    for (std::thread &t : all) {
        t.join();
    }
    EXPECT_EQ(a, 6000U);
    EXPECT_EQ(l.gate, 0U);
    EXPECT_EQ(holds(l), 0U);
}

TEST(RrwLock, ReadersInALoopDoNotStarveAWriter) {
    rrw_lock_t l{};
    std::atomic<bool> done{false};
    std::vector<std::thread> readers;
    for (int t = 0; t < 3; ++t) {
        readers.emplace_back([&] {
            while (!done) {
                EXPECT_EQ(read_lock(&l), 0U);
                sched_yield();
                EXPECT_EQ(read_unlock(&l), 0U);
            }
        });
    }
    for (int i = 0; i < 50; ++i) {
        EXPECT_EQ(write_lock(&l), 0U);
        EXPECT_EQ(write_unlock(&l), 0U);
    }
    done = true;
    for (std::thread &t : readers) {
        t.join();
    }
}

TEST(RrwLock, WritersInALoopDoNotStarveAReader) {
    rrw_lock_t l{};
    std::atomic<bool> done{false};
    std::vector<std::thread> writers;
    for (int t = 0; t < 2; ++t) {
        writers.emplace_back([&] {
            while (!done) {
                EXPECT_EQ(write_lock(&l), 0U);
                EXPECT_EQ(write_unlock(&l), 0U);
            }
        });
    }
    for (int i = 0; i < 20; ++i) {
        EXPECT_EQ(read_lock(&l), 0U);
        EXPECT_EQ(read_unlock(&l), 0U);
    }
    done = true;
    for (std::thread &t : writers) {
        t.join();
    }
}

TEST(RrwLock, ProcessesShareNoSlotAndExcludeEachOther) {
    shared_page p;
    std::vector<std::unique_ptr<child>> all;
    for (int i = 0; i < 2; ++i) {
        all.push_back(std::make_unique<child>([&](child &) {
            p.open();
            for (int k = 0; k < 2000; ++k) {
                if (write_lock(&p.at->rw) != 0) {
                    _exit(1);
                }
                ++p.at->words[0];
                ++p.at->words[1];
                write_unlock(&p.at->rw);
            }
        }));
        all.push_back(std::make_unique<child>([&](child &) {
            p.open();
            for (int k = 0; k < 2000; ++k) {
                if (read_lock(&p.at->rw) != 0 || p.at->words[0] != p.at->words[1]) {
                    _exit(2);
                }
                read_unlock(&p.at->rw);
            }
            // Its own line: the slot of this process and no other carries its id.
            const uint32_t slot = peers::slot_of(p.env->self);
            _exit(p.at->rw.slots[slot].word >> 32 == p.env->self ? 0 : 3);
        }));
    }
    for (auto &c : all) {
        EXPECT_TRUE(test::exited_with(c->wait(), 0));
    }
    EXPECT_EQ(p.at->words[0], 4000U);
}

TEST(RrwLock, WriteLockBindsTheTableLog) {
    shared_page p;
    ASSERT_EQ(p.open(), 0);
    ASSERT_EQ(write_lock(&p.at->rw), 0U);
    EXPECT_EQ(journal::choose(), p.log(peers::domain::table_lock));
    EXPECT_EQ(write_unlock(&p.at->rw), 0U);
    EXPECT_EQ(journal::choose(), nullptr);
    ASSERT_EQ(read_lock(&p.at->rw), 0U);
    EXPECT_EQ(journal::choose(), nullptr);
    EXPECT_EQ(read_unlock(&p.at->rw), 0U);
}

TEST(RrwLock, DeadReaderIsCleanedByTheWriter) {
    shared_page p;
    child reader([&](child &c) {
        p.open();
        read_lock(&p.at->rw);
        read_lock(&p.at->rw);
        c.tell_and_hang('r');
    });
    ASSERT_EQ(reader.hear(), 'r');
    ASSERT_EQ(p.open(), 0);
    EXPECT_EQ(write_lock(&p.at->rw, 20), timed_out);
    EXPECT_EQ(holds(p.at->rw), 2U);
    reader.kill();
    EXPECT_EQ(write_lock(&p.at->rw), 0U);
    EXPECT_EQ(holds(p.at->rw), 0U);
    EXPECT_EQ(p.at->rw.slots[0].cleaned, 1U);
    EXPECT_EQ(write_unlock(&p.at->rw), 0U);
}

TEST(RrwLock, SlotOfADeadReaderServesItsSuccessor) {
    shared_page p;
    for (uint32_t i = 1; i < peers::max_peers; ++i) {
        p.at->peers.slots[i].generation = peers::last_generation;
    }
    child reader([&](child &c) {
        p.open();
        read_lock(&p.at->rw);
        c.tell_and_hang('r');
    });
    ASSERT_EQ(reader.hear(), 'r');
    reader.kill();
    ASSERT_EQ(p.open(), 0);
    ASSERT_EQ(peers::slot_of(p.env->self), 0U);
    ASSERT_EQ(read_lock(&p.at->rw), 0U);
    EXPECT_EQ(holds(p.at->rw), 1U);
    EXPECT_EQ(read_unlock(&p.at->rw), 0U);
    EXPECT_EQ(write_lock(&p.at->rw, 0), 0U);
    EXPECT_EQ(write_unlock(&p.at->rw), 0U);
}

class DeadWriter : public testing::TestWithParam<bool> {};

TEST_P(DeadWriter, IsRolledBackByTheNextWhoWaits) {
    const bool next_reads = GetParam();
    shared_page p;
    p.at->words[0] = 5;
    child writer([&](child &c) {
        p.open();
        write_lock(&p.at->rw);
        journal::group g;
        journal::store(p.at->words[0], 6);
        c.tell_and_hang('w');
    });
    ASSERT_EQ(writer.hear(), 'w');
    child waiter([&](child &c) {
        p.open();
        c.tell('o');
        if ((next_reads ? read_lock(&p.at->rw) : write_lock(&p.at->rw)) != 0) {
            _exit(1);
        }
        _exit(p.at->words[0] == 5 ? 0 : 2);
    });
    ASSERT_EQ(waiter.hear(), 'o');
    while ((std::atomic_ref<uint64_t>(p.at->rw.gate).load() & 0x80000000U) == 0) {
        sched_yield();
    }
    EXPECT_EQ(p.at->words[0], 6U);
    writer.kill();
    EXPECT_TRUE(test::exited_with(waiter.wait(), 0));
    EXPECT_EQ(p.at->rw.deaths, 1U);
    EXPECT_EQ(p.at->recovered, 1U);
}
INSTANTIATE_TEST_SUITE_P(RrwLock, DeadWriter, testing::Bool());

TEST(RrwLock, ReadersProceedAfterAWriterDiedWaitingForOneOfThem) {
    shared_page p;
    ASSERT_EQ(p.open(), 0);
    ASSERT_EQ(read_lock(&p.at->rw), 0U);
    child writer([&](child &) {
        p.open();
        write_lock(&p.at->rw);
    });
    while (std::atomic_ref<uint64_t>(p.at->rw.gate).load() == 0) {
        sched_yield();
    }
    writer.kill();
    std::thread([&] {
        EXPECT_EQ(read_lock(&p.at->rw), 0U);
        EXPECT_EQ(read_unlock(&p.at->rw), 0U);
    }).join();
    EXPECT_EQ(read_unlock(&p.at->rw), 0U);
}

// Both a thread's use and its successor's are killed at every step; a third finds the lock in
// order.
TEST(RrwLock, KilledAtAnyStepTheNextOneProceeds) {
    for (const bool second_reads : {false, true}) {
        int deaths = 0;
        for (int n = 1;; ++n) {
            shared_page p;
            child dies([&](child &) {
                p.open();
                test::die_at_point(n);
                read_lock(&p.at->rw);
                read_unlock(&p.at->rw);
                write_lock(&p.at->rw);
                {
                    journal::group g;
                    journal::store(p.at->words[0], 1);
                    journal::store(p.at->words[1], 1);
                }
                write_unlock(&p.at->rw);
            });
            const int status = dies.wait();
            child also([&](child &) {
                p.open();
                test::die_at_point(n);
                if (second_reads) {
                    read_lock(&p.at->rw);
                    read_unlock(&p.at->rw);
                } else {
                    write_lock(&p.at->rw);
                    write_unlock(&p.at->rw);
                }
            });
            also.wait();
            ASSERT_EQ(p.open(), 0);
            ASSERT_EQ(read_lock(&p.at->rw), 0U);
            EXPECT_EQ(p.at->words[0], p.at->words[1]) << "killed at " << n;
            ASSERT_EQ(read_unlock(&p.at->rw), 0U);
            ASSERT_EQ(write_lock(&p.at->rw), 0U);
            ASSERT_EQ(holds(p.at->rw), 0U);
            ASSERT_EQ(write_unlock(&p.at->rw), 0U);
            if (!test::killed(status)) {
                break;
            }
            ++deaths;
        }
        EXPECT_GT(deaths, 15);
    }
}

TEST(RrwLock, InitOfALockInLiveUseIsEbusyAndHarmless) {
    shared_page p;
    child reader([&](child &c) {
        p.open();
        rrw_lock_init(&p.at->rw, 2, 0, nullptr, 0);
        read_lock(&p.at->rw);
        c.tell_and_hang('r');
    });
    ASSERT_EQ(reader.hear(), 'r');
    ASSERT_EQ(p.open(), 0);
    EXPECT_EQ(rrw_lock_init(&p.at->rw, 2, 1, nullptr, 0), 16U);
    EXPECT_EQ(rrw_lock_init(&p.at->rw, 2, 0, nullptr, 0), 16U);
    EXPECT_EQ(read_lock(&p.at->rw), 0U);
    EXPECT_EQ(holds(p.at->rw), 2U);
    EXPECT_EQ(read_unlock(&p.at->rw), 0U);
    reader.kill();
    EXPECT_EQ(rrw_lock_init(&p.at->rw, 2, 1, nullptr, 0), 0U);
    EXPECT_EQ(holds(p.at->rw), 0U);
}

std::string *told = nullptr;
void tell(const char *format, ...) {
    char text[256];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    *told += text;
    *told += '\n';
}

TEST(RrwLock, InitRecoversWhatTheDeadLeftAndTellsIt) {
    shared_page p;
    p.at->words[0] = 5;
    child writer([&](child &c) {
        p.open();
        write_lock(&p.at->rw);
        journal::group g;
        journal::store(p.at->words[0], 6);
        c.tell_and_hang('w');
    });
    ASSERT_EQ(writer.hear(), 'w');
    ASSERT_EQ(p.open(), 0);
    EXPECT_EQ(rrw_lock_init(&p.at->rw, 2, 1, tell, 0), 16U);
    writer.kill();
    std::string text;
    told = &text;
    EXPECT_EQ(rrw_lock_init(&p.at->rw, 2, 1, tell, 0), 0U);
    EXPECT_EQ(p.at->words[0], 5U);
    EXPECT_EQ(p.at->rw.gate, 0U);
    EXPECT_NE(text.find("died, its changes were recovered"), std::string::npos) << text;
}

TEST(RrwLock, LockZeroedUnderItsHoldersStaysUsable) {
    rrw_lock_t l{};
    ASSERT_EQ(read_lock(&l), 0U);
    l = rrw_lock_t{};
    EXPECT_EQ(read_unlock(&l), 0U);
    EXPECT_EQ(holds(l), 0U);
    ASSERT_EQ(write_lock(&l), 0U);
    l = rrw_lock_t{};
    EXPECT_EQ(write_unlock(&l), 1U);
    EXPECT_EQ(write_lock(&l, 0), 0U);
    EXPECT_EQ(write_unlock(&l), 0U);
}

}  // namespace
}  // namespace mfwd6
