// A router and the hosts around it, each in a network namespace of its own.
//
//     netlab::lab lab;
//     netlab::host &source = lab.add_host("source", "fd00:1::10");
//     netlab::host &tv = lab.add_host("tv", "fd00:2::10");
//
// Each host has one interface, `eth0`, wired to an interface of the router that is named after the
// host. Addresses are usable at once (no duplicate address detection).
#ifndef MFWD6_NETLAB_LAB_H
#define MFWD6_NETLAB_LAB_H

#include <list>
#include <string>

#include "apps/netlab/namespaces.h"

namespace netlab {

struct host {
    std::string name;     // also of the router's interface; at most 15 characters
    std::string address;  // of eth0, with a prefix of 64 bits
    network_namespace space;
};

class lab {
  public:
    lab();

    host &add_host(const std::string &name, const std::string &address);

    // Takes the wire of a host away, and lays it anew.
    void unplug(const host &h);
    void plug(const host &h);

    // A wire of the router that ends nowhere: an interface more, up, without a host.
    void add_stub(const std::string &name);

    const network_namespace &router() const { return router_; }

  private:
    network_namespace router_;
    std::list<host> hosts_;
};

}  // namespace netlab

#endif
