// What programs tell the platform beside the seam, and what they ask.
#include <time.h>

#include <cerrno>
#include <cstring>

#include "platforms/linux/ageing.h"
#include "platforms/linux/interfaces.h"
#include "platforms/linux/life.h"
#include "platforms/linux/links.h"
#include "platforms/linux/messages.h"
#include "platforms/linux/neighbours.h"
#include "platforms/linux/program.h"
#include "platforms/linux/resync.h"

namespace mfwd6::lnx {

life &self() {
    static life the_life;
    return the_life;
}

cerrno noted(cerrno code) {
    if (code != 0) {
        ++self().kernel_failures;
    }
    return code;
}

uint32_t seconds_now() {
    timespec now = {};
    (void)clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint32_t>(now.tv_sec);
}

}  // namespace mfwd6::lnx

using namespace mfwd6::lnx;

namespace {

constexpr uint32_t reserved_tables_first = 253;  // RT_TABLE_DEFAULT
constexpr uint32_t reserved_tables_last = 255;   // RT_TABLE_LOCAL

// Also one of an earlier owner, before resync has come to it.
bool table_is_there(uint32_t tid) {
    if (find_table(tid) != nullptr) {
        return true;
    }
    const ipv4mc_table_st *record = self().descriptor->state == IPV4MC_LIB_STATE_READY
                                        ? ip6mc_table_lookup_by_tbl_id(tid)
                                        : nullptr;
    table *t = nullptr;
    return record != nullptr && record->active != 0 && ensure_table(tid, &t) == 0;
}

}  // namespace

uint32_t linux_kernel_table(uint32_t tid) {
    if (tid == ipv4mc_desc->default_tid) {
        return LINUX_DEFAULT_KERNEL_TABLE;
    }
    const bool reserved = tid >= reserved_tables_first && tid <= reserved_tables_last;
    return reserved || tid >= LINUX_KERNEL_TABLES_END ? 0 : tid;
}

cerrno linux_use_sockets(const linux_sockets *sockets) {
    if (self().descriptor != nullptr) {
        return EBUSY;
    }
    use_sockets(sockets);
    return 0;
}

cerrno linux_set_folder(const char *folder) {
    if (self().descriptor != nullptr) {
        return EBUSY;
    }
    if (folder != nullptr && std::strlen(folder) >= sizeof(self().folder)) {
        return ENAMETOOLONG;
    }
    std::strcpy(self().folder, folder != nullptr ? folder : "");
    return 0;
}

cerrno linux_set_interface_table(ifhtype ifh, uint32_t tid) {
    if (!owner_started()) {
        return EBADF;
    }
    if (ifh == 0) {
        return EINVAL;
    }
    if (tid != 0 && !table_is_there(tid)) {
        return ENOENT;
    }
    interface *i = make_interface(ifh);
    if (i == nullptr) {
        return ENOMEM;
    }
    const uint32_t before = i->set_tid;
    i->set_tid = tid;
    const cerrno failed = settle_interface(ifh);
    if (failed != 0) {
        i->set_tid = before;
        (void)settle_interface(ifh);
    }
    return failed;
}

cerrno linux_set_boundary(ifhtype ifh, const linux_prefix *prefixes, uint32_t count) {
    if (!owner_started()) {
        return EBADF;
    }
    if (ifh == 0 || (prefixes == nullptr && count != 0)) {
        return EINVAL;
    }
    interface *i = make_interface(ifh);
    if (i == nullptr) {
        return ENOMEM;
    }
    const cerrno failed = set_prefixes(*i, prefixes, count);
    if (failed == 0) {
        publish_boundaries();
        reprogram_all();
    }
    return failed;
}

void linux_set_lifetimes(uint32_t held_seconds, uint32_t idle_seconds) {
    self().held_seconds = held_seconds != 0 ? held_seconds : LINUX_HELD_SECONDS;
    self().idle_seconds = idle_seconds != 0 ? idle_seconds : LINUX_IDLE_SECONDS;
}

cerrno linux_resync(linux_resync_counts *counts) {
    if (!owner_started() || self().descriptor->state != IPV4MC_LIB_STATE_READY) {
        return EBADF;
    }
    return resync(counts);
}

void linux_age(uint64_t now_seconds) {
    if (!owner_started()) {
        return;
    }
    self().now = static_cast<uint32_t>(now_seconds);
    if (!links_live() && noted(links_refresh()) == 0) {
        follow_links(reprogram_table);
    }
    age_flows();
    search_strays();
    watch_neighbours();
}

int linux_table_socket(uint32_t kernel_table) {
    const table *t = find_kernel_table(kernel_table);
    return t != nullptr ? t->fd : -ENOENT;
}

void linux_get_status(linux_status *status) {
    if (status == nullptr) {
        return;
    }
    *status = {};
    if (!owner_started()) {
        return;
    }
    for (uint32_t n = 0; table_at(n) != nullptr; ++n) {
        const table &t = *table_at(n);
        uint32_t used = 0;
        ++status->tables;
        status->own_entries += t.own_entries;
        if (register_of(t) != no_mif) {
            status->signals_by_packet = 1;
        }
        for (uint32_t mif = 0; mif < mifs_of_table; ++mif) {
            const mif_slot &m = mif_at(t, mif);
            used += m.state != mif_free ? 1 : 0;
            status->absent_interfaces += m.state == mif_interface && m.ifindex == 0 ? 1U : 0U;
        }
        status->most_interfaces = used > status->most_interfaces ? used : status->most_interfaces;
    }
    for (uint32_t n = 0; interface_at(n) != nullptr; ++n) {
        status->ttl_thresholds += interface_at(n)->ttl > 1 ? 1 : 0;
    }
    status->derived_entries = book().flows_of(flow_derived);
    status->held_entries = book().flows_of(flow_held);
    status->reports = self().reports;
    status->kernel_failures = self().kernel_failures;
    status->full = self().full;
    count_neighbours();
    status->neighbours_wanted = self().neighbours;
    status->neighbour_limit = self().neighbour_limit;
    status->neighbours_short = self().neighbours_short ? 1 : 0;
    status->resynced = self().resynced ? 1 : 0;
}
