// What the tries of tables are made with.
#ifndef IP6MC_SRC_IPV4_MCAST_TABLES_GTRIE_PARAMS_H
#define IP6MC_SRC_IPV4_MCAST_TABLES_GTRIE_PARAMS_H

#include <stdint.h>

// Values of `gtrie_usage`.
enum : uint32_t {
    IPMC_GTRIE_USAGE_SW_ONLY = 0,
    IPMC_GTRIE_USAGE_EGRESS = 2,
    IPMC_GTRIE_USAGE_INGRESS_EGRESS = 3,
};

namespace mlib {

// The usage of an ingress trie on this platform.
uint32_t ingress_gtrie_usage();

}  // namespace mlib

#endif
