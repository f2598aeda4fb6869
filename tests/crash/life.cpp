#include "tests/crash/life.h"

#include <unistd.h>

#include "apps/check/check.h"
#include "ipv4/multicast/lib/ip6mc_idb.h"
#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "ipv4/multicast/lib/ip6mc_platform_err.h"
#include "platforms/sim/sim.h"
#include "services/diag/errors.h"
#include "services/events/event_manager.h"
#include "services/gtrie/gtrie.h"
#include "services/platform_info/platform_info.h"
#include "services/window/epochs.h"
#include "services/window/setup.h"
#include "tests/crash/hardware.h"
#include "tests/crash/router.h"
#include "tests/kit/library.h"

namespace crash {
namespace {

constexpr uint32_t operations_between_reclaims = 16;

void keep_for_readers(void *block, int) {
    while (shmwin_defer(ipv4mc_desc->shmwin_id, block) != 0) {
        uint32_t ended = 0;
        shmwin_reclaim(ipv4mc_desc->shmwin_id, 0, nullptr, nullptr, &ended);
        if (ended == 0) {
            usleep(100);  // until a reader has passed
        }
    }
}

void reclaim_kept() {
    shmwin_reclaim(ipv4mc_desc->shmwin_id, 0, nullptr, nullptr, nullptr);
}

std::string texts(const mfwd6::check::report &found) {
    std::string all;
    for (const mfwd6::check::finding &each : found.findings) {
        all.append(to_string(each)).append("\n");
    }
    for (const mfwd6::check::finding &each : found.leftovers) {
        all.append("left over: ").append(to_string(each)).append("\n");
    }
    for (const mfwd6::check::orphan &each : found.orphans) {
        char line[96];
        snprintf(line, sizeof(line), "orphan 0x%lx of type %s, %lu bytes\n", each.address,
                 mfwd6::check::type_name(each.type).c_str(), each.bytes);
        all.append(line);
    }
    for (uint32_t type = 0; type < IPMC_SHMWIN_ALLOC_TYPES; ++type) {
        const auto &of = found.blocks[type];
        if (of.live + of.kept + of.pooled != 0) {
            char line[128];
            snprintf(line, sizeof(line),
                     "%s: %lu live, %lu orphans, %lu kept, %lu pooled; counted %u\n",
                     mfwd6::check::type_name(type).c_str(), of.live, of.orphans, of.kept, of.pooled,
                     ipmc_shmwin_live_blocks(ipv4mc_desc->shmwin_info, type));
            all.append(line);
        }
    }
    return all;
}

void check(const char *when) {
    mfwd6::check::options how;
    how.live = true;
    how.rounds = 40;
    how.pause_ms = 1;
    shared().hush.store(1);
    const mfwd6::check::report found = mfwd6::check::check_window(how);
    shared().hush.store(0);
    ++shared().checks;
    shared().leftovers += found.leftovers.size();
    if (!found.clean()) {
        give_up(std::string(when) + ", " + text_of(shared().known.now) + ":\n" + texts(found));
    }
}

void start_library(const setting &how) {
    platform_info_t info{};
    platform_info_defaults(&info);
    info.router_type = how.async_errors ? PLATFORM_ROUTER_TYPE_ASYNC_A : 0;
    platform_info_set(&info);
    ip6mc_gtrie_set_sharing(how.shared_tries ? 1 : 0);
    sim_reset();
    const std::string hardware = how.folder + "/hardware";
    if (const cerrno rc = sim_hardware_open(hardware.c_str()); rc != 0) {
        give_up(std::string("hardware: ") + cerr_strerror(rc));
    }
    kit::start start;
    start.im_context = interface_manager();
    start.free_hook = how.clients ? keep_for_readers : nullptr;
    if (const cerrno rc = kit::start_library(start); rc != 0) {
        give_up(std::string("start of the library: ") + cerr_strerror(rc));
    }
    if (how.clients) {
        ip6mc_shmwin_buffer_status(0);
    }
    shmwin_set_growth_limit(ipv4mc_desc->shmwin_id, 0);
    if (ip6mc_idb_init(nullptr, nullptr, 0, nullptr, nullptr, nullptr, nullptr) != 0) {
        give_up("start of the interface half");
    }
    event_manager_t *manager = nullptr;
    event_manager_create(&manager);
    ipmc_platform_err_handler_init(manager);
}

uint64_t left_of(const mfwd6::check::blocks_of_type &of) {
    return of.live - of.orphans;
}

}  // namespace

void start_owner(const setting &how, const std::function<void()> &before_start) {
    before_start();
    start_library(how);
    check("behind the start");
    if (const std::string wrong = compare_with_model(); !wrong.empty()) {
        give_up("behind the start: " + wrong);
    }
    shared().resynced += resync();
    if (const std::string wrong = compare_hardware(); !wrong.empty()) {
        give_up("behind the start: " + wrong);
    }
    make_tables();
}

void work(uint64_t seed, const std::function<void(uint64_t)> &before) {
    generator random(seed);
    uint64_t points = 0;
    for (uint64_t n = 1;; ++n) {
        run_operation(random, [&] { before(++points); });
        if (n % operations_between_reclaims == 0) {
            reclaim_kept();
        }
    }
}

void empty_and_compare(const setting &how) {
    start_owner(how, [] {});
    empty_window();
    reclaim_kept();
    check("in an emptied window");
    mfwd6::check::report found = mfwd6::check::check_window();
    uint64_t blocks = 0;
    if (const cerrno rc = mfwd6::check::reclaim(found, &blocks); rc != 0) {
        give_up(std::string("reclaim: ") + cerr_strerror(rc));
    }
    shared().reclaimed += blocks;
    reclaim_kept();
    found = mfwd6::check::check_window();
    if (!found.clean() || !found.leftovers.empty() || !found.orphans.empty()) {
        std::string left = texts(found);
        for (const mfwd6::check::finding &each : found.leftovers) {
            left.append("left over: ").append(to_string(each)).append("\n");
        }
        give_up("in an emptied window, behind the reclaim: " +
                std::to_string(found.orphans.size()) + " orphans\n" + left);
    }
    for (uint32_t type = 0; type < IPMC_SHMWIN_ALLOC_TYPES; ++type) {
        const uint64_t now = left_of(found.blocks[type]);
        if (!shared().has_base) {
            shared().base[type] = static_cast<uint32_t>(now);
        } else if (type != IPMC_SHMWIN_ALLOC_OBJ_ID && now != shared().base[type]) {
            // Tables of object ids are made on demand and kept.
            give_up("an emptied window has " + std::to_string(now) + " blocks of type " +
                    mfwd6::check::type_name(type) + ", at first it had " +
                    std::to_string(shared().base[type]));
        }
    }
    shared().has_base = true;
}

}  // namespace crash
