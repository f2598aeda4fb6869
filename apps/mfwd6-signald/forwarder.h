// Hands reports to the owner, who answers them in the kernel. Never waits for it.
//
// Thread-safety: one thread.
#ifndef MFWD6_SIGNALD_FORWARDER_H
#define MFWD6_SIGNALD_FORWARDER_H

#include <cstdint>

#include "apps/mfwd6-signald/newest.h"
#include "platforms/linux/linux.h"

namespace mfwd6::signald {

class forwarder {
  public:
    // `channel` is the writing end of the flow channel; it does not block, and stays the caller's.
    explicit forwarder(int channel) : channel_(channel) {}

    // Sends the report, or keeps it until the channel has room.
    void forward(const linux_flow &flow);

    // Sends what was kept, as far as it goes. To be called when the channel can be written to.
    void flush();

    // There are reports that wait for room.
    bool waiting() const { return !kept_.empty(); }

    uint64_t forwarded() const { return forwarded_; }
    uint64_t dropped() const { return kept_.dropped(); }

  private:
    // Reports that wait while the owner is away. The kernel forgets an unresolved flow after ten
    // seconds and reports it anew, so what is dropped here comes again.
    static constexpr size_t room = 1024;

    int channel_;
    newest<linux_flow> kept_{room};
    uint64_t forwarded_ = 0;
};

}  // namespace mfwd6::signald

#endif
