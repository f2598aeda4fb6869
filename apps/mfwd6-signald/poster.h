// Turns reports into signals in the shared window, on a thread of its own.
//
// The window has locks that another process may hold for long. Nobody waits for this thread, so the
// rest of the packet path goes on whatever it waits for: what comes too fast or too early drops the
// oldest report that waits here, and is counted.
#ifndef MFWD6_SIGNALD_POSTER_H
#define MFWD6_SIGNALD_POSTER_H

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <thread>

#include "apps/mfwd6-signald/newest.h"
#include "apps/mfwd6-signald/window.h"
#include "platforms/linux/linux.h"

namespace mfwd6::signald {

struct poster_counts {
    uint64_t posted = 0;    // new signals
    uint64_t there = 0;     // reports of signals that were there already
    uint64_t unwanted = 0;  // flows that the control plane need not hear of
    uint64_t failed = 0;    // no such table or interface any more, or no memory
    uint64_t dropped = 0;
};

class poster {
  public:
    explicit poster(const std::string &run_dir);
    // The thread may hang in a lock of the window, so there is no way to join it: the process ends.
    ~poster() = delete;
    poster(const poster &) = delete;
    poster &operator=(const poster &) = delete;

    // Takes a report; returns at once.
    void take(const linux_flow &flow);

    poster_counts counts() const;

    // The process should end, so that the next one begins with a fresh view: the window was made
    // anew, or its owner is gone and nobody may hold on to what it left.
    bool should_restart() const { return should_restart_.load(std::memory_order_acquire); }

  private:
    void run();
    void ask_for_owner(uint64_t now_ns);
    bool ready_to_post();
    bool next(linux_flow *flow);
    void post(const linux_flow &flow);
    bool find_place(const linux_flow &flow, uint32_t *tid, ifhtype *ifh);
    bool repeated(const linux_flow &flow);

    window window_;
    std::string run_dir_;
    mutable std::mutex mutex_;
    std::condition_variable arrived_;
    newest<linux_flow> waiting_;
    poster_counts counts_;
    std::map<std::string, uint64_t> lately_;  // reports with packets, and when they were posted
    uint64_t owner_seen_ns_ = 0;
    uint64_t owner_asked_ns_ = 0;
    bool owner_lives_ = false;
    std::atomic<bool> should_restart_{false};
};

}  // namespace mfwd6::signald

#endif
