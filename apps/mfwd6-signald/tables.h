// The kernel tables whose reports are read: copies of their sockets, as the keeper gives them.
//
// Thread-safety: one thread.
#ifndef MFWD6_SIGNALD_TABLES_H
#define MFWD6_SIGNALD_TABLES_H

#include <sys/poll.h>

#include <cstdint>
#include <functional>
#include <map>
#include <vector>

#include "platforms/linux/linux.h"

namespace mfwd6::signald {

// A report, and the packet that came with it: empty for most, as the kernel keeps the packets of an
// unknown flow itself.
using report_fn =
    std::function<void(const linux_flow &flow, const uint8_t *packet, size_t packet_bytes)>;

class tables {
  public:
    ~tables();

    // Takes the copy of a table's socket over; one that was there before is closed.
    void add(uint32_t kernel_table, int fd);
    void remove(uint32_t kernel_table);

    // Adds what is to be polled for reading.
    void poll_for(std::vector<pollfd> *list) const;

    // Reads what has arrived on a descriptor that `poll_for` added, at most one batch, so that no
    // table keeps the others waiting.
    void read(int fd, const report_fn &take);

    uint64_t reports() const { return reports_; }

    // Times that the kernel had more reports than its socket holds; the reports are lost.
    uint64_t overruns() const { return overruns_; }

  private:
    std::map<uint32_t, int> sockets_;
    uint64_t reports_ = 0;
    uint64_t overruns_ = 0;
};

}  // namespace mfwd6::signald

#endif
