// The sockets that the keeper holds so that they outlive its children.
#ifndef MFWD6_APPS_MFWD6D_KEEPER_HELD_SOCKETS_H
#define MFWD6_APPS_MFWD6D_KEEPER_HELD_SOCKETS_H

#include <cstdint>
#include <map>

#include "services/cerrno.h"

namespace mfwd6::daemon {

inline constexpr uint32_t memberships_max = 256;
inline constexpr uint32_t tables_max = 1024;

class held_sockets {
  public:
    held_sockets() = default;
    ~held_sockets();
    held_sockets(const held_sockets &) = delete;
    held_sockets &operator=(const held_sockets &) = delete;

    // The socket of a kernel table, made when it is asked for first. `*is_new` tells so.
    cerrno table(uint32_t kernel_table, int *fd, bool *is_new);
    // False when there was none.
    bool release(uint32_t kernel_table);
    // The n-th socket for joining groups.
    cerrno membership(uint32_t number, int *fd);

    // Takes sockets of another keeper over.
    void adopt_table(uint32_t kernel_table, int fd);
    void adopt_membership(uint32_t number, int fd);

    const std::map<uint32_t, int> &tables() const { return tables_; }
    const std::map<uint32_t, int> &memberships() const { return memberships_; }

  private:
    std::map<uint32_t, int> tables_;
    std::map<uint32_t, int> memberships_;
};

// Whether this process may route multicast: 0; EPERM: not allowed to open such sockets; EACCES: not
// allowed to use them; ENOPROTOOPT: the kernel cannot.
cerrno may_route();

}  // namespace mfwd6::daemon

#endif
