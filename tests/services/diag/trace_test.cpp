#include "services/diag/trace.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fstream>
#include <thread>

#include "services/diag/text.h"
#include "tests/services/diag/scratch.h"

namespace {

class Trace : public Scratch {
  protected:
    std::string file_of(pid_t pid, const char *kind) const {
        return directory + "/trace/" + diag_program() + "." + std::to_string(pid) + "." + kind;
    }
    ltrace_reader *open(pid_t pid, const char *kind) const {
        ltrace_reader *reader = nullptr;
        EXPECT_EQ(ltrace_open(file_of(pid, kind).c_str(), &reader), 0U) << file_of(pid, kind);
        return reader;
    }
};

// A child that does `body`, says so through a pipe, and then waits to be killed.
template <class Body>
pid_t fork_ready(Body body) {
    int ready[2] = {};
    EXPECT_EQ(pipe(ready), 0);
    const pid_t child = fork();
    if (child == 0) {
        body();
        if (write(ready[1], "x", 1) != 1) {
            _exit(1);
        }
        for (;;) {
            pause();
        }
    }
    char byte = 0;
    EXPECT_EQ(read(ready[0], &byte, 1), 1);
    close(ready[0]);
    close(ready[1]);
    return child;
}

void kill_and_wait(pid_t child) {
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
}

TEST_F(Trace, EachFormIsReadBackWithItsWords) {
    ltrace_handle *handle = ip6mc_mlib_eve_ltrace();
    _ltrace(handle, 0x10);
    _ltrace_2(handle, 0x12, 1, 2);
    _ltrace_3(handle, 0x13, 1, 2, 3);
    _ltrace_5(handle, 0x15, 1, 2, 3, 4, 5);
    _ltrace_6(handle, 0x16, 1, 2, 3, 4, 5, UINT64_MAX);
    ltrace_reader *reader = open(getpid(), "eve");
    const auto records = read_all(reader);
    ASSERT_EQ(records.size(), 5U);
    const uint32_t words[] = {0, 2, 3, 5, 6};
    for (size_t i = 0; i < 5; ++i) {
        EXPECT_EQ(records[i].id, 0x10U + words[i]);
        EXPECT_EQ(records[i].words, words[i]);
        EXPECT_EQ(records[i].sequence, i);
        EXPECT_EQ(records[i].tid, static_cast<uint32_t>(qv_gettid()));
        EXPECT_STREQ(records[i].text, "");
        for (uint32_t w = 0; w < words[i]; ++w) {
            EXPECT_EQ(records[i].word[w], words[i] == 6 && w == 5 ? UINT64_MAX : w + 1);
        }
    }
    EXPECT_LE(records[0].time, records[4].time);
    const auto now = static_cast<uint64_t>(time(nullptr));
    EXPECT_NEAR(static_cast<double>(records[0].wall) / 1e9, static_cast<double>(now), 5);
    _ltrace(handle, 0x17);  // the end may be followed by more
    EXPECT_EQ(read_all(reader).size(), 1U);
    ltrace_close(reader);
}

TEST_F(Trace, EveryKindHasAFileOfItsOwn) {
    const struct {
        ltrace_handle *handle;
        const char *kind;
    } kinds[] = {
        {ip6mc_mlib_err_ltrace(), "err"},     {ip6mc_mlib_eve_ltrace(), "eve"},
        {ip6mc_mlib_warn_ltrace(), "warn"},   {ip6mc_mlib_ltrace(), "general"},
        {ip6mc_mlib_svd_ltrace(), "svd"},     {ip6mc_mlib_idb_warn_ltrace(), "idb_warn"},
        {ip6mc_mlib_enc_ltrace(), "enc"},     {ip6mc_mlib_bvi_ltrace(), "bvi"},
        {ip6mc_mlib_objid_ltrace(), "objid"}, {ip6mc_mlib_retry_queue_ltrace(), "retry_queue"}};
    for (uint64_t i = 0; i < std::size(kinds); ++i) {
        _ltrace(kinds[i].handle, 100 + i);
    }
    for (uint64_t i = 0; i < std::size(kinds); ++i) {
        ltrace_reader *reader = open(getpid(), kinds[i].kind);
        const auto records = read_all(reader);
        ASSERT_EQ(records.size(), 1U) << kinds[i].kind;
        EXPECT_EQ(records[0].id, 100 + i);
        ltrace_ring_info info;
        ltrace_info(reader, &info);
        EXPECT_STREQ(info.kind, kinds[i].kind);
        EXPECT_STREQ(info.program, diag_program());
        EXPECT_EQ(info.pid, getpid());
        EXPECT_EQ(info.alive, 1U);
        ltrace_close(reader);
    }
    int files = 0;
    const auto count = [](void *context, const char *) {
        return ++*static_cast<int *>(context), 0;
    };
    EXPECT_EQ(ltrace_walk_files(count, &files), 0U);
    EXPECT_EQ(files, 10);
}

TEST_F(Trace, TextsOfEveryLengthComeBackWhole) {
    ltrace_handle *handle = ip6mc_mlib_err_ltrace();
    ltrace_reader *reader = nullptr;
    ASSERT_EQ(ltrace_open_handle(handle, &reader), 0U);
    const traceback_record traceback = {{1, 2, 3, 4, 5}};
    std::string text;
    for (size_t length = 0; length <= 2100; length += length < 300 ? 1 : 97) {
        text.clear();
        for (size_t i = 0; i < length; ++i) {
            text.push_back(static_cast<char>('a' + (i * 7 + length) % 26));
        }
        _lstrace(handle, 0x200600060009, &traceback, text.c_str());
        ltrace_record record;
        ASSERT_EQ(ltrace_next(reader, &record), 1) << length;
        EXPECT_EQ(record.text, text.substr(0, 2047));
        EXPECT_EQ(record.length, std::min<size_t>(length, 2047));
        EXPECT_EQ(record.id, 0x200600060009U);
        EXPECT_EQ(record.traceback.address[4], 5U);
    }
    _lstrace(handle, 1, nullptr, nullptr);
    ltrace_record record;
    ASSERT_EQ(ltrace_next(reader, &record), 1);
    EXPECT_STREQ(record.text, "");
    EXPECT_EQ(record.traceback.address[0], 0U);
    ltrace_close(reader);
}

TEST_F(Trace, AFullRingKeepsTheNewestRecords) {
    ltrace_handle *handle = ip6mc_mlib_ltrace();
    ltrace_reader *reader = nullptr;
    ASSERT_EQ(ltrace_open_handle(handle, &reader), 0U);
    ltrace_ring_info info;
    ltrace_info(reader, &info);
    const uint64_t total = 3 * info.slots + 17;
    for (uint64_t i = 0; i < total; ++i) {
        _ltrace_2(handle, i, i * 3, ~i);
    }
    const auto records = read_all(reader);
    ASSERT_EQ(records.size(), info.slots);
    for (uint64_t i = 0; i < records.size(); ++i) {
        const uint64_t id = total - info.slots + i;
        ASSERT_EQ(records[i].id, id);
        ASSERT_EQ(records[i].word[0], id * 3);
        ASSERT_EQ(records[i].word[1], ~id);
    }
    ltrace_close(reader);
}

TEST_F(Trace, ATextWhoseBeginningIsOverwrittenIsPassedOver) {
    ltrace_handle *handle = ip6mc_mlib_warn_ltrace();
    ltrace_reader *reader = nullptr;
    ASSERT_EQ(ltrace_open_handle(handle, &reader), 0U);
    ltrace_ring_info info;
    ltrace_info(reader, &info);
    _lstrace(handle, 1, nullptr, std::string(2000, 'x').c_str());
    for (uint64_t i = 0; i + 5 < info.slots; ++i) {
        _ltrace(handle, 2);
    }
    const auto records = read_all(reader);
    EXPECT_EQ(records.size(), info.slots - 5);
    for (const auto &record : records) {
        ASSERT_EQ(record.id, 2U);
    }
    ltrace_close(reader);
}

TEST_F(Trace, TheEndOfALostTextIsNotTakenForARecord) {
    ltrace_handle *handle = ip6mc_mlib_warn_ltrace();
    ltrace_reader *reader = nullptr;
    ASSERT_EQ(ltrace_open_handle(handle, &reader), 0U);
    ltrace_ring_info info;
    ltrace_info(reader, &info);
    for (uint64_t i = 0; i < info.slots; ++i) {
        _ltrace_6(handle, 2, 2, 2, 2, 2, 2, 2);  // what the slots hold before
    }
    _lstrace(handle, 1, nullptr,
             std::string(60, 'x').c_str());  // two slots, the second nearly empty
    for (uint64_t i = 0; i < info.slots - 1; ++i) {
        _ltrace(handle, 3);
    }
    const auto records = read_all(reader);
    EXPECT_EQ(records.size(), info.slots - 1);
    for (const auto &record : records) {
        ASSERT_EQ(record.id, 3U);
    }
    ltrace_close(reader);
}

TEST_F(Trace, CanBeReadAfterTheWriterWasKilled) {
    const pid_t child = fork_ready([] {
        for (uint64_t i = 0; i < 100; ++i) {
            _ltrace_3(ip6mc_mlib_eve_ltrace(), i, i, i + 1, i + 2);
        }
        _lstrace(ip6mc_mlib_err_ltrace(), 7, nullptr, "last words");
    });
    ltrace_reader *live = open(child, "eve");
    ltrace_ring_info info;
    ltrace_info(live, &info);
    EXPECT_EQ(info.alive, 1U);
    EXPECT_EQ(info.pid, child);
    kill_and_wait(child);
    ltrace_info(live, &info);
    EXPECT_EQ(info.alive, 0U);
    EXPECT_EQ(read_all(live).size(), 100U);
    ltrace_close(live);
    ltrace_reader *dead = open(child, "err");
    const auto records = read_all(dead);
    ASSERT_EQ(records.size(), 1U);
    EXPECT_STREQ(records[0].text, "last words");
    ltrace_close(dead);
}

// The writer is killed at a random instant, with all its threads inside of records.
TEST_F(Trace, NoTornRecordIsShownWhenTheWriterDiesInTheMiddle) {
    for (int round = 0; round < 20; ++round) {
        int ready[2] = {};
        ASSERT_EQ(pipe(ready), 0);
        const pid_t child = fork();
        if (child == 0) {
            const auto work = [](uint64_t seed) {
                for (uint64_t i = seed;; i += 4) {
                    _ltrace_6(ip6mc_mlib_bvi_ltrace(), i, i, i + 1, i + 2, i + 3, i + 4, i + 5);
                    _lstrace(ip6mc_mlib_bvi_ltrace(), i, nullptr,
                             std::string(i % 500, static_cast<char>('a' + i % 26)).c_str());
                }
            };
            std::thread(work, 1).detach();
            std::thread(work, 2).detach();
            _ltrace(ip6mc_mlib_bvi_ltrace(), 0);
            if (write(ready[1], "x", 1) != 1) {
                _exit(1);
            }
            work(3);
        }
        char byte = 0;
        ASSERT_EQ(read(ready[0], &byte, 1), 1);
        close(ready[0]);
        close(ready[1]);
        ltrace_reader *reader = open(child, "bvi");
        ltrace_ring_info info = {};
        while (info.written < 3000U + static_cast<unsigned>(round) * 311U) {
            ltrace_info(reader, &info);
        }
        kill_and_wait(child);
        const auto records = read_all(reader);
        EXPECT_GT(records.size(), 50U);
        for (const auto &r : records) {
            for (uint32_t w = 0; w < r.words; ++w) {
                ASSERT_EQ(r.word[w], r.id + w);
            }
            if (r.words == 0 && r.id != 0) {
                ASSERT_EQ(r.text, std::string(r.id % 500, static_cast<char>('a' + r.id % 26)));
            }
        }
        ltrace_close(reader);
    }
}

TEST_F(Trace, ASlotLeftHalfWrittenIsPassedOver) {
    for (uint64_t i = 0; i < 10; ++i) {
        _ltrace(ip6mc_mlib_svd_ltrace(), i);
    }
    const int fd = ::open(file_of(getpid(), "svd").c_str(), O_RDWR);
    ASSERT_GE(fd, 0);
    const uint64_t busy = 2 * 4 + 1;  // position 4 taken and not finished
    ASSERT_EQ(pwrite(fd, &busy, sizeof(busy), 256 + 4 * 128), 8);
    close(fd);
    ltrace_reader *reader = open(getpid(), "svd");
    const auto records = read_all(reader);
    ASSERT_EQ(records.size(), 9U);
    EXPECT_EQ(records[3].id, 3U);
    EXPECT_EQ(records[4].id, 5U);
    // A turn later the slot is still in the other's hands: that record is given up and counted.
    ltrace_ring_info info;
    ltrace_info(reader, &info);
    for (uint64_t i = 0; i < info.slots; ++i) {
        _ltrace(ip6mc_mlib_svd_ltrace(), 1000 + i);
    }
    EXPECT_EQ(read_all(reader).size(), info.slots - 1);
    ltrace_info(reader, &info);
    EXPECT_EQ(info.dropped, 1U);
    ltrace_close(reader);
}

TEST_F(Trace, ConcurrentWritersAndAReaderSeeWholeRecordsOnly) {
    ltrace_handle *handle = ip6mc_mlib_objid_ltrace();
    ltrace_reader *reader = nullptr;
    ASSERT_EQ(ltrace_open_handle(handle, &reader), 0U);
    constexpr uint64_t each = 20000;
    std::atomic<int> running = 3;
    std::vector<std::thread> writers;
    for (uint64_t t = 1; t <= 3; ++t) {
        writers.emplace_back([&running, handle, t] {
            for (uint64_t i = 0; i < each; ++i) {
                const uint64_t id = t << 32U | i;
                if (i % 16 == 0) {
                    _lstrace(handle, id, nullptr,
                             std::string(i % 300, static_cast<char>('A' + t)).c_str());
                } else {
                    _ltrace_5(handle, id, id + 1, id + 2, id + 3, id + 4, id + 5);
                }
            }
            running.fetch_sub(1);
        });
    }
    uint64_t seen = 0;
    uint64_t last_sequence = 0;
    uint64_t last[4] = {};
    ltrace_record r;
    for (bool more = true; more;) {
        more = running.load() != 0;
        while (ltrace_next(reader, &r) == 1) {
            const uint64_t t = r.id >> 32U;
            const uint64_t i = r.id & 0xffffffffU;
            ASSERT_TRUE(t >= 1 && t <= 3 && i < each);
            ASSERT_TRUE(seen == 0 || r.sequence > last_sequence);
            ASSERT_TRUE(i == 0 || i > last[t] || last[t] == 0) << "order of one writer";
            for (uint32_t w = 0; w < r.words; ++w) {
                ASSERT_EQ(r.word[w], r.id + w + 1);
            }
            if (i % 16 == 0) {
                ASSERT_EQ(r.text, std::string(i % 300, static_cast<char>('A' + t)));
            }
            last[t] = i;
            last_sequence = r.sequence;
            ++seen;
        }
    }
    for (std::thread &writer : writers) {
        writer.join();
    }
    EXPECT_GT(seen, 500U);
    ltrace_close(reader);
}

// Three writers that never get a turn of the ring ahead, and a reader that polls: it often comes
// while a position is taken and its record not finished, and must see that record all the same.
TEST_F(Trace, AReaderThatPollsSeesEveryRecordThatIsNotOverwritten) {
    ltrace_handle *handle = ip6mc_mlib_objid_ltrace();
    ltrace_reader *reader = nullptr;
    ASSERT_EQ(ltrace_open_handle(handle, &reader), 0U);
    constexpr uint64_t each = 8000;
    constexpr uint64_t writing = 3;
    constexpr uint64_t ahead = 50;  // records of up to 4 slots, of 2048
    std::atomic<uint64_t> seen_of[writing] = {};
    std::vector<std::thread> writers;
    for (uint64_t t = 0; t < writing; ++t) {
        writers.emplace_back([&seen_of, handle, t] {
            for (uint64_t i = 0; i < each; ++i) {
                while (i > seen_of[t] + ahead) {
                    std::this_thread::yield();
                }
                if (i % 8 == 0) {
                    _lstrace(handle, t << 32U | i, nullptr, std::string(i % 300, 'x').c_str());
                } else {
                    _ltrace_2(handle, t << 32U | i, i, i);
                }
            }
        });
    }
    uint64_t next[writing] = {};
    ltrace_record r;
    while (next[0] + next[1] + next[2] < writing * each && !HasFailure()) {
        while (ltrace_next(reader, &r) == 1) {
            const uint64_t t = r.id >> 32U;
            EXPECT_EQ(r.id & 0xffffffffU, next[t]) << "of writer " << t;
            next[t] = (r.id & 0xffffffffU) + 1;
            seen_of[t] = next[t];
        }
    }
    for (auto &seen : seen_of) {
        seen = each;  // lets all writers end
    }
    for (std::thread &writer : writers) {
        writer.join();
    }
    ltrace_ring_info info;
    ltrace_info(reader, &info);
    EXPECT_EQ(info.dropped, 0U);
    ltrace_close(reader);
}

// A record that stays unfinished holds a reader up for a moment only, and once.
TEST_F(Trace, ARecordThatIsNotFinishedIsNotWaitedForLong) {
    for (uint64_t i = 0; i < 10; ++i) {
        _ltrace(ip6mc_mlib_svd_ltrace(), i);
    }
    const int fd = ::open(file_of(getpid(), "svd").c_str(), O_RDWR);
    ASSERT_GE(fd, 0);
    for (const uint64_t position : {2U, 3U, 4U, 5U, 6U}) {
        const uint64_t busy = 2 * position + 1;
        ASSERT_EQ(pwrite(fd, &busy, sizeof(busy), static_cast<off_t>(256 + position * 128)), 8);
    }
    close(fd);
    ltrace_reader *reader = open(getpid(), "svd");
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(read_all(reader).size(), 5U);
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begin;
    EXPECT_GE(took.count(), 0.015);  // the writer lives, it may come to its end
    EXPECT_LT(took.count(), 0.5);
    ltrace_close(reader);
}

TEST_F(Trace, AChildAfterForkWritesRingsOfItsOwn) {
    ltrace_handle *handle = ip6mc_mlib_enc_ltrace();
    _ltrace(handle, 1);
    const pid_t child = fork_ready([handle] { _ltrace(handle, 2); });
    ltrace_reader *mine = open(getpid(), "enc");
    ltrace_reader *childs = open(child, "enc");
    const auto own = read_all(mine);
    const auto other = read_all(childs);
    ASSERT_EQ(own.size(), 1U);
    EXPECT_EQ(own[0].id, 1U);
    ASSERT_EQ(other.size(), 1U);
    EXPECT_EQ(other[0].id, 2U);
    EXPECT_EQ(other[0].tid, static_cast<uint32_t>(child));
    kill_and_wait(child);
    ltrace_close(mine);
    ltrace_close(childs);
}

TEST_F(Trace, FilesOfDeadProcessesAreBoundedAndLiveOnesAreKept) {
    _ltrace(ip6mc_mlib_err_ltrace(), 1);
    for (int i = 0; i < ltrace_files_kept + 6; ++i) {
        EXPECT_EQ(in_child([] { return _ltrace(ip6mc_mlib_eve_ltrace(), 1), 0; }), 0);
    }
    int files = 0;
    const auto count = [](void *context, const char *) {
        return ++*static_cast<int *>(context), 0;
    };
    ltrace_walk_files(count, &files);
    EXPECT_EQ(files, ltrace_files_kept + 1);
    EXPECT_EQ(access(file_of(getpid(), "err").c_str(), F_OK), 0);
}

TEST_F(Trace, WithoutAFileTheRingIsPrivate) {
    std::ofstream(directory + "/trace") << "a file stands in the way";
    ltrace_handle *handle = ip6mc_mlib_retry_queue_ltrace();
    errno = EBUSY;
    _ltrace_2(handle, 5, 6, 7);
    EXPECT_EQ(errno, EBUSY) << "tracing changes nothing for its caller";
    ltrace_reader *reader = nullptr;
    ASSERT_EQ(ltrace_open_handle(handle, &reader), 0U);
    const auto records = read_all(reader);
    ASSERT_EQ(records.size(), 1U);
    EXPECT_EQ(records[0].word[1], 7U);
    ltrace_close(reader);
}

TEST_F(Trace, OnAFullFileSystemTheRingIsPrivate) {
    const int result = in_child([this] {
        if (!mount_full_tmpfs(directory.c_str())) {
            return cannot_mount;
        }
        ltrace_handle *handle = ip6mc_mlib_err_ltrace();
        for (int i = 0; i < 10000; ++i) {
            _lstrace(handle, 1, nullptr, "no room");
        }
        ltrace_reader *reader = nullptr;
        if (ltrace_open_handle(handle, &reader) != 0 || read_all(reader).size() != 4096) {
            return 1;
        }
        return access(file_of(getpid(), "err").c_str(), F_OK) == 0 ? 2
                                                                   : 0;  // nothing half made stays
    });
    if (result == cannot_mount) {
        GTEST_SKIP() << "this machine does not let us mount a tmpfs";
    }
    EXPECT_EQ(result, 0);
}

TEST_F(Trace, WithoutAnyMemoryRecordsAreDroppedUntilThereIsSome) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "sanitizers need address space without a limit";
#endif
    EXPECT_EQ(in_child([] {
                  rlimit limit = {};
                  getrlimit(RLIMIT_AS, &limit);
                  const rlim_t before = limit.rlim_cur;
                  limit.rlim_cur = 4096;
                  setrlimit(RLIMIT_AS, &limit);
                  ltrace_handle *handle = ip6mc_mlib_err_ltrace();
                  _ltrace(handle, 1);
                  ltrace_reader *reader = nullptr;
                  if (ltrace_open_handle(handle, &reader) != ENOMEM || reader != nullptr) {
                      return 1;
                  }
                  limit.rlim_cur = before;
                  setrlimit(RLIMIT_AS, &limit);
                  _ltrace(handle, 2);
                  if (ltrace_open_handle(handle, &reader) != 0) {
                      return 2;
                  }
                  const auto records = read_all(reader);
                  return records.size() == 1 && records[0].id == 2 ? 0 : 3;
              }),
              0);
}

TEST_F(Trace, ARunDirThatComesBackGetsAFreshRing) {
    ltrace_handle *handle = ip6mc_mlib_err_ltrace();
    _ltrace(handle, 1);
    const std::string other = directory + "/other";
    ASSERT_EQ(diag_set_run_dir(other.c_str()), 0U);
    _ltrace(handle, 2);
    ASSERT_EQ(diag_set_run_dir(directory.c_str()), 0U);
    _ltrace(handle, 3);
    ltrace_reader *reader = open(getpid(), "err");
    const auto records = read_all(reader);
    ASSERT_EQ(records.size(), 1U);
    EXPECT_EQ(records[0].id, 3U);
    ltrace_close(reader);
}

TEST_F(Trace, BadArgumentsAreRefused) {
    _ltrace(nullptr, 1);
    _ltrace_6(nullptr, 1, 1, 2, 3, 4, 5, 6);
    _lstrace(nullptr, 1, nullptr, "x");
    ltrace_reader *reader = nullptr;
    EXPECT_EQ(ltrace_open(nullptr, &reader), static_cast<cerrno>(EINVAL));
    EXPECT_EQ(ltrace_open("x", nullptr), static_cast<cerrno>(EINVAL));
    EXPECT_EQ(ltrace_open((directory + "/none").c_str(), &reader), static_cast<cerrno>(ENOENT));
    EXPECT_EQ(ltrace_open_handle(nullptr, &reader), static_cast<cerrno>(EINVAL));
    EXPECT_EQ(ltrace_walk_files(nullptr, nullptr), static_cast<cerrno>(EINVAL));
    ltrace_record record;
    EXPECT_EQ(ltrace_next(nullptr, &record), 0);
    ltrace_close(nullptr);
    EXPECT_EQ(diag_set_run_dir(nullptr), static_cast<cerrno>(EINVAL));
    EXPECT_EQ(diag_set_run_dir(std::string(200, 'x').c_str()), static_cast<cerrno>(EINVAL));
}

TEST_F(Trace, WhatIsNoRingIsRefused) {
    const std::string path = directory + "/file";
    ltrace_reader *reader = nullptr;
    std::ofstream(path) << "short";
    EXPECT_EQ(ltrace_open(path.c_str(), &reader), static_cast<cerrno>(EINVAL));
    std::ofstream(path) << std::string(5000, 'x');
    EXPECT_EQ(ltrace_open(path.c_str(), &reader), static_cast<cerrno>(EINVAL));
    EXPECT_EQ(reader, nullptr);
    _ltrace(ip6mc_mlib_err_ltrace(), 1);
    const std::string ring = file_of(getpid(), "err");
    std::filesystem::copy_file(ring, path, std::filesystem::copy_options::overwrite_existing);
    std::filesystem::resize_file(path, 8192);  // fewer slots than it says
    EXPECT_EQ(ltrace_open(path.c_str(), &reader), static_cast<cerrno>(EINVAL));
    std::filesystem::create_symlink(ring, directory + "/link");
    EXPECT_EQ(ltrace_open((directory + "/link").c_str(), &reader), static_cast<cerrno>(ELOOP));
}

}  // namespace
