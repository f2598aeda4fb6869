// Catches one packet of a flow as it comes by.
//
// The kernel keeps the packets of an unknown flow to itself and reports only its addresses. So the
// next packet of the flow is taken from the wire. A filter in the kernel lets nothing else through.
// It looks at every IPv6 packet that comes in, and each is copied for it, so the socket takes IPv6
// only while a packet is wanted.
//
// Thread-safety: one thread.
#ifndef MFWD6_SIGNALD_CAPTURE_H
#define MFWD6_SIGNALD_CAPTURE_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

#include "platforms/linux/linux.h"

namespace mfwd6::signald {

class capture {
  public:
    using caught_fn =
        std::function<void(const linux_flow &flow, const uint8_t *packet, size_t bytes)>;

    ~capture();

    // Opens the packet socket in the network namespace of this thread. Errno values; without it no
    // packet is caught.
    cerrno open();

    // To be polled for reading; -1 while it is not open.
    int fd() const { return fd_; }

    // The next packet of this flow is wanted. When too many are, the oldest wish is forgotten; each
    // is after a second.
    void want(const linux_flow &flow, uint64_t now_ns);

    // Hands out the packets that have come, each flow once.
    void read(uint64_t now_ns, const caught_fn &caught);

    // Forgets the wishes whose time is over.
    void forget_old(uint64_t now_ns);

  private:
    struct wish {
        linux_flow flow;
        uint64_t until_ns;
    };

    bool take(uint16_t protocol);
    void wishes_changed(bool were_none);
    void set_filter();

    int fd_ = -1;
    std::vector<wish> wishes_;
};

}  // namespace mfwd6::signald

#endif
