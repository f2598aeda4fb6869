// ^C and its like: a command ends at its next convenient point, and leaves nothing behind.
#ifndef MFWD6_APPS_MFWD6CTL_INTERRUPTS_H
#define MFWD6_APPS_MFWD6CTL_INTERRUPTS_H

namespace ctl {

// From here on the first SIGINT, SIGTERM or SIGHUP is noted, and the second one ends the process.
// A reader of our output that goes away is an error of the next write, not a signal.
void watch_interrupts();

// True after the first one.
bool interrupted();

// Throws failure(exit_code::interrupted) then.
void stop_if_interrupted();

// The command deals with the first one in its own way, and goes on: what it has still to say is not
// cut off. True if there was one.
bool take_interrupt();

}  // namespace ctl

#endif
