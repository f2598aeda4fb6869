// Distribution trees as pictures.
#ifndef MFWD6_APPS_MFWD6CTL_PICTURE_H
#define MFWD6_APPS_MFWD6CTL_PICTURE_H

#include <string>
#include <vector>

#include "apps/mfwd6ctl/window/records.h"

namespace ctl {

struct drawn_route {
    table_copy table;
    route_copy route;
};

// A Graphviz digraph: sources on the left, a cluster for each VRF with its incoming interfaces, the
// router and its outgoing interfaces. An edge names the groups that take it.
std::string dot_of(const std::vector<drawn_route> &routes);

// The same for a terminal: VRF, group, where its packets come from, where they go.
std::string tree_of(const std::vector<drawn_route> &routes, bool draw_lines);

// Whether the terminal's character set has lines (UTF-8).
bool terminal_draws_lines();

}  // namespace ctl

#endif
