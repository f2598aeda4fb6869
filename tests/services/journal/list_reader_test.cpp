// Readers without a lock beside a writer.
#include <gtest/gtest.h>

#include <cstring>
#include <thread>

#include "services/journal/list.h"

namespace mfwd6 {
namespace {

struct record {
    record *next;
    record *prev;
    uint64_t value;
};

using numbers = journal::member_list<record, &record::next, &record::prev>;

// Even records stay; odd ones come and go between them. Every walk meets all even ones, in order.
TEST(ListReader, MeetsEverythingThatStays) {
    constexpr uint64_t count = 20;
    alignas(64) static unsigned char memory[journal::log_bytes(64)];
    journal::log *log = journal::format(memory, sizeof memory);
    static record all[2 * count];
    std::memset(all, 0, sizeof all);
    record *head = nullptr;
    record *tail = nullptr;
    numbers l(head, tail);
    for (uint64_t i = 0; i < 2 * count; ++i) {
        all[i].value = i;
        if (i % 2 == 0) {
            l.push_back(&all[i]);
        }
    }
    std::atomic<bool> done{false};
    std::atomic<uint64_t> walks{0};
    std::atomic<uint64_t> bad{0};
    std::thread reader([&] {
        while (!done) {
            uint64_t evens = 0;
            uint64_t last = 0;
            for (record *r = numbers(head).first(); r != nullptr; r = numbers::next(r)) {
                bad += r->value < last ? 1 : 0;
                last = r->value;
                evens += r->value % 2 == 0 ? 1 : 0;
            }
            bad += evens != count ? 1 : 0;
            ++walks;
        }
    });
    journal::bind_thread(log, 0x101);
    for (uint64_t round = 0; round < 2000 || walks < 100; ++round) {
        const uint64_t at = (round * 7) % count;
        numbers(head, tail).insert_after(&all[2 * at], &all[2 * at + 1]);
        {
            journal::group g;
            numbers(head, tail).remove(&all[2 * at + 1]);
            if (round % 3 == 0) {
                g.undo();
                numbers(head, tail).remove(&all[2 * at + 1]);
            }
        }
    }
    journal::unbind_thread(log);
    done = true;
    reader.join();
    EXPECT_EQ(bad, 0U);
    EXPECT_EQ(numbers(head, tail).check(2 * count), journal::list_fault::none);
}

}  // namespace
}  // namespace mfwd6
