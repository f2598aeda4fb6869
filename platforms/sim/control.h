// Faults, delays, log and answers: what tests told the simulated platform.
#ifndef MFWD6_PLATFORMS_SIM_CONTROL_H
#define MFWD6_PLATFORMS_SIM_CONTROL_H

#include "platforms/sim/sim.h"

namespace mfwd6::sim {

struct fault {
    uint64_t after;
    uint64_t times;
    sim_op op;
    uint32_t action;
    cerrno code;
};

inline constexpr uint32_t most_faults = 64;
inline constexpr uint32_t most_local_answers = 256;

struct virtual_answer {
    ifhtype ifh;
    int local;
};

struct answers {
    int sw_only_gtrie = 1;
    uint32_t bvi = SIM_BVI_BY_DATA;
    int bundle_answered = 0;
    ifhtype bundle_member = 0;
    uint16_t bundle_link = 0;
    int slotmask_changed = 0;
    uint32_t virtual_count = 0;
    virtual_answer virtual_local[most_local_answers] = {};
};

struct control {
    // What the library gave.
    ipv4mc_descriptor_struct *descriptor = nullptr;
    ipv4mc_platform_callback_ft idb_callback = nullptr;

    uint32_t state = IPV4MC_PLATFORM_STATE_READY;
    uint32_t idb_state = IPV4MC_PLATFORM_STATE_READY;
    answers said;

    fault faults[most_faults] = {};
    uint32_t fault_count = 0;
    uint32_t faulty_ops = 0;  // bit per operation that has a fault
    uint64_t faults_hit = 0;
    uint64_t delay[SIM_OPS] = {};
    uint64_t calls[SIM_OPS] = {};

    sim_call *log = nullptr;  // ring
    uint64_t log_room = 0;
    uint64_t log_written = 0;  // since the ring was emptied
    uint64_t log_sequence = 0;

    ~control();
};

control &ctl();

// One call of the seam. What a test wants to read in the log is noted in `what`; the call says at
// its end how it came out.
class seam_call {
  public:
    seam_call(sim_op op, uint32_t action);

    // Not 0: the call is to be refused with this code, and nothing is to be changed.
    cerrno refused() const { return refused_; }

    // The same for a fault point of the library's table (ip6mc_diag.h) that the library leaves to
    // its platform: EAGAIN while it is armed.
    void pass(uint32_t fault_point);

    // Writes the log; gives back `result`.
    cerrno end(cerrno result);

    sim_call what = {};

  private:
    cerrno refused_ = 0;
};

}  // namespace mfwd6::sim

#endif
