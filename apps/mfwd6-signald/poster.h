// Turns reports into signals in the shared window, on a thread of its own, and keeps one packet for
// each.
//
// The window has locks that another process may hold for long. Nobody waits for this thread, so the
// rest of the packet path goes on whatever it waits for: what comes too fast or too early drops the
// oldest report that waits here, and is counted.
#ifndef MFWD6_SIGNALD_POSTER_H
#define MFWD6_SIGNALD_POSTER_H

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "apps/mfwd6-signald/capture.h"
#include "apps/mfwd6-signald/newest.h"
#include "apps/mfwd6-signald/packet_store.h"
#include "apps/mfwd6-signald/window.h"
#include "ipv4/multicast/lib/ip6mc_types.h"
#include "platforms/linux/linux.h"

namespace mfwd6::signald {

struct poster_counts {
    uint64_t posted = 0;    // new signals
    uint64_t there = 0;     // reports of signals that were there already
    uint64_t unwanted = 0;  // flows that the control plane need not hear of
    uint64_t failed = 0;    // no such table or interface any more, or no memory
    uint64_t dropped = 0;
    uint64_t packets = 0;  // kept
};

class poster {
  public:
    explicit poster(const std::string &run_dir);
    // The thread may hang in a lock of the window, so there is no way to join it: the process ends.
    ~poster() = delete;
    poster(const poster &) = delete;
    poster &operator=(const poster &) = delete;

    // Takes a report, with the packet that came with it or none; returns at once.
    void take(const linux_flow &flow, const uint8_t *packet, size_t packet_bytes);

    poster_counts counts() const;

    // The process should end, so that the next one begins with a fresh view: the window was made
    // anew, or its owner is gone and nobody may hold on to what it left.
    bool should_restart() const { return should_restart_.load(std::memory_order_acquire); }

  private:
    struct entry {
        linux_flow flow;
        std::shared_ptr<const std::vector<uint8_t>> packet;  // may be null
    };
    struct subject {
        ipv4mc_table_st *table = nullptr;
        ifhtype ifh = 0;
    };

    bool repeated(const linux_flow &flow);

    // On the thread.
    void run();
    void ask_for_owner(uint64_t now_ns);
    bool ready_to_post();
    void wait();
    bool next(entry *e);
    void post(const entry &e);
    subject find_subject(const linux_flow &flow);
    void keep(const linux_flow &flow, const uint8_t *bytes, size_t size);
    void count(uint64_t poster_counts::*what);

    const std::string run_dir_;
    int arrived_ = -1;                        // eventfd(2)
    std::map<std::string, uint64_t> lately_;  // reports with packets, and when they were taken

    mutable std::mutex mutex_;
    newest<entry> waiting_;
    poster_counts counts_;

    // The thread's.
    window window_;
    capture capture_;
    packet_store store_;
    uint64_t owner_seen_ns_ = 0;
    uint64_t owner_asked_ns_ = 0;
    bool owner_lives_ = false;

    std::atomic<bool> should_restart_{false};
};

}  // namespace mfwd6::signald

#endif
