#include "services/diag/errors.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace {

const char *window_text(cerrno code) {
    return code == 0x41d6f200 ? "Window is damaged" : nullptr;
}
const char *other_text(cerrno) {
    return "other";
}

TEST(Errors, ErrnoValuesHaveTheTextsOfTheSystem) {
    EXPECT_STREQ(cerr_strerror(0), "Success");
    for (const int code : {EBADF, ENOMEM, EFAULT, EBUSY, EEXIST, EINVAL, ETIMEDOUT}) {
        EXPECT_STREQ(cerr_strerror(static_cast<cerrno>(code)), strerrordesc_np(code));
    }
    EXPECT_EQ(cerr_strerror(EINVAL), cerr_strerror(EINVAL)) << "static storage";
}

TEST(Errors, UnknownCodesGiveTheirNumber) {
    EXPECT_STREQ(cerr_strerror(4095), "Unknown error 4095");
    EXPECT_STREQ(cerr_strerror(0x7fffffff), "Unknown error 0x7fffffff");
}

TEST(Errors, EightUnknownCodesFitOneMessage) {
    std::set<const char *> texts;
    for (cerrno code = 0xf0000000; code < 0xf0000008; ++code) {
        texts.insert(cerr_strerror(code));
    }
    EXPECT_EQ(texts.size(), 8U);
    std::set<std::string> different(texts.begin(), texts.end());
    EXPECT_EQ(different.size(), 8U);
    EXPECT_EQ(texts.count(cerr_strerror(0xf0000009)), 1U)
        << "the ninth uses the first buffer again";
}

TEST(Errors, ServicesGiveTheTextsOfTheirCodes) {
    ASSERT_EQ(cerr_register(0x41d6f000, 0xfffff000, window_text), 0U);
    EXPECT_EQ(cerr_register(0x41d6f000, 0xfffff000, window_text), 0U);
    EXPECT_EQ(cerr_register(0x41d6f000, 0xfffff000, other_text), static_cast<cerrno>(EEXIST));
    EXPECT_STREQ(cerr_strerror(0x41d6f200), "Window is damaged");
    EXPECT_STREQ(cerr_strerror(0x41d6f201), "Unknown error 0x41d6f201");
}

TEST(Errors, BadRegistrationsAreRefused) {
    EXPECT_EQ(cerr_register(0x100, 0xfffff000, other_text), static_cast<cerrno>(EINVAL));
    EXPECT_EQ(cerr_register(0x41d6f001, 0xfffff000, other_text), static_cast<cerrno>(EINVAL));
    EXPECT_EQ(cerr_register(0x42000000, 0xfffff000, nullptr), static_cast<cerrno>(EINVAL));
}

TEST(Errors, RegistrationRunsBesideLookupsAndEndsAtItsLimit) {
    std::thread reader([] {
        for (int i = 0; i < 20000; ++i) {
            const std::string text = cerr_strerror(0x50001000);
            ASSERT_TRUE(text == "other" || text == "Unknown error 0x50001000");
        }
    });
    cerrno result = 0;
    uint32_t registered = 0;
    for (uint32_t i = 0; i < 100 && result == 0; ++i) {
        result = cerr_register(0x50000000 + i * 0x1000, 0xfffff000, other_text);
        registered += result == 0 ? 1 : 0;
    }
    reader.join();
    EXPECT_EQ(result, static_cast<cerrno>(ENOSPC));
    EXPECT_GE(registered, 50U);
    EXPECT_STREQ(cerr_strerror(0x50001000), "other");
}

}  // namespace
