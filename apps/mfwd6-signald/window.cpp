#include "apps/mfwd6-signald/window.h"

#include <fcntl.h>
#include <unistd.h>

#include "apps/mfwd6-signald/log.h"
#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "platforms/linux/linux.h"
#include "services/diag/errors.h"
#include "services/peers/peers.h"
#include "services/window/epochs.h"

namespace mfwd6::signald {

bool owner_lives(const std::string &run_dir) {
    const std::string path = run_dir + "/" + IP6MC_SHMWIN_NAME;
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0) {
        return false;
    }
    struct flock lease = {};
    lease.l_type = F_RDLCK;
    lease.l_whence = SEEK_SET;
    lease.l_start = peers::owner_lease_offset;
    lease.l_len = 1;
    const bool held = fcntl(fd, F_OFD_GETLK, &lease) == 0 && lease.l_type != F_UNLCK;
    close(fd);
    return held;
}

cerrno window::attach() {
    if (attached_) {
        return 0;
    }
    cerrno code = library_ ? 0 : attach_library();
    if (code == 0) {
        code = linux_ledger_attach(run_dir_.c_str());
    }
    attached_ = code == 0;
    tell(code);
    return code;
}

cerrno window::attach_library() {
    constexpr int attach_only = 1;
    constexpr uint16_t no_protocol = 0;
    constexpr uint32_t of_the_owner = 0;
    constexpr uint32_t line_card = IPMC_NODE_ROLE_LAST_RP + 1;
    const cerrno code =
        ip6mc_lib_init(nullptr, nullptr, attach_only, no_protocol, no_protocol, of_the_owner,
                       of_the_owner, line_card, nullptr, nullptr, nullptr, nullptr, 0);
    if (code != 0) {
        ip6mc_lib_terminate(attach_only, IPV4MC_TERMINATE_END);
        return code;
    }
    library_ = true;
    ip6mc_shmwin_get_id(&id_);
    reading_ = shmwin_reader_enter(id_, &reader_) == 0;
    return 0;
}

bool window::outdated() const {
    uint32_t state = IPV4MC_LIB_STATE_DOWN;
    return library_ && ip6mc_get_state(&state, nullptr) == 0 && state != IPV4MC_LIB_STATE_READY;
}

void window::quiescent() const {
    if (reading_) {
        shmwin_reader_quiescent(id_, reader_);
    }
}

void window::idle() const {
    if (reading_) {
        shmwin_reader_idle(id_, reader_);
    }
}

void window::tell(cerrno code) {
    if (code != told_) {
        told_ = code;
        if (code == 0) {
            say("attached to the window in %s", run_dir_.c_str());
        } else {
            say("cannot attach to the window in %s: %s", run_dir_.c_str(), cerr_strerror(code));
        }
    }
}

}  // namespace mfwd6::signald
