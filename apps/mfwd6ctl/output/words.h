// Numbers and bits as words.
#ifndef MFWD6_APPS_MFWD6CTL_WORDS_H
#define MFWD6_APPS_MFWD6CTL_WORDS_H

#include <cstdint>
#include <ctime>
#include <string>
#include <string_view>
#include <vector>

#include "ipv4/multicast/lib/ip6mc_types.h"

namespace ctl {

// Names of the bits that are set in an attribute word, lowest first; "bit-9" for one without a
// name.
std::vector<std::string> route_attribute_names(uint64_t attributes);
std::vector<std::string> intf_attribute_names(uint64_t attributes);

// "physical", "tunnel", ...; "type-4" for a number without a name.
std::string interface_type_name(uint32_t type);

// "route", "interface entry", ...
std::string allocation_type_name(uint32_t type);

std::string address_text(const ip_maddr_st &address);
bool is_any(const ip_maddr_st &address);

// "*" for the wildcard.
std::string source_text(const ip_maddr_st &source);

// With "/LENGTH" unless it is a whole address. A length above 128 is one.
std::string group_text(const ip_maddr_st &group, uint32_t length);

// "12s", "3m05s", "2h10m", "4d03h".
std::string duration_text(uint64_t seconds);

// "1.5 MiB"; exact below 10 KiB.
std::string bytes_text(uint64_t bytes);

// "2026-11-21 03:14:15", local time, of nanoseconds since 1970.
std::string wall_time_text(uint64_t ns);

// Seconds since an instant of CLOCK_MONOTONIC; 0 for one that is still to come.
uint64_t seconds_since(const struct timespec &then);

std::string hex(uint64_t number);
std::string joined(const std::vector<std::string> &words, std::string_view between);

}  // namespace ctl

#endif
