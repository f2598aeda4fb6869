// One look at records of the window: short, and harmless wherever it is stopped.
//
// Within a step pointers into the window are good: memory that the owner gives up meanwhile is kept
// until the step ends. Behind it, and so while output is written, this process holds nothing back:
// a pager that nobody scrolls, or ^Z, costs the owner nothing. ^Z waits for the end of a step, as a
// stopped process would keep what it holds. (SIGSTOP does not wait: the owner then keeps the memory
// that it frees, up to the limit of the window, until this process goes on or is killed. It still
// waits for nobody, unless the stop fell between two instructions that hold a lock.) A process that
// is killed in a step holds nothing from then on.
#ifndef MFWD6_APPS_MFWD6CTL_STEP_H
#define MFWD6_APPS_MFWD6CTL_STEP_H

#include <signal.h>

#include "apps/mfwd6ctl/window/attach.h"

namespace ctl {

class step {
  public:
    // Throws failure when the window was made anew since it was opened.
    explicit step(const window &w);
    ~step();
    step(const step &) = delete;
    step &operator=(const step &) = delete;

  private:
    const window &window_;
    sigset_t before_;
};

// The read side of the lock around the trees of tables and interfaces, within a step.
class tree_lock {
  public:
    explicit tree_lock(const window &w);
    ~tree_lock();
    tree_lock(const tree_lock &) = delete;
    tree_lock &operator=(const tree_lock &) = delete;

  private:
    ipv4mc_shmwin_hdr_st &header_;
};

// The window mutex, which guards signals, within a step.
class signal_lock {
  public:
    signal_lock();
    ~signal_lock();
    signal_lock(const signal_lock &) = delete;
    signal_lock &operator=(const signal_lock &) = delete;
};

}  // namespace ctl

#endif
