// The writer of a radix tree dies at every journaled store; the tree is as before or as after.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include "services/radix/radix.h"
#include "tests/services/gtrie/model.h"

using namespace gtrie_test;

namespace {

struct item {
    rn_node_t node;
    uint8_t key[32];
    uint16_t key_bits;
};

long points_left = -1;
void count_down() {
    if (points_left >= 0 && points_left-- == 0) {
        _exit(77);
    }
}

void *take(size_t size) {
    return arena_alloc(size, 30);
}
void give(rn_node_t *record) {
    arena_free(record, 30);
}

std::string image() {
    return {start_of(the_arena), the_arena->taken};
}

// True when the state is the one after the operation.
template <class F>
bool step_done(long n, const std::string &before, F &&work) {
    const pid_t child = fork();
    if (child == 0) {
        points_left = n;
        journal::crash_hook = count_down;
        work();
        _exit(0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_NE(journal::recover(&the_arena->log), journal::recovery::damaged);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_TRUE(WEXITSTATUS(status) != 0 || image() != before);
    return image() != before;
}

template <class F>
void at_every_point(const rn_root_t *root, F &&work) {
    const std::string before = image();
    const uint64_t count = rn_count(root);
    for (long n = 0; !step_done(n, before, work); ++n) {
        ASSERT_EQ(rn_verify(root), nullptr) << rn_verify(root);
        ASSERT_EQ(rn_count(root), count);
    }
    ASSERT_EQ(rn_verify(root), nullptr) << rn_verify(root);
    ASSERT_NE(rn_count(root), count);
}

TEST(RadixCrash, EveryStoreOfInsertionAndDeletion) {
    open_arena(uint64_t{64} << 20, true);
    rn_root_t *root = rn_tree_init_v2(offsetof(item, key), offsetof(item, key_bits), give, take, 2);
    key_source keys(9, 256);
    std::vector<item *> items;
    for (int i = 0; i < 80; ++i) {
        const prefix p = keys.next();
        if (rn_search(root, p.bytes.data(), p.length) != nullptr || i >= 50) {
            const size_t at = keys.pick(static_cast<uint32_t>(items.size()));
            item *gone = items[at];
            items.erase(items.begin() + static_cast<long>(at));
            ASSERT_NO_FATAL_FAILURE(at_every_point(root, [&] { rn_delete(root, gone); }));
            continue;
        }
        auto *fresh = static_cast<item *>(take(sizeof(item)));
        memcpy(fresh->key, p.bytes.data(), 32);
        fresh->key_bits = static_cast<uint16_t>(p.length);
        ASSERT_NO_FATAL_FAILURE(at_every_point(root, [&] { rn_insert(root, fresh); }));
        items.push_back(fresh);
    }
    EXPECT_EQ(live_blocks().size(), items.size() + 1);
    close_arena();
}

}  // namespace
