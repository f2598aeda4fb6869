#include "apps/mfwd6ctl/window/lock_state.h"

#include <fmt/format.h>
#include <sys/syscall.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "services/locks/lock_word.h"
#include "services/locks/rrw_lock.h"
#include "services/peers/peers.h"

namespace ctl {
namespace {

namespace word = mfwd6::locks::word;

// A thread that sleeps, and the address that it sleeps on.
struct sleeper {
    lock_user who;
    uint64_t address;
};

lock_user user_of(const std::vector<shmwin_process> &processes, uint32_t peer, uint32_t thread) {
    lock_user user;
    user.thread = thread;
    user.alive = false;
    for (const shmwin_process &p : processes) {
        if (p.peer == peer) {
            user.pid = p.pid;
            user.name = p.name;
            user.alive = p.alive != 0;
        }
    }
    return user;
}

// "202 0xADDRESS ..." of a thread in futex(2).
bool sleeps_on(const std::string &task, uint64_t *address) {
    std::ifstream file(task + "/syscall");
    long number = 0;
    std::string first;
    if (!(file >> number >> first) || number != SYS_futex) {
        return false;
    }
    *address = std::strtoull(first.c_str(), nullptr, 16);
    return true;
}

void add_sleepers(const shmwin_process &p, std::vector<sleeper> &sleepers) {
    std::error_code error;
    const std::string folder = fmt::format("/proc/{}/task", p.pid);
    for (std::filesystem::directory_iterator at(folder, error), end; !error && at != end;
         at.increment(error)) {
        sleeper s;
        if (sleeps_on(at->path(), &s.address)) {
            s.who.pid = p.pid;
            s.who.name = p.name;
            s.who.thread =
                static_cast<uint32_t>(std::strtoul(at->path().filename().c_str(), nullptr, 10));
            sleepers.push_back(std::move(s));
        }
    }
}

std::vector<lock_user> sleepers_on(const std::vector<sleeper> &sleepers, const void *begin,
                                   size_t size) {
    std::vector<lock_user> users;
    const auto first = reinterpret_cast<uint64_t>(begin);
    for (const sleeper &s : sleepers) {
        if (s.address >= first && s.address < first + size) {
            users.push_back(s.who);
        }
    }
    return users;
}

uint64_t observe(const uint64_t &at) {
    return std::atomic_ref<uint64_t>(const_cast<uint64_t &>(at)).load(std::memory_order_relaxed);
}

std::string place(const char *function, size_t size, int32_t line) {
    const std::string name(function, strnlen(function, size));
    return name.empty() ? "" : fmt::format("{}:{}", name, line);
}

lock_copy copy_mutex(const shmwin_lock_state &state, const std::vector<shmwin_process> &processes,
                     const std::vector<sleeper> &sleepers) {
    lock_copy lock;
    lock.name = state.name;
    if (state.peer != 0) {
        lock.holders.push_back(user_of(processes, state.peer, state.thread));
        lock.holders.back().holds = state.depth;
    }
    lock.contended = state.contended != 0;
    lock.deaths = state.deaths;
    lock.waiters = sleepers_on(sleepers, state.address, sizeof(uint64_t));
    return lock;
}

lock_copy copy_table_lock(const rrw_lock_t &table, const std::vector<shmwin_process> &processes,
                          const std::vector<sleeper> &sleepers) {
    lock_copy lock;
    lock.name = "tables";
    const uint64_t gate = observe(table.gate);
    if (word::peer_of(gate) != 0) {
        lock.holders.push_back(user_of(processes, word::peer_of(gate), word::thread_of(gate)));
    }
    lock.contended = (gate & word::waiting) != 0;
    lock.deaths = table.deaths;
    for (const rrw_lock_slot &slot : table.slots) {
        const uint64_t readers = observe(slot.word);
        const auto holds = static_cast<uint32_t>(readers);
        if (holds != 0) {
            lock.readers.push_back(user_of(processes, word::peer_of(readers), 0));
            lock.readers.back().holds = holds;
        }
    }
    lock.waiters = sleepers_on(sleepers, &table, sizeof(table));
    return lock;
}

}  // namespace

std::vector<lock_copy> read_locks(const window &w) {
    const std::vector<shmwin_process> processes = w.processes();
    std::vector<sleeper> sleepers;
    for (const shmwin_process &p : processes) {
        if (p.alive != 0) {
            add_sleepers(p, sleepers);
        }
    }
    shmwin_lock_state states[SHMWIN_LOCKS] = {};
    std::vector<lock_copy> locks;
    if (shmwin_get_locks(w.id(), states) == 0) {
        for (const shmwin_lock_state &state : states) {
            locks.push_back(copy_mutex(state, processes, sleepers));
        }
    }
    const ipv4mc_shmwin_hdr_st &header = w.header();
    for (lock_copy &lock : locks) {
        if (lock.name == "window") {
            lock.where = place(header.shmwin_lock_fn, sizeof(header.shmwin_lock_fn),
                               header.shmwin_lock_line);
        } else if (lock.name == "packet client") {
            lock.where =
                place(header.pak_lock_fn, sizeof(header.pak_lock_fn), header.pak_lock_line);
        }
    }
    locks.push_back(copy_table_lock(header.tbl_rw_lock, processes, sleepers));
    return locks;
}

}  // namespace ctl
