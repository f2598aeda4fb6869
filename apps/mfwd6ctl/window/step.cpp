#include "apps/mfwd6ctl/window/step.h"

#include "apps/mfwd6ctl/failure.h"
#include "ipv4/multicast/lib/ip6mc_locks.h"
#include "services/diag/errors.h"
#include "services/window/epochs.h"

namespace ctl {

step::step(const window &w) : window_(w) {
    sigset_t stops;
    sigemptyset(&stops);
    for (const int signal : {SIGTSTP, SIGTTIN, SIGTTOU}) {
        sigaddset(&stops, signal);
    }
    sigprocmask(SIG_BLOCK, &stops, &before_);
    shmwin_reader_quiescent(window_.id(), window_.reader());
    if (window_.generation() != window_.generation_at_start()) {
        shmwin_reader_idle(window_.id(), window_.reader());
        sigprocmask(SIG_SETMASK, &before_, nullptr);
        throw failure(exit_code::failed,
                      "the window was made anew while it was read: run the command again");
    }
}

step::~step() {
    shmwin_reader_idle(window_.id(), window_.reader());
    sigprocmask(SIG_SETMASK, &before_, nullptr);
}

tree_lock::tree_lock(const window &w) : header_(w.header()) {
    ipmc_shmwin_rrw_lock_get_rdlock(&header_.tbl_rw_lock, __LINE__);
}

tree_lock::~tree_lock() {
    ipmc_shmwin_rrw_lock_unlock(&header_.tbl_rw_lock, __LINE__, 1);
}

signal_lock::signal_lock() {
    if (const cerrno code = ip6mc_shmwin_mutex_lock("mfwd6ctl", __LINE__); code != 0) {
        throw failure(exit_code::failed,
                      std::string("cannot lock the signals: ") + cerr_strerror(code));
    }
}

signal_lock::~signal_lock() {
    ip6mc_shmwin_mutex_unlock();
}

}  // namespace ctl
