#include "platforms/linux/netlink.h"

#include <libmnl/libmnl.h>
#include <linux/fib_rules.h>
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <cerrno>
#include <cstring>

namespace mfwd6::lnx {

namespace {

constexpr size_t piece_bytes = 32768;
constexpr time_t patience_seconds = 5;

cerrno last_error() {
    return static_cast<cerrno>(errno);
}

// Calls `fn` for each attribute of a message, behind a head of `head_bytes`.
template <class Fn>
void each_attribute(const nlmsghdr *message, size_t head_bytes, Fn fn) {
    auto *attribute =
        static_cast<const nlattr *>(mnl_nlmsg_get_payload_offset(message, head_bytes));
    auto *end = static_cast<const char *>(mnl_nlmsg_get_payload_tail(message));
    while (
        mnl_attr_ok(attribute, static_cast<int>(end - reinterpret_cast<const char *>(attribute)))) {
        fn(attribute);
        attribute = mnl_attr_next(attribute);
    }
}

// One question to the kernel and its answers.
class conversation {
  public:
    conversation() {
        socket_ = mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC);
        if (socket_ != nullptr && mnl_socket_bind(socket_, 0, MNL_SOCKET_AUTOPID) < 0) {
            mnl_socket_close(socket_);
            socket_ = nullptr;
        }
        if (socket_ != nullptr) {
            const timeval patience = {patience_seconds, 0};
            (void)setsockopt(mnl_socket_get_fd(socket_), SOL_SOCKET, SO_RCVTIMEO, &patience,
                             sizeof(patience));
        }
    }
    ~conversation() {
        if (socket_ != nullptr) {
            mnl_socket_close(socket_);
        }
    }
    conversation(const conversation &) = delete;
    conversation &operator=(const conversation &) = delete;

    mnl_socket *socket() const { return socket_; }
    mnl_socket *take() {
        mnl_socket *taken = socket_;
        socket_ = nullptr;
        return taken;
    }

    // Sends and reads until the kernel is done.
    cerrno ask(const nlmsghdr *request, mnl_cb_t fn, void *context) {
        if (socket_ == nullptr || mnl_socket_sendto(socket_, request, request->nlmsg_len) < 0) {
            return last_error();
        }
        const unsigned port = mnl_socket_get_portid(socket_);
        char piece[piece_bytes];
        for (;;) {
            const ssize_t got = mnl_socket_recvfrom(socket_, piece, sizeof(piece));
            if (got < 0) {
                return last_error();
            }
            const int more =
                mnl_cb_run(piece, static_cast<size_t>(got), request->nlmsg_seq, port, fn, context);
            if (more < 0) {
                return last_error();
            }
            if (more == 0) {
                return 0;
            }
        }
    }

  private:
    mnl_socket *socket_;
};

nlmsghdr *put_head(char *buffer, uint16_t type, uint16_t flags) {
    static uint32_t sequence = 0;
    nlmsghdr *head = mnl_nlmsg_put_header(buffer);
    head->nlmsg_type = type;
    head->nlmsg_flags = static_cast<uint16_t>(NLM_F_REQUEST | flags);
    head->nlmsg_seq = ++sequence;
    return head;
}

fib_rule_hdr *put_rule(nlmsghdr *head) {
    auto *rule =
        static_cast<fib_rule_hdr *>(mnl_nlmsg_put_extra_header(head, sizeof(fib_rule_hdr)));
    rule->family = RTNL_FAMILY_IP6MR;
    rule->action = FR_ACT_TO_TBL;
    return rule;
}

cerrno one_rule(uint16_t type, uint16_t flags, uint16_t link_attribute, const char *link_name,
                uint32_t kernel_table) {
    char buffer[MNL_NLMSG_HDRLEN + 256];
    nlmsghdr *head = put_head(buffer, type, static_cast<uint16_t>(NLM_F_ACK | flags));
    put_rule(head);
    mnl_attr_put_u32(head, FRA_PRIORITY, rule_priority);
    mnl_attr_put_u32(head, FRA_TABLE, kernel_table);
    mnl_attr_put_u8(head, FRA_PROTOCOL, rule_protocol);
    mnl_attr_put_strz(head, link_attribute, link_name);
    conversation with_kernel;
    return with_kernel.ask(head, nullptr, nullptr);
}

cerrno add_rule(uint16_t link_attribute, const char *link_name, uint32_t kernel_table) {
    const cerrno failed =
        one_rule(RTM_NEWRULE, NLM_F_CREATE | NLM_F_EXCL, link_attribute, link_name, kernel_table);
    return failed == EEXIST ? 0 : failed;
}

cerrno delete_rule(uint16_t link_attribute, const char *link_name, uint32_t kernel_table) {
    const cerrno failed = one_rule(RTM_DELRULE, 0, link_attribute, link_name, kernel_table);
    return failed == ENOENT ? 0 : failed;
}

struct found_rule {
    char name[IFNAMSIZ];
    uint32_t kernel_table;
    uint16_t link_attribute;
};

// Rules are removed behind the listing, which must not change under itself.
struct rule_list {
    static constexpr uint32_t room = 1024;
    rule_fn wanted;
    uint32_t count;
    found_rule unwanted[room];
};

int on_rule(const nlmsghdr *message, void *context) {
    auto &list = *static_cast<rule_list *>(context);
    found_rule found = {};
    uint32_t priority = 0;
    uint8_t protocol = 0;
    each_attribute(message, sizeof(fib_rule_hdr), [&](const nlattr *attribute) {
        switch (const uint16_t type = mnl_attr_get_type(attribute); type) {
            case FRA_PRIORITY:
                priority = mnl_attr_get_u32(attribute);
                break;
            case FRA_TABLE:
                found.kernel_table = mnl_attr_get_u32(attribute);
                break;
            case FRA_PROTOCOL:
                protocol = mnl_attr_get_u8(attribute);
                break;
            case FRA_IIFNAME:
            case FRA_OIFNAME:
                found.link_attribute = type;
                strncpy(found.name, mnl_attr_get_str(attribute), IFNAMSIZ - 1);
                break;
            default:
                break;
        }
    });
    const bool ours =
        priority == rule_priority && protocol == rule_protocol && found.link_attribute != 0;
    if (ours && list.count < rule_list::room && !list.wanted(found.name, found.kernel_table)) {
        list.unwanted[list.count++] = found;
    }
    return MNL_CB_OK;
}

void read_outputs(const nlattr *attribute, dumped_entry *entry) {
    auto *hop = static_cast<const rtnexthop *>(mnl_attr_get_payload(attribute));
    int left = mnl_attr_get_payload_len(attribute);
    while (RTNH_OK(hop, left) && entry->outs < mifs_of_table) {
        entry->out_links[entry->outs++] = static_cast<uint32_t>(hop->rtnh_ifindex);
        left -= RTNH_ALIGN(hop->rtnh_len);
        hop = RTNH_NEXT(hop);
    }
}

void read_address(const nlattr *attribute, ip_maddr_st *out) {
    if (mnl_attr_get_payload_len(attribute) == sizeof(*out)) {
        std::memcpy(out, mnl_attr_get_payload(attribute), sizeof(*out));
    }
}

// False: not an entry of this table, or an unresolved one.
bool read_entry(const nlmsghdr *message, uint32_t kernel_table, dumped_entry *entry) {
    auto *route = static_cast<const rtmsg *>(mnl_nlmsg_get_payload(message));
    if (message->nlmsg_type != RTM_NEWROUTE || route->rtm_family != RTNL_FAMILY_IP6MR ||
        (route->rtm_flags & RTNH_F_UNRESOLVED) != 0) {
        return false;
    }
    *entry = {};
    uint32_t table = route->rtm_table;
    each_attribute(message, sizeof(rtmsg), [&](const nlattr *attribute) {
        switch (mnl_attr_get_type(attribute)) {
            case RTA_TABLE:
                table = mnl_attr_get_u32(attribute);
                break;
            case RTA_SRC:
                read_address(attribute, &entry->key.source);
                break;
            case RTA_DST:
                read_address(attribute, &entry->key.group);
                break;
            case RTA_IIF:
                entry->in_link = mnl_attr_get_u32(attribute);
                break;
            case RTA_MULTIPATH:
                read_outputs(attribute, entry);
                break;
            case RTA_MFC_STATS:
                std::memcpy(&entry->packets, mnl_attr_get_payload(attribute),
                            sizeof(entry->packets));
                break;
            default:
                break;
        }
    });
    return table == kernel_table;
}

struct dump_context {
    entry_dump::entry_fn fn;
    void *context;
    uint32_t kernel_table;
    cerrno result;
};

int on_entry(const nlmsghdr *message, void *context) {
    auto &dump = *static_cast<dump_context *>(context);
    dumped_entry entry;
    if (read_entry(message, dump.kernel_table, &entry)) {
        dump.result = dump.fn(entry, dump.context);
    }
    return dump.result == 0 ? MNL_CB_OK : MNL_CB_STOP;
}

int on_neighbour_table(const nlmsghdr *message, void *context) {
    auto *table = static_cast<const ndtmsg *>(mnl_nlmsg_get_payload(message));
    if (table->ndtm_family != AF_INET6) {
        return MNL_CB_OK;
    }
    each_attribute(message, sizeof(ndtmsg), [&](const nlattr *attribute) {
        if (mnl_attr_get_type(attribute) == NDTA_THRESH3) {
            *static_cast<uint64_t *>(context) = mnl_attr_get_u32(attribute);
        }
    });
    return MNL_CB_OK;
}

}  // namespace

cerrno rules_add(const char *link_name, uint32_t kernel_table) {
    const cerrno failed = add_rule(FRA_IIFNAME, link_name, kernel_table);
    return failed != 0 ? failed : add_rule(FRA_OIFNAME, link_name, kernel_table);
}

cerrno rules_delete(const char *link_name, uint32_t kernel_table) {
    const cerrno in = delete_rule(FRA_IIFNAME, link_name, kernel_table);
    const cerrno out = delete_rule(FRA_OIFNAME, link_name, kernel_table);
    return in != 0 ? in : out;
}

cerrno rules_sweep(rule_fn wanted) {
    static rule_list list;
    list.wanted = wanted;
    list.count = 0;
    char buffer[MNL_NLMSG_HDRLEN + 64];
    nlmsghdr *head = put_head(buffer, RTM_GETRULE, NLM_F_DUMP);
    put_rule(head)->action = 0;
    conversation with_kernel;
    cerrno failed = with_kernel.ask(head, on_rule, &list);
    for (uint32_t n = 0; n < list.count; ++n) {
        const found_rule &rule = list.unwanted[n];
        const cerrno one = delete_rule(rule.link_attribute, rule.name, rule.kernel_table);
        failed = failed != 0 ? failed : one;
    }
    return failed;
}

cerrno entry_dump::start(uint32_t kernel_table) {
    stop();
    conversation with_kernel;
    if (with_kernel.socket() == nullptr) {
        return last_error();
    }
    // Lets the kernel filter by table; without it the answers are filtered here.
    const int on = 1;
    (void)setsockopt(mnl_socket_get_fd(with_kernel.socket()), SOL_NETLINK, NETLINK_GET_STRICT_CHK,
                     &on, sizeof(on));
    char buffer[MNL_NLMSG_HDRLEN + 64];
    nlmsghdr *head = put_head(buffer, RTM_GETROUTE, NLM_F_DUMP);
    auto *route = static_cast<rtmsg *>(mnl_nlmsg_put_extra_header(head, sizeof(rtmsg)));
    route->rtm_family = RTNL_FAMILY_IP6MR;
    mnl_attr_put_u32(head, RTA_TABLE, kernel_table);
    if (mnl_socket_sendto(with_kernel.socket(), head, head->nlmsg_len) < 0) {
        return last_error();
    }
    sequence_ = head->nlmsg_seq;
    kernel_table_ = kernel_table;
    socket_ = with_kernel.take();
    return 0;
}

cerrno entry_dump::next(entry_fn fn, void *context) {
    if (!running()) {
        return 0;
    }
    char piece[piece_bytes];
    const ssize_t got = mnl_socket_recvfrom(socket_, piece, sizeof(piece));
    if (got < 0) {
        const cerrno failed = last_error();
        stop();
        return failed;
    }
    dump_context dump = {fn, context, kernel_table_, 0};
    const int more = mnl_cb_run(piece, static_cast<size_t>(got), sequence_,
                                mnl_socket_get_portid(socket_), on_entry, &dump);
    const cerrno failed = more < 0 ? last_error() : dump.result;
    if (more <= 0) {
        stop();
    }
    // A table that the kernel has not got holds nothing.
    return failed == ENOENT ? 0 : failed;
}

void entry_dump::stop() {
    if (socket_ != nullptr) {
        mnl_socket_close(socket_);
        socket_ = nullptr;
    }
}

uint64_t neighbour_limit() {
    uint64_t limit = 0;
    char buffer[MNL_NLMSG_HDRLEN + 64];
    nlmsghdr *head = put_head(buffer, RTM_GETNEIGHTBL, NLM_F_DUMP);
    auto *table = static_cast<ndtmsg *>(mnl_nlmsg_put_extra_header(head, sizeof(ndtmsg)));
    table->ndtm_family = AF_INET6;
    conversation with_kernel;
    return with_kernel.ask(head, on_neighbour_table, &limit) == 0 ? limit : 0;
}

}  // namespace mfwd6::lnx
