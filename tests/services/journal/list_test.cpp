#include "services/journal/list.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <random>
#include <vector>

namespace mfwd6 {
namespace {

struct record {
    record *next;
    record *prev;
    record *both_next[2];
    record *both_prev[2];
};

constexpr size_t records = 32;

struct memory {
    alignas(64) unsigned char log[journal::log_bytes(64)];
    record *head;
    record *tail;
    record *other_head;
    record all[records];
};

using plain = journal::member_list<record, &record::next, &record::prev>;
using second = journal::indexed_list<record, 2, &record::both_next, &record::both_prev, 1>;
using journal::list_fault;

int points = 0;
int last_point = 0;

class List : public testing::Test {
  protected:
    void SetUp() override {
        m = static_cast<memory *>(mmap(nullptr, sizeof(memory), PROT_READ | PROT_WRITE,
                                       MAP_SHARED | MAP_ANONYMOUS, -1, 0));
        log = journal::format(m->log, sizeof m->log);
        journal::bind_process(log, 0x101);
    }
    void TearDown() override {
        journal::crash_hook = nullptr;
        journal::bind_process(nullptr, 0);
        munmap(m, sizeof(memory));
    }

    record *r(size_t i) { return &m->all[i]; }

    std::vector<record *> forward() {
        std::vector<record *> found;
        for (record *at = plain(m->head).first(); at != nullptr; at = plain::next(at)) {
            found.push_back(at);
            if (found.size() > records) {
                break;
            }
        }
        return found;
    }

    void expect(const std::vector<record *> &wanted) {
        size_t n = 0;
        EXPECT_EQ(plain(m->head, m->tail).check(records, &n), list_fault::none);
        EXPECT_EQ(n, wanted.size());
        EXPECT_EQ(forward(), wanted);
    }

    static memory *m;
    static journal::log *log;
};
memory *List::m = nullptr;
journal::log *List::log = nullptr;

TEST_F(List, EmptyListIsWhole) {
    EXPECT_TRUE(plain(m->head, m->tail).empty());
    expect({});
}

TEST_F(List, RecordsGoToEitherEndAndBetween) {
    plain l(m->head, m->tail);
    l.push_back(r(0));
    l.push_front(r(1));
    l.push_back(r(2));
    expect({r(1), r(0), r(2)});
    l.insert_after(r(2), r(3));
    l.insert_before(r(1), r(4));
    l.insert_after(r(4), r(5));
    l.insert_before(r(0), r(6));
    expect({r(4), r(5), r(1), r(6), r(0), r(2), r(3)});
}

TEST_F(List, RemovalKeepsTheWayForReaders) {
    plain l(m->head, m->tail);
    for (size_t i = 0; i < 3; ++i) {
        l.push_back(r(i));
    }
    l.remove(r(1));
    expect({r(0), r(2)});
    EXPECT_EQ(plain::next(r(1)), r(2));
    EXPECT_EQ(plain::prev(r(1)), nullptr);
    plain::clear(r(1));
    EXPECT_FALSE(l.contains(r(1)));
    l.remove_and_clear(r(0));
    EXPECT_EQ(plain::next(r(0)), nullptr);
    expect({r(2)});
    EXPECT_TRUE(l.contains(r(2)));
    l.remove_and_clear(r(2));
    expect({});
    EXPECT_FALSE(l.contains(r(2)));
}

TEST_F(List, ReplacementStandsWhereTheOldOneStood) {
    plain l(m->head, m->tail);
    l.push_back(r(0));
    l.replace(r(0), r(1));
    expect({r(1)});
    l.push_front(r(2));
    l.push_back(r(3));
    l.replace(r(1), r(4));
    expect({r(2), r(4), r(3)});
    EXPECT_EQ(plain::next(r(1)), r(3));
}

TEST_F(List, LinksInArraysFormAListOfTheirOwn) {
    second l(m->other_head);
    l.push_front(r(0));
    l.push_front(r(1));
    EXPECT_EQ(l.first(), r(1));
    EXPECT_EQ(r(1)->both_next[1], r(0));
    EXPECT_EQ(r(0)->both_prev[1], r(1));
    EXPECT_EQ(r(1)->both_next[0], nullptr);
    l.remove_and_clear(r(1));
    EXPECT_EQ(l.check(records), list_fault::none);
    EXPECT_EQ(l.first(), r(0));
}

TEST_F(List, CheckerFindsEachFaultAndMendingEndsIt) {
    plain l(m->head, m->tail);
    for (size_t i = 0; i < 4; ++i) {
        l.push_back(r(i));
    }
    r(2)->prev = r(0);
    EXPECT_EQ(l.check(records), list_fault::backward);
    l.mend();
    EXPECT_EQ(l.check(records), list_fault::none);
    m->tail = r(1);
    EXPECT_EQ(l.check(records), list_fault::tail);
    l.mend();
    EXPECT_EQ(l.check(records), list_fault::none);
    EXPECT_EQ(l.check(3), list_fault::endless);
    EXPECT_EQ(l.check(4), list_fault::none);
    r(3)->next = r(0);
    r(0)->prev = nullptr;
    EXPECT_NE(l.check(records), list_fault::none);
    r(0)->prev = r(3);
    m->head = r(0);
    EXPECT_NE(l.check(records), list_fault::none);
}

// One random operation on the list and on a vector.
void step(memory *m, std::vector<record *> &model, uint32_t what, uint32_t where) {
    plain l(m->head, m->tail);
    record *fresh = nullptr;
    for (record &one : m->all) {
        if (std::find(model.begin(), model.end(), &one) == model.end()) {
            fresh = &one;
        }
    }
    const size_t at = model.empty() ? 0 : where % model.size();
    const auto place = model.begin() + static_cast<std::ptrdiff_t>(at);
    if (fresh != nullptr && (what == 0 || model.empty())) {
        l.push_front(fresh);
        model.insert(model.begin(), fresh);
    } else if (fresh != nullptr && what == 1) {
        l.push_back(fresh);
        model.push_back(fresh);
    } else if (fresh != nullptr && what == 2) {
        l.insert_after(*place, fresh);
        model.insert(place + 1, fresh);
    } else if (fresh != nullptr && what == 3) {
        l.insert_before(*place, fresh);
        model.insert(place, fresh);
    } else if (fresh != nullptr && what == 4) {
        l.replace(*place, fresh);
        *place = fresh;
    } else if (what == 5) {
        l.remove(*place);
        model.erase(place);
    } else {
        l.remove_and_clear(*place);
        model.erase(place);
    }
}

TEST_F(List, RandomOperationsAgreeWithAVector) {
    std::mt19937 random(1);
    std::vector<record *> model;
    for (int i = 0; i < 20000; ++i) {
        step(m, model, static_cast<uint32_t>(random() % 7), static_cast<uint32_t>(random()));
        expect(model);
        if (HasFailure()) {
            FAIL() << "at step " << i;
        }
    }
}

TEST_F(List, UndoneOperationsLeaveTheListAsItWas) {
    std::mt19937 random(2);
    std::vector<record *> model;
    for (int i = 0; i < 2000; ++i) {
        auto tried = model;
        {
            journal::group g;
            for (int k = 0; k < 3; ++k) {
                step(m, tried, static_cast<uint32_t>(random() % 7),
                     static_cast<uint32_t>(random()));
            }
            ASSERT_TRUE(g.undo());
        }
        expect(model);
        step(m, model, static_cast<uint32_t>(random() % 6), static_cast<uint32_t>(random()));
        expect(model);
        ASSERT_FALSE(HasFailure()) << "at step " << i;
    }
}

// At the moment of each kill: what stays on the list is there, in order, for a reader that comes
// then.
TEST_F(List, KilledAtEveryStoreTheForwardWalkIsWholeAndRecoveryRestores) {
    const std::vector<record *> before = {r(0), r(1), r(2), r(3)};
    for (uint32_t what = 0; what < 7; ++what) {
        for (uint32_t where = 0; where < 4; ++where) {
            for (int n = 1;; ++n) {
                std::memset(m->all, 0, sizeof m->all);
                m->head = m->tail = nullptr;
                for (record *one : before) {
                    plain(m->head, m->tail).push_back(one);
                }
                const pid_t pid = fork();
                if (pid == 0) {
                    points = 0;
                    last_point = n;
                    journal::bind_process(log, 0x102);
                    journal::crash_hook = [] {
                        if (++points == last_point) {
                            _exit(42);
                        }
                    };
                    auto model = before;
                    step(m, model, what, where);
                    _exit(0);
                }
                int status;
                waitpid(pid, &status, 0);
                if (!(WIFEXITED(status) && WEXITSTATUS(status) == 42)) {
                    break;
                }
                const auto seen = forward();
                std::vector<record *> stays = before;
                if (what >= 4) {
                    stays.erase(stays.begin() + where);
                }
                auto it = seen.begin();
                for (record *one : stays) {
                    it = std::find(it, seen.end(), one);
                    ASSERT_NE(it, seen.end())
                        << "operation " << what << " at " << where << " killed at " << n;
                }
                EXPECT_LE(seen.size(), before.size() + 1);
                const bool committed = log->used == 0 && forward() != before;
                journal::recover(log);
                size_t count = 0;
                ASSERT_EQ(plain(m->head, m->tail).check(records, &count), list_fault::none);
                if (!committed) {
                    ASSERT_EQ(forward(), before);
                }
            }
        }
    }
}

}  // namespace
}  // namespace mfwd6
