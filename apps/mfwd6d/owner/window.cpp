#include "apps/mfwd6d/owner/window.h"

#include <unistd.h>

#include <iterator>

#include "apps/mfwd6d/say.h"
#include "ipv4/multicast/lib/ip6mc_diag.h"
#include "ipv4/multicast/lib/ip6mc_idb.h"
#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "ipv4/multicast/lib/ip6mc_platform_err.h"
#include "services/window/epochs.h"
#include "services/window/inspect.h"
#include "services/window/setup.h"
#include "services/window/window.h"

namespace mfwd6::daemon {
namespace {

constexpr uint16_t protocol = 7;
constexpr uint16_t caps = 8;
constexpr uint32_t line_card_role = 2;
constexpr uint32_t handed_over = 3;  // above IPV4MC_TERMINATE_UPDATE: the window is not touched

std::string window_path() {
    char folder[256] = "";
    shmwin_get_run_dir(folder, sizeof(folder));
    return std::string(folder) + "/" + IP6MC_SHMWIN_NAME;
}

struct refusal {
    cerrno code;
    const char *why;
    const char *what_to_do;
};
constexpr char start_anew[] =
    "To begin with an empty window, start with --new-window: the routes in it are lost";
constexpr refusal refusals[] = {
    {SHMWIN_ERR_LAYOUT, "was made by another version, whose records are laid out differently",
     start_anew},
    {SHMWIN_ERR_DAMAGED, "is damaged", start_anew},
    {SHMWIN_ERR_BASE, "was made for another base address", start_anew},
    {SHMWIN_ERR_BASE_TAKEN, "cannot be mapped: something else lies at its address",
     "Start again; if that does not help, something is loaded there at every start"},
    {SHMWIN_ERR_PERMISSION, "belongs to another user, or access to it is denied",
     "Choose another folder with --run-dir"},
    {SHMWIN_ERR_FILE_TYPE, "is no regular file", "Remove it, or choose another --run-dir"},
    {SHMWIN_ERR_SPACE, "has no room: the file system below it is full", "Make room there"},
    {SHMWIN_ERR_PEERS_FULL, "is open in too many processes", "End some of them"},
    {EBUSY, "is held by another owner that is alive", "End it first, or choose another --run-dir"},
};

outcome explain(cerrno code) {
    for (const refusal &r : refusals) {
        if (r.code == code) {
            return failure(code,
                           fmt::format("the window {} {}. {}", window_path(), r.why, r.what_to_do));
        }
    }
    return failure_of(code, "the window " + window_path());
}

bool owner_lives() {
    shmwin_process list[64];
    uint32_t count = 0;
    if (shmwin_get_processes(ipv4mc_desc->shmwin_id, list, std::size(list), &count) != 0) {
        return false;
    }
    for (uint32_t i = 0; i < count && i < std::size(list); ++i) {
        if (list[i].owner != 0 && list[i].alive != 0) {
            return true;
        }
    }
    return false;
}

outcome look_at_version() {
    const ipv4mc_shmwin_hdr_st *hdr = ipv4mc_desc->shmwin_info;
    const bool is_new = hdr->version_major == 0 && hdr->version_minor == 0;
    if (!is_new &&
        (hdr->version_major != IP6MC_VERSION_MAJOR || hdr->version_minor != IP6MC_VERSION_MINOR)) {
        return failure(SHMWIN_ERR_LAYOUT,
                       fmt::format("the window {} is of version {}.{}, this program of {}.{}. {}",
                                   window_path(), hdr->version_major, hdr->version_minor,
                                   IP6MC_VERSION_MAJOR, IP6MC_VERSION_MINOR, start_anew));
    }
    return owner_lives() ? explain(EBUSY) : outcome{};
}

// Freed blocks wait until every reader has passed. Called inside the change that frees the block.
void defer_block(void *block, int) {
    const uint32_t id = ipv4mc_desc->shmwin_id;
    if (shmwin_defer(id, block) == 0) {
        return;
    }
    reclaim_blocks(0);
    const cerrno rc = shmwin_defer(id, block);
    if (rc != 0) {
        say(weight::error, "a freed block cannot be noted and is lost: {}", cerr_strerror(rc));
    }
}

void end_block(void *block, void *) {
    ip6mc_shmwin_free_final(block);
}

// A holder of the window mutex that does not give it up is ended by the library.
cerrno on_message(ipv4mc_descriptor_struct *, const ipv4mc_lib_callback_msg *message, void *) {
    if (message->type != IPV4MC_LIB_MSG_MONITOR) {
        return 0;
    }
    if (message->u.monitor.event == SHMWIN_EVENT_DEAD) {
        say(weight::warning, "a process died while it held the window mutex; its change is undone");
        return 0;
    }
    say(weight::error, "a process holds the window mutex too long and is ended");
    return EAGAIN;
}

}  // namespace

outcome look_at_window() {
    const cerrno rc = ip6mc_shmwin_open(1, 0);
    if (rc == SHMWIN_ERR_NO_WINDOW || rc == SHMWIN_ERR_HALF_MADE || rc == ENOENT) {
        return {};
    }
    if (rc != 0) {
        ip6mc_shmwin_close();
        return explain(rc);
    }
    outcome result = look_at_version();
    ip6mc_shmwin_close();
    return result;
}

outcome start_library(event_manager_t *evm, void *im_context) {
    cerrno rc = ip6mc_lib_init(evm, im_context, 0, protocol, caps, default_tid, default_vrf_id,
                               line_card_role, on_message, defer_block, nullptr, nullptr, 0);
    if (rc != 0) {
        return ipv4mc_desc->shmwin_init == 0 ? explain(rc)
                                             : failure_of(rc, "the library cannot start");
    }
    ip6mc_shmwin_buffer_status(0);
    mlib_fim_init(nullptr);
    ipmc_platform_err_handler_init(evm);
    rc = ip6mc_idb_init(evm, nullptr, 0, nullptr, nullptr, nullptr, nullptr);
    return rc != 0 ? failure_of(rc, "the interface half cannot start") : outcome{};
}

void stop_library(bool keep) {
    reclaim_blocks(0);
    ip6mc_idb_terminate(0, 0);
    ip6mc_lib_terminate(0, keep ? handed_over : uint32_t{IPV4MC_TERMINATE_END});
    if (keep) {
        ip6mc_shmwin_close();
    } else {
        unlink(window_path().c_str());
    }
}

uint64_t reclaim_blocks(uint32_t most) {
    const uint32_t id = ipv4mc_desc->shmwin_id;
    shmwin_reclaim(id, most, end_block, nullptr, nullptr);
    shmwin_epoch_state state{};
    return shmwin_get_epochs(id, &state) == 0 ? state.deferred : 0;
}

uint64_t window_generation() {
    shmwin_usage usage{};
    return shmwin_get_usage(ipv4mc_desc->shmwin_id, &usage) == 0 ? usage.generation : 0;
}

}  // namespace mfwd6::daemon
