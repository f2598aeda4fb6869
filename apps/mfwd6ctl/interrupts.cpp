#include "apps/mfwd6ctl/interrupts.h"

#include <signal.h>

#include "apps/mfwd6ctl/failure.h"

namespace ctl {
namespace {

volatile sig_atomic_t noted = 0;

void note(int) {
    noted = 1;
}

}  // namespace

void watch_interrupts() {
    struct sigaction action = {};
    action.sa_handler = note;
    // Not restarted: a write or a wait that is under way ends. Reset: the next one is not for us.
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        sigaction(signal, &action, nullptr);
    }
    signal(SIGPIPE, SIG_IGN);
}

bool interrupted() {
    return noted != 0;
}

void stop_if_interrupted() {
    if (interrupted()) {
        throw failure(exit_code::interrupted, "");
    }
}

bool take_interrupt() {
    const bool was = interrupted();
    noted = 0;
    return was;
}

}  // namespace ctl
