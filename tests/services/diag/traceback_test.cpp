#include <gtest/gtest.h>
#include <ucontext.h>

#include <cstring>
#include <thread>
#include <vector>

#include "services/diag/trace.h"

namespace {

static_assert(sizeof(traceback_record) == 40);

__attribute__((noinline)) uintptr_t here(traceback_record *record, uint32_t depth) {
    traceback_v2(record, depth);
    return reinterpret_cast<uintptr_t>(__builtin_return_address(0));
}

__attribute__((noinline)) uintptr_t nested(traceback_record *record, uint32_t depth, int levels) {
    const uintptr_t address = levels == 0 ? here(record, depth) : nested(record, depth, levels - 1);
    asm volatile("" ::: "memory");  // keeps the call from becoming a jump
    return address;
}

TEST(Traceback, NamesTheCallersInnermostFirst) {
    traceback_record record;
    const uintptr_t above = nested(&record, 5, 6);
    for (uint64_t address : record.address) {
        EXPECT_NE(address, 0U);
    }
    EXPECT_EQ(record.address[1], above) << "the second address is where here() returns to";
    EXPECT_EQ(record.address[3], record.address[4]) << "the recursion returns to one place";
}

TEST(Traceback, StopsAtTheDepth) {
    for (uint32_t depth = 0; depth <= 7; ++depth) {
        traceback_record record;
        memset(&record, 0xff, sizeof(record));
        nested(&record, depth, 8);
        for (uint32_t i = 0; i < 5; ++i) {
            EXPECT_EQ(record.address[i] != 0, i < depth) << depth << " " << i;
        }
    }
    traceback_v2(nullptr, 5);
}

TEST(Traceback, WorksOnOtherThreads) {
    traceback_record record = {};
    std::thread([&record] { nested(&record, 5, 2); }).join();
    EXPECT_NE(record.address[0], 0U);
    EXPECT_NE(record.address[2], 0U);
}

traceback_record on_own_stack;
ucontext_t main_context;

TEST(Traceback, OnAStackOfTheProgramsOwnMakingNamesTheCallerOnly) {
    std::vector<char> stack(256 * 1024);
    ucontext_t context;
    ASSERT_EQ(getcontext(&context), 0);
    context.uc_stack.ss_sp = stack.data();
    context.uc_stack.ss_size = stack.size();
    context.uc_link = &main_context;
    makecontext(
        &context, [] { nested(&on_own_stack, 5, 3); }, 0);
    ASSERT_EQ(swapcontext(&main_context, &context), 0);
    EXPECT_NE(on_own_stack.address[0], 0U);
    EXPECT_EQ(on_own_stack.address[1], 0U);
}

}  // namespace
