#include "services/cbuf/cbuf.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>

namespace {

struct element {
    uint32_t code;
    char text[40];
};
static_assert(sizeof(element) == 44);

uint32_t code_at(const cbuf *buffer, uint32_t n) {
    uint32_t code = 0;
    memcpy(&code, cbuf_at(buffer, n), sizeof(code));  // elements of 44 bytes are packed
    return code;
}

TEST(Cbuf, IsEmptyWhenMade) {
    cbuf *buffer = cbuf_create(10, sizeof(element));
    ASSERT_NE(buffer, nullptr);
    EXPECT_EQ(cbuf_count(buffer), 0U);
    EXPECT_EQ(cbuf_at(buffer, 0), nullptr);
    cbuf_destroy(buffer);
}

TEST(Cbuf, TheEleventhElementTakesThePlaceOfTheFirst) {
    cbuf *buffer = cbuf_create(10, sizeof(element));
    for (uint32_t i = 1; i <= 11; ++i) {
        const element e = {i, "time"};
        ASSERT_EQ(cbuf_append(buffer, &e), 0U);
        EXPECT_EQ(cbuf_count(buffer), i < 10 ? i : 10U);
    }
    for (uint32_t n = 0; n < 10; ++n) {
        EXPECT_EQ(code_at(buffer, n), n + 2);
    }
    EXPECT_EQ(cbuf_at(buffer, 10), nullptr);
    cbuf_destroy(buffer);
}

TEST(Cbuf, KeepsTheLastElementsOverManyTurns) {
    for (uint32_t count : {1U, 2U, 3U, 7U}) {
        cbuf *buffer = cbuf_create(count, sizeof(uint32_t));
        for (uint32_t i = 0; i < 100; ++i) {
            ASSERT_EQ(cbuf_append(buffer, &i), 0U);
            for (uint32_t n = 0; n < cbuf_count(buffer); ++n) {
                ASSERT_EQ(code_at(buffer, n), i + 1 - cbuf_count(buffer) + n);
            }
        }
        cbuf_destroy(buffer);
    }
}

TEST(Cbuf, RefusesWhatCannotBe) {
    EXPECT_EQ(cbuf_create(0, 4), nullptr);
    EXPECT_EQ(cbuf_create(4, 0), nullptr);
    EXPECT_EQ(cbuf_create(UINT32_MAX, UINT32_MAX), nullptr);
    EXPECT_EQ(cbuf_append(nullptr, "x"), static_cast<cerrno>(EINVAL));
    cbuf *buffer = cbuf_create(1, 1);
    EXPECT_EQ(cbuf_append(buffer, nullptr), static_cast<cerrno>(EINVAL));
    EXPECT_EQ(cbuf_count(buffer), 0U);
    EXPECT_EQ(cbuf_count(nullptr), 0U);
    EXPECT_EQ(cbuf_at(nullptr, 0), nullptr);
    cbuf_destroy(buffer);
    cbuf_destroy(nullptr);
}

TEST(Cbuf, AHandleWhoseBufferIsGoneNamesNone) {
    cbuf *gone = cbuf_create(2, 4);
    const uint32_t element = 1;
    cbuf_destroy(gone);
    cbuf_destroy(gone);
    EXPECT_EQ(cbuf_append(gone, &element), 22U);
    EXPECT_EQ(cbuf_count(gone), 0U);
    EXPECT_EQ(cbuf_at(gone, 0), nullptr);
    cbuf *next = cbuf_create(2, 4);
    EXPECT_NE(next, gone);
    EXPECT_EQ(cbuf_append(gone, &element), 22U);
    EXPECT_EQ(cbuf_count(next), 0U);
    cbuf_destroy(next);
}

TEST(Cbuf, ManyBuffersAreKeptApart) {
    cbuf *many[300];
    for (uint32_t n = 0; n < 300; ++n) {
        many[n] = cbuf_create(1, sizeof(n));
        cbuf_append(many[n], &n);
    }
    for (uint32_t n = 0; n < 300; ++n) {
        EXPECT_EQ(*static_cast<const uint32_t *>(cbuf_at(many[n], 0)), n);
        cbuf_destroy(many[n]);
    }
}

TEST(Cbuf, WithoutMemoryThereIsNoBuffer) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "sanitizers stop the program at such a size";
#endif
    EXPECT_EQ(cbuf_create(UINT32_MAX, INT32_MAX), nullptr);
}

}  // namespace
