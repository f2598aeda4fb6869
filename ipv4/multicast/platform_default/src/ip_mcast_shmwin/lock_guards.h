// The two sides of tbl_rw_lock as scopes. The line names the call site in reports.
#ifndef IP6MC_SRC_IP_MCAST_SHMWIN_LOCK_GUARDS_H
#define IP6MC_SRC_IP_MCAST_SHMWIN_LOCK_GUARDS_H

#include "ipv4/multicast/lib/ip6mc_lib.h"

namespace mlib {

class tbl_read_lock {
  public:
    explicit tbl_read_lock(int line) : line_(line) {
        ipmc_shmwin_rrw_lock_get_rdlock(&ipv4mc_desc->shmwin_info->tbl_rw_lock, line_);
    }
    ~tbl_read_lock() {
        ipmc_shmwin_rrw_lock_unlock(&ipv4mc_desc->shmwin_info->tbl_rw_lock, line_, 1);
    }
    tbl_read_lock(const tbl_read_lock &) = delete;
    tbl_read_lock &operator=(const tbl_read_lock &) = delete;

  private:
    int line_;
};

// Inside an open journal group the lock is kept until that group has committed: readers must not
// get at a tree whose change may still be run back. Further scopes on the same thread join the
// hold.
class tbl_write_lock {
  public:
    explicit tbl_write_lock(int line);
    ~tbl_write_lock();
    tbl_write_lock(const tbl_write_lock &) = delete;
    tbl_write_lock &operator=(const tbl_write_lock &) = delete;

  private:
    int line_;
    bool joined_;
};

}  // namespace mlib

#endif
