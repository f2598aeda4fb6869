#include "apps/mfwd6ctl/options.h"

#include <unistd.h>

#include <filesystem>

#include "ipv4/multicast/lib/ip6mc_shmwin.h"
#include "services/diag/run_dir.h"

namespace ctl {
namespace {

bool in_use(const std::string &folder) {
    return access((folder + "/" + IP6MC_SHMWIN_NAME).c_str(), F_OK) == 0 ||
           access((folder + "/command").c_str(), F_OK) == 0;
}

}  // namespace

std::string options::folder() const {
    if (!run_dir.empty()) {
        std::error_code error;
        const std::filesystem::path path = std::filesystem::absolute(run_dir, error);
        return error ? run_dir : path.string();
    }
    for (unsigned number = 0; number < DIAG_RUN_DIRS; ++number) {
        char path[256];
        if (diag_default_run_dir(number, path, sizeof(path)) != 0 && in_use(path)) {
            return path;
        }
    }
    return "/run/mfwd6";
}

}  // namespace ctl
