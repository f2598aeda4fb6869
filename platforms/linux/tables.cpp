#include "platforms/linux/tables.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platforms/linux/interfaces.h"
#include "platforms/linux/life.h"
#include "platforms/linux/links.h"
#include "platforms/linux/local_copies.h"
#include "platforms/linux/messages.h"
#include "platforms/linux/netlink.h"

namespace mfwd6::lnx {

namespace {

struct {
    table all[tables_max];
    uint32_t count = 0;
    linux_sockets given = {};
} live;

// ---- sockets ----

int get_socket(uint32_t kernel_table) {
    return live.given.get != nullptr ? live.given.get(live.given.context, kernel_table)
                                     : kernel_open_socket();
}

void release_socket(uint32_t kernel_table, int fd) {
    if (live.given.get == nullptr) {
        close(fd);
    } else if (live.given.release != nullptr) {
        live.given.release(live.given.context, kernel_table);
    }
}

// ---- ledger slots ----

void drop_flows_of(uint32_t kernel_table) {
    for (uint32_t slot = 0; slot < book().flows_used(); ++slot) {
        const flow_slot &flow = book().flow(slot);
        if (flow.state != flow_free && flow.kernel_table == kernel_table) {
            book().drop_flow(slot);
        }
    }
}

// A table of an earlier owner that has the kernel table, or the id, in another pairing.
void drop_other_pairing(uint32_t tid, uint32_t kernel_table) {
    const uint32_t slots[] = {book().find_tid(tid), book().find_table(kernel_table)};
    for (const uint32_t slot : slots) {
        if (slot == no_slot) {
            continue;
        }
        const table_slot &held = book().table(slot);
        if (held.tid != tid || held.kernel_table != kernel_table) {
            drop_flows_of(held.kernel_table);
            book().drop_table(slot);
        }
    }
}

// The slot of a table whose socket is in hand. What a kernel table holds that no ledger knows is
// thrown away: nobody could say which interfaces its mifs are.
cerrno settle_slot(table &t, bool fresh) {
    drop_other_pairing(t.tid, t.kernel_table);
    t.slot = book().find_table(t.kernel_table);
    if (t.slot != no_slot) {
        if (fresh) {
            book().begin_epoch(t.slot);
        }
        return 0;
    }
    const cerrno failed = fresh ? 0 : kernel_flush(t.fd);
    return failed != 0 ? failed : book().add_table(t.kernel_table, t.tid, &t.slot);
}

// ---- mifs ----

uint32_t free_mif(const table &t) {
    for (uint32_t mif = 0; mif < mifs_of_table; ++mif) {
        if (mif_at(t, mif).state == mif_free) {
            return mif;
        }
    }
    return no_mif;
}

cerrno take_free_mif(const table &t, uint32_t *mif) {
    *mif = free_mif(t);
    if (*mif == no_mif) {
        ++self().full;
        tell_interfaces_full(t.tid);
        return ENOSPC;
    }
    return 0;
}

// Puts a mif into the kernel that the ledger has already. A link that went meanwhile is absent.
cerrno add_to_kernel(const table &t, uint32_t mif) {
    mif_slot &m = mif_at(t, mif);
    cerrno failed = kernel_add_mif(t.fd, mif, m.ifindex);
    if (failed == EADDRNOTAVAIL) {
        m.ifindex = 0;
        return 0;
    }
    return failed == EADDRINUSE ? 0 : failed;
}

void write_mif(mif_slot &m, uint32_t state, uint32_t ifh, uint32_t link, const char *name) {
    mif_slot filled = {};
    filled.ifh = ifh;
    filled.ifindex = link;
    std::memcpy(filled.name, name, link_name_bytes);
    filled.state = mif_free;
    m = filled;
    std::atomic_signal_fence(std::memory_order_seq_cst);
    m.state = state;
    std::atomic_signal_fence(std::memory_order_seq_cst);
}

void free_mif_slot(table &t, uint32_t mif) {
    mif_slot &m = mif_at(t, mif);
    if (m.ruled != 0) {
        (void)noted(rules_delete(m.name, t.kernel_table));
    }
    (void)noted(kernel_delete_mif(t.fd, mif));
    std::atomic_signal_fence(std::memory_order_seq_cst);
    m.state = mif_free;
}

cerrno make_mif(table &t, uint32_t ifh, bool must_exist, uint32_t *mif) {
    char name[link_name_bytes] = {};
    if (const interface *known = find_interface(ifh); known != nullptr) {
        std::memcpy(name, known->name, sizeof(name));
    }
    const uint32_t link = link_of(ifh, name);
    if (link == 0 && must_exist) {
        return ENODEV;
    }
    if (link > UINT16_MAX) {
        return EOVERFLOW;
    }
    // Two handles of one link, of before and after it was made again, share its mif.
    *mif = mif_of_link(t, link);
    if (*mif != no_mif) {
        return 0;
    }
    if (const cerrno full = take_free_mif(t, mif); full != 0) {
        return full;
    }
    write_mif(mif_at(t, *mif), mif_interface, ifh, link, name);
    if (link == 0) {
        return 0;
    }
    const cerrno failed = noted(add_to_kernel(t, *mif));
    if (failed != 0 || (must_exist && mif_at(t, *mif).ifindex == 0)) {
        free_mif_slot(t, *mif);
        return failed != 0 ? failed : ENODEV;
    }
    return 0;
}

// The link behind a mif is another one than before, or gone, or has another name.
void move_mif(table &t, uint32_t mif, lacking_fn changed) {
    mif_slot &m = mif_at(t, mif);
    char name[link_name_bytes];
    std::memcpy(name, m.name, sizeof(name));
    const uint32_t link = link_of(m.ifh, name);
    if (std::memcmp(name, m.name, sizeof(name)) != 0) {
        if (m.ruled != 0) {
            (void)noted(rules_delete(m.name, t.kernel_table));
            (void)noted(rules_add(name, t.kernel_table));
        }
        std::memcpy(m.name, name, sizeof(name));
    }
    if (link == m.ifindex || link > UINT16_MAX) {
        return;
    }
    // The kernel has dropped the mif of a link that went, unless this is news of a moved one.
    (void)noted(kernel_delete_mif(t.fd, mif));
    m.ifindex = link;
    std::atomic_signal_fence(std::memory_order_seq_cst);
    if (link == 0 || noted(add_to_kernel(t, mif)) != 0) {
        return;
    }
    if (m.ifindex == 0) {
        return;
    }
    renew_local_copies(t, mif);
    if (m.lacking != 0) {
        m.lacking = 0;
        changed(t, mif);
    }
}

// Another table that the packets of this link are sent to already.
bool ruled_elsewhere(const table &t, const mif_slot &m) {
    for (uint32_t n = 0; n < live.count; ++n) {
        const table &other = live.all[n];
        for (uint32_t mif = 0; &other != &t && mif < mifs_of_table; ++mif) {
            const mif_slot &theirs = mif_at(other, mif);
            if (theirs.state == mif_interface && theirs.ruled != 0 && theirs.ifh == m.ifh) {
                return true;
            }
        }
    }
    return false;
}

}  // namespace

void use_sockets(const linux_sockets *sockets) {
    live.given = sockets != nullptr ? *sockets : linux_sockets{};
}

table *find_table(uint32_t tid) {
    for (uint32_t n = 0; n < live.count; ++n) {
        if (live.all[n].tid == tid) {
            return &live.all[n];
        }
    }
    return nullptr;
}

table *find_kernel_table(uint32_t kernel_table) {
    for (uint32_t n = 0; n < live.count; ++n) {
        if (live.all[n].kernel_table == kernel_table) {
            return &live.all[n];
        }
    }
    return nullptr;
}

table *table_at(uint32_t n) {
    return n < live.count ? &live.all[n] : nullptr;
}

cerrno ensure_table(uint32_t tid, table **out) {
    *out = find_table(tid);
    if (*out != nullptr) {
        return 0;
    }
    const uint32_t kernel_table = linux_kernel_table(tid);
    if (kernel_table == 0) {
        return ERANGE;
    }
    if (live.count == tables_max) {
        ++self().full;
        return ENOSPC;
    }
    table made = {};
    made.tid = tid;
    made.kernel_table = kernel_table;
    made.fd = get_socket(kernel_table);
    if (made.fd < 0) {
        return noted(static_cast<cerrno>(-made.fd));
    }
    bool fresh = false;
    cerrno failed = noted(kernel_take_table(made.fd, kernel_table, &fresh));
    failed = failed != 0 ? failed : settle_slot(made, fresh);
    if (failed != 0) {
        release_socket(kernel_table, made.fd);
        return failed;
    }
    made.strays_unknown = !fresh;
    live.all[live.count] = made;
    *out = &live.all[live.count++];
    failed = restore_mifs(**out);
    settle_interfaces();
    return failed;
}

void drop_table(table *t) {
    for (uint32_t mif = 0; mif < mifs_of_table; ++mif) {
        if (mif_at(*t, mif).state != mif_free) {
            free_mif_slot(*t, mif);
        }
    }
    drop_flows_of(t->kernel_table);
    forget_local_copies_of(*t);
    (void)noted(kernel_end_table(t->fd));
    book().drop_table(t->slot);
    release_socket(t->kernel_table, t->fd);
    for (uint32_t n = 0; interface_at(n) != nullptr; ++n) {
        interface *i = interface_at(n);
        i->taken_tid = i->taken_tid == t->tid ? 0 : i->taken_tid;
    }
    *t = live.all[--live.count];
}

void drop_ledger_tables() {
    for (uint32_t slot = 0; slot < tables_max; ++slot) {
        drop_ledger_table(slot);
    }
}

void drop_ledger_table(uint32_t slot) {
    if (book().table(slot).kernel_table == 0) {
        return;
    }
    table *t = nullptr;
    if (ensure_table(book().table(slot).tid, &t) == 0) {
        drop_table(t);
    } else {
        book().drop_table(slot);
    }
}

void leave_tables() {
    for (uint32_t n = 0; live.given.get == nullptr && n < live.count; ++n) {
        close(live.all[n].fd);
    }
    live.count = 0;
}

cerrno flush_table(table &t) {
    drop_flows_of(t.kernel_table);
    book().begin_epoch(t.slot);
    t.own_entries = 0;
    const cerrno failed = noted(kernel_flush(t.fd));
    const cerrno restored = restore_mifs(t);
    return failed != 0 ? failed : restored;
}

uint32_t mif_of_link(const table &t, uint32_t link) {
    for (uint32_t mif = 0; link != 0 && mif < mifs_of_table; ++mif) {
        if (mif_at(t, mif).state == mif_interface && mif_at(t, mif).ifindex == link) {
            return mif;
        }
    }
    return no_mif;
}

uint32_t mif_of(const table &t, uint32_t ifh) {
    for (uint32_t mif = 0; mif < mifs_of_table; ++mif) {
        const mif_slot &m = mif_at(t, mif);
        if (m.ifh == ifh && m.state == mif_interface) {
            return mif;
        }
    }
    char name[link_name_bytes] = {};
    return mif_of_link(t, link_of(ifh, name));
}

cerrno take_mif(table &t, uint32_t ifh, bool must_exist, uint32_t *mif) {
    *mif = mif_of(t, ifh);
    const cerrno failed = *mif != no_mif ? 0 : make_mif(t, ifh, must_exist, mif);
    if (failed == 0) {
        ++t.uses[*mif];
    }
    return failed;
}

void give_mif(table &t, uint32_t mif) {
    if (mif == no_mif || t.uses[mif] == 0 || --t.uses[mif] != 0 || !self().resynced) {
        return;
    }
    free_mif_slot(t, mif);
}

uint32_t register_of(const table &t) {
    for (uint32_t mif = 0; mif < mifs_of_table; ++mif) {
        if (mif_at(t, mif).state == mif_register) {
            return mif;
        }
    }
    return no_mif;
}

cerrno ensure_register(table &t, uint32_t *mif) {
    *mif = register_of(t);
    if (*mif != no_mif) {
        return 0;
    }
    if (const cerrno full = take_free_mif(t, mif); full != 0) {
        return full;
    }
    const char name[link_name_bytes] = {};
    write_mif(mif_at(t, *mif), mif_register, 0, 0, name);
    const cerrno failed = noted(kernel_add_register_mif(t.fd, *mif));
    if (failed != 0 && failed != EADDRINUSE) {
        mif_at(t, *mif).state = mif_free;
        return failed;
    }
    return 0;
}

cerrno rule_mif(table &t, uint32_t mif) {
    mif_slot &m = mif_at(t, mif);
    if (m.ruled != 0 || t.kernel_table == LINUX_DEFAULT_KERNEL_TABLE || m.name[0] == 0) {
        return 0;
    }
    if (ruled_elsewhere(t, m)) {
        return EBUSY;
    }
    m.ruled = 1;
    std::atomic_signal_fence(std::memory_order_seq_cst);
    const cerrno failed = noted(rules_add(m.name, t.kernel_table));
    if (failed != 0) {
        (void)rules_delete(m.name, t.kernel_table);
        m.ruled = 0;
    }
    return failed;
}

cerrno restore_mifs(table &t) {
    cerrno first = 0;
    for (uint32_t mif = 0; mif < mifs_of_table; ++mif) {
        mif_slot &m = mif_at(t, mif);
        cerrno failed = 0;
        if (m.state == mif_register) {
            failed = kernel_add_register_mif(t.fd, mif);
            failed = failed == EADDRINUSE ? 0 : failed;
        } else if (m.state == mif_interface) {
            char name[link_name_bytes];
            std::memcpy(name, m.name, sizeof(name));
            if (const uint32_t link = link_of(m.ifh, name); link != m.ifindex) {
                (void)noted(kernel_delete_mif(t.fd, mif));
                m.ifindex = link;
                std::atomic_signal_fence(std::memory_order_seq_cst);
            }
            failed = m.ifindex != 0 ? add_to_kernel(t, mif) : 0;
            if (failed == 0 && m.ruled != 0) {
                failed = rules_add(m.name, t.kernel_table);
            }
        }
        first = first != 0 ? first : noted(failed);
    }
    return first;
}

void release_unused_mifs(table &t) {
    for (uint32_t mif = 0; mif < mifs_of_table; ++mif) {
        if (mif_at(t, mif).state == mif_interface && t.uses[mif] == 0) {
            free_mif_slot(t, mif);
        }
    }
}

void follow_links(lacking_fn changed) {
    for (uint32_t n = 0; n < live.count; ++n) {
        for (uint32_t mif = 0; mif < mifs_of_table; ++mif) {
            if (mif_at(live.all[n], mif).state == mif_interface) {
                move_mif(live.all[n], mif, changed);
            }
        }
    }
    settle_interfaces();
}

cerrno settle_interface(uint32_t ifh) {
    interface *i = find_interface(ifh);
    if (i == nullptr) {
        return 0;
    }
    const uint32_t wanted = i->set_tid != 0 ? i->set_tid : i->enabled_tid;
    if (i->taken_tid == wanted) {
        // A link that came later than it was told of has a name, and so a rule, only now.
        table *there = wanted != 0 ? find_table(wanted) : nullptr;
        const uint32_t mif = there != nullptr ? mif_of(*there, ifh) : no_mif;
        return mif != no_mif ? rule_mif(*there, mif) : 0;
    }
    if (table *before = find_table(i->taken_tid); before != nullptr) {
        give_mif(*before, mif_of(*before, ifh));
    }
    i->taken_tid = 0;
    table *t = wanted != 0 ? find_table(wanted) : nullptr;
    if (t == nullptr) {
        return 0;
    }
    uint32_t mif = no_mif;
    cerrno failed = take_mif(*t, ifh, false, &mif);
    if (failed != 0) {
        return failed;
    }
    failed = rule_mif(*t, mif);
    if (failed != 0) {
        give_mif(*t, mif);
        return failed;
    }
    i->taken_tid = wanted;
    return 0;
}

void settle_interfaces() {
    for (uint32_t n = 0; interface_at(n) != nullptr; ++n) {
        (void)noted(settle_interface(interface_at(n)->ifh));
    }
}

}  // namespace mfwd6::lnx
