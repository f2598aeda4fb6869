#include "ipv4/multicast/platform_default/src/ip_mcast_shmwin/lock_guards.h"

#include "services/journal/journal.h"

namespace mlib {
namespace {

// The hold of this thread that waits for a commit, 0 if none: the line of its lock.
thread_local int kept_line = 0;
thread_local int depth = 0;

void unlock(int line) {
    ipmc_shmwin_rrw_lock_unlock(&ipv4mc_desc->shmwin_info->tbl_rw_lock, line, 0);
}

void unlock_kept(void *) {
    const int line = kept_line;
    kept_line = 0;
    unlock(line);
}

}  // namespace

tbl_write_lock::tbl_write_lock(int line) : line_(line), joined_(kept_line != 0 || depth != 0) {
    ++depth;
    if (!joined_) {
        ipmc_shmwin_rrw_lock_get_wrlock(&ipv4mc_desc->shmwin_info->tbl_rw_lock, line_);
    }
}

tbl_write_lock::~tbl_write_lock() {
    --depth;
    if (joined_) {
        return;
    }
    if (mfwd6::journal::after_commit(unlock_kept, nullptr)) {
        kept_line = line_;
    } else {
        unlock(line_);
    }
}

}  // namespace mlib
