// What the command line of mfwd6d says.
#ifndef MFWD6_APPS_MFWD6D_OPTIONS_H
#define MFWD6_APPS_MFWD6D_OPTIONS_H

#include <string>

namespace mfwd6::daemon {

inline constexpr char default_config[] = "/etc/mfwd6.conf";

struct options {
    std::string run_dir;  // never empty
    std::string config;   // empty: none
    std::string platform = "linux";
    std::string signald;      // program of the packet path; empty: none is started
    bool new_window = false;  // a window that cannot be taken is thrown away
    bool to_syslog = true;
};

// Exit codes.
inline constexpr int exit_error = 1;
// Of the owner: it will not do better when it is started again.
inline constexpr int exit_hopeless = 78;  // EX_CONFIG of sysexits.h

}  // namespace mfwd6::daemon

#endif
