// The yardstick: the same routes in the kernel's own table of a network namespace of their own.
#ifndef MFWD6_BENCH_LIB_ROUTES_KERNEL_TABLE_H
#define MFWD6_BENCH_LIB_ROUTES_KERNEL_TABLE_H

#include <cstdint>

namespace bench {

struct kernel_times {
    double add_ns;
    double delete_ns;
};

// Nanoseconds per MRT6_ADD_MFC and per MRT6_DEL_MFC of `routes` routes out of `interfaces`
// interfaces (at most 15), or 0 with a printed reason. Leaves the calling process in a namespace of
// its own: call it in a child.
kernel_times kernel_ns_per_route(uint32_t routes, uint32_t interfaces);

}  // namespace bench

#endif
