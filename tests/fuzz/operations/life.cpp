// Start and end of an input's world, and the owner's restart in the middle of it.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>

#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "ipv4/multicast/lib/ip6mc_objid.h"
#include "ipv4/multicast/lib/ip6mc_platform_err.h"
#include "services/diag/run_dir.h"
#include "services/events/ptimer.h"
#include "services/gtrie/gtrie.h"
#include "services/platform_info/platform_info.h"
#include "services/window/setup.h"
#include "services/window/window.h"
#include "tests/fuzz/operations/complaint.h"
#include "tests/fuzz/operations/world.h"
#include "tests/kit/library.h"
#include "tests/kit/window_check.h"

namespace fuzz {
namespace {

constexpr uint32_t terminate_stay = 3;

std::string run_folder() {
    return "/dev/shm/mfwd6-fuzz-" + std::to_string(getpid());
}

void remove_run_folder() {
    std::error_code ignored;
    std::filesystem::remove_all(run_folder(), ignored);
}

cerrno on_async_error(uint64_t obj_id, uint32_t oor_error, cerrno, uint32_t, uint32_t, void *) {
    return ipmc_platform_err_handler_async_obj(obj_id, oor_error);
}

void start_library() {
    expect_equal(kit::start_library(), 0, "start of the library");
    expect_equal(ip6mc_idb_init(nullptr, nullptr, 0, nullptr, nullptr, nullptr, nullptr), 0,
                 "start of the interface half");
    mlib_fim_init(nullptr);
}

void set_router_type(bool async) {
    platform_info_t info{};
    platform_info_defaults(&info);
    info.router_type = async ? PLATFORM_ROUTER_TYPE_ASYNC_A : info.router_type;
    platform_info_set(&info);
}

event_manager_t *make_manager() {
    event_manager_t *manager = nullptr;
    expect_equal(event_manager_create(&manager), 0, "event manager");
    return manager;
}

}  // namespace

void start_process() {
    static bool started = false;
    if (started) {
        return;
    }
    started = true;
    remove_run_folder();
    mkdir(run_folder().c_str(), S_IRWXU);
    shmwin_set_run_dir(run_folder().c_str());
    diag_set_run_dir(run_folder().c_str());
    atexit(remove_run_folder);
    ptimer_test_clock_on();
    ipmc_platform_async_err_set_cb(on_async_error);
    start_library();
    check_nothing_left();
}

void check_window() {
    for (const std::string &fault : kit::window_faults()) {
        complain("window: %s", fault.c_str());
    }
}

void check_nothing_left() {
    static const auto at_first = kit::live_blocks();
    const kit::window_survey found = kit::survey_window();
    for (const std::string &fault : found.faults) {
        complain("window: %s", fault.c_str());
    }
    for (const std::string &left : found.leftovers) {
        complain("left in the window: %s", left.c_str());
    }
    for (uint32_t type = 0; type < IPMC_SHMWIN_ALLOC_TYPES; ++type) {
        // Made at the first need and kept for the window's life.
        if (type != IPMC_SHMWIN_ALLOC_OBJ_ID && type != IPMC_SHMWIN_ALLOC_RETRY_QUEUE) {
            expect_equal(found.live[type], at_first[type], "blocks left of type",
                         std::to_string(type));
        }
    }
}

world::world(const choices &how) : async_(how.async), evm_(make_manager(), event_manager_destroy) {
    ip6mc_gtrie_set_sharing(how.sharing ? 1 : 0);
    sim_reset();
    set_router_type(async_);
    ipmc_queue_init();
    start_error_handler();
}

void world::start_error_handler() {
    ipmc_platform_err_handler_init(evm_.get());
    if (!async_) {
        ipmc_object_ida_init_domain();  // off, where an earlier input had it on
    }
}

// As a new process on the window and the hardware that the last one left.
void world::restart(input &in) {
    const uint32_t reason = in.flag() ? uint32_t{IPV4MC_TERMINATE_UPDATE} : terminate_stay;
    note("restart, reason %u", reason);
    for (auto &table : tids_) {
        for (auto &each : table.second->routes) {
            // Memory of the process that ends.
            mfwd_route_event_history_destroy(each.second->record->event_history);
        }
    }
    expect_equal(ip6mc_idb_terminate(0, 0), 0, "end of the interface half");
    expect_equal(ip6mc_lib_terminate(0, reason), 0, "end of the library");
    expect_equal(shmwin_close(ipv4mc_desc->shmwin_id, 1), 0, "window closed");
    evm_.reset(make_manager());
    start_library();
    oor_mode_ = false;
    start_error_handler();
}

void world::not_ready(input &in) {
    tid_table *table = pick_table(in);
    route *r = pick_route(in, table);
    if (r == nullptr) {
        return;
    }
    note("platform not ready for a while");
    sim_set_state(IPV4MC_PLATFORM_STATE_NOT_READY);
    ipv4mc_route_entry_st *entry = r->record;
    int is_new = 0;
    expect_equal(
        ip6mc_route_operation(IPV4MC_ACTION_DELETE, table->record, &r->key.source, &r->key.group,
                              r->key.length, nullptr, &entry, 0, 0, &is_new),
        EBADF, "DELETE while not ready");
    expect_equal(ip6mc_table_delete_all(0), EBADF, "deletion of all tables while not ready");
    sim_set_state(IPV4MC_PLATFORM_STATE_READY);
}

bool world::is_in_the_middle() const {
    for (const auto &table : tids_) {
        for (const auto &each : table.second->routes) {
            if (each.second->pending != nullptr) {
                return true;
            }
        }
        if (!table.second->pending.empty()) {
            return true;
        }
    }
    return false;
}

void world::end(bool interfaces_first) {
    hw_.heal();
    for (const ip6mc_platform_kind kind :
         {IP6MC_PLATFORM_TABLE, IP6MC_PLATFORM_ROUTE, IP6MC_PLATFORM_INTF, IP6MC_PLATFORM_IDB}) {
        hw_.set_capacity(kind, SIM_NO_LIMIT);
    }
    for (auto &each : tids_) {
        give_up_pending(*each.second);
    }
    if (interfaces_first) {
        note("delete all interfaces");
        for (auto &each : idbs_) {
            for (intf *entry : each.second.entries) {
                entry->on_idb = false;
            }
            hw_.idb_call(IPV4MC_IDB_OP_DESTROY, each.first);
        }
        idbs_.clear();
        expect_equal(ip6mc_idb_delete_all(0), 0, "result of the deletion of all interfaces");
    }
    while (!vrfs_.empty()) {
        perform({IPV4MC_ACTION_DELETE, 0, 0, "", true, nullptr, vrfs_.front().get(), 0});
    }
    while (!tids_.empty()) {
        perform({IPV4MC_ACTION_DELETE, 0, 0, "", true, tids_.begin()->second.get(), nullptr, 0});
    }
    while (!idbs_.empty()) {
        const ifhtype ifh = idbs_.begin()->first;
        ipv4mc_idb_st *record = nullptr;
        ip6mc_idb_lookup(ifh, &record);
        --idbs_[ifh].locks;
        model_release_idb(ifh);
        expect_equal(ip6mc_idb_unlock(&record), 0, "result of an interface unlock");
    }
    while (!encaps_.empty()) {
        end_encap(encaps_.begin()->first);
    }
    compare();
    hw_.heal();
    sim_reset();
    check_nothing_left();
}

}  // namespace fuzz
