// The platform that the owner runs on, chosen at start: libip6mc_platform_NAME.so is loaded before
// the library first calls it, so one program serves all platforms.
#ifndef MFWD6_APPS_MFWD6D_OWNER_PLATFORM_H
#define MFWD6_APPS_MFWD6D_OWNER_PLATFORM_H

#include <string>

#include "platforms/linux/linux.h"
#include "platforms/sim/sim.h"

namespace mfwd6::daemon {

// What the daemon calls beside the library. The functions of the linux platform are null on every
// other, those of sim as well.
struct platform {
    std::string name;
    decltype(&ip6mc_platform_enumerate) enumerate = nullptr;
    decltype(&ip6mc_platform_remove_held) remove_held = nullptr;

    decltype(&linux_use_sockets) use_sockets = nullptr;
    decltype(&linux_set_folder) set_folder = nullptr;
    decltype(&linux_set_interface_table) set_interface_table = nullptr;
    decltype(&linux_set_boundary) set_boundary = nullptr;
    decltype(&linux_resync) resync = nullptr;
    decltype(&linux_answer_flow) answer_flow = nullptr;
    decltype(&linux_age) age = nullptr;
    decltype(&linux_get_status) get_status = nullptr;

    decltype(&sim_hardware_open) open_hardware = nullptr;

    bool is_linux() const { return resync != nullptr; }
};

// Loads it. A sentence, empty for success.
std::string load_platform(const std::string &name, platform *out);

}  // namespace mfwd6::daemon

#endif
