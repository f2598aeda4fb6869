// What is known of the past of a route.
#ifndef MFWD6_APPS_MFWD6CTL_HISTORY_H
#define MFWD6_APPS_MFWD6CTL_HISTORY_H

#include <string>
#include <vector>

#include "apps/mfwd6ctl/options.h"
#include "apps/mfwd6ctl/output/output.h"
#include "apps/mfwd6ctl/window/records.h"

namespace ctl {

struct history_event {
    std::string time;
    std::string from;  // "owner" for its event history, else "PROGRAM.PID KIND", the trace's name
    std::string text;
};

// Trace records of all processes, dead ones included, that name the route's source and group, in
// the order of time; the latest `most` of them. Works without window and owner.
std::vector<history_event> traced_history(const options &how, const route_key &key, size_t most);

// The events that the owner keeps for a route: it lies in the owner's memory, so only a live owner
// can tell. Empty when it does not.
std::vector<history_event> owner_history(const options &how, const std::string &table,
                                         const route_key &key);

}  // namespace ctl

#endif
