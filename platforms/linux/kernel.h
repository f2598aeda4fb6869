// The kernel's multicast routing calls (linux/mroute6.h): one function for each. They keep nothing.
//
// Results are errno values, 0 for success.
#ifndef MFWD6_PLATFORMS_LINUX_KERNEL_H
#define MFWD6_PLATFORMS_LINUX_KERNEL_H

#include <cstdint>

#include "ipv4/multicast/lib/ip6mc_types.h"

namespace mfwd6::lnx {

// Set of mifs, bit per number.
using mif_set = uint32_t;
inline constexpr uint32_t mifs_of_table = 32;
inline constexpr uint32_t no_mif = UINT32_MAX;
constexpr mif_set mif_bit(uint32_t mif) {
    return mif_set{1} << mif;
}

inline bool is_any(const ip_maddr_st &address) {
    return (address.words[0] | address.words[1] | address.words[2] | address.words[3]) == 0;
}
bool same(const ip_maddr_st &a, const ip_maddr_st &b);

// What one entry of the kernel says.
struct entry_key {
    ip_maddr_st source;  // all zero: (*,G)
    ip_maddr_st group;
};
struct counters {
    uint64_t packets;
    uint64_t bytes;
    uint64_t wrong_interface;
};

// A raw ICMPv6 socket. Negative errno.
int kernel_open_socket();

// Makes `fd` the multicast routing socket of the table, with reports of wrong interfaces. `*fresh`
// is true when it was not before: the table is empty then. EADDRINUSE: another socket is it.
cerrno kernel_take_table(int fd, uint32_t kernel_table, bool *fresh);

// Turns `fd` to the table, to ask it questions.
cerrno kernel_ask_table(int fd, uint32_t kernel_table);

// EADDRINUSE: there is a mif of this number. EADDRNOTAVAIL: no such device. EOVERFLOW: the device's
// index is too large for this interface of the kernel, which has 16 bits for it.
cerrno kernel_add_mif(int fd, uint32_t mif, uint32_t ifindex);
cerrno kernel_add_register_mif(int fd, uint32_t mif);
// Success when there is none.
cerrno kernel_delete_mif(int fd, uint32_t mif);

// Makes an entry, or replaces one in place: counters go on. A (*,G) takes packets from `parent` and
// sends to `outputs`, never back to where a packet came from.
cerrno kernel_set_entry(int fd, const entry_key &key, uint32_t parent, mif_set outputs);
// Success when there is none. Of (*,G) all entries of the group go.
cerrno kernel_delete_entry(int fd, const entry_key &key);
// The one of (*,G) that takes packets from `parent`.
cerrno kernel_delete_any_source(int fd, const entry_key &key, uint32_t parent);

// ENOENT.
cerrno kernel_counters(int fd, const entry_key &key, counters *out);

// Takes all entries and mifs out of the table of this socket.
cerrno kernel_flush(int fd);

// The same, and the socket is no routing socket any more, whoever has copies of it.
cerrno kernel_end_table(int fd);

// The host's own membership in a group on a device, held by `fd`. Success when it is (or was) there
// already.
cerrno kernel_join(int fd, const ip_maddr_st &group, uint32_t ifindex);
cerrno kernel_leave(int fd, const ip_maddr_st &group, uint32_t ifindex);

}  // namespace mfwd6::lnx

#endif
