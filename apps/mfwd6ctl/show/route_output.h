// A route as JSON, and its parts as words.
#ifndef MFWD6_APPS_MFWD6CTL_ROUTE_OUTPUT_H
#define MFWD6_APPS_MFWD6CTL_ROUTE_OUTPUT_H

#include <string>
#include <vector>

#include "apps/mfwd6ctl/output/output.h"
#include "apps/mfwd6ctl/window/records.h"

namespace ctl {

// "programmed", "failed" (the platform is asked again) or "out-of-resources".
std::string state_of(const route_copy &route);

std::string name_of(const intf_entry_copy &entry);

// Names of the interfaces with a bit of `mask`.
std::vector<std::string> names_with(const route_copy &route, uint64_t mask);

// "red", or the table id of a table without a name.
std::string name_of(const table_copy &table);

json to_json(const table_copy &table, const route_copy &route);
json to_json(const route_key &key);

}  // namespace ctl

#endif
