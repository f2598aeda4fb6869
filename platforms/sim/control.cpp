#include "platforms/sim/control.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>

#include "ipv4/multicast/lib/ip6mc_diag.h"
#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "platforms/sim/hardware.h"
#include "services/events/ptimer.h"

namespace mfwd6::sim {

namespace {

// The folder that the hardware lies in, locked while it does; -1 for memory.
int folder = -1;

void leave_folder() {
    if (folder >= 0) {
        close(folder);
        folder = -1;
    }
}

// Counts a call against every fault that is armed for it; the code of the first that is due.
cerrno due_fault(control &c, sim_op op, uint32_t action) {
    cerrno code = 0;
    for (uint32_t i = 0; i < c.fault_count; ++i) {
        fault &f = c.faults[i];
        if (f.op != op || (f.action != SIM_ANY_ACTION && f.action != action)) {
            continue;
        }
        if (f.after != 0) {
            --f.after;
        } else if (f.times != 0) {
            f.times -= f.times == SIM_FOR_EVER ? 0 : 1;
            code = code != 0 ? code : f.code;
        }
    }
    c.faults_hit += code != 0 ? 1 : 0;
    return code;
}

void forget_log(control &c) {
    std::free(c.log);
    c.log = nullptr;
    c.log_room = 0;
    c.log_written = 0;
    c.log_sequence = 0;
}

void tell_library(uint32_t type, uint32_t now, uint32_t before) {
    control &c = ctl();
    if (c.descriptor != nullptr && c.descriptor->platform_callback != nullptr) {
        const ipv4mc_platform_msg_st message = {type, now, before};
        c.descriptor->platform_callback(c.descriptor, &message);
    }
}

uint32_t type_of_object(uint64_t obj_id) {
    const hardware &h = hw();
    for (uint32_t slot = 0; slot < h.routes.used(); ++slot) {
        if (h.routes.live(slot) && h.routes.at(slot).obj_id == obj_id) {
            return 1;
        }
    }
    for (uint32_t slot = 0; slot < h.intfs.used(); ++slot) {
        if (h.intfs.live(slot) && h.intfs.at(slot).obj_id == obj_id) {
            return 2;
        }
    }
    return 0;
}

constexpr const char *op_names[SIM_OPS] = {
    "lib_init",  "lib_terminate", "get_state",        "clear_hw",    "table",
    "route",     "route_update",  "change_IF_parent", "slotmask",    "intf",
    "idb",       "encap",         "encap_update",     "leaf",        "regdb",
    "stats",     "sw_only_gtrie", "virtual_local",    "bundle_hash", "bvi_local",
    "enumerate", "remove_held"};

}  // namespace

control::~control() {
    std::free(log);
}

control &ctl() {
    static control the;
    return the;
}

seam_call::seam_call(sim_op op, uint32_t action) {
    control &c = ctl();
    ++c.calls[op];
    what.op = op;
    what.action = action;
    if (c.delay[op] != 0) {
        (void)ptimer_test_clock_advance(c.delay[op]);  // EPERM: the real clock is in place
    }
    if ((c.faulty_ops >> op & 1U) != 0) {
        refused_ = due_fault(c, op, action);
    }
}

void seam_call::pass(uint32_t fault_point) {
    if (refused_ == 0 && fim_armed(mlib_fim_hdl, fault_point)) {
        refused_ = EAGAIN;
    }
}

cerrno seam_call::end(cerrno result) {
    control &c = ctl();
    if (c.log != nullptr) {
        what.result = result;
        what.sequence = c.log_sequence++;
        c.log[c.log_written++ % c.log_room] = what;
    }
    return result;
}

}  // namespace mfwd6::sim

using mfwd6::sim::ctl;
using mfwd6::sim::hw;

void sim_reset(void) {
    mfwd6::sim::control &c = ctl();
    hw().clear();
    hw().unlimited();
    mfwd6::sim::forget_log(c);
    sim_clear_faults();
    c.faults_hit = 0;
    std::fill(std::begin(c.delay), std::end(c.delay), 0);
    std::fill(std::begin(c.calls), std::end(c.calls), 0);
    c.state = IPV4MC_PLATFORM_STATE_READY;
    c.idb_state = IPV4MC_PLATFORM_STATE_READY;
    c.said = {};
}

void sim_set_state(uint32_t state) {
    const uint32_t before = ctl().state;
    ctl().state = state;
    if (state != before) {
        mfwd6::sim::tell_library(IPV4MC_PLATFORM_MSG_STATE, state, before);
    }
}

void sim_set_idb_state(uint32_t state) {
    mfwd6::sim::control &c = ctl();
    const ipv4mc_platform_msg_st message = {IPV4MC_PLATFORM_MSG_STATE, state, c.idb_state};
    const bool changed = state != c.idb_state;
    c.idb_state = state;
    if (changed && c.idb_callback != nullptr) {
        c.idb_callback(c.descriptor, &message);
    }
}

void sim_notify(void) {
    mfwd6::sim::tell_library(IPV4MC_PLATFORM_MSG_NOTIFY, 0, 0);
}

cerrno sim_raise_async_error(uint64_t obj_id, uint32_t oor_error, cerrno code) {
    return ipmc_platform_async_err_handler(obj_id, oor_error, code,
                                           mfwd6::sim::type_of_object(obj_id), 0, nullptr);
}

void sim_set_capacity(ip6mc_platform_kind kind, uint64_t most) {
    if (kind < IP6MC_PLATFORM_KINDS) {
        hw().set_capacity(kind, most);
    }
}

void sim_set_full_code(cerrno code) {
    hw().set_full_code(code);
}

uint64_t sim_count(ip6mc_platform_kind kind) {
    return kind < IP6MC_PLATFORM_KINDS ? hw().count(kind) : 0;
}

cerrno sim_hardware_open(const char *path) {
    sim_hardware_close();
    const int fd = path == nullptr ? -1 : open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) {
        return path == nullptr ? EINVAL : static_cast<cerrno>(errno);
    }
    // The lock goes with the process, so hardware left by a dead one is free to take.
    if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
        const int failed = errno;
        close(fd);
        return failed == EWOULDBLOCK ? EBUSY : static_cast<cerrno>(failed);
    }
    if (const cerrno failed = hw().open(fd); failed != 0) {
        close(fd);
        return failed;
    }
    mfwd6::sim::folder = fd;
    return 0;
}

void sim_hardware_close(void) {
    hw().close();
    mfwd6::sim::leave_folder();
}

// ---- faults and delays
// ------------------------------------------------------------------------------

const char *sim_op_name(sim_op op) {
    return op < SIM_OPS ? mfwd6::sim::op_names[op] : "unknown";
}

cerrno sim_arm_fault(sim_op op, uint32_t action, uint64_t after, uint64_t times, cerrno code) {
    mfwd6::sim::control &c = ctl();
    if (op >= SIM_OPS || op == SIM_OP_SW_ONLY_GTRIE || op == SIM_OP_BUNDLE_HASH || code == 0) {
        return EINVAL;
    }
    if (c.fault_count == mfwd6::sim::most_faults) {
        return ENOSPC;
    }
    c.faults[c.fault_count++] = {after, times, op, action, code};
    c.faulty_ops |= 1U << op;
    return 0;
}

void sim_clear_faults(void) {
    ctl().fault_count = 0;
    ctl().faulty_ops = 0;
}

uint64_t sim_faults_hit(void) {
    return ctl().faults_hit;
}

cerrno sim_set_delay(sim_op op, uint64_t nanoseconds) {
    if (op >= SIM_OPS) {
        return EINVAL;
    }
    ctl().delay[op] = nanoseconds;
    return 0;
}

// ---- log
// --------------------------------------------------------------------------------------------

cerrno sim_log_on(uint64_t most) {
    mfwd6::sim::control &c = ctl();
    mfwd6::sim::forget_log(c);
    if (most == 0) {
        return 0;
    }
    c.log = static_cast<sim_call *>(std::calloc(most, sizeof(sim_call)));
    c.log_room = c.log != nullptr ? most : 0;
    return c.log != nullptr ? 0 : ENOMEM;
}

uint64_t sim_log_count(void) {
    return std::min(ctl().log_written, ctl().log_room);
}

const sim_call *sim_log_at(uint64_t n) {
    const mfwd6::sim::control &c = ctl();
    const uint64_t count = sim_log_count();
    return n < count ? &c.log[(c.log_written - count + n) % c.log_room] : nullptr;
}

void sim_log_clear(void) {
    ctl().log_written = 0;
}

uint64_t sim_calls(sim_op op) {
    return op < SIM_OPS ? ctl().calls[op] : 0;
}

// ---- answers
// ----------------------------------------------------------------------------------------

void sim_answer_sw_only_gtrie(int answer) {
    ctl().said.sw_only_gtrie = answer;
}

cerrno sim_answer_virtual_local(ifhtype ifh, int answer) {
    mfwd6::sim::answers &said = ctl().said;
    for (uint32_t i = 0; i < said.virtual_count; ++i) {
        if (said.virtual_local[i].ifh == ifh) {
            said.virtual_local[i].local = answer;
            return 0;
        }
    }
    if (said.virtual_count == mfwd6::sim::most_local_answers) {
        return ENOSPC;
    }
    said.virtual_local[said.virtual_count++] = {ifh, answer};
    return 0;
}

void sim_answer_bvi_local(uint32_t answer) {
    ctl().said.bvi = answer;
}

void sim_answer_bundle_hash(int answered, ifhtype member, uint16_t link_id) {
    ctl().said.bundle_answered = answered;
    ctl().said.bundle_member = member;
    ctl().said.bundle_link = link_id;
}

void sim_answer_slotmask_change(int changed) {
    ctl().said.slotmask_changed = changed;
}
