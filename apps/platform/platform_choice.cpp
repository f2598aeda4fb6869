#include "apps/platform/platform_choice.h"

#include <dlfcn.h>
#include <unistd.h>

#include <algorithm>
#include <stdexcept>

#include "ipv4/multicast/lib/ip6mc_lib.h"

namespace apps {
namespace {

void *platform = nullptr;

bool is_plain_name(const std::string &name) {
    return !name.empty() && std::all_of(name.begin(), name.end(), [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_';
    });
}

// The path of a file beside the library, or the bare name when it is not there. A bare name is
// looked for along the program's own run path, which the address sanitizer's dlopen does not know.
std::string beside_library(const std::string &file) {
    Dl_info library{};
    if (dladdr(reinterpret_cast<void *>(&ip6mc_get_version), &library) == 0 ||
        library.dli_fname == nullptr) {
        return file;
    }
    std::string path = library.dli_fname;
    path.erase(path.rfind('/') + 1);
    path += file;
    return access(path.c_str(), R_OK) == 0 ? path : file;
}

std::string library_of(const std::string &name) {
    if (name.find('/') != std::string::npos) {
        return name;
    }
    if (!is_plain_name(name)) {
        throw std::runtime_error("\"" + name + "\" cannot be the name of a platform");
    }
    return beside_library("libip6mc_platform_" + name + ".so");
}

}  // namespace

void load_platform(const std::string &name) {
    if (platform != nullptr) {
        throw std::runtime_error("a platform library is loaded already");
    }
    const std::string library = library_of(name);
    // Global: the library's open names are looked up in it. Lazy: it calls the library in turn.
    platform = dlopen(library.c_str(), RTLD_LAZY | RTLD_GLOBAL);
    if (platform == nullptr) {
        throw std::runtime_error("no platform \"" + name + "\": " + dlerror());
    }
    if (dlsym(platform, "ip6mc_platform_lib_init") == nullptr) {
        throw std::runtime_error(library + " is no platform library");
    }
}

void *platform_symbol(const char *name) {
    return platform != nullptr ? dlsym(platform, name) : nullptr;
}

}  // namespace apps
