#include "tests/kit/run_dir.h"

#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <stdexcept>

#include "services/diag/run_dir.h"
#include "services/window/setup.h"

namespace kit {

run_dir::run_dir() : owner_pid_(getpid()) {
    char folder[] = "/dev/shm/mfwd6-test-XXXXXX";
    if (mkdtemp(folder) == nullptr) {
        throw std::runtime_error("cannot make a run dir below /dev/shm");
    }
    path_ = folder;
    shmwin_set_run_dir(path_.c_str());
    diag_set_run_dir(path_.c_str());
}

run_dir::~run_dir() {
    if (getpid() == owner_pid_) {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
}

}  // namespace kit
