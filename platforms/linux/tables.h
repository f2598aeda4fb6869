// Tables of the owner: their sockets, and the interfaces of each table.
//
// A mif is in use by each interface entry of a route that names it, by an interface that was taken
// into the table, and, for signals, by the register interface. Its last user takes it out of the
// kernel; before that no entry names it any more.
#ifndef MFWD6_PLATFORMS_LINUX_TABLES_H
#define MFWD6_PLATFORMS_LINUX_TABLES_H

#include "platforms/linux/ledger.h"
#include "platforms/linux/linux.h"

namespace mfwd6::lnx {

struct table {
    uint32_t tid;
    uint32_t kernel_table;
    uint32_t slot;  // in the ledger
    int fd;         // routing socket
    uint32_t uses[mifs_of_table];
    uint64_t own_entries;
    bool strays_unknown;  // its entries have not been searched for strays
};

// The table of an id; nullptr. Valid until the next table is made or dropped.
table *find_table(uint32_t tid);
table *find_kernel_table(uint32_t kernel_table);
table *table_at(uint32_t n);  // n from 0; nullptr at the end
inline mif_slot &mif_at(const table &t, uint32_t mif) {
    return book().table(t.slot).mifs[mif];
}
inline uint64_t epoch_of(const table &t) {
    return book().table(t.slot).epoch;
}

// Makes the table, or finds it. ERANGE: no kernel table of this number; ENOSPC; EADDRINUSE: another
// program routes in it; the codes of sockets.
cerrno ensure_table(uint32_t tid, table **out);

// Takes everything out of the kernel and ends the table.
void drop_table(table *t);

// The same for a table of the ledger, which may be of an earlier owner; and for all of them.
void drop_ledger_table(uint32_t slot);
void drop_ledger_tables();

// Ends all tables in this process; the kernel's side and the ledger stay, as far as somebody else
// holds the sockets.
void leave_tables();

// Empties the kernel's side; the table goes on.
cerrno flush_table(table &t);

// ---- interfaces ----

// The mif that a link is, no_mif for none and for link 0.
uint32_t mif_of_link(const table &t, uint32_t link);

// The mif of an interface, no_mif when it has none in this table.
uint32_t mif_of(const table &t, uint32_t ifh);

// One use more: makes the mif when it is the first. `must_exist`: ENODEV when no link is behind the
// handle. ENOSPC: 32 are in use. EOVERFLOW. Nothing is changed on failure.
cerrno take_mif(table &t, uint32_t ifh, bool must_exist, uint32_t *mif);
void give_mif(table &t, uint32_t mif);

// The register interface, by which the kernel hands packets to the control plane. ENOSPC.
cerrno ensure_register(table &t, uint32_t *mif);
uint32_t register_of(const table &t);

// Packets that come in by the mif are looked up in this table. EBUSY: they are in another one.
cerrno rule_mif(table &t, uint32_t mif);

// Puts into the kernel what the ledger says about the table's mifs.
cerrno restore_mifs(table &t);

// Takes out mifs that nobody uses, after a restart.
void release_unused_mifs(table &t);

// A link came, went or changed its name; `changed` is called for each table whose entries must be
// made again, with the mif that they lack.
using lacking_fn = void (*)(table &t, uint32_t mif);
void follow_links(lacking_fn changed);

// What an interface was told about its table, done as far as the table is there.
cerrno settle_interface(uint32_t ifh);
void settle_interfaces();

// Where sockets come from.
void use_sockets(const linux_sockets *sockets);

}  // namespace mfwd6::lnx

#endif
