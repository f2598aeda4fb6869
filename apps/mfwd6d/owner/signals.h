// Signals of the packet path, on the owner's side: the list of changed routes is emptied when it
// wakes us, and signals whose flow a route takes by now end.
#ifndef MFWD6_APPS_MFWD6D_OWNER_SIGNALS_H
#define MFWD6_APPS_MFWD6D_OWNER_SIGNALS_H

#include <atomic>
#include <cstdint>
#include <thread>

#include "apps/mfwd6d/owner/outcome.h"
#include "apps/mfwd6d/owner/tables.h"

namespace mfwd6::daemon {

// Turns the wake-up of the list, which is a word in the window, into a descriptor. The thread holds
// no lock of the window.
class changed_routes {
  public:
    changed_routes() = default;
    ~changed_routes() { stop(); }
    changed_routes(const changed_routes &) = delete;
    changed_routes &operator=(const changed_routes &) = delete;

    outcome start();
    void stop();

    // Readable when the list may have something; reading is done by `drain`.
    int fd() const { return fd_; }

    // Takes all routes off the list. How many there were.
    uint32_t drain() const;

  private:
    void wait_for_news() const;
    void note_drain() const;

    int fd_ = -1;
    mutable std::atomic<uint32_t> drains_{0};
    std::atomic<bool> stopping_{false};
    std::thread waiter_;
};

// Ends the signals of a table whose flow some route takes now and does not signal. How many.
uint32_t end_answered_signals(const table &t);

// Ends signals: of one flow, of one group with a source of all zero, of all with both all zero.
uint32_t end_signals(const table &t, const ip_maddr_st &source, const ip_maddr_st &group);

}  // namespace mfwd6::daemon

#endif
