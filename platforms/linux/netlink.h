// What the kernel tells and takes over netlink (rtnetlink(7)): rules that choose a table, the
// entries of a table, the limit of the neighbour table.
#ifndef MFWD6_PLATFORMS_LINUX_NETLINK_H
#define MFWD6_PLATFORMS_LINUX_NETLINK_H

#include "platforms/linux/kernel.h"

struct mnl_socket;

namespace mfwd6::lnx {

// ---- rules --------------------------------------------------------------------------------------

// All rules of this platform have this priority and protocol; that is how they are known.
inline constexpr uint32_t rule_priority = 1000;
inline constexpr uint8_t rule_protocol = 17;  // RTPROT_MROUTED

// Sends packets that come in by the named link, and those of this host that leave by it, to the
// table; or no longer. Success when it is so already.
cerrno rules_add(const char *link_name, uint32_t kernel_table);
cerrno rules_delete(const char *link_name, uint32_t kernel_table);

// Called for each rule of this platform; true keeps it, false removes it.
using rule_fn = bool (*)(const char *link_name, uint32_t kernel_table);
cerrno rules_sweep(rule_fn wanted);

// ---- entries of a table -------------------------------------------------------------------------

// One entry as the kernel has it, with link indexes in the place of mifs.
struct dumped_entry {
    entry_key key;
    uint32_t in_link;  // 0: its interface is not there
    uint32_t out_links[mifs_of_table];
    uint32_t outs;
    uint64_t packets;
};

// A listing of the entries of one table that can be read piece by piece. The kernel begins anew at
// the front for each piece, so the whole takes time by the square of the entries.
class entry_dump {
  public:
    ~entry_dump() { stop(); }
    cerrno start(uint32_t kernel_table);
    bool running() const { return socket_ != nullptr; }
    // Reads one piece, some hundred entries; `fn` non-zero ends the dump and is the result. At the
    // end the dump is not running any more.
    using entry_fn = cerrno (*)(const dumped_entry &entry, void *context);
    cerrno next(entry_fn fn, void *context);
    void stop();

  private:
    mnl_socket *socket_ = nullptr;
    uint32_t kernel_table_ = 0;
    uint32_t sequence_ = 0;
};

// ---- neighbours ---------------------------------------------------------------------------------

// Entries that the IPv6 neighbour table has at most (gc_thresh3), 0 when the kernel does not tell.
uint64_t neighbour_limit();

}  // namespace mfwd6::lnx

#endif
