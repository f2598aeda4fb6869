// The window mutex. Private to the window service; the contract is in window.h.
#ifndef MFWD6_SERVICES_WINDOW_MUTEX_H
#define MFWD6_SERVICES_WINDOW_MUTEX_H

namespace mfwd6::window {

struct open_window;

// Fills the options under which this process takes the mutex of `w`.
void prepare_mutex(open_window &w);

}  // namespace mfwd6::window

#endif
