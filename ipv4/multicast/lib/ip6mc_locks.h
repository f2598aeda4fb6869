// The three locks that guard the window, each a wrapper that leaves a trace of its holder in the
// header.
//
// Order: packet client mutex, then window mutex, then `tbl_rw_lock`. A thread that holds the window
// mutex must not ask for the packet client mutex: that is reported, and granted. None is recursive
// except the packet client mutex.
#ifndef IP6MC_LOCKS_H
#define IP6MC_LOCKS_H

#include "ipv4/multicast/lib/ip6mc_types.h"
#include "services/locks/rrw_lock.h"

MFWD6_BEGIN_C

// Takes the window mutex, which guards signals and MoFRR updates; waits without a limit. `fn` and
// `line` name the caller in the header and in reports. 9 when the window is closed, else the window
// service's code.
MFWD6_EXPORT cerrno ip6mc_shmwin_mutex_lock(const char *fn, int line);
MFWD6_EXPORT cerrno ip6mc_shmwin_mutex_unlock(void);

// Takes and gives back the packet client mutex. A failure is reported and counted; the count of
// holds moves all the same. `fname` must not be NULL.
MFWD6_EXPORT void ipv6_mlib_pak_client_mutex_lock(const char *fname, int line);
MFWD6_EXPORT void ipv6_mlib_pak_client_mutex_unlock(const char *fname, int line);

// Holds of the packet client mutex, as counted in the header. 0 without a window.
MFWD6_EXPORT uint32_t ipv6_mlib_pak_client_mutex_get_count(void);

// Gives up all holds, writing their number to `*count_p`, and takes as many again: for a wait on
// the window mutex in between. A count of 0 or less takes none.
MFWD6_EXPORT void ipv6_mlib_pak_client_recursive_mutex_lock(int count, const char *fname, int line);
MFWD6_EXPORT void ipv6_mlib_pak_client_recursive_mutex_unlock(int *count_p, const char *fname,
                                                              int line);

// The reader-writer lock around the structure of the trees of tables and interfaces. A wait is
// reported once a second and has no end. `line` identifies the call site in reports; `is_reader` is
// 1 after a read lock. No result: a failure is reported and the caller goes on.
MFWD6_EXPORT void ipmc_shmwin_rrw_lock_get_wrlock(rrw_lock_t *lock, int line);
MFWD6_EXPORT void ipmc_shmwin_rrw_lock_get_rdlock(rrw_lock_t *lock, int line);
MFWD6_EXPORT void ipmc_shmwin_rrw_lock_unlock(rrw_lock_t *lock, int line, int is_reader);

MFWD6_END_C

#endif
