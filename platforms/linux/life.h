// State of the platform in this process.
#ifndef MFWD6_PLATFORMS_LINUX_LIFE_H
#define MFWD6_PLATFORMS_LINUX_LIFE_H

#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "platforms/linux/kernel.h"
#include "platforms/linux/linux.h"

namespace mfwd6::lnx {

struct life {
    ipv4mc_descriptor_struct *descriptor = nullptr;  // not null: started
    ipv4mc_platform_callback_ft idb_callback = nullptr;
    bool owner = false;
    bool resynced = false;  // uses of mifs are known: what nobody uses may go
    char folder[256] = {};  // of the ledger; empty: none
    uint64_t run = 0;       // this start of the platform, never 0: marks what it counted
    uint32_t now = 0;       // seconds, as of the last call of linux_age or report
    uint32_t held_seconds = LINUX_HELD_SECONDS;
    uint32_t idle_seconds = LINUX_IDLE_SECONDS;
    uint64_t reports = 0;
    uint64_t kernel_failures = 0;
    uint64_t full = 0;
    uint64_t output_pairs = 0;  // entries times outputs: at most so many neighbours
    uint64_t neighbours = 0;    // as last counted
    uint64_t neighbour_limit = 0;
    uint32_t counted_at = 0;
    uint64_t counted_pairs = 0;
    bool neighbours_short = false;
    bool neighbours_told = false;
};

life &self();

inline bool owner_started() {
    return self().descriptor != nullptr && self().owner;
}

// Notes a code of the kernel in the counters; gives it back.
cerrno noted(cerrno code);

// Seconds of the clock that lifetimes are measured by.
uint32_t seconds_now();

}  // namespace mfwd6::lnx

#endif
