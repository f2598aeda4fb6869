// The window, as this program has it: attached, but for one command that becomes its owner.
//
// Thread-safety: one thread.
#ifndef MFWD6_APPS_MFWD6CTL_ATTACH_H
#define MFWD6_APPS_MFWD6CTL_ATTACH_H

#include <cstdint>
#include <string>
#include <vector>

#include "apps/mfwd6ctl/options.h"
#include "ipv4/multicast/lib/ip6mc_shmwin.h"
#include "services/window/inspect.h"

namespace ctl {

// What a command needs of a window.
enum class need {
    header,     // the header and the window service: works in a window that is full, too
    library,    // lookups and walks as well; takes one small block of the window while it is open
    ownership,  // as `header`, as the window's owner. A window that is damaged is made anew: look
                // first
};

// Open from its making to its end. The owner need not live. What this process does leaves no
// trace files behind: they would push out those of processes that died.
class window {
  public:
    // Throws failure with the reason why not.
    window(const options &how, need what);
    ~window();
    window(const window &) = delete;
    window &operator=(const window &) = delete;

    uint32_t id() const;
    ipv4mc_shmwin_hdr_st &header() const;

    // Number that goes up when the window is made anew: pointers of before are void.
    uint64_t generation() const;

    // Processes that have the window open, this one included.
    std::vector<shmwin_process> processes() const;

    // Pid of the live owner, 0 if there is none.
    int32_t owner_pid() const;

    // For window/step.h. 0 without the library.
    uint32_t reader() const { return reader_; }
    uint64_t generation_at_start() const { return generation_; }

  private:
    void start_library(const std::string &folder, const options &how);
    void enter_reader();

    uint32_t reader_ = 0;
    uint64_t generation_ = 0;
    bool platform_started_ = false;
};

}  // namespace ctl

#endif
