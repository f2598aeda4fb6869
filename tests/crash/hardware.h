// The hardware after a restart: brought in line with the window, then compared with it.
#ifndef MFWD6_TESTS_CRASH_HARDWARE_H
#define MFWD6_TESTS_CRASH_HARDWARE_H

#include <string>

namespace crash {

// Takes out what the window has no record of and programs what differs; how many things that were.
unsigned resync();

// Routes and interfaces of the hardware against the records. Empty, or what differs.
std::string compare_hardware();

}  // namespace crash

#endif
