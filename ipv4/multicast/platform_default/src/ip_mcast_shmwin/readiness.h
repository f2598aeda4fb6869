// Whether this process may use the window and the library. An owner may throw the contents of the
// window away while clients are attached: what they keep of it is void from then on, although the
// memory stays mapped.
#ifndef IP6MC_SRC_IP_MCAST_SHMWIN_READINESS_H
#define IP6MC_SRC_IP_MCAST_SHMWIN_READINESS_H

namespace mlib {

// The contents are new to this process, which keeps nothing of them yet: behind an open, and behind
// a reset of its own.
void note_window_contents();

// The window is open and holds what it held then. The first call that finds otherwise reports it,
// drops what the process keeps in the heap, and takes the library to its state 0; all calls find
// the same until the process has terminated the library and started it again.
bool window_is_open();

// The library is in its state 2, and the contents of its window have not gone. A window that is
// closed in that state is told of by those who need it.
bool library_is_ready();

}  // namespace mlib

#endif
