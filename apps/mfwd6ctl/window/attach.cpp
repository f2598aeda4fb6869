#include "apps/mfwd6ctl/window/attach.h"

#include <fmt/format.h>
#include <signal.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "apps/mfwd6ctl/failure.h"
#include "apps/platform/platform_choice.h"
#include "ipv4/multicast/lib/ip6mc_idb.h"
#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "services/diag/errors.h"
#include "services/diag/run_dir.h"
#include "services/gtrie/gtrie.h"
#include "services/peers/peers.h"
#include "services/trees/wavl.h"
#include "services/window/epochs.h"
#include "services/window/setup.h"

namespace ctl {
namespace {

constexpr int attach_only = 1;

// Of mfwd6d: its platform tells the default table by them, in this process too.
constexpr uint32_t default_tid = 0xe0800000;
constexpr uint32_t default_vrf_id = 0x60000000;

// Where no file can be made: rings and masks of this process are private memory then.
constexpr const char *no_folder = "/dev/null/mfwd6ctl";

// A window is made in a moment; it is worth waiting for.
constexpr int making_tries = 20;
constexpr useconds_t making_pause_us = 50'000;

// How long another process may keep a lock of the window before the operator is told what we wait
// for.
constexpr uint32_t patience_ms = 2'000;

failure cannot_attach(const std::string &folder, cerrno code) {
    const std::string file = folder + "/" + IP6MC_SHMWIN_NAME;
    switch (code) {
        case SHMWIN_ERR_NO_WINDOW:
        case ENOENT:
            return {exit_code::absent,
                    fmt::format("no window: {} is not there. Is mfwd6d running, with this run dir?",
                                file)};
        case SHMWIN_ERR_HALF_MADE:
            return {exit_code::absent,
                    fmt::format("{} is being made, or its maker died at it: try again, or start "
                                "mfwd6d, which takes it over",
                                file)};
        case SHMWIN_ERR_DAMAGED:
            return {exit_code::unusable,
                    fmt::format("{} is damaged, or from before the machine's last start: the next "
                                "start of mfwd6d makes a new one",
                                file)};
        case SHMWIN_ERR_LAYOUT:
            return {exit_code::unusable,
                    fmt::format("{} was made by another version of mfwd6: use the mfwd6ctl that "
                                "belongs to the running mfwd6d",
                                file)};
        case SHMWIN_ERR_BASE:
            return {
                exit_code::unusable,
                fmt::format("{} was made for another base address: this mfwd6ctl was built with "
                            "other settings than mfwd6d",
                            file)};
        case SHMWIN_ERR_BASE_TAKEN:
            return {
                exit_code::unusable,
                "something else is mapped where the window belongs in this process (a preloaded "
                "library?)"};
        case SHMWIN_ERR_PERMISSION:
        case EACCES:
        case EPERM:
            return {exit_code::forbidden,
                    fmt::format("not permitted to open {}: it belongs to another user", file)};
        case SHMWIN_ERR_FILE_TYPE:
            return {exit_code::unusable, fmt::format("{} is no regular file", file)};
        case EBUSY:
            return {exit_code::failed, "the window has a live owner: end mfwd6d first"};
        case SHMWIN_ERR_PEERS_FULL:
            return {
                exit_code::unusable,
                fmt::format("all places for processes in {} are taken by live processes", file)};
        case SHMWIN_ERR_SPACE:
        case ENOMEM:
            return {exit_code::unusable,
                    "the window is full: see `mfwd6ctl show memory`, which needs no room in it"};
        default:
            return {exit_code::unusable,
                    fmt::format("cannot attach to {}: {}", file, cerr_strerror(code))};
    }
}

cerrno open_window(need what) {
    cerrno code = 0;
    for (int tries = 0; tries < making_tries; ++tries) {
        code =
            what == need::ownership ? ip6mc_shmwin_open(0, 1) : ip6mc_shmwin_open(attach_only, 0);
        if (code != SHMWIN_ERR_HALF_MADE) {
            return code;
        }
        usleep(making_pause_us);
    }
    return code;
}

void check_folder(const std::string &folder) {
    if (shmwin_set_run_dir(folder.c_str()) != 0) {
        throw failure(
            exit_code::usage,
            fmt::format("{}: the path of the run dir is too long, 200 characters at most", folder));
    }
}

// Memory of the window that became something else under our eyes: the owner made it anew, or it is
// damaged.
void stop_at_bad_address(int) {
    static constexpr char text[] =
        "mfwd6ctl: the window was made anew while it was read, or is damaged: try again, or run "
        "`mfwd6ctl check`\n";
    [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, text, sizeof(text) - 1);
    _exit(static_cast<int>(exit_code::failed));
}

// Tells what a command waits for.
cerrno tell_of_wait(uint32_t, uint32_t event, void *) {
    if (event == SHMWIN_EVENT_STUCK) {
        const ipv4mc_shmwin_hdr_st *hdr = ipv4mc_desc->shmwin_info;
        fmt::print(stderr,
                   "mfwd6ctl: waiting for the window mutex, which process {} took in {}; see "
                   "`mfwd6ctl show locks`\n",
                   hdr->shmwin_lock_pid,
                   std::string(hdr->shmwin_lock_fn,
                               strnlen(hdr->shmwin_lock_fn, sizeof(hdr->shmwin_lock_fn))));
    }
    return 0;
}

}  // namespace

window::window(const options &how, need what) {
    const std::string folder = how.folder();
    check_folder(folder);
    diag_set_run_dir(no_folder);
    shmwin_set_wait_limit(patience_ms);
    if (const cerrno code = open_window(what); code != 0) {
        ip6mc_shmwin_close();
        throw cannot_attach(folder, code);
    }
    generation_ = generation();
    signal(SIGSEGV, stop_at_bad_address);
    signal(SIGBUS, stop_at_bad_address);
    shmwin_monitor_lock(id(), tell_of_wait, nullptr);
    if (what == need::library) {
        try {
            start_library(folder, how);
        } catch (...) {
            ip6mc_shmwin_close();
            throw;
        }
    }
}

// Not ip6mc_lib_terminate: it changes words of the header that belong to the owner.
window::~window() {
    if (reader_ != 0) {
        shmwin_reader_leave(id(), reader_);
    }
    if (platform_started_) {
        if (auto *terminate = apps::loaded<decltype(ip6mc_platform_lib_terminate)>(
                "ip6mc_platform_lib_terminate")) {
            terminate(attach_only, IPV4MC_TERMINATE_END);
        }
    }
    ip6mc_shmwin_close();
}

void window::start_library(const std::string &folder, const options &how) {
    try {
        apps::load_platform(how.platform);
    } catch (const std::runtime_error &e) {
        throw failure(exit_code::usage, e.what());
    }
    if (auto *set_folder = apps::loaded<cerrno(const char *)>("linux_set_folder")) {
        set_folder(folder.c_str());
    }
    if (auto *attach = apps::loaded<cerrno(const char *)>("linux_ledger_attach")) {
        attach(folder.c_str());  // without a ledger there are no counters, and nothing else is lost
    }
    const cerrno code =
        ip6mc_lib_init(nullptr, nullptr, attach_only, 0, 0, default_tid, default_vrf_id,
                       IPMC_NODE_ROLE_LAST_RP + 1, nullptr, nullptr, nullptr, nullptr, 0);
    if (code != 0) {
        throw cannot_attach(folder, code);
    }
    platform_started_ = true;
    // An owner that has not come as far has no interfaces to show, and the tree is its to make.
    if (wavl_running(&header().idb_tree) != 0) {
        ip6mc_idb_init(nullptr, nullptr, 0, nullptr, nullptr, nullptr, nullptr);
    }
    enter_reader();
}

void window::enter_reader() {
    if (const cerrno code = shmwin_reader_enter(id(), &reader_); code != 0) {
        reader_ = 0;
        throw failure(exit_code::unusable,
                      fmt::format("cannot read beside the owner: {}", cerr_strerror(code)));
    }
    shmwin_reader_idle(id(), reader_);
}

uint32_t window::id() const {
    return ipv4mc_desc->shmwin_id;
}

ipv4mc_shmwin_hdr_st &window::header() const {
    return *ipv4mc_desc->shmwin_info;
}

uint64_t window::generation() const {
    shmwin_usage usage{};
    shmwin_get_usage(id(), &usage);
    return usage.generation;
}

std::vector<shmwin_process> window::processes() const {
    std::vector<shmwin_process> list(mfwd6::peers::max_peers);
    uint32_t count = 0;
    shmwin_get_processes(id(), list.data(), static_cast<uint32_t>(list.size()), &count);
    list.resize(std::min<size_t>(count, list.size()));
    return list;
}

int32_t window::owner_pid() const {
    for (const shmwin_process &p : processes()) {
        if (p.owner != 0 && p.alive != 0) {
            return p.pid;
        }
    }
    return 0;
}

}  // namespace ctl
