#include "apps/mfwd6d/owner/platform.h"

#include <dlfcn.h>
#include <unistd.h>

#include "ipv4/multicast/lib/ip6mc_lib.h"

namespace mfwd6::daemon {
namespace {

class symbols {
  public:
    explicit symbols(void *object) : object_(object) {}

    template <class Function>
    bool find(const char *name, Function *function) const {
        *function = reinterpret_cast<Function>(dlsym(object_, name));
        return *function != nullptr;
    }

  private:
    void *object_;
};

// The path of a file beside the library; empty when it is not there. A bare name would be looked
// for along the program's own run path, which the address sanitizer's dlopen does not know.
std::string beside_library(const std::string &file) {
    Dl_info library{};
    if (dladdr(reinterpret_cast<void *>(&ip6mc_get_version), &library) == 0 ||
        library.dli_fname == nullptr) {
        return "";
    }
    std::string path = library.dli_fname;
    path.erase(path.rfind('/') + 1);
    path += file;
    return access(path.c_str(), R_OK) == 0 ? path : std::string();
}

bool find_linux(const symbols &object, platform *p) {
    return object.find("linux_use_sockets", &p->use_sockets) &&
           object.find("linux_set_folder", &p->set_folder) &&
           object.find("linux_set_interface_table", &p->set_interface_table) &&
           object.find("linux_set_boundary", &p->set_boundary) &&
           object.find("linux_resync", &p->resync) &&
           object.find("linux_answer_flow", &p->answer_flow) && object.find("linux_age", &p->age) &&
           object.find("linux_get_status", &p->get_status);
}

}  // namespace

std::string load_platform(const std::string &name, platform *out) {
    *out = {};
    if (name.empty() ||
        name.find_first_not_of("abcdefghijklmnopqrstuvwxyz0123456789_") != std::string::npos) {
        return "\"" + name + "\" is no name of a platform";
    }
    const std::string file = "libip6mc_platform_" + name + ".so";
    // Global: the library finds the platform's functions there when it first calls each.
    const std::string path = beside_library(file);
    void *object = dlopen(path.empty() ? file.c_str() : path.c_str(), RTLD_NOW | RTLD_GLOBAL);
    if (object == nullptr) {
        return "platform " + name + ": " + dlerror();
    }
    const symbols found(object);
    out->name = name;
    if (!found.find("ip6mc_platform_enumerate", &out->enumerate) ||
        !found.find("ip6mc_platform_remove_held", &out->remove_held)) {
        return file + " is no platform";
    }
    if (name == "linux" && !find_linux(found, out)) {
        return file + " is of another version";
    }
    found.find("sim_hardware_open", &out->open_hardware);
    return "";
}

}  // namespace mfwd6::daemon
