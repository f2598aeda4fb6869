// Selective VRF download: whether a VRF's routes are wanted on this node. The states of a table
// stand in ip6mc_table.h.
#ifndef IP6MC_SVD_H
#define IP6MC_SVD_H

#include "ipv4/multicast/lib/ip6mc_types.h"

// Types of a message to the client.
enum ipmc_svd_msgs {
    IPMC_SVD_MSG_LIST =
        0,  // tables wait to become local; or, with argument 1, downloading was switched
    IPMC_SVD_MSG_LIST_EMPTY = 1,  // none wait any more
    IPMC_SVD_MSG_CLEAR =
        2  // the routes of a table are not wanted: the second argument is its TID table
};

typedef struct ipmc_svd_msg {
    uint32_t type;      // one of ipmc_svd_msgs
    uint32_t argument;  // or zero
} ipmc_svd_msg;
IP6MC_RECORD(ipmc_svd_msg, 8);

// The client's function. `context` is what it registered with, except for IPMC_SVD_MSG_CLEAR.
typedef cerrno (*ipmc_svd_callback_ft)(const ipmc_svd_msg *message, void *context);

// Process memory.
typedef struct ipmc_svd_desc_struct {
    int svd_init;
    ipmc_svd_callback_ft svd_callback;
    void *svd_context;
} ipmc_svd_desc_struct;

#endif
