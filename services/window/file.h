// The window's file: finding it, refusing what is not ours, kernel locks on its bytes. Private to
// the window service.
#ifndef MFWD6_SERVICES_WINDOW_FILE_H
#define MFWD6_SERVICES_WINDOW_FILE_H

#include <cstdint>

#include "services/window/layout.h"
#include "services/window/window.h"

namespace mfwd6::window {

// Opens (`make`: creates) the file of window `name`. Never waits, never follows a link.
cerrno open_file(const char *name, bool make, int *fd);

// Takes, changes or gives up (F_RDLCK, F_WRLCK, F_UNLCK) the lock on one byte, without waiting. 0
// or errno.
int lock_byte(int fd, int64_t offset, short type);

// What the file holds, as far as its first bytes tell.
enum class content { half_made, ready, resetting, damaged, other_layout, other_base };

content examine(int fd, const shmwin_open_record &asked, identity *id);

// The check over an identity's other fields, and one over this kernel's boot.
uint64_t check_of(const identity &id);
uint64_t boot_mark();

// Makes the file of `bytes` zeros again. 0 or errno.
int empty_file(int fd);

}  // namespace mfwd6::window

#endif
