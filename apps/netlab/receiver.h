// Counts what arrives at a host, stream by stream.
#ifndef MFWD6_NETLAB_RECEIVER_H
#define MFWD6_NETLAB_RECEIVER_H

#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "apps/netlab/lab.h"
#include "apps/netlab/packet.h"

namespace netlab {

// One stream as one host saw it.
struct stream_report {
    std::string source;
    std::string group;
    uint64_t packets = 0;     // different ones
    uint64_t duplicates = 0;  // arrived again
    uint64_t late = 0;        // arrived behind a later one
    uint64_t first = 0;       // lowest and highest sequence number
    uint64_t last = 0;
    uint64_t longest_gap_ns = 0;    // between two arrivals
    uint64_t first_arrival_ns = 0;  // CLOCK_REALTIME
    uint64_t last_arrival_ns = 0;
    uint8_t hop_limit = 0;             // of the last packet
    std::vector<uint32_t> latency_us;  // of each packet, in the order of arrival
    std::vector<bool> seen;            // by sequence number

    // Sequence numbers from `from` to `to` that did not arrive.
    uint64_t missing(uint64_t from, uint64_t to) const;

    // The latency that `percent` of the packets did not exceed; 0 without packets.
    uint32_t latency(unsigned percent) const;
};

class receiver {
  public:
    // Listens on `eth0` of the host, below IPv6: no listener reports are sent, every group counts.
    explicit receiver(const host &at);
    ~receiver();
    receiver(const receiver &) = delete;
    receiver &operator=(const receiver &) = delete;

    // Opens the interface anew, after it was made again.
    void reopen();

    // What arrived of one sender so far, all zero if nothing; of all senders.
    stream_report report(uint32_t stream) const;
    std::map<uint32_t, stream_report> reports() const;
    uint64_t packets(uint32_t stream) const;

    // Packets that this program was too slow for; must be 0 for the counts to mean something.
    uint64_t overrun() const { return overrun_.load(std::memory_order_acquire); }

    // Waits until so many packets of a stream, or its packet with this sequence number, have
    // arrived.
    bool wait_packets(uint32_t stream, uint64_t packets, std::chrono::milliseconds limit) const;
    bool wait_sequence(uint32_t stream, uint64_t sequence, std::chrono::milliseconds limit) const;

  private:
    void run();
    void take_all();
    void take(const uint8_t *packet, size_t size, uint64_t arrival_ns);

    // A packet socket with a ring that the kernel fills: of memory that no socket limit counts, so
    // that it is large for every user.
    struct tap {
        explicit tap(const host &at);
        ~tap();
        tap(const tap &) = delete;
        tap &operator=(const tap &) = delete;

        int fd = -1;
        uint8_t *ring = nullptr;
        uint32_t next = 0;  // frame that the kernel fills next
    };

    const host &at_;
    mutable std::mutex mutex_;
    std::unique_ptr<tap> tap_;
    std::map<uint32_t, stream_report> streams_;
    std::atomic<uint64_t> overrun_{0};
    std::atomic<bool> stopping_{false};
    std::thread thread_;
};

}  // namespace netlab

#endif
