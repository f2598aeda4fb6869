#include "services/imc/rtnl/link.h"

#include <linux/if_arp.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>

#include <cstring>

#include "services/imc/imc.h"

namespace mfwd6::imc_rtnl {
namespace {

struct kind_type {
    const char *kind;
    uint16_t type;
};

constexpr kind_type kinds[] = {
    {"vlan", IMC_TYPE_SUBINTERFACE}, {"bridge", IMC_TYPE_BVI},       {"bond", IMC_TYPE_BUNDLE},
    {"team", IMC_TYPE_BUNDLE},       {"vrf", IMC_TYPE_VRF},          {"gre", IMC_TYPE_TUNNEL},
    {"gretap", IMC_TYPE_TUNNEL},     {"erspan", IMC_TYPE_TUNNEL},    {"ip6gre", IMC_TYPE_TUNNEL},
    {"ip6gretap", IMC_TYPE_TUNNEL},  {"ip6erspan", IMC_TYPE_TUNNEL}, {"ipip", IMC_TYPE_TUNNEL},
    {"sit", IMC_TYPE_TUNNEL},        {"ip6tnl", IMC_TYPE_TUNNEL},    {"vti", IMC_TYPE_TUNNEL},
    {"vti6", IMC_TYPE_TUNNEL},       {"vxlan", IMC_TYPE_TUNNEL},     {"geneve", IMC_TYPE_TUNNEL},
    {"wireguard", IMC_TYPE_TUNNEL},  {"tun", IMC_TYPE_TUNNEL},       {"xfrm", IMC_TYPE_TUNNEL},
};

const char *text_of(const nlattr *attribute) {
    return mnl_attr_validate(attribute, MNL_TYPE_NUL_STRING) < 0 ? nullptr
                                                                 : mnl_attr_get_str(attribute);
}

int take_kind(const nlattr *attribute, void *context) {
    if (mnl_attr_get_type(attribute) == IFLA_INFO_KIND) {
        const char *const kind = text_of(attribute);
        static_cast<link *>(context)->kind = kind != nullptr ? kind : "";
    }
    return MNL_CB_OK;
}

// What IFLA_LINK of a message means depends on what else stands there.
struct reading {
    link *out;
    uint32_t below;
    bool other_namespace;
};

int take_attribute(const nlattr *attribute, void *context) {
    auto *const r = static_cast<reading *>(context);
    switch (mnl_attr_get_type(attribute)) {
        case IFLA_IFNAME:
            r->out->name = text_of(attribute);
            break;
        case IFLA_LINKINFO:
            mnl_attr_parse_nested(attribute, take_kind, r->out);
            break;
        case IFLA_LINK:
            if (mnl_attr_validate(attribute, MNL_TYPE_U32) >= 0) {
                r->below = mnl_attr_get_u32(attribute);
            }
            break;
        case IFLA_LINK_NETNSID:
            r->other_namespace = true;
            break;
        default:
            break;
    }
    return MNL_CB_OK;
}

}  // namespace

bool read_link(const nlmsghdr *message, link *out) {
    if (message->nlmsg_type != RTM_NEWLINK && message->nlmsg_type != RTM_DELLINK) {
        return false;
    }
    if (message->nlmsg_len < mnl_nlmsg_size(sizeof(ifinfomsg))) {
        return false;
    }
    const auto *const head = static_cast<const ifinfomsg *>(mnl_nlmsg_get_payload(message));
    // Bridges tell about their ports in link messages of their own family.
    if (head->ifi_family != AF_UNSPEC || head->ifi_index <= 0) {
        return false;
    }
    *out = {static_cast<uint32_t>(head->ifi_index), head->ifi_type, nullptr, "", 0};
    reading r{out, 0, false};
    mnl_attr_parse(message, sizeof(ifinfomsg), take_attribute, &r);
    const bool peer = std::strcmp(out->kind, "veth") == 0 || std::strcmp(out->kind, "vxcan") == 0;
    if (!r.other_namespace && !peer && r.below != out->index) {
        out->below = r.below;
    }
    return true;
}

uint16_t type_of(const link &l) {
    for (const kind_type &k : kinds) {
        if (std::strcmp(k.kind, l.kind) == 0) {
            return k.type;
        }
    }
    switch (l.hardware) {
        case ARPHRD_PPP:
            return IMC_TYPE_PPPOE;
        case ARPHRD_LOOPBACK:
            return IMC_TYPE_LOOPBACK;
        case ARPHRD_ETHER:
            return IMC_TYPE_PHYSICAL;
        default:
            return IMC_TYPE_OTHER;
    }
}

}  // namespace mfwd6::imc_rtnl
