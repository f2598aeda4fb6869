// What the operator said ahead of, or behind, any command.
#ifndef MFWD6_APPS_MFWD6CTL_OPTIONS_H
#define MFWD6_APPS_MFWD6CTL_OPTIONS_H

#include <cstdint>
#include <string>

namespace ctl {

struct options {
    std::string run_dir;             // empty: the first default one that holds a window or a socket
    std::string platform = "linux";  // whose library answers for counters
    bool json = false;
    double timeout_s = 10;  // for an answer of the owner

    // The folder to work in, as an absolute path: the one given, else where something was left,
    // else /run/mfwd6.
    std::string folder() const;
};

}  // namespace ctl

#endif
