#include "bench/lib/routes/kernel_table.h"

#include <arpa/inet.h>
#include <linux/mroute6.h>
#include <net/if.h>
#include <netinet/icmp6.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace bench {
namespace {

constexpr uint32_t most_interfaces = 16;

double now_ns() {
    timespec now{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) * 1e9 + static_cast<double>(now.tv_nsec);
}

int fail(const char *what) {
    printf("no yardstick: %s: %s\n", what, strerror(errno));
    return -1;
}

bool add_interface(int fd, uint16_t mif) {
    char name[IFNAMSIZ];
    snprintf(name, sizeof(name), "b%u", unsigned{mif});
    mif6ctl control{};
    control.mif6c_mifi = mif;
    control.mif6c_pifi = static_cast<uint16_t>(if_nametoindex(name));
    return control.mif6c_pifi != 0 &&
           setsockopt(fd, IPPROTO_IPV6, MRT6_ADD_MIF, &control, sizeof(control)) == 0;
}

// A socket on an empty table with 16 interfaces.
int open_table() {
    if (unshare(CLONE_NEWNET) != 0)
        return fail("a network namespace");
    const int fd = socket(AF_INET6, SOCK_RAW, IPPROTO_ICMPV6);
    const int on = 1;
    if (fd < 0 || setsockopt(fd, IPPROTO_IPV6, MRT6_INIT, &on, sizeof(on)) != 0)
        return fail("MRT6_INIT");
    if (system("for i in 0 2 4 6 8 10 12 14; do ip link add b$i type veth peer name b$((i+1)) || "
               "exit 1; done") != 0) {
        return fail("ip link add");
    }
    for (uint16_t mif = 0; mif < most_interfaces; ++mif) {
        if (!add_interface(fd, mif))
            return fail("MRT6_ADD_MIF");
    }
    return fd;
}

// Nanoseconds for each entry of one option for all of them; 0 with a printed reason.
double time_option(int fd, int option, const char *name, mf6cctl entry, uint32_t routes) {
    const double start = now_ns();
    for (uint32_t n = 1; n <= routes; ++n) {
        const uint32_t low = htonl(n);
        memcpy(entry.mf6cc_mcastgrp.sin6_addr.s6_addr + 12, &low, sizeof(low));
        if (setsockopt(fd, IPPROTO_IPV6, option, &entry, sizeof(entry)) != 0) {
            fail(name);
            return 0;
        }
    }
    return (now_ns() - start) / routes;
}

}  // namespace

kernel_times kernel_ns_per_route(uint32_t routes, uint32_t interfaces) {
    const int fd = open_table();
    if (fd < 0)
        return {};
    mf6cctl entry{};
    entry.mf6cc_origin.sin6_family = entry.mf6cc_mcastgrp.sin6_family = AF_INET6;
    inet_pton(AF_INET6, "2001:db8::1", &entry.mf6cc_origin.sin6_addr);
    inet_pton(AF_INET6, "ff3e::", &entry.mf6cc_mcastgrp.sin6_addr);
    for (uint32_t mif = 0; mif < interfaces && mif < most_interfaces; ++mif)
        IF_SET(mif, &entry.mf6cc_ifset);
    const double added = time_option(fd, MRT6_ADD_MFC, "MRT6_ADD_MFC", entry, routes);
    return {added, time_option(fd, MRT6_DEL_MFC, "MRT6_DEL_MFC", entry, routes)};
}

}  // namespace bench
