// What a program says about windows before it opens one. Process-wide; not safe beside
// shmwin_open_win.
#ifndef MFWD6_SERVICES_WINDOW_SETUP_H
#define MFWD6_SERVICES_WINDOW_SETUP_H

#include "services/window/window.h"

MFWD6_BEGIN_C

// Folder of the window files. It is made (mode 0755) if only its last part is missing, must belong
// to this user or root, and must not be writable by everybody. NULL goes back to the default, which
// is that of services/diag: what diag_set_run_dir said, else /run/mfwd6 if this user may use it,
// else $XDG_RUNTIME_DIR/mfwd6, else /dev/shm/mfwd6-UID. An attaching process that was told no
// folder looks for its window in all of these. 22 (EINVAL) for a path that is empty, not absolute,
// or longer than 200 bytes.
MFWD6_EXPORT cerrno shmwin_set_run_dir(const char *path);

// The folder in use. `size` bytes at `path` receive it with its NUL; 34 (ERANGE) if they are too
// few, and what open would say if no folder is usable.
MFWD6_EXPORT cerrno shmwin_get_run_dir(char *path, size_t size);

// Base address and address space of all windows of this program, as shmwin_platform_info tells
// them. 0 keeps the default: 0x200000000000 (another one in thread sanitizer builds) and 64 GiB.
// Both are multiples of 2 MiB, the size at least 16 MiB and at most 1 TiB; else 22 (EINVAL).
MFWD6_EXPORT cerrno shmwin_set_place(uint64_t base_addr, uint64_t max_size);

// The same for one name: it comes before shmwin_set_place. At most 8 names, 28 (ENOSPC) beyond.
MFWD6_EXPORT cerrno shmwin_set_place_of(const char *name, uint64_t base_addr, uint64_t max_size);

// Fingerprint of all record layouts that users of window `name` share (any number that changes when
// a layout does). It is written into a window that is made, and must agree in one that is opened; 0
// if never stated. At most 8 names, 28 (ENOSPC) beyond.
MFWD6_EXPORT cerrno shmwin_set_fingerprint(const char *name, uint64_t fingerprint);

// Group whose members may open windows made by this program: files get mode 0660 and this group,
// instead of mode 0600. Also the one group from whose files this process accepts a window of
// another user. (gid_t)-1 for none, the default.
MFWD6_EXPORT void shmwin_set_group(uint32_t gid);

// Milliseconds after which a waiter for the window mutex calls its monitor. Default 10000. 0:
// never. Counts for waits that begin later.
MFWD6_EXPORT void shmwin_set_wait_limit(uint32_t milliseconds);

// Owner: the heap does not grow past `bytes` of blocks and their book-keeping from now on; what is
// beyond already stays. 0: only the address space limits it. Stored in the window, cleared by a
// reset.
MFWD6_EXPORT cerrno shmwin_set_growth_limit(uint32_t id, uint64_t bytes);

MFWD6_END_C

#endif
