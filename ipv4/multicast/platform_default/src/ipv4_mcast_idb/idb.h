// What the files of the interface room share.
#ifndef IP6MC_SRC_IPV4_MCAST_IDB_IDB_H
#define IP6MC_SRC_IPV4_MCAST_IDB_IDB_H

#include "ipv4/multicast/lib/ip6mc_idb.h"
#include "ipv4/multicast/platform_default/src/setup.h"
#include "services/journal/list.h"

// 1 once the walk behind a restart has been made. Of the process, so 0 in each new one.
extern uint8_t idb_post_restart_done;

// Out of the global threads under the write lock, then out of the tree of its table.
void ipmc_idb_wavl_delete(ipv4mc_idb_st *idb);

// Out of the tree of its table, with what the table counts. The node, or NULL when it was in none.
void *ipmc_idb_vrf_delete(ipv4mc_idb_st *idb);

namespace mlib {

// 0, or 9 with a report in the name of the caller while the library or its interface half is not
// ready.
cerrno idb_readiness(const char *function = __builtin_FUNCTION(), int line = __builtin_LINE());

// 0, or 22 with a report in the name of the caller.
cerrno idb_require(const void *pointer, const char *text,
                   const char *function = __builtin_FUNCTION(), int line = __builtin_LINE());

inline bool has_flag(uint8_t flags, uint8_t flag) {
    return (flags & flag) != 0;
}

// A name as a text: in a record it has no terminator when it is 64 characters long.
struct idb_name_text {
    explicit idb_name_text(const char *name) { __builtin_memcpy(text, name, IPV4MC_IDB_NAME_SIZE); }
    char text[IPV4MC_IDB_NAME_SIZE + 1] = {};
};

// Kind of a new interface, from its handle and what the interface manager says of it.
void classify_idb(ipv4mc_idb_st *idb, bool is_mdt);

// The two steps of giving a reference back, so that the first can be part of a caller's change: the
// count, with the refusal of a record that has none; and the end of a record that nothing holds.
// True when the record has gone.
cerrno drop_idb_reference(ipv4mc_idb_st **idb_p);
bool destroy_idb_if_unheld(ipv4mc_idb_st *idb);
bool is_unheld(const ipv4mc_idb_st *idb);

// The record with this handle, or null, also while the interface half has not started.
ipv4mc_idb_st *find_idb_record(ifhtype ifh);

// The two steps of ip6mc_idb_lock, likewise: find or create, reported in the name of the caller;
// and the count. The record may be NULL with 0.
cerrno find_idb_to_lock(ifhtype ifh, rsi_vrf_id_t vrf, ipv4mc_idb_st **idb_p,
                        ipv4mc_idb_st **bundle_pp, const char *function = __builtin_FUNCTION(),
                        int line = __builtin_LINE());
void take_idb_reference(ipv4mc_idb_st *idb);

// Gives up the processor after each `limit` records; 0 never does.
class yielder {
  public:
    explicit yielder(uint32_t limit) : limit_(limit) {}
    void before_record();

  private:
    uint32_t limit_;
    uint32_t since_ = 0;
};

using idb_routes =
    mfwd6::journal::member_list<ipv4mc_intf_entry_st, &ipv4mc_intf_entry_st::idb_next,
                                &ipv4mc_intf_entry_st::idb_prev>;

}  // namespace mlib

#endif
