#include "tests/platforms/linux/router.h"

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <sstream>
#include <stdexcept>

#include "services/diag/errors.h"
#include "services/window/window.h"

namespace bed {
namespace {

int get_socket(void *context, uint32_t kernel_table) {
    auto &keeper = *static_cast<sockets *>(context);
    const auto there = keeper.open.find(kernel_table);
    if (there != keeper.open.end()) {
        return there->second;
    }
    const int fd = socket(AF_INET6, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_ICMPV6);
    if (fd < 0) {
        return -errno;
    }
    keeper.open[kernel_table] = fd;
    return fd;
}

void release_socket(void *context, uint32_t kernel_table) {
    auto &keeper = *static_cast<sockets *>(context);
    close(keeper.open.at(kernel_table));
    keeper.open.erase(kernel_table);
    ++keeper.released;
}

struct parts {
    ip_maddr_st source;
    ip_maddr_st group;
    uint16_t length;
};

parts parts_of(const key &k) {
    return {net::address(k.source), net::address(k.group), k.length};
}

cerrno operate(ipv4mc_action_type action, ipv4mc_table_st *table, const parts &p,
               ipv4mc_route_entry_st **route, int *is_new, uint64_t old = 0) {
    return ip6mc_route_operation(action, table, &p.source, &p.group, p.length, nullptr, route, old,
                                 0, is_new);
}

cerrno intf(ipv4mc_action_type action, ipv4mc_route_entry_st *route, ifhtype ifh,
            ipv4mc_intf_entry_st **entry, int is_new, uint64_t old = 0) {
    return ip6mc_intf_operation(action, route->table, route, IPV4MC_INTF_ORDINARY, ifh, 0, 0, 0,
                                entry, nullptr, 0, old, is_new);
}

cerrno join(ipv4mc_route_entry_st *route, const leg &l) {
    ipv4mc_intf_entry_st *entry = nullptr;
    const ifhtype ifh = net::network::handle(l.number);
    cerrno failed = intf(IPV4MC_ACTION_CREATE, route, ifh, &entry, 1);
    if (failed != 0 && failed != EEXIST) {
        return failed;
    }
    const uint64_t old = entry->attributes;
    entry->attributes = l.attributes;
    return intf(IPV4MC_ACTION_COMMIT, route, ifh, &entry, failed == 0 ? 1 : 0, old);
}

}  // namespace

sockets::~sockets() {
    for (const auto &[table, fd] : open) {
        close(fd);
    }
    linux_use_sockets(nullptr);
}

void sockets::use() {
    const linux_sockets mine = {get_socket, release_socket, this};
    if (linux_use_sockets(&mine) != 0) {
        throw std::runtime_error("the platform is started already");
    }
}

owner::owner(const std::string &folder, event_manager_t *evm) {
    if (linux_set_folder(folder.c_str()) != 0) {
        throw std::runtime_error("linux_set_folder");
    }
    kit::start how;
    how.evm = evm;
    library_ = std::make_unique<kit::library>(how);
    if (ip6mc_idb_init(nullptr, nullptr, 0, nullptr, nullptr, nullptr, nullptr) != 0) {
        throw std::runtime_error("ip6mc_idb_init");
    }
}

owner::~owner() {
    if (!left_) {
        library_.reset();
    }
}

void owner::leave() {
    uint32_t window = 0;
    ip6mc_shmwin_get_id(&window);
    library_->terminate(3);
    shmwin_close(window, 1);  // the library leaves it mapped for a process that ends
    left_ = true;
}

ipv4mc_table_st *owner::table(uint32_t tid, const char *name) {
    ipv4mc_table_st *made = nullptr;
    const uint32_t vrf_id = tid == kit::default_tid ? kit::default_vrf_id : 0x60000000 + tid;
    const cerrno rc = ip6mc_table_operation(IPV4MC_ACTION_ACTIVATE, tid, vrf_id, name, &made, 0);
    if (rc != 0) {
        throw std::runtime_error(std::string("table: ") + cerr_strerror(rc));
    }
    return made->tid_table;
}

cerrno owner::add(ipv4mc_table_st *table, const key &k, const std::vector<leg> &legs,
                  uint64_t attributes) {
    const parts p = parts_of(k);
    ipv4mc_route_entry_st *route = nullptr;
    int is_new = 0;
    cerrno failed = operate(IPV4MC_ACTION_CREATE, table, p, &route, &is_new);
    for (size_t n = 0; failed == 0 && n < legs.size(); ++n) {
        failed = join(route, legs[n]);
    }
    if (failed == 0) {
        route->attributes = attributes;
        failed = operate(IPV4MC_ACTION_COMMIT, table, p, &route, &is_new);
    }
    if (failed != 0 && is_new != 0) {
        ipv4mc_intf_entry_st *entry = nullptr;
        while (route != nullptr && (entry = ipv4mc_intf_route_get_first_intf(route)) != nullptr &&
               intf(IPV4MC_ACTION_DELETE, route, entry->ifh, &entry, 0) == 0) {
        }
        ip6mc_route_oper_create_fail_cleanup(table, &route, table->ingress_gtrie);
    }
    return failed;
}

cerrno owner::change(ipv4mc_table_st *table, const key &k, uint64_t attributes) {
    ipv4mc_route_entry_st *route = find(table, k);
    if (route == nullptr) {
        return ENOENT;
    }
    const uint64_t old = route->attributes;
    int is_new = 0;
    route->attributes = attributes;
    return operate(IPV4MC_ACTION_COMMIT, table, parts_of(k), &route, &is_new, old);
}

cerrno owner::set_leg(ipv4mc_table_st *table, const key &k, const leg &l) {
    ipv4mc_route_entry_st *route = find(table, k);
    return route != nullptr ? join(route, l) : ENOENT;
}

cerrno owner::drop_leg(ipv4mc_table_st *table, const key &k, uint32_t number) {
    ipv4mc_route_entry_st *route = find(table, k);
    ipv4mc_intf_entry_st *entry = nullptr;
    return route != nullptr
               ? intf(IPV4MC_ACTION_DELETE, route, net::network::handle(number), &entry, 0)
               : ENOENT;
}

cerrno owner::remove(ipv4mc_table_st *table, const key &k) {
    ipv4mc_route_entry_st *route = nullptr;
    int is_new = 0;
    return operate(IPV4MC_ACTION_DELETE, table, parts_of(k), &route, &is_new);
}

ipv4mc_route_entry_st *owner::find(ipv4mc_table_st *table, const key &k) {
    ipv4mc_route_entry_st *route = nullptr;
    operate(IPV4MC_ACTION_EXACT_LOOKUP, table, parts_of(k), &route, nullptr);
    return route;
}

uint64_t owner::packets(ipv4mc_table_st *table, const key &k) {
    const parts p = parts_of(k);
    uint64_t count = 0;
    EXPECT_EQ(ip6mc_platform_get_hw_in_stats(table, &p.source, &p.group, p.length, nullptr, &count),
              0U);
    return count;
}

std::vector<owner::report> owner::pump(int quiet_milliseconds) {
    std::vector<report> all;
    uint32_t tables[64];
    uint32_t count = 0;
    EXPECT_EQ(linux_list_tables(tables, 64, &count), 0U);
    std::vector<pollfd> waits;
    for (uint32_t n = 0; n < count; ++n) {
        waits.push_back({linux_table_socket(tables[n]), POLLIN, 0});
    }
    while (poll(waits.data(), waits.size(), quiet_milliseconds) > 0) {
        for (uint32_t n = 0; n < count; ++n) {
            char bytes[2048];
            const ssize_t got = recv(waits[n].fd, bytes, sizeof(bytes), MSG_DONTWAIT);
            linux_flow flow;
            if (got < 0 ||
                linux_parse_report(bytes, static_cast<size_t>(got), tables[n], &flow) != 0) {
                continue;
            }
            report r = {flow, 0, 0, 0, 0};
            uint32_t tid = 0;
            linux_table_tid(tables[n], &tid);
            ipv4mc_table_st *record = ip6mc_table_lookup_by_tbl_id(tid);
            linux_report_interface(record, &flow, &r.ifh);
            r.signals = linux_report_signals(record, &flow, r.ifh);
            r.code = linux_answer_flow(&flow, &r.answer);
            all.push_back(r);
        }
    }
    return all;
}

linux_status owner::status() {
    linux_status s;
    linux_get_status(&s);
    return s;
}

linux_resync_counts owner::resync() {
    linux_resync_counts counts = {};
    EXPECT_EQ(linux_resync(&counts), 0U);
    return counts;
}

void router::start() {
    keeper.use();
    o = std::make_unique<owner>(dir.path());
    EXPECT_EQ(linux_resync(nullptr), 0U);
    table = o->table();
}

void router::restart() {
    if (o != nullptr) {
        o->leave();
        o.reset();
    }
    o = std::make_unique<owner>(dir.path());
    table = ip6mc_table_lookup_by_tbl_id(kit::default_tid);
}

void router::drain() {
    for (uint32_t number = 0; number < 64; ++number) {
        try {
            (void)net.received(number);
        } catch (const std::out_of_range &) {
        }
    }
}

std::vector<uint32_t> router::forward(uint32_t in, const std::string &source,
                                      const std::string &group) {
    drain();
    const uint32_t number = next_number++;
    net.send(in, {source, group, number, 64});
    reports = o->pump();
    std::vector<uint32_t> to;
    for (uint32_t link = 0; link < 64; ++link) {
        try {
            for (const net::packet &p : net.received(link)) {
                if (p.number == number && p.source == source) {
                    to.push_back(link);
                }
            }
        } catch (const std::out_of_range &) {
        }
    }
    return to;
}

std::vector<std::string> kernel_entries(uint32_t kernel_table) {
    FILE *ip = popen(("ip -6 mroute show table " + std::to_string(kernel_table)).c_str(), "r");
    std::vector<std::string> lines;
    char line[1024];
    while (ip != nullptr && fgets(line, sizeof(line), ip) != nullptr) {
        std::istringstream words(line);
        std::string word;
        std::string text;
        while (words >> word) {
            text += (text.empty() ? "" : " ") + word;
        }
        if (!text.empty()) {
            lines.push_back(text);
        }
    }
    if (ip != nullptr) {
        pclose(ip);
    }
    std::sort(lines.begin(), lines.end());
    return lines;
}

}  // namespace bed
