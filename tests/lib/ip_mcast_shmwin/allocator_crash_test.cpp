// The allocator's user killed at each journaled store: blocks, counts and pool agree for the next
// owner.
#include <gtest/gtest.h>

#include <cstring>

#include "platforms/sim/sim.h"
#include "tests/kit/child.h"
#include "tests/kit/crash.h"
#include "tests/kit/library.h"
#include "tests/kit/run_dir.h"
#include "tests/kit/window_check.h"

namespace {

constexpr uint64_t more_than_enough = 100000;
constexpr ipmc_shmwin_alloc_type some_type = IPMC_SHMWIN_ALLOC_BUNDLE;

void *kept[4];

int print_faults() {
    int wrong = 0;
    for (const std::string &fault : kit::window_faults()) {
        fprintf(stderr, "%s\n", fault.c_str());
        wrong = 1;
    }
    return wrong;
}

int look_at_it() {
    return kit::start_library() != 0 ? 2 : print_faults();
}

// Kills `work` at each of its points and has a new owner look at what is left. The number of
// points.
uint64_t kill_everywhere(
    const std::function<void()> &prepare, const std::function<int()> &work,
    const std::function<void()> &start = [] { kit::start_library(); }) {
    for (uint64_t point = 1; point < more_than_enough; ++point) {
        const kit::run_dir dir;
        int code = 0;
        const bool killed = kit::killed_at(
            point,
            [&] {
                start();
                prepare();
            },
            work, &code);
        kit::child next([](const kit::post &) { return look_at_it(); });
        const int found = next.wait();
        EXPECT_EQ(found, 0) << "killed at point " << point;
        if (!killed) {
            EXPECT_EQ(code, 0);
            return point - 1;
        }
        if (found != 0) {
            return 0;
        }
    }
    return 0;
}

}  // namespace

TEST(AllocatorCrash, InAllocationsFromTheService) {
    EXPECT_GT(kill_everywhere([] {},
                              [] {
                                  void *a = ipv4mc_shmwin_malloc_inline(100, some_type);
                                  void *b = ip6mc_shmwin_malloc(3000);
                                  return a != nullptr && b != nullptr ? 0 : 1;
                              }),
              10U);
}

TEST(AllocatorCrash, InFreesToPoolAndService) {
    EXPECT_GT(kill_everywhere(
                  [] {
                      kept[0] = ipv4mc_shmwin_malloc_inline(100, some_type);
                      kept[1] = ipv4mc_shmwin_malloc_inline(100, some_type);
                      kept[2] = ip6mc_shmwin_malloc(3000);
                  },
                  [] {
                      cerrno rc = ipv4mc_shmwin_free_inline(kept[0], some_type);
                      rc |= ipv4mc_shmwin_free_inline(kept[1], some_type);
                      rc |= ip6mc_shmwin_free(kept[2]);
                      return static_cast<int>(rc);
                  }),
              20U);
}

TEST(AllocatorCrash, InAllocationsFromThePool) {
    EXPECT_GT(kill_everywhere(
                  [] {
                      kept[0] = ip6mc_shmwin_malloc(100);
                      kept[1] = ip6mc_shmwin_malloc(100);
                      ip6mc_shmwin_free(kept[0]);
                      ip6mc_shmwin_free(kept[1]);
                  },
                  [] {
                      void *a = ipv4mc_shmwin_malloc_inline(100, some_type);
                      void *b = ip6mc_shmwin_malloc(100);
                      return a == kept[1] && b == kept[0] ? 0 : 1;
                  }),
              20U);
}

TEST(AllocatorCrash, InTheReleaserAndTheEmptyingOfThePool) {
    EXPECT_GT(kill_everywhere(
                  [] {
                      for (void *&block : kept) {
                          block = ip6mc_shmwin_malloc(100);
                      }
                      for (void *block : kept) {
                          ip6mc_shmwin_free(block);
                      }
                  },
                  [] {
                      ip6mc_shmwin_memory_releaser();
                      return static_cast<int>(ip6mc_shmwin_open(0, 0));
                  }),
              40U);
}

// A client has no log: its allocations and their counts are one change of the allocator.
TEST(AllocatorCrash, InAnAttachedClient) {
    const auto attach = [] {
        kit::child owner([](const kit::post &) { return static_cast<int>(kit::start_library()); });
        owner.wait();
        kit::start how;
        how.attach_only = 1;
        how.with_callback = false;
        kit::start_library(how);
    };
    const auto work = [] {
        if (ipv4mc_desc->buffer_pool_enabled != 0) {
            return 1;  // an owner
        }
        void *a = ip6mc_shmwin_malloc(100);
        void *b = ipv4mc_shmwin_malloc_inline(3000, some_type);
        cerrno rc = a != nullptr && b != nullptr ? 0 : ENOMEM;
        rc |= ip6mc_shmwin_free(a);
        rc |= ipv4mc_shmwin_free_inline(b, some_type);
        return static_cast<int>(rc);
    };
    EXPECT_GT(kill_everywhere([] {}, work, attach), 30U);
}

// A record replaced in one change: the old one freed, a new one of the same size made. Until the
// change is committed the old one is what the next owner finds, with all that it held.
TEST(AllocatorCrash, InAChangeThatReplacesARecord) {
    uint64_t points = 0;
    for (uint64_t point = 1; point < more_than_enough; ++point) {
        const kit::run_dir dir;
        int code = 0;
        const bool killed = kit::killed_at(
            point,
            [] {
                kit::start_library();
                kept[0] = ip6mc_shmwin_malloc(100);
                memset(kept[0], 0x55, 100);
                ipv4mc_desc->shmwin_info->fint_idb = static_cast<ipv4mc_idb_st *>(kept[0]);
            },
            [] {
                const mfwd6::journal::group change;
                auto &root = ipv4mc_desc->shmwin_info->fint_idb;
                ip6mc_shmwin_free(root);
                void *fresh = ip6mc_shmwin_malloc(100);
                memset(fresh, 0x66, 100);
                mfwd6::journal::publish(root, static_cast<ipv4mc_idb_st *>(fresh));
                return 0;
            },
            &code);
        kit::child next([&](const kit::post &) {
            if (kit::start_library() != 0) {
                return 2;
            }
            // The bytes are no interface; the check is not to take them for one.
            auto &root = ipv4mc_desc->shmwin_info->fint_idb;
            unsigned char bytes[100];
            memcpy(bytes, static_cast<const void *>(root), sizeof(bytes));
            root = nullptr;
            if (print_faults() != 0) {
                return 1;
            }
            const auto is = [&](unsigned char value) {
                return bytes[0] == value && memcmp(bytes, bytes + 1, sizeof(bytes) - 1) == 0;
            };
            return is(0x66) || (killed && is(0x55)) ? 0 : 3;
        });
        ASSERT_EQ(next.wait(), 0) << "killed at point " << point;
        if (!killed) {
            EXPECT_EQ(code, 0);
            points = point - 1;
            break;
        }
    }
    EXPECT_GT(points, 20U);
}
