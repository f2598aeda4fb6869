// What libip6mc.so exports is its interface, name by name, and nothing of its inside.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <vector>

namespace {

std::set<std::string> listed() {
    std::set<std::string> names;
    std::ifstream file(LIST_FILE);
    for (std::string name; std::getline(file, name);) {
        names.insert(name);
    }
    return names;
}

std::set<std::string> exported() {
    std::set<std::string> names;
    FILE *out = popen("nm -D --defined-only --format=posix '" LIBRARY_FILE "'", "r");
    char line[512];
    while (out != nullptr && fgets(line, sizeof(line), out) != nullptr) {
        const std::string text(line);
        // The address sanitizer marks each variable with a symbol of its own.
        if (!text.starts_with("__odr_asan.")) {
            names.insert(text.substr(0, text.find(' ')));
        }
    }
    if (out != nullptr) {
        pclose(out);
    }
    return names;
}

std::vector<std::string> without(const std::set<std::string> &names,
                                 const std::set<std::string> &others) {
    std::vector<std::string> left;
    std::set_difference(names.begin(), names.end(), others.begin(), others.end(),
                        std::back_inserter(left));
    return left;
}

}  // namespace

TEST(Exports, AreThoseOfTheList) {
    const auto names = exported();
    const auto list = listed();
    ASSERT_GT(names.size(), 100U);
    EXPECT_EQ(without(names, list), std::vector<std::string>{})
        << "exported, and not part of the interface";
    const auto missing = without(list, names);
    RecordProperty("to_come", static_cast<int>(missing.size()));
    printf("%zu of %zu names exported, %zu still to be built\n", names.size(), list.size(),
           missing.size());
}
