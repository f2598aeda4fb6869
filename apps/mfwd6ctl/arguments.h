// Arguments of the command line as values. What makes no sense is a CLI::ValidationError.
#ifndef MFWD6_APPS_MFWD6CTL_ARGUMENTS_H
#define MFWD6_APPS_MFWD6CTL_ARGUMENTS_H

#include <string>

#include "ipv4/multicast/lib/ip6mc_types.h"

namespace ctl {

struct prefix {
    ip_maddr_st address{};
    uint32_t length = 128;
    bool has_length = false;  // it was written
};

// An IPv6 address; "*" and "any" are the wildcard, all zero.
ip_maddr_st source_of(const std::string &text);

// A multicast group or range, "G" or "G/LENGTH". Bits behind the length are cleared.
prefix group_of(const std::string &text);

}  // namespace ctl

#endif
