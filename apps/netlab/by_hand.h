// The kernel's IPv6 multicast forwarding, programmed by hand: the yardstick for what programs it
// with state.
//
// The entries go when the object goes.
#ifndef MFWD6_NETLAB_BY_HAND_H
#define MFWD6_NETLAB_BY_HAND_H

#include <cstdint>
#include <string>
#include <vector>

#include "apps/netlab/namespaces.h"

namespace netlab {

class by_hand {
  public:
    // One routing socket of the kernel's default table in this namespace. Throws.
    explicit by_hand(const network_namespace &router);
    ~by_hand();
    by_hand(const by_hand &) = delete;
    by_hand &operator=(const by_hand &) = delete;

    // Makes the interface known; its number. At most 32.
    unsigned add_interface(const std::string &name);

    // Packets of (source, group) that arrive on `from` leave on `to`.
    void add_route(const std::string &source, const std::string &group, unsigned from,
                   const std::vector<unsigned> &to);
    void delete_route(const std::string &source, const std::string &group, unsigned from);

    int fd() const { return fd_; }

  private:
    const network_namespace &router_;
    int fd_ = -1;
    unsigned interfaces_ = 0;
};

}  // namespace netlab

#endif
