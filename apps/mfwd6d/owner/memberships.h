// Groups that this host joins so that switches and routers send them here (`mgroup`).
//
// A membership belongs to a socket. The keeper holds the sockets, so that an owner's death makes no
// router stop sending; the list of what is joined stands among the settings.
#ifndef MFWD6_APPS_MFWD6D_OWNER_MEMBERSHIPS_H
#define MFWD6_APPS_MFWD6D_OWNER_MEMBERSHIPS_H

#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "apps/mfwd6d/config/line.h"
#include "apps/mfwd6d/owner/interfaces.h"
#include "apps/mfwd6d/owner/outcome.h"

namespace mfwd6::daemon {

class memberships {
  public:
    // `socket_of(n)` gives a copy of the n-th of the keeper's sockets, or a negative errno.
    memberships(interfaces *all, std::function<int(uint32_t number)> socket_of)
        : interfaces_(*all), socket_of_(std::move(socket_of)) {}
    ~memberships();
    memberships(const memberships &) = delete;
    memberships &operator=(const memberships &) = delete;

    // A line of kind mgroup. Joins what is there of its interfaces, and the rest when it comes.
    outcome add(const config::line &l);
    // ENOENT: no such line.
    outcome erase(const config::line &l);

    // An interface is there (again): what is to be joined on it is joined.
    void appeared(const interface &i);

    // The lines, in line_text form.
    const std::set<std::string> &lines() const { return lines_; }

  private:
    int socket(uint32_t number);
    cerrno join_one(uint32_t index, const ip_maddr_st *source, const ip_maddr_st &group);
    void leave_one(uint32_t index, const ip_maddr_st *source, const ip_maddr_st &group);
    template <class Fn>
    void each_flow(const config::line &l, const Fn &fn) const;
    outcome join_on(const config::line &l, const interface &i);

    interfaces &interfaces_;
    std::function<int(uint32_t number)> socket_of_;
    std::vector<int> sockets_;
    uint32_t first_with_room_ = 0;
    std::set<std::string> lines_;
};

// True when the name or pattern of a line means this interface.
bool name_matches(std::string_view pattern, std::string_view name);

}  // namespace mfwd6::daemon

#endif
