// Who holds the locks of the window, and who waits for them.
#ifndef MFWD6_APPS_MFWD6CTL_LOCK_STATE_H
#define MFWD6_APPS_MFWD6CTL_LOCK_STATE_H

#include <string>
#include <vector>

#include "apps/mfwd6ctl/window/attach.h"

namespace ctl {

struct lock_user {
    int32_t pid = 0;      // 0: the process is not known (any more)
    uint32_t thread = 0;  // 0: not known
    std::string name;     // of the process
    bool alive = true;
    uint32_t holds = 0;  // readers: read holds; holders: depth
};

struct lock_copy {
    std::string name;
    std::vector<lock_user> holders;  // of the mutex, or of the write side
    std::vector<lock_user> readers;
    std::vector<lock_user> waiters;
    bool contended = false;  // somebody waits, or has waited
    uint32_t deaths = 0;     // times that it was taken from a dead holder
    std::string where;       // function and line that took it last, where the window says so
};

// A moment's picture; nothing is locked for it. Waiters are found by what the kernel says their
// threads sleep on: those of other users are only seen by root.
std::vector<lock_copy> read_locks(const window &w);

}  // namespace ctl

#endif
