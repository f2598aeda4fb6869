#include "services/diag/fault.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <thread>

#include "tests/services/diag/scratch.h"

namespace {

const char points[3][fim_text_size] = {"MLIB_FAULT_ROUTE_CREATE_FAIL: PD Route create fail",
                                       "second", "third"};

// Each test has a table of its own, as a table once registered stays.
class Fault : public Scratch {
  protected:
    void SetUp() override {
        Scratch::SetUp();
        static int number = 0;
        name = "mlib" + std::to_string(++number);
        ASSERT_EQ(fim_register(name.c_str(), points, 3, 0, &handle, nullptr), 0U);
    }
    std::string pattern(uint32_t index, int passages) {
        std::string result;
        for (int i = 0; i < passages; ++i) {
            result.push_back(fim_armed(handle, index) ? 'F' : '.');
        }
        return result;
    }
    std::string name;
    fim_handle handle = nullptr;
};

TEST_F(Fault, NothingFailsUnlessArmed) {
    EXPECT_EQ(pattern(0, 5), ".....");
    EXPECT_EQ(handle->armed, 0U);
    EXPECT_FALSE(fim_armed(nullptr, 0));
    EXPECT_FALSE(fim_armed(handle, 64));
    EXPECT_FALSE(fim_pass(nullptr, 0));
}

TEST_F(Fault, FailsTheNthAndTheNextAndThenNoMore) {
    ASSERT_EQ(fim_arm(handle, 1, 2, 3), 0U);
    EXPECT_EQ(pattern(0, 4), "....");
    EXPECT_EQ(pattern(1, 8), "..FFF...");
    EXPECT_EQ(handle->armed, 0U) << "disarmed by itself";
    ASSERT_EQ(fim_arm(handle, 1, 0, UINT32_MAX), 0U);
    EXPECT_EQ(pattern(1, 5), "FFFFF");
    ASSERT_EQ(fim_arm(handle, 1, 0, 0), 0U);
    EXPECT_EQ(pattern(1, 3), "...");
    fim_arm(handle, 0, 0, 1);
    fim_arm(handle, 2, 0, 1);
    ASSERT_EQ(fim_disarm_all(handle), 0U);
    EXPECT_EQ(pattern(0, 1) + pattern(2, 1), "..");
}

TEST_F(Fault, AnotherProcessArms) {
    const std::string program = diag_program();
    ASSERT_EQ(in_child([&] {
                  return static_cast<int>(fim_arm_program(program.c_str(), name.c_str(), 2, 1, 1));
              }),
              0);
    EXPECT_EQ(pattern(2, 3), ".F.");
    std::vector<fim_point> seen;
    ASSERT_EQ(fim_walk(
                  program.c_str(), name.c_str(),
                  [](void *context, const fim_point *point) {
                      static_cast<std::vector<fim_point> *>(context)->push_back(*point);
                      return 0;
                  },
                  &seen),
              0U);
    ASSERT_EQ(seen.size(), 3U);
    EXPECT_STREQ(seen[0].text, points[0]);
    EXPECT_EQ(seen[2].hits, 1U);
    EXPECT_EQ(seen[2].fail, 0U);
}

TEST_F(Fault, WhatIsArmedOutlivesTheProcess) {
    const std::string program = diag_program();
    ASSERT_EQ(in_child([&] {
                  fim_handle made = nullptr;
                  return static_cast<int>(fim_register("later", points, 3, 0, &made, nullptr));
              }),
              0);
    ASSERT_EQ(fim_arm_program(program.c_str(), "later", 0, 0, 1), 0U);
    EXPECT_EQ(in_child([&] {
                  fim_handle made = nullptr;
                  fim_register("later", points, 3, 0, &made, nullptr);
                  return fim_armed(made, 0) ? 0 : 1;
              }),
              0);
    ASSERT_EQ(fim_arm_program(program.c_str(), "later", 0, 0, 1), 0U);
    EXPECT_EQ(in_child([&] {
                  fim_handle made = nullptr;
                  fim_register("later", points, 2, 0, &made, nullptr);  // another table by now
                  return fim_armed(made, 0) ? 1 : 0;
              }),
              0);
}

TEST_F(Fault, TwoLiveProcessesOfAProgramShareATable) {
    int ready[2] = {};
    int done[2] = {};
    ASSERT_EQ(pipe(ready), 0);
    ASSERT_EQ(pipe(done), 0);
    const auto make = [] {
        fim_handle made = nullptr;
        fim_register("shared", points, 3, 0, &made, nullptr);
        return made;
    };
    const pid_t child = fork();
    if (child == 0) {
        make();
        char byte = 'x';
        _exit(write(ready[1], &byte, 1) == 1 && read(done[0], &byte, 1) == 1 ? 0 : 1);
    }
    char byte = 0;
    ASSERT_EQ(read(ready[0], &byte, 1), 1);
    EXPECT_EQ(in_child([&] {
                  alarm(10);  // ends a wait for a lock that the other process still holds
                  const fim_handle made = make();
                  return made != nullptr && fim_arm(made, 1, 0, 1) == 0 && fim_armed(made, 1) ? 0
                                                                                              : 1;
              }),
              0);
    ASSERT_EQ(write(done[1], &byte, 1), 1);
    waitpid(child, nullptr, 0);
    for (const int fd : {ready[0], ready[1], done[0], done[1]}) {
        close(fd);
    }
}

TEST_F(Fault, TheSameNameGivesTheSameHandle) {
    fim_handle again = nullptr;
    ASSERT_EQ(fim_register(name.c_str(), points, 3, 0, &again, nullptr), 0U);
    EXPECT_EQ(again, handle);
}

TEST_F(Fault, WithoutAFileTheCountsArePrivate) {
    std::filesystem::remove_all(directory + "/fault");
    std::ofstream(directory + "/fault") << "a file stands in the way";
    fim_handle made = nullptr;
    ASSERT_EQ(fim_register("private", points, 3, 0, &made, nullptr), 0U);
    ASSERT_EQ(fim_arm(made, 0, 0, 1), 0U);
    EXPECT_TRUE(fim_armed(made, 0));
    EXPECT_FALSE(fim_armed(made, 0));
}

TEST_F(Fault, BadArgumentsAreRefused) {
    constexpr auto invalid = static_cast<cerrno>(EINVAL);
    fim_handle made = handle;
    EXPECT_EQ(fim_register("a/b", points, 3, 0, &made, nullptr), invalid);
    EXPECT_EQ(made, nullptr);
    EXPECT_EQ(fim_register(nullptr, points, 3, 0, &made, nullptr), invalid);
    EXPECT_EQ(fim_register("x", nullptr, 3, 0, &made, nullptr), invalid);
    EXPECT_EQ(fim_register("x", points, 0, 0, &made, nullptr), invalid);
    EXPECT_EQ(fim_register("x", points, 65, 0, &made, nullptr), invalid);
    EXPECT_EQ(fim_register("x", points, 3, 0, nullptr, nullptr), invalid);
    EXPECT_EQ(fim_register(std::string(32, 'n').c_str(), points, 3, 0, &made, nullptr), invalid);
    EXPECT_EQ(fim_arm(nullptr, 0, 0, 1), invalid);
    EXPECT_EQ(fim_arm(handle, 3, 0, 1), invalid);
    EXPECT_EQ(fim_disarm_all(nullptr), invalid);
    EXPECT_EQ(fim_arm_program("nobody", "mlib", 0, 0, 1), static_cast<cerrno>(ENOENT));
    EXPECT_EQ(fim_arm_program("../x", "mlib", 0, 0, 1), invalid);
    EXPECT_EQ(fim_walk(diag_program(), name.c_str(), nullptr, nullptr), invalid);
    mkdir((directory + "/fault").c_str(), 0755);
    std::ofstream(directory + "/fault/prog.table") << "no table";
    EXPECT_EQ(fim_arm_program("prog", "table", 0, 0, 1), invalid);
}

TEST_F(Fault, ThreadsFailExactlyAsOftenAsArmed) {
    ASSERT_EQ(fim_arm(handle, 0, 100, 1000), 0U);
    std::atomic<int> failed = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([this, &failed] {
            for (int i = 0; i < 1000; ++i) {
                failed += fim_armed(handle, 0) ? 1 : 0;
            }
        });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    EXPECT_EQ(failed.load(), 1000);
    EXPECT_EQ(handle->armed, 0U);
}

}  // namespace
