#include "apps/netlab/lab.h"

namespace netlab {
namespace {

// Addresses are usable at once, and nobody asks who listens.
const std::string calm =
    "for d in all default; do"
    " echo 0 > /proc/sys/net/ipv6/conf/$d/accept_dad;"
    " echo 0 > /proc/sys/net/ipv6/conf/$d/accept_ra; done";

}  // namespace

lab::lab() {
    router_.shell(calm);
}

host &lab::add_host(const std::string &name, const std::string &address) {
    host &h = hosts_.emplace_back();
    h.name = name;
    h.address = address;
    h.space.shell(calm);
    plug(h);
    return h;
}

void lab::plug(const host &h) {
    router_.shell("ip link add dev " + h.name + " type veth peer name eth0 netns " +
                  h.space.path() + " && ip link set dev " + h.name + " up");
    h.space.shell("ip link set dev eth0 up && ip -6 addr add " + h.address + "/64 dev eth0 nodad");
}

void lab::unplug(const host &h) {
    router_.shell("ip link del dev " + h.name);
}

void lab::add_stub(const std::string &name) {
    router_.shell("ip link add dev " + name + " type veth peer name " + name +
                  "x && ip link set dev " + name + " up && ip link set dev " + name + "x up");
}

}  // namespace netlab
