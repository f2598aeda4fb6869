#include "apps/mfwd6-signald/forwarder.h"

#include <sys/socket.h>

#include <cerrno>

namespace mfwd6::signald {

void forwarder::forward(const linux_flow &flow) {
    kept_.put(flow);
    flush();
}

void forwarder::flush() {
    while (!kept_.empty()) {
        const linux_flow &flow = kept_.oldest();
        if (send(channel_, &flow, sizeof(flow), MSG_DONTWAIT | MSG_NOSIGNAL) < 0) {
            if (errno == EINTR) {
                continue;
            }
            return;
        }
        kept_.take_oldest();
        ++forwarded_;
    }
}

}  // namespace mfwd6::signald
