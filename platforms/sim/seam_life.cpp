// Start, stop and state of the platform library.
#include "platforms/sim/control.h"
#include "platforms/sim/hardware.h"

using mfwd6::sim::ctl;
using mfwd6::sim::hw;
using mfwd6::sim::seam_call;

cerrno ip6mc_platform_lib_init(void *evm, int attach_only, ipv4mc_descriptor_struct *descriptor) {
    seam_call call(SIM_OP_LIB_INIT, 0);
    call.what.is_new = attach_only == 0 ? 1 : 0;
    call.what.record = descriptor;
    (void)evm;
    if (call.refused() != 0) {
        return call.end(call.refused());
    }
    ctl().descriptor = descriptor;
    return call.end(0);
}

cerrno ip6mc_platform_lib_terminate(int attach_only, uint32_t reason) {
    seam_call call(SIM_OP_LIB_TERMINATE, reason);
    call.what.is_new = attach_only == 0 ? 1 : 0;
    if (call.refused() != 0) {
        return call.end(call.refused());
    }
    // With the owner's window goes what it told the hardware; a successor takes over what it left.
    if (ctl().descriptor != nullptr && attach_only == 0 && reason < 2) {
        hw().clear();
    }
    ctl().descriptor = nullptr;
    ctl().idb_callback = nullptr;
    return call.end(0);
}

cerrno ip6mc_platform_get_state(uint32_t *state_p) {
    seam_call call(SIM_OP_GET_STATE, 0);
    if (call.refused() != 0) {
        return call.end(call.refused());
    }
    if (state_p == nullptr) {
        return call.end(EINVAL);
    }
    *state_p = ctl().state;
    return call.end(0);
}

cerrno ip6mc_platform_clear_hw_resources(uint32_t arg) {
    seam_call call(SIM_OP_CLEAR_HW, arg);
    if (call.refused() != 0) {
        return call.end(call.refused());
    }
    hw().clear();
    return call.end(0);
}
