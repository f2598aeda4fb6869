#include <gtest/gtest.h>

#include <set>
#include <string>

#include "services/diag/errors.h"
#include "services/trees/node.h"

namespace {

TEST(TreeErrorTexts, EveryCodeHasItsOwn) {
    std::set<std::string> texts;
    for (const cerrno code : {TREE_E_NOT_RUNNING, TREE_E_NOT_FOUND, TREE_E_ORDER, TREE_E_BALANCE,
                              TREE_E_LINKS, TREE_E_COUNT}) {
        const std::string text = cerr_strerror(code);
        EXPECT_EQ(text.find("0x"), std::string::npos) << text;
        EXPECT_TRUE(texts.insert(text).second) << text;
    }
    EXPECT_NE(std::string(cerr_strerror(0x44024fff)).find("0x44024fff"), std::string::npos);
}

}  // namespace
