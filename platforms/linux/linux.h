// The Linux platform: the kernel's IPv6 multicast forwarding as hardware, and what programs tell it
// beside the seam (ip6mc_platform.h).
//
// One kernel multicast routing table (ip6mr) and one raw ICMPv6 socket for each table of the
// library. The kernel drops a table's interfaces and entries when the last copy of its socket is
// closed; a program that wants forwarding to outlive the owner keeps a copy (linux_use_sockets).
// What the kernel cannot say about itself stands in the ledger, a file in a folder of the program:
// which interface each kernel interface number (mif) is, and which entries were derived for single
// flows. It is written before the kernel is told, so an owner that is killed at any instruction
// leaves a ledger and a kernel that linux_resync brings into line.
//
// Three kinds of entries stand in the kernel:
//   own      (S,G) and (*,G) routes whose record says all, made at the COMMIT of the route
//   derived  one (S,G) for a flow that a route without an entry of its own takes: (*,G/m) ranges,
//            routes that accept from several interfaces. Made when the kernel reports the flow
//   held     one (S,G) without outputs for a flow that no route takes, or that may not come this
//            way. It keeps the flow from the kernel's queue of ten unresolved flows; it ends after
//            LINUX_HELD_SECONDS, so that a stream that goes on is reported again
//
// Life of an owner program:
//   linux_set_folder, linux_use_sockets          before ip6mc_lib_init
//   ip6mc_lib_init, ip6mc_idb_init               the seam starts
//   linux_set_boundary, linux_set_interface_table  settings, from configuration
//   linux_resync                                 once, then the library's operations
//   linux_answer_flow for each report, linux_age about once a second
//
// Thread-safety. Owner functions: the thread that runs the library's operations. Client functions:
// one thread of any process.
//
// Codes are cerrno: errno values, ENOSPC for a full kernel table (32 interfaces), ENODEV for an
// interface that is not there.
#ifndef MFWD6_PLATFORMS_LINUX_LINUX_H
#define MFWD6_PLATFORMS_LINUX_LINUX_H

#include "ipv4/multicast/lib/ip6mc_platform.h"

MFWD6_BEGIN_C

// Interfaces that one kernel table has at most (MAXMIFS of linux/mroute6.h).
#define LINUX_MIFS 32

// Kernel table of the default VRF (RT_TABLE_MAIN), and the first number that the kernel refuses.
#define LINUX_DEFAULT_KERNEL_TABLE UINT32_C(254)
#define LINUX_KERNEL_TABLES_END UINT32_C(100000000)

// Name of the ledger in its folder.
#define LINUX_LEDGER_NAME "linux.ledger"

// Seconds until a held entry ends, and until a derived entry without packets ends.
#define LINUX_HELD_SECONDS 10
#define LINUX_IDLE_SECONDS 210

// ---- before the start ---------------------------------------------------------------------------

// Where table sockets come from. `get` gives a raw ICMPv6 socket for a kernel table: the same one
// (or a copy of it) whenever the table is asked for, a fresh one, as socket(2) made it, for a table
// asked for first; or a negative errno. It stays the giver's; the platform makes it the table's
// multicast routing socket and does not close it. `release` says that the table is gone: its socket
// may be closed by all who have copies.
typedef struct linux_sockets {
    int (*get)(void *context, uint32_t kernel_table);
    void (*release)(void *context, uint32_t kernel_table);
    void *context;
} linux_sockets;

// Takes sockets from here on; copied. NULL: the platform opens and closes its own, and forwarding
// ends with the process. EBUSY while the platform is started.
MFWD6_EXPORT cerrno linux_use_sockets(const linux_sockets *sockets);

// Folder of the ledger, which must exist, on tmpfs; copied. Without one (or NULL) the ledger is
// process memory and nothing can be taken over after a restart. EBUSY while the platform is
// started, ENAMETOOLONG.
MFWD6_EXPORT cerrno linux_set_folder(const char *folder);

// Kernel table of a table of the library: LINUX_DEFAULT_KERNEL_TABLE for `default_tid` of the
// descriptor, else the table id itself. 0: the id is no legal number of a kernel table (0, 253 to
// 255, LINUX_KERNEL_TABLES_END or above); such a table is refused with ERANGE when it is made.
MFWD6_EXPORT uint32_t linux_kernel_table(uint32_t tid);

// ---- the owner's settings -----------------------------------------------------------------------

// Takes an interface into a table of the library: its packets are looked up there, also while no
// route names it, so that unknown flows are reported. Holds a mif. `tid` 0 ends it. An interface
// that is enabled (ip6mc_idb_... ENABLE) or that a route accepts from is taken into its table by
// that already. ENOENT: no such table; ENOSPC: it has 32 interfaces; nothing is changed then. An
// interface that is not there is noted, and taken when it comes. EBADF before the start.
MFWD6_EXPORT cerrno linux_set_interface_table(ifhtype ifh, uint32_t tid);

typedef struct linux_prefix {
    ip_maddr_st group;
    uint16_t length;  // 0 to 128
} linux_prefix;

// The groups that neither come in nor go out by this interface; replaces those set before. Entries
// in the kernel are changed at once. Beside it the interface's boundary access list counts, where
// it has one (IPV4MC_IDB_OP_BOUNDARY_UPDATE): a group that it denies stays inside. EINVAL, ENOMEM;
// EBADF before the start.
MFWD6_EXPORT cerrno linux_set_boundary(ifhtype ifh, const linux_prefix *prefixes, uint32_t count);

// Lifetimes in seconds, for tests and for operators; 0 is the default again.
MFWD6_EXPORT void linux_set_lifetimes(uint32_t held_seconds, uint32_t idle_seconds);

// ---- the owner's work ---------------------------------------------------------------------------

typedef struct linux_resync_counts {
    uint64_t kept;        // entries that were right; not touched
    uint64_t programmed;  // entries that were missing or wrong
    uint64_t removed;     // entries that nothing in the window stands for
    uint64_t failed;      // entries that could not be made
    uint64_t interfaces;  // mifs in use, of all tables
    uint64_t tables;
} linux_resync_counts;

// Brings kernel and window into line, once after the start, before operations. What is right stays
// untouched and loses no packet. Bounded work: one question to the kernel per entry. Tables with
// more than a few thousand entries are searched for strays later, piece by piece, by linux_age.
// `counts` may be NULL. The first failure, after all else was done; EBADF before the start.
MFWD6_EXPORT cerrno linux_resync(linux_resync_counts *counts);

// Kinds of reports (MRT6MSG_ of linux/mroute6.h).
enum linux_reports {
    LINUX_REPORT_UNKNOWN_FLOW =
        1,  // no entry; the kernel keeps up to four packets until it is answered
    LINUX_REPORT_WRONG_INTERFACE = 2,  // the flow's entry takes packets from another interface
    LINUX_REPORT_PACKET = 3            // a copy for the control plane: a route that signals
};

// One report of the kernel. Plain data, the same in all processes of a machine: may be sent over
// sockets.
typedef struct linux_flow {
    uint32_t kernel_table;
    uint16_t mif;    // where the packet came in; of LINUX_REPORT_PACKET, too
    uint8_t report;  // one of linux_reports
    uint8_t reserved;
    ip_maddr_st source;
    ip_maddr_st group;
} linux_flow;
static_assert(sizeof(linux_flow) == 40, "sent between processes");

// How a report was answered.
enum linux_answers {
    LINUX_ANSWER_DERIVED = 0,  // packets of the flow are forwarded now
    LINUX_ANSWER_HELD = 1,     // no route takes it
    LINUX_ANSWER_THERE = 2     // nothing to do: the kernel has what it should
};

// Answers a report: longest match in the window, then an entry derived or held. Every report must
// be answered, in any order, as often as it comes; a late or repeated one does no harm. `answer_p`
// may be NULL. ENOENT: no such table; ENODEV: no such mif; the kernel's code.
MFWD6_EXPORT cerrno linux_answer_flow(const linux_flow *flow, uint32_t *answer_p);

// Ends held entries and idle flows whose time has come, and looks for strays. Bounded work for each
// call. `now_seconds` is of CLOCK_MONOTONIC (ptimer clock).
MFWD6_EXPORT void linux_age(uint64_t now_seconds);

// The table's socket, to read reports from; it is the platform's. Negative errno: ENOENT.
MFWD6_EXPORT int linux_table_socket(uint32_t kernel_table);

// ---- reports, in any process --------------------------------------------------------------------

// Reads what recv(2) gave on a table's socket. EAGAIN: no report (an ICMPv6 message, or one that
// needs no answer), EINVAL: cut short. `flow` is written on success only.
MFWD6_EXPORT cerrno linux_parse_report(const void *bytes, size_t size, uint32_t kernel_table,
                                       linux_flow *flow);

// The interface that the packet of a report came in by; `table` is the table-id side. Codes as of
// linux_mif_handle; ENOENT also for a packet that came by none of the table's interfaces.
MFWD6_EXPORT cerrno linux_report_interface(ipv4mc_table_st *table, const linux_flow *flow,
                                           ifhtype *ifh);

// 1 when the control plane is to hear of the flow as a signal, 0 when not: nothing matches in
// `table` (the table-id side), or the route that matches signals packets from this interface; never
// a group inside a boundary of linux_set_boundary. Needs the library started in this process, owner
// or attached.
MFWD6_EXPORT int linux_report_signals(ipv4mc_table_st *table, const linux_flow *flow, ifhtype ifh);

// ---- the ledger, in any process -----------------------------------------------------------------

// Attaches to the ledger in `folder` for reading. Not needed in the owner. ENOENT: there is none
// yet; EPROTO: of another version; errno values. Attaching again replaces.
MFWD6_EXPORT cerrno linux_ledger_attach(const char *folder);
MFWD6_EXPORT void linux_ledger_detach(void);

// Interface of a mif. ENOENT: no such table or mif; ESTALE: the ledger was replaced, attach again;
// EBADF: not attached.
MFWD6_EXPORT cerrno linux_mif_handle(uint32_t kernel_table, uint32_t mif, ifhtype *ifh);

// Table of the library of a kernel table. Codes as above.
MFWD6_EXPORT cerrno linux_table_tid(uint32_t kernel_table, uint32_t *tid);

// The kernel tables in the ledger: writes up to `room` numbers and, to `count_p`, how many there
// are. Codes as above.
MFWD6_EXPORT cerrno linux_list_tables(uint32_t *kernel_tables, uint32_t room, uint32_t *count_p);

// An interface as the ledger knows it.
typedef struct linux_interface {
    uint32_t kernel_table;
    uint32_t mif;
    ifhtype ifh;
    uint32_t ifindex;  // 0 while the interface is not there
    char name[16];
} linux_interface;
typedef cerrno (*linux_interface_ft)(const linux_interface *interface, void *context);
MFWD6_EXPORT cerrno linux_walk_interfaces(linux_interface_ft fn, void *context);

// A derived or held entry. Of a held one the route's fields are 0.
typedef struct linux_flow_entry {
    uint32_t kernel_table;
    uint32_t tid;
    ip_maddr_st source;
    ip_maddr_st group;
    ip_maddr_st route_source;  // key of the route that it was derived from
    ip_maddr_st route_group;
    uint16_t route_pfx_len;
    uint8_t held;        // 1: held, 0: derived
    uint8_t parent_mif;  // where packets come in
    uint32_t outputs;    // bit per mif
    uint64_t made_seconds;
} linux_flow_entry;
typedef cerrno (*linux_flow_entry_ft)(const linux_flow_entry *entry, void *context);

// Calls `fn` for each flow entry; a non-zero answer ends the walk and is the result. Beside the
// owner, a reader may miss or see twice what changes meanwhile.
MFWD6_EXPORT cerrno linux_walk_flows(linux_flow_entry_ft fn, void *context);

// ---- status -------------------------------------------------------------------------------------

typedef struct linux_status {
    uint64_t own_entries;  // kernel entries by kind, of all tables
    uint64_t derived_entries;
    uint64_t held_entries;
    uint64_t reports;          // answered since the start
    uint64_t kernel_failures;  // calls that the kernel refused, apart from limits
    uint64_t full;             // calls refused for a limit (ENOSPC)
    uint32_t tables;
    uint32_t most_interfaces;    // mifs in use in the fullest table, of LINUX_MIFS
    uint32_t absent_interfaces;  // named by routes and not there
    uint32_t ttl_thresholds;  // interfaces with a TTL threshold above 1, which the kernel does not
                              // enforce for IPv6
    // The kernel needs one entry of its neighbour table for each group and output device.
    uint64_t neighbours_wanted;
    uint64_t neighbour_limit;  // net.ipv6.neigh.default.gc_thresh3; 0: cannot be read
    uint8_t neighbours_short;  // 1: wanted exceeds the limit: some groups are not sent
    uint8_t resynced;
    uint8_t signals_by_packet;  // 1: the kernel can copy packets of routes that signal
    uint8_t reserved[5];
} linux_status;

// Of the owner's process; all zero elsewhere.
MFWD6_EXPORT void linux_get_status(linux_status *status);

MFWD6_END_C

#endif
