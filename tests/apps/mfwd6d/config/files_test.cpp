#include "apps/mfwd6d/config/files.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

namespace config = mfwd6::config;

namespace {

class Files : public testing::Test {
  protected:
    Files() {
        char name[] = "/tmp/mfwd6-test-XXXXXX";
        dir = mkdtemp(name);
    }
    ~Files() override {
        std::error_code ignored;
        std::filesystem::remove_all(dir, ignored);
    }
    std::string dir;
};

TEST_F(Files, AreReplacedAtOnceAndReadBack) {
    const std::string path = dir + "/x";
    EXPECT_EQ(config::replace_file(path, "one"), "");
    EXPECT_EQ(config::replace_file(path, std::string(1'000'000, 'y')), "");
    std::string text = "old";
    EXPECT_EQ(config::read_file(path, &text), "");
    EXPECT_EQ(text, std::string(1'000'000, 'y'));
    struct stat st {};
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600U);
    EXPECT_FALSE(std::filesystem::exists(path + ".new"));
}

TEST_F(Files, FailuresAreTold) {
    std::string text;
    EXPECT_EQ(config::read_file(dir + "/none", &text), "No such file or directory");
    EXPECT_EQ(config::read_file(dir, &text), "a folder, not a file");
    ASSERT_EQ(mkfifo((dir + "/pipe").c_str(), 0600), 0);
    EXPECT_EQ(config::read_file(dir + "/pipe", &text), "a pipe, not a file");
    EXPECT_NE(config::replace_file(dir + "/no/x", "one"), "");
    // Not through somebody's link.
    ASSERT_EQ(symlink("/dev/null", (dir + "/y.new").c_str()), 0);
    EXPECT_NE(config::replace_file(dir + "/y", "one"), "");
}

TEST_F(Files, PatternsCountFromTheFolderOfTheFile) {
    config::replace_file(dir + "/b.conf", "");
    config::replace_file(dir + "/a.conf", "");
    const config::file_reader disk = config::disk();
    std::vector<std::string> paths;
    EXPECT_EQ(disk.expand("*.conf", dir + "/main", &paths), "");
    EXPECT_EQ(paths, (std::vector<std::string>{dir + "/a.conf", dir + "/b.conf"}));
    paths.clear();
    EXPECT_EQ(disk.expand(dir + "/*.none", dir + "/main", &paths), "");
    EXPECT_TRUE(paths.empty());
    EXPECT_EQ(disk.expand("none.conf", dir + "/main", &paths),
              dir + "/none.conf: No such file or directory");
}

}  // namespace
