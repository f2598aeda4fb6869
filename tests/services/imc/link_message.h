// Link messages made by hand.
#ifndef MFWD6_TESTS_SERVICES_IMC_LINK_MESSAGE_H
#define MFWD6_TESTS_SERVICES_IMC_LINK_MESSAGE_H

#include <libmnl/libmnl.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>

#include <cstdint>

namespace rtnl_test {

class message {
  public:
    message(int index, uint16_t hardware, uint16_t type = RTM_NEWLINK) {
        mnl_nlmsg_put_header(bytes_)->nlmsg_type = type;
        mnl_nlmsg_put_extra_header(head(), sizeof(ifinfomsg));
        info()->ifi_index = index;
        info()->ifi_type = hardware;
    }
    message &name(const char *text) {
        mnl_attr_put_strz(head(), IFLA_IFNAME, text);
        return *this;
    }
    message &kind(const char *text) {
        nlattr *const nest = mnl_attr_nest_start(head(), IFLA_LINKINFO);
        mnl_attr_put_strz(head(), IFLA_INFO_KIND, text);
        mnl_attr_nest_end(head(), nest);
        return *this;
    }
    message &below(uint32_t index) {
        mnl_attr_put_u32(head(), IFLA_LINK, index);
        return *this;
    }
    message &elsewhere() {
        mnl_attr_put_u32(head(), IFLA_LINK_NETNSID, 0);
        return *this;
    }
    nlmsghdr *head() { return reinterpret_cast<nlmsghdr *>(bytes_); }
    ifinfomsg *info() { return static_cast<ifinfomsg *>(mnl_nlmsg_get_payload(head())); }

  private:
    alignas(nlmsghdr) char bytes_[1024] = {};
};

}  // namespace rtnl_test

#endif
