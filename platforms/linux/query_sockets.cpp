#include "platforms/linux/query_sockets.h"

#include <unistd.h>

#include "platforms/linux/life.h"
#include "platforms/linux/tables.h"

namespace mfwd6::lnx {

namespace {

// One is enough: it is turned to the table that is asked for.
struct {
    int fd = -1;
    uint32_t kernel_table = 0;
} query;

}  // namespace

int query_socket(uint32_t kernel_table) {
    if (owner_started()) {
        const table *t = find_kernel_table(kernel_table);
        return t != nullptr ? t->fd : -ENOENT;
    }
    if (query.fd < 0) {
        query.fd = kernel_open_socket();
        query.kernel_table = 0;
    }
    if (query.fd >= 0 && query.kernel_table != kernel_table) {
        if (const cerrno failed = kernel_ask_table(query.fd, kernel_table); failed != 0) {
            return -static_cast<int>(failed);
        }
        query.kernel_table = kernel_table;
    }
    return query.fd;
}

void close_query_sockets() {
    if (query.fd >= 0) {
        close(query.fd);
    }
    query = {};
}

}  // namespace mfwd6::lnx
