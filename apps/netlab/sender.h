// Sends one multicast stream at an exact pace.
#ifndef MFWD6_NETLAB_SENDER_H
#define MFWD6_NETLAB_SENDER_H

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>

#include "apps/netlab/lab.h"
#include "apps/netlab/packet.h"

namespace netlab {

class sender {
  public:
    // Packets of `size` bytes of payload (at least that of `payload`) from the host's address, or
    // from `source` if given, to `group`, hop limit 16. Each sender is a stream of its own.
    sender(const host &from, const std::string &group, size_t size = 200,
           const std::string &source = "");
    ~sender();
    sender(const sender &) = delete;
    sender &operator=(const sender &) = delete;

    // Sends `packets_per_second` from a thread of its own until `stop`. A thread that came late
    // catches up, at most 64 packets at once. At most `limit` packets, 0 for no limit.
    void start(uint32_t packets_per_second, uint64_t limit = 0);
    void stop();
    void wait();  // until the limit is reached

    // Sends so many packets now, as fast as they go. For measuring rates.
    void burst(uint64_t packets);

    uint64_t sent() const { return sent_.load(std::memory_order_acquire); }
    uint64_t refused() const { return refused_.load(std::memory_order_acquire); }
    uint32_t stream() const { return stream_; }
    const std::string &group() const { return group_; }
    const std::string &source() const { return source_; }

  private:
    void run(uint32_t packets_per_second, uint64_t limit);
    void send_some(uint64_t packets);

    int fd_ = -1;
    uint32_t stream_;
    size_t size_;
    std::string group_;
    std::string source_;
    std::atomic<uint64_t> sent_{0};
    std::atomic<uint64_t> refused_{0};
    std::atomic<bool> stopping_{false};
    std::thread thread_;
};

}  // namespace netlab

#endif
