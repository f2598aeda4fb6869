#include "apps/mfwd6d/owner/platform.h"

#include <stdexcept>

#include "apps/platform/platform_choice.h"

namespace mfwd6::daemon {
namespace {

// A function of the loaded platform; false when it has none of that name.
template <class Function>
bool find(const char *name, Function *function) {
    *function = reinterpret_cast<Function>(apps::platform_symbol(name));
    return *function != nullptr;
}

bool find_linux(platform *p) {
    return find("linux_use_sockets", &p->use_sockets) && find("linux_set_folder", &p->set_folder) &&
           find("linux_set_interface_table", &p->set_interface_table) &&
           find("linux_set_boundary", &p->set_boundary) && find("linux_resync", &p->resync) &&
           find("linux_answer_flow", &p->answer_flow) && find("linux_age", &p->age) &&
           find("linux_get_status", &p->get_status);
}

}  // namespace

std::string load_platform(const std::string &name, platform *out) {
    *out = {};
    try {
        apps::load_platform(name);
    } catch (const std::runtime_error &e) {
        return e.what();
    }
    out->name = name;
    if (!find("ip6mc_platform_enumerate", &out->enumerate) ||
        !find("ip6mc_platform_remove_held", &out->remove_held)) {
        return "platform " + name + " cannot tell what it holds";
    }
    if (name == "linux" && !find_linux(out)) {
        return "platform " + name + " is of another version";
    }
    find("sim_hardware_open", &out->open_hardware);
    return "";
}

}  // namespace mfwd6::daemon
