// Sockets of a client, which routes nothing, to ask the kernel for counters.
#ifndef MFWD6_PLATFORMS_LINUX_QUERY_SOCKETS_H
#define MFWD6_PLATFORMS_LINUX_QUERY_SOCKETS_H

#include <cstdint>

namespace mfwd6::lnx {

// A socket turned to the table: in the owner the table's own. Negative errno.
int query_socket(uint32_t kernel_table);
void close_query_sockets();

}  // namespace mfwd6::lnx

#endif
