// This process's hold on the shared window and on the platform's ledger, and when to let go.
//
// A window that is damaged is repaired by its next owner, but only when nobody has it mapped. So an
// attached client must not hold on to a window whose owner is gone for good; and it must know that
// without mapping the window.
#ifndef MFWD6_SIGNALD_WINDOW_H
#define MFWD6_SIGNALD_WINDOW_H

#include <cstdint>
#include <string>

#include "services/cerrno.h"

namespace mfwd6::signald {

// True while some process is the owner of the window in this folder. The kernel's word, without
// mapping it.
bool owner_lives(const std::string &run_dir);

class window {
  public:
    explicit window(std::string run_dir) : run_dir_(std::move(run_dir)) {}

    // Attaches to window and ledger where that is not done. 0, or why not; the operator is told of
    // each reason once.
    cerrno attach();
    bool attached() const { return attached_; }

    // The library has stopped, and only a new start helps: an owner has emptied the window, or the
    // library has found it corrupt. Everything this process knows of it is void.
    bool outdated() const;

    // Nothing of the window is in use by this thread now; the owner may free what it has unlinked.
    void quiescent() const;
    void idle() const;  // and will not be until the next `quiescent`

  private:
    cerrno attach_library();
    void tell(cerrno code);

    std::string run_dir_;
    bool library_ = false;
    bool attached_ = false;
    uint32_t id_ = 0;
    uint32_t reader_ = 0;
    bool reading_ = false;
    static constexpr cerrno nothing_told = UINT32_MAX;
    cerrno told_ = nothing_told;
};

}  // namespace mfwd6::signald

#endif
