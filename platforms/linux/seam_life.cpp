// Start, stop and state of the platform.
#include <cerrno>

#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "platforms/linux/interfaces.h"
#include "platforms/linux/life.h"
#include "platforms/linux/links.h"
#include "platforms/linux/local_copies.h"
#include "platforms/linux/messages.h"
#include "platforms/linux/program.h"
#include "platforms/linux/query_sockets.h"
#include "platforms/linux/records.h"
#include "platforms/linux/tables.h"

using namespace mfwd6::lnx;

namespace {

// Room behind the records, asked for before any program starts the library.
__attribute__((constructor)) void ask_for_extensions() {
    platform_info_t info;
    platform_info_get(&info);
    info.mcast_params.route_extension_size = sizeof(route_extension);
    info.mcast_params.intf_extension_size = sizeof(intf_extension);
    (void)platform_info_set(&info);
}

bool extensions_given() {
    return plat_params.route_extension_size >= sizeof(route_extension) &&
           plat_params.intf_extension_size >= sizeof(intf_extension);
}

void on_link(imc_context_t *, enum imc_change change, uint32_t, const char *, void *) {
    // A lost connection says nothing about links; what is listed behind it does.
    if (change != IMC_CONNECTION_LOST && owner_started()) {
        follow_links(reprogram_table);
    }
}

bool ledger_is_empty() {
    for (uint32_t slot = 0; slot < tables_max; ++slot) {
        if (book().table(slot).kernel_table != 0) {
            return false;
        }
    }
    return true;
}

const char *folder_or_none() {
    return self().folder[0] != 0 ? self().folder : nullptr;
}

cerrno start_owner(void *evm) {
    cerrno failed = book().open_owner(folder_or_none());
    if (failed != 0) {
        return failed;
    }
    failed = links_open(static_cast<event_manager_t *>(evm), on_link);
    if (failed != 0) {
        links_close();
        book().close();
        return failed;
    }
    self().run = book().next_stamp();
    publish_boundaries();  // none yet: the program says them again
    self().resynced = ledger_is_empty();
    self().now = seconds_now();
    return 0;
}

void forget_run() {
    life &l = self();
    l.descriptor = nullptr;
    l.idb_callback = nullptr;
    l.owner = false;
    l.resynced = false;
    l.reports = l.kernel_failures = l.full = 0;
    l.output_pairs = l.counted_pairs = l.neighbours = l.neighbour_limit = 0;
    l.neighbours_short = l.neighbours_told = false;
    l.counted_at = 0;
}

}  // namespace

cerrno ip6mc_platform_lib_init(void *evm, int attach_only, ipv4mc_descriptor_struct *descriptor) {
    if (descriptor == nullptr) {
        return EINVAL;
    }
    if (self().descriptor != nullptr) {
        return 0;
    }
    if (!extensions_given()) {
        tell_no_room(plat_params.route_extension_size, plat_params.intf_extension_size);
        return EINVAL;
    }
    if (attach_only == 0) {
        if (const cerrno failed = start_owner(evm); failed != 0) {
            return failed;
        }
    } else if (folder_or_none() != nullptr) {
        // Counters of flows need it; the owner may not have made it yet.
        (void)book().open_reader(folder_or_none());
    }
    self().owner = attach_only == 0;
    self().descriptor = descriptor;
    return 0;
}

cerrno ip6mc_platform_lib_terminate(int attach_only, uint32_t reason) {
    if (self().descriptor == nullptr) {
        return 0;
    }
    if (attach_only == 0 && reason < IPV4MC_TERMINATE_UPDATE) {
        drop_ledger_tables();
        book().clear();
    }
    leave_tables();
    links_close();
    close_query_sockets();
    forget_interfaces();
    forget_local_copies();
    book().close();
    forget_run();
    return 0;
}

cerrno ip6mc_platform_get_state(uint32_t *state_p) {
    if (state_p == nullptr) {
        return EINVAL;
    }
    *state_p =
        self().descriptor != nullptr ? IPV4MC_PLATFORM_STATE_READY : IPV4MC_PLATFORM_STATE_DOWN;
    return 0;
}

cerrno ip6mc_platform_clear_hw_resources(uint32_t arg) {
    (void)arg;
    if (!owner_started()) {
        return 0;
    }
    cerrno first = 0;
    for (uint32_t n = 0; table_at(n) != nullptr; ++n) {
        const cerrno failed = flush_table(*table_at(n));
        first = first != 0 ? first : failed;
    }
    self().output_pairs = 0;
    return first;
}
