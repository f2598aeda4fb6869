// Windows that the daemon must not take: each is told apart, and nothing in it is lost.
#include "services/window/window.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "ipv4/multicast/lib/ip6mc_idb.h"
#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "platforms/sim/sim.h"
#include "services/diag/run_dir.h"
#include "services/window/setup.h"
#include "tests/apps/mfwd6d/bed.h"
#include "tests/kit/child.h"
#include "tests/kit/library.h"

namespace {

// The first bytes of a file.
std::string head_of(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    std::string bytes(4096, '\0');
    in.read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    return bytes;
}

// Runs until it ends by itself: the reason, with the code checked.
std::string refusal(const bed::folder &dir) {
    bed::keeper k(dir);
    EXPECT_EQ(k.wait(), 1);
    return k.said();
}

void expect_text(const std::string &said, const std::string &text) {
    EXPECT_NE(said.find(text), std::string::npos) << said;
}

void use(const bed::folder &dir) {
    shmwin_set_run_dir(dir.path().c_str());
    diag_set_run_dir(dir.path().c_str());
}

// A window with something in it, made by an owner that was killed.
void make_window(const bed::folder &dir, bool other_version) {
    kit::child owner([&](const kit::post &parent) {
        use(dir);
        sim_reset();
        if (kit::start_library() != 0)
            return 1;
        if (other_version)
            ipv4mc_desc->shmwin_info->version_minor = 99;
        parent.tell();
        parent.hear();
        return 0;
    });
    ASSERT_EQ(owner.hear(), '.');
    owner.kill();
}

TEST(Window, OfAnotherVersion) {
    NEEDS_NAMESPACE();
    const bed::folder dir;
    make_window(dir, true);
    const auto size_before = std::filesystem::file_size(dir.file("mfwdv6"));
    const std::string said = refusal(dir);
    expect_text(said, "is of version 1.99, this program of 1.15");
    expect_text(said, "--new-window");
    EXPECT_EQ(std::filesystem::file_size(dir.file("mfwdv6")), size_before);
    bed::keeper taken(dir, {"--new-window"});
    EXPECT_TRUE(taken.ready());
}

TEST(Window, OfAnotherLayout) {
    NEEDS_NAMESPACE();
    const bed::folder dir;
    kit::child other([&](const kit::post &) {
        use(dir);
        shmwin_open_record record{};
        snprintf(record.name, sizeof(record.name), "%s", IP6MC_SHMWIN_NAME);
        record.hdr_size = sizeof(ipv4mc_shmwin_hdr_st);
        record.open_flags = SHMWIN_OPEN_OWNER;
        shmwin_platform_info(record.name, &record.base_addr, &record.max_table_size);
        shmwin_set_fingerprint(IP6MC_SHMWIN_NAME, 12345);
        void *header = nullptr;
        uint32_t id = 0;
        return shmwin_open_win(&record, &header, &id) == 0 ? 0 : 1;
    });
    ASSERT_EQ(other.wait(), 0);
    expect_text(refusal(dir),
                "was made by another version, whose records are laid out differently");
    expect_text(refusal(dir), "--new-window");  // it is still there
    bed::keeper taken(dir, {"--new-window"});
    EXPECT_TRUE(taken.ready());
}

TEST(Window, Damaged) {
    NEEDS_NAMESPACE();
    const bed::folder dir;
    make_window(dir, false);
    const int fd = open(dir.file("mfwdv6").c_str(), O_RDWR);
    ASSERT_GE(fd, 0);
    const std::string nonsense(64, 'x');
    ASSERT_EQ(pwrite(fd, nonsense.data(), nonsense.size(), 0), 64);
    close(fd);
    expect_text(refusal(dir), "is damaged");
    EXPECT_EQ(head_of(dir.file("mfwdv6")).substr(0, 64), nonsense);
}

TEST(Window, HeldByAnotherOwner) {
    NEEDS_NAMESPACE();
    const bed::folder dir;
    kit::child owner([&](const kit::post &parent) {
        use(dir);
        sim_reset();
        if (kit::start_library() != 0)
            return 1;
        parent.tell();
        parent.hear();
        return 0;
    });
    ASSERT_EQ(owner.hear(), '.');
    expect_text(refusal(dir), "is held by another owner that is alive");
    owner.kill();
    bed::keeper taken(dir);
    EXPECT_TRUE(taken.ready());
}

TEST(Window, OfTheWrongKind) {
    NEEDS_NAMESPACE();
    const bed::folder dir;
    ASSERT_EQ(symlink("/etc/passwd", dir.file("mfwdv6").c_str()), 0);
    expect_text(refusal(dir), "is no regular file");
}

}  // namespace
