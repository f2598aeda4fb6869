// Opening: who may, what is refused with which code, and what a killed maker leaves.
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <cerrno>

#include "services/diag/errors.h"
#include "services/journal/journal.h"
#include "services/window/layout.h"
#include "tests/services/window/support.h"

namespace {

using namespace window_test;
using mfwd6::window::superblock;

class WindowOpen : public WindowTest {
  protected:
    // Leaves a closed window behind, with one block in it.
    void make_one() {
        opened o = open_as(true);
        ASSERT_EQ(o.code, 0U);
        void *block = nullptr;
        ASSERT_EQ(shmwin_malloc(o.id, 100, &block), 0U);
        std::memcpy(o.header, &block, sizeof(block));
        o.close();
    }

    void overwrite(off_t at, const void *bytes, size_t count) {
        const int fd = ::open(file().c_str(), O_RDWR);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(pwrite(fd, bytes, count, at), static_cast<ssize_t>(count));
        ::close(fd);
    }

    std::string contents() {
        const int fd = ::open(file().c_str(), O_RDONLY);
        std::string all(4096, '\0');
        EXPECT_GT(pread(fd, all.data(), all.size(), 0), 0);
        ::close(fd);
        return all;
    }

    // The sequence with which the library answers SHMWIN_ERR_REPAIR.
    void repair_and_open() {
        opened o = open_as(true);
        ASSERT_EQ(o.code, 0x41d6f200U);
        ASSERT_EQ(shmwin_reset(o.id), 0U);
        ASSERT_EQ(shmwin_close(o.id, 1), 0U);
        o = open_as(true);
        ASSERT_EQ(o.code, 0U);
        EXPECT_TRUE(live_blocks(o.id).empty());
        EXPECT_TRUE(whole(o.id));
        o.close();
    }

    // Attached clients get `plain` and change nothing; the owner may repair.
    void expect_unusable(cerrno plain) {
        const std::string before = contents();
        EXPECT_EQ(open_as(false).code, plain);
        EXPECT_EQ(contents(), before);
        repair_and_open();
    }
};

TEST_F(WindowOpen, NewWindowHasZeroHeaderAndNoBlocks) {
    opened o = open_as(true);
    ASSERT_EQ(o.code, 0U);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(o.header) % 64, 0U);
    for (size_t i = 0; i < header_bytes; ++i) {
        ASSERT_EQ(static_cast<char *>(o.header)[i], 0);
    }
    EXPECT_TRUE(live_blocks(o.id).empty());
    EXPECT_TRUE(whole(o.id));
    shmwin_opening how;
    ASSERT_EQ(shmwin_get_opening(o.id, &how), 0U);
    EXPECT_EQ(how.found, SHMWIN_FOUND_NEW);
    o.close();
}

TEST_F(WindowOpen, ContentsAndAddressesOutliveProcesses) {
    ASSERT_EQ(in_child([] {
                  opened o = open_as(true);
                  void *block = nullptr;
                  if (o.code != 0 || shmwin_malloc(o.id, 64, &block) != 0) {
                      return 1;
                  }
                  std::strcpy(static_cast<char *>(block), "kept");
                  std::memcpy(o.header, &block, sizeof(block));
                  die();
              }),
              -SIGKILL);
    opened o = open_as(true);
    ASSERT_EQ(o.code, 0U);
    char *block = nullptr;
    std::memcpy(&block, o.header, sizeof(block));
    EXPECT_STREQ(block, "kept");
    EXPECT_EQ(live_blocks(o.id).size(), 1U);
    shmwin_opening how;
    ASSERT_EQ(shmwin_get_opening(o.id, &how), 0U);
    EXPECT_EQ(how.found, SHMWIN_FOUND_CLEAN);
    o.close();
}

TEST_F(WindowOpen, BadArgumentsAreRefused) {
    shmwin_open_record r = record(true);
    void *header = nullptr;
    uint32_t id = 0;
    EXPECT_EQ(shmwin_open_win(nullptr, &header, &id), static_cast<cerrno>(EINVAL));
    EXPECT_EQ(shmwin_open_win(&r, nullptr, &id), static_cast<cerrno>(EINVAL));
    EXPECT_EQ(shmwin_open_win(&r, &header, nullptr), static_cast<cerrno>(EINVAL));
    for (const char *name : {"", ".", "..", "a/b", ".hidden"}) {
        shmwin_open_record bad = record(true);
        std::memset(bad.name, 0, sizeof(bad.name));
        std::memcpy(bad.name, name, strnlen(name, sizeof(bad.name) - 1));
        EXPECT_EQ(shmwin_open_win(&bad, &header, &id), static_cast<cerrno>(EINVAL)) << name;
    }
    using spoil = void (*)(shmwin_open_record *);
    for (const spoil spoil_it : {
             spoil{[](auto *bad) { bad->open_flags = 1; }},
             spoil{[](auto *bad) { std::memset(bad->name, 'n', sizeof(bad->name)); }},  // no NUL
             spoil{[](auto *bad) { bad->base_addr = nullptr; }},
             spoil{[](auto *bad) { bad->base_addr = static_cast<char *>(bad->base_addr) + 4096; }},
             spoil{[](auto *bad) { bad->max_table_size = 1 << 20; }},
             spoil{[](auto *bad) { bad->max_table_size += 1; }},
             spoil{[](auto *bad) { bad->hdr_size = bad->max_table_size; }},
         }) {
        shmwin_open_record bad = r;
        spoil_it(&bad);
        EXPECT_EQ(shmwin_open_win(&bad, &header, &id), static_cast<cerrno>(EINVAL));
    }
    EXPECT_NE(access(file().c_str(), F_OK), 0) << "nothing is made";
    EXPECT_EQ(shmwin_platform_info("x", nullptr, nullptr), static_cast<cerrno>(EINVAL));
    EXPECT_EQ(shmwin_close(12345, 1), SHMWIN_ERR_BAD_ID);
    void *block = nullptr;
    EXPECT_EQ(shmwin_malloc(0, 1, &block), SHMWIN_ERR_BAD_ID);
}

TEST_F(WindowOpen, AttachWithoutWindowSaysSo) {
    EXPECT_EQ(open_as(false).code, SHMWIN_ERR_NO_WINDOW);
    EXPECT_NE(access(file().c_str(), F_OK), 0) << "an attached client makes nothing";
    shmwin_set_run_dir((dir_ + "/none").c_str());
    EXPECT_EQ(open_as(false).code, SHMWIN_ERR_NO_WINDOW);
}

TEST_F(WindowOpen, SecondOwnerIsBusyWhileTheFirstLives) {
    gate ready, go;
    const pid_t owner = start([&] {
        const opened o = open_as(true);
        ready.open();
        go.wait();
        return o.code == 0 ? 0 : 1;
    });
    ready.wait();
    EXPECT_EQ(open_as(true).code, static_cast<cerrno>(EBUSY));
    opened client = open_as(false);
    EXPECT_EQ(client.code, 0U);
    client.close();
    go.open();
    EXPECT_EQ(end_of(owner), 0);
    opened next = open_as(true);
    EXPECT_EQ(next.code, 0U);
    EXPECT_EQ(open_as(true).code, static_cast<cerrno>(EBUSY)) << "in the same process too";
    next.close();
}

TEST_F(WindowOpen, ClientAttachesWithoutOwnerAndMayAllocate) {
    make_one();
    opened client = open_as(false);
    ASSERT_EQ(client.code, 0U);
    EXPECT_EQ(live_blocks(client.id).size(), 1U);
    void *block = nullptr;
    EXPECT_EQ(shmwin_malloc(client.id, 10, &block), 0U);
    EXPECT_EQ(shmwin_reset(client.id), SHMWIN_ERR_NOT_OWNER);
    client.close();
}

TEST_F(WindowOpen, SymbolicLinkIsNeverFollowed) {
    make_one();
    std::filesystem::rename(file(), file("real"));
    ASSERT_EQ(symlink(file("real").c_str(), file().c_str()), 0);
    EXPECT_EQ(open_as(true).code, SHMWIN_ERR_FILE_TYPE);
    EXPECT_EQ(open_as(false).code, SHMWIN_ERR_FILE_TYPE);
}

TEST_F(WindowOpen, FolderAndPipeAreNoWindows) {
    ASSERT_EQ(mkdir(file().c_str(), 0700), 0);
    EXPECT_EQ(open_as(true).code, SHMWIN_ERR_FILE_TYPE);
    ASSERT_EQ(rmdir(file().c_str()), 0);
    ASSERT_EQ(mkfifo(file().c_str(), 0600), 0);
    EXPECT_EQ(open_as(true).code, SHMWIN_ERR_FILE_TYPE);
    EXPECT_EQ(open_as(false).code, SHMWIN_ERR_FILE_TYPE);
}

TEST_F(WindowOpen, FileThatOthersMayWriteIsRefused) {
    make_one();
    ASSERT_EQ(chmod(file().c_str(), 0606), 0);
    EXPECT_EQ(open_as(true).code, SHMWIN_ERR_PERMISSION);
    ASSERT_EQ(chmod(file().c_str(), 0660), 0);
    EXPECT_EQ(open_as(false).code, SHMWIN_ERR_PERMISSION) << "no group is configured";
}

TEST_F(WindowOpen, ForeignFileAndFolderAreRefused) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root to give files away";
    }
    make_one();
    ASSERT_EQ(chown(file().c_str(), 12345, 12345), 0);
    EXPECT_EQ(open_as(true).code, SHMWIN_ERR_PERMISSION);
    EXPECT_EQ(open_as(false).code, SHMWIN_ERR_PERMISSION);
    ASSERT_EQ(chown(dir_.c_str(), 12345, 12345), 0);
    EXPECT_EQ(open_as(true).code, SHMWIN_ERR_PERMISSION);
}

TEST_F(WindowOpen, UnprivilegedUserIsKeptOut) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root to become another user";
    }
    make_one();
    ASSERT_EQ(chmod(dir_.c_str(), 0755), 0);
    const auto attach = [] {
        const cerrno code = setuid(12345) == 0 ? open_as(false).code : 0;
        return code == SHMWIN_ERR_PERMISSION ? 0 : 1;
    };
    EXPECT_EQ(in_child(attach), 0);
}

TEST_F(WindowOpen, GroupMemberAttachesWhenTheGroupIsConfigured) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root to become another user";
    }
    shmwin_set_group(4242);
    make_one();
    struct stat st;
    ASSERT_EQ(stat(file().c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777U, 0660U);
    EXPECT_EQ(st.st_gid, 4242U);
    ASSERT_EQ(chmod(dir_.c_str(), 0755), 0);
    const auto attach = [] {
        return setgid(4242) == 0 && setuid(12345) == 0 && open_as(false).code == 0 ? 0 : 1;
    };
    EXPECT_EQ(in_child(attach), 0);
    shmwin_set_group(static_cast<uint32_t>(-1));
}

TEST_F(WindowOpen, NewFileIsForItsUserAlone) {
    make_one();
    struct stat st;
    ASSERT_EQ(stat(file().c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777U, 0600U);
}

TEST_F(WindowOpen, EmptyFileIsHalfMadeAndTheOwnerMakesIt) {
    const int fd = ::open(file().c_str(), O_CREAT | O_RDWR, 0600);
    ::close(fd);
    EXPECT_EQ(open_as(false).code, SHMWIN_ERR_HALF_MADE);
    opened o = open_as(true);
    EXPECT_EQ(o.code, 0U);
    o.close();
}

TEST_F(WindowOpen, GarbageIsDamagedAndRepaired) {
    make_one();
    const std::string garbage(4096, 'G');
    overwrite(0, garbage.data(), garbage.size());
    expect_unusable(SHMWIN_ERR_DAMAGED);
}

TEST_F(WindowOpen, EveryWrongWordOfTheIdentityIsNoticed) {
    for (size_t at = 0; at < sizeof(mfwd6::window::identity); at += 8) {
        make_one();
        const uint64_t wrong = 0x5a5a5a5a5a5a5a5aULL;
        overwrite(static_cast<off_t>(at), &wrong, sizeof(wrong));
        const cerrno code = open_as(false).code;
        // A foreign version is another layout; all the rest is guarded by the check.
        EXPECT_EQ(code, at == 8 ? SHMWIN_ERR_LAYOUT : SHMWIN_ERR_DAMAGED) << at;
        repair_and_open();
    }
}

TEST_F(WindowOpen, TruncatedFileIsDamaged) {
    make_one();
    for (const off_t size : {off_t{10}, off_t{5000}, off_t{1} << 19}) {
        ASSERT_EQ(truncate(file().c_str(), size), 0);
        expect_unusable(SHMWIN_ERR_DAMAGED);
    }
}

TEST_F(WindowOpen, DamagedHeapAndLogsAreFoundByTheOwner) {
    const uint32_t wrong = 0x7fffffff;
    const off_t words[] = {static_cast<off_t>(offsetof(superblock, heap)),
                           static_cast<off_t>(offsetof(superblock, heap) +
                                              offsetof(mfwd6::window::heap_state, committed)),
                           static_cast<off_t>(offsetof(superblock, heap) +
                                              offsetof(mfwd6::window::heap_state, partial)),
                           static_cast<off_t>(mfwd6::window::log_offset(0)),
                           static_cast<off_t>(mfwd6::window::log_offset(3)) + 4};
    for (const off_t at : words) {
        make_one();
        overwrite(at, &wrong, sizeof(wrong));
        repair_and_open();
    }
}

TEST_F(WindowOpen, OtherHeaderSizeAndFingerprintAreOtherLayouts) {
    make_one();
    shmwin_open_record r = record(false);
    r.hdr_size = header_bytes + 8;
    void *header = nullptr;
    uint32_t id = 0;
    EXPECT_EQ(shmwin_open_win(&r, &header, &id), SHMWIN_ERR_LAYOUT);
    shmwin_set_fingerprint("test", 77);
    expect_unusable(SHMWIN_ERR_LAYOUT);
    opened o = open_as(true);
    EXPECT_EQ(o.code, 0U);
    o.close();
    shmwin_set_fingerprint("test", 0);
}

TEST_F(WindowOpen, RepairIsNotOfferedWhileSomebodyHasItMapped) {
    make_one();
    gate ready, go;
    const pid_t client = start([&] {
        const opened o = open_as(false);
        ready.open();
        go.wait();
        return o.code == 0 && live_blocks(o.id).size() == 1 ? 0 : 1;
    });
    ready.wait();
    shmwin_set_fingerprint("test", 5);
    EXPECT_EQ(open_as(true).code, SHMWIN_ERR_LAYOUT);
    go.open();
    EXPECT_EQ(end_of(client), 0);
    repair_and_open();
    shmwin_set_fingerprint("test", 0);
}

TEST_F(WindowOpen, DamageIsOnlyToldWhileSomebodyHasItMapped) {
    make_one();
    gate ready, go;
    const pid_t client = start([&] {
        const opened o = open_as(false);
        ready.open();
        go.wait();
        char *block = nullptr;
        std::memcpy(&block, o.header, sizeof(block));
        std::strcpy(block, "still mine");
        return o.code == 0 && std::strcmp(block, "still mine") == 0 ? 0 : 1;
    });
    ready.wait();
    const uint32_t wrong = 0x7fffffff;
    overwrite(static_cast<off_t>(mfwd6::window::log_offset(0)), &wrong, sizeof(wrong));
    struct stat before, after;
    ASSERT_EQ(stat(file().c_str(), &before), 0);
    EXPECT_EQ(open_as(true).code, SHMWIN_ERR_DAMAGED);
    EXPECT_EQ(open_as(false).code, SHMWIN_ERR_DAMAGED);
    EXPECT_EQ(open_as(true).code, SHMWIN_ERR_DAMAGED);
    ASSERT_EQ(stat(file().c_str(), &after), 0);
    EXPECT_EQ(before.st_size, after.st_size);
    go.open();
    EXPECT_EQ(end_of(client), 0);
    EXPECT_EQ(open_as(false).code, SHMWIN_ERR_DAMAGED);
    repair_and_open();
}

TEST_F(WindowOpen, ResetIsRefusedWhileAnotherIsInTheMiddleOfAChange) {
    opened o = open_as(true);
    ASSERT_EQ(o.code, 0U);
    void *block = nullptr;
    ASSERT_EQ(shmwin_malloc(o.id, 100, &block), 0U);
    gate ready, go;
    const pid_t client = start([&] {
        const opened c = open_as(false);
        if (c.code != 0 || shmwin_lock(c.id) != 0) {
            return 1;
        }
        {
            const mfwd6::journal::group change;
            ready.open();
            go.wait();
        }
        return shmwin_unlock(c.id) == 0 ? 0 : 2;
    });
    ready.wait();
    EXPECT_EQ(shmwin_reset(o.id), SHMWIN_ERR_IN_USE);
    EXPECT_EQ(live_blocks(o.id).size(), 1U);
    go.open();
    EXPECT_EQ(end_of(client), 0);
    EXPECT_EQ(shmwin_reset(o.id), 0U);
    EXPECT_TRUE(live_blocks(o.id).empty());
    o.close();
}

TEST_F(WindowOpen, RepairThatIsNotCarriedOutCanBeAskedForAgain) {
    make_one();
    shmwin_set_fingerprint("test", 5);
    EXPECT_EQ(open_as(true).code, SHMWIN_ERR_REPAIR);
    EXPECT_EQ(open_as(true).code, SHMWIN_ERR_REPAIR);
    repair_and_open();
    shmwin_set_fingerprint("test", 0);
}

TEST_F(WindowOpen, OtherBaseHasItsOwnCode) {
    make_one();
    shmwin_open_record r = record(true);
    r.base_addr = static_cast<char *>(r.base_addr) + (uint64_t{1} << 37);
    void *header = nullptr;
    uint32_t id = 0;
    EXPECT_EQ(shmwin_open_win(&r, &header, &id), SHMWIN_ERR_BASE);
    r.open_flags = 0;
    EXPECT_EQ(shmwin_open_win(&r, &header, &id), SHMWIN_ERR_BASE);
    opened o = open_as(true);
    EXPECT_EQ(live_blocks(o.id).size(), 1U);
    o.close();
}

TEST_F(WindowOpen, TakenRangeHasItsOwnCodeAndLosesNothing) {
    make_one();
    const shmwin_open_record r = record(true);
    void *in_the_way = mmap(static_cast<char *>(r.base_addr) + (8 << 20), 4096, PROT_READ,
                            MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED_NOREPLACE, -1, 0);
    ASSERT_NE(in_the_way, MAP_FAILED);
    EXPECT_EQ(open_as(true).code, SHMWIN_ERR_BASE_TAKEN);
    EXPECT_EQ(open_as(false).code, SHMWIN_ERR_BASE_TAKEN);
    munmap(in_the_way, 4096);
    opened o = open_as(true);
    EXPECT_EQ(o.code, 0U);
    EXPECT_EQ(live_blocks(o.id).size(), 1U);
    o.close();
}

TEST_F(WindowOpen, TwoWindowsWithDifferentBasesWork) {
    void *base = nullptr;
    size_t size = 0;
    ASSERT_EQ(shmwin_platform_info("test", &base, &size), 0U);
    const uint64_t beside = reinterpret_cast<uint64_t>(base) + (uint64_t{1} << 37);
    ASSERT_EQ(shmwin_set_place_of("other", beside, 64 << 20), 0U);
    opened a = open_as(true);
    opened b = open_as(true, "other");
    ASSERT_EQ(a.code, 0U);
    ASSERT_EQ(b.code, 0U);
    void *in_a = nullptr, *in_b = nullptr;
    ASSERT_EQ(shmwin_malloc(a.id, 50, &in_a), 0U);
    ASSERT_EQ(shmwin_malloc(b.id, 50, &in_b), 0U);
    EXPECT_EQ(live_blocks(a.id).size(), 1U);
    EXPECT_EQ(shmwin_free(in_a), 0U);
    EXPECT_EQ(live_blocks(a.id).size(), 0U);
    EXPECT_EQ(live_blocks(b.id).size(), 1U);
    b.close();
    a.close();
}

TEST_F(WindowOpen, ForkedChildHasNoWindowButMayOpenIt) {
    opened o = open_as(true);
    ASSERT_EQ(o.code, 0U);
    EXPECT_EQ(in_child([&] {
                  void *block = nullptr;
                  const bool closed = shmwin_malloc(o.id, 10, &block) == SHMWIN_ERR_BAD_ID;
                  return closed && open_as(true).code == EBUSY && open_as(false).code == 0 ? 0 : 1;
              }),
              0);
    // The child must not have kept the parent's lease alive either.
    gate ready, go;
    const pid_t idle = start([&] {
        ready.open();
        go.wait();
        return 0;
    });
    ready.wait();
    o.close();
    o = open_as(true);
    EXPECT_EQ(o.code, 0U);
    o.close();
    go.open();
    EXPECT_EQ(end_of(idle), 0);
}

TEST_F(WindowOpen, ResetEmptiesTheWindowAndTellsAttachedClients) {
    opened o = open_as(true);
    ASSERT_EQ(o.code, 0U);
    shmwin_usage before, after;
    ASSERT_EQ(shmwin_get_usage(o.id, &before), 0U);
    for (int i = 0; i < 5000; ++i) {
        void *block = nullptr;
        ASSERT_EQ(shmwin_malloc(o.id, 700, &block), 0U);
    }
    std::memset(o.header, 0xff, header_bytes);
    ASSERT_EQ(shmwin_reset(o.id), 0U);
    ASSERT_EQ(shmwin_get_usage(o.id, &after), 0U);
    EXPECT_EQ(after.used, 0U);
    EXPECT_GT(after.generation, before.generation);
    EXPECT_EQ(after.committed, before.committed) << "memory goes back";
    EXPECT_EQ(static_cast<char *>(o.header)[header_bytes - 1], 0);
    EXPECT_TRUE(live_blocks(o.id).empty());
    void *block = nullptr;
    EXPECT_EQ(shmwin_malloc(o.id, 700, &block), 0U);
    EXPECT_TRUE(whole(o.id));
    o.close();
}

TEST_F(WindowOpen, ProcessesAreListed) {
    opened o = open_as(true);
    gate ready, go;
    const pid_t client = start([&] {
        const opened c = open_as(false);
        ready.open();
        go.wait();
        return c.code == 0 ? 0 : 1;
    });
    ready.wait();
    shmwin_process list[4];
    uint32_t count = 0;
    ASSERT_EQ(shmwin_get_processes(o.id, list, 4, &count), 0U);
    ASSERT_EQ(count, 2U);
    int owners = 0;
    for (uint32_t i = 0; i < count; ++i) {
        owners += list[i].owner;
        EXPECT_EQ(list[i].alive, 1);
        EXPECT_EQ(list[i].pid, list[i].owner != 0 ? getpid() : client);
    }
    EXPECT_EQ(owners, 1);
    go.open();
    EXPECT_EQ(end_of(client), 0);
    o.close();
}

TEST_F(WindowOpen, FullFileSystemIsACodeAndNeverASignal) {
    const bool mounted = mount("tmpfs", dir_.c_str(), "tmpfs", 0, "size=8m,mode=0700") == 0;
    opened o = open_as(true);
    ASSERT_EQ(o.code, 0U);
    if (!mounted) {
        std::printf("no own tmpfs (%s): the growth limit stands in for it\n", std::strerror(errno));
        ASSERT_EQ(shmwin_set_growth_limit(o.id, 6 << 20), 0U);
    }
    size_t taken = 0;
    cerrno code = 0;
    for (void *block = nullptr; (code = shmwin_malloc(o.id, 4096, &block)) == 0; ++taken) {
        std::memset(block, 0xab, 4096);
    }
    EXPECT_EQ(code, SHMWIN_ERR_SPACE);
    EXPECT_GT(taken, 1000U);
    EXPECT_TRUE(whole(o.id));
    o.close();
    o = open_as(true);
    EXPECT_EQ(o.code, 0U);
    EXPECT_EQ(live_blocks(o.id).size(), taken);
    o.close();
    if (mounted) {
        ASSERT_EQ(umount(dir_.c_str()), 0);
        ASSERT_EQ(mount("tmpfs", dir_.c_str(), "tmpfs", 0, "size=64k,mode=0700"), 0);
        EXPECT_EQ(open_as(true).code, SHMWIN_ERR_SPACE) << "no room even for an empty window";
        EXPECT_EQ(open_as(false).code, SHMWIN_ERR_HALF_MADE);
        ASSERT_EQ(umount(dir_.c_str()), 0);
    }
}

TEST_F(WindowOpen, RunDirIsChecked) {
    EXPECT_EQ(shmwin_set_run_dir(""), static_cast<cerrno>(EINVAL));
    EXPECT_EQ(shmwin_set_run_dir("relative"), static_cast<cerrno>(EINVAL));
    EXPECT_EQ(shmwin_set_run_dir(std::string(300, '/').c_str()), static_cast<cerrno>(EINVAL));
    char path[256];
    ASSERT_EQ(shmwin_get_run_dir(path, sizeof(path)), 0U);
    EXPECT_EQ(dir_, path);
    EXPECT_EQ(shmwin_get_run_dir(path, 4), static_cast<cerrno>(ERANGE));
    ASSERT_EQ(chmod(dir_.c_str(), 0777), 0);
    EXPECT_EQ(open_as(true).code, SHMWIN_ERR_PERMISSION);
}

TEST_F(WindowOpen, EveryCodeHasItsText) {
    opened o = open_as(true);
    ASSERT_EQ(o.code, 0U);
    std::vector<std::string> texts;
    for (cerrno code = SHMWIN_ERR_NO_WINDOW; code <= SHMWIN_ERR_IN_USE; ++code) {
        ASSERT_NE(shmwin_strerror(code), nullptr);
        EXPECT_STREQ(cerr_strerror(code), shmwin_strerror(code));
        texts.emplace_back(shmwin_strerror(code));
    }
    texts.emplace_back(shmwin_strerror(SHMWIN_ERR_REPAIR));
    std::sort(texts.begin(), texts.end());
    EXPECT_EQ(std::unique(texts.begin(), texts.end()), texts.end());
    EXPECT_EQ(shmwin_strerror(12), nullptr);
    o.close();
}

}  // namespace
