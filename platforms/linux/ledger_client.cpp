// The ledger as programs read it.
#include <cerrno>
#include <cstring>

#include "platforms/linux/ledger.h"
#include "platforms/linux/life.h"
#include "platforms/linux/linux.h"

using namespace mfwd6::lnx;

namespace {

cerrno readable() {
    if (!book().opened()) {
        return EBADF;
    }
    return book().retired() ? ESTALE : 0;
}

cerrno slot_of(uint32_t kernel_table, uint32_t *slot) {
    if (const cerrno failed = readable(); failed != 0) {
        return failed;
    }
    *slot = kernel_table == 0 ? no_slot : book().find_table(kernel_table);
    return *slot == no_slot ? ENOENT : 0;
}

}  // namespace

cerrno linux_ledger_attach(const char *folder) {
    if (folder == nullptr) {
        return EINVAL;
    }
    return owner_started() ? 0 : book().open_reader(folder);
}

void linux_ledger_detach(void) {
    if (!owner_started()) {
        book().close();
    }
}

cerrno linux_mif_handle(uint32_t kernel_table, uint32_t mif, ifhtype *ifh) {
    uint32_t slot = no_slot;
    if (ifh == nullptr) {
        return EINVAL;
    }
    if (const cerrno failed = slot_of(kernel_table, &slot); failed != 0) {
        return failed;
    }
    if (mif >= mifs_of_table || book().table(slot).mifs[mif].state != mif_interface) {
        return ENOENT;
    }
    *ifh = book().table(slot).mifs[mif].ifh;
    return 0;
}

cerrno linux_table_tid(uint32_t kernel_table, uint32_t *tid) {
    uint32_t slot = no_slot;
    if (tid == nullptr) {
        return EINVAL;
    }
    const cerrno failed = slot_of(kernel_table, &slot);
    if (failed == 0) {
        *tid = book().table(slot).tid;
    }
    return failed;
}

cerrno linux_list_tables(uint32_t *kernel_tables, uint32_t room, uint32_t *count_p) {
    if (count_p == nullptr || (kernel_tables == nullptr && room != 0)) {
        return EINVAL;
    }
    if (const cerrno failed = readable(); failed != 0) {
        return failed;
    }
    uint32_t count = 0;
    for (uint32_t slot = 0; slot < tables_max; ++slot) {
        const uint32_t kernel_table = book().table(slot).kernel_table;
        if (kernel_table == 0) {
            continue;
        }
        if (count < room) {
            kernel_tables[count] = kernel_table;
        }
        ++count;
    }
    *count_p = count;
    return 0;
}

cerrno linux_walk_interfaces(linux_interface_ft fn, void *context) {
    cerrno result = fn == nullptr ? EINVAL : readable();
    for (uint32_t slot = 0; result == 0 && slot < tables_max; ++slot) {
        const table_slot &t = book().table(slot);
        for (uint32_t mif = 0; result == 0 && t.kernel_table != 0 && mif < mifs_of_table; ++mif) {
            const mif_slot &m = t.mifs[mif];
            if (m.state == mif_interface) {
                linux_interface told = {t.kernel_table, mif, m.ifh, m.ifindex, {}};
                std::memcpy(told.name, m.name, sizeof(told.name));
                told.name[sizeof(told.name) - 1] = 0;
                result = fn(&told, context);
            }
        }
    }
    return result;
}

cerrno linux_walk_flows(linux_flow_entry_ft fn, void *context) {
    cerrno result = fn == nullptr ? EINVAL : readable();
    for (uint32_t slot = 0; result == 0 && slot < book().flows_used(); ++slot) {
        const flow_slot flow = book().flow(slot);
        if (flow.state == flow_free) {
            continue;
        }
        linux_flow_entry told = {};
        told.kernel_table = flow.kernel_table;
        (void)linux_table_tid(flow.kernel_table, &told.tid);
        told.source = flow.key.source;
        told.group = flow.key.group;
        told.route_source = flow.route.source;
        told.route_group = flow.route.group;
        told.route_pfx_len = flow.route_len;
        told.held = flow.state == flow_held ? 1 : 0;
        told.parent_mif = flow.parent;
        told.outputs = flow.outputs;
        told.made_seconds = flow.made;
        result = fn(&told, context);
    }
    return result;
}
