// What all parts of the walk share: findings, and the one way to follow a pointer.
#ifndef MFWD6_APPS_CHECK_WALK_H
#define MFWD6_APPS_CHECK_WALK_H

#include <cstdint>
#include <string>
#include <type_traits>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "apps/check/check.h"
#include "apps/check/heap_map.h"
#include "ipv4/multicast/lib/ip6mc_bvi.h"
#include "ipv4/multicast/lib/ip6mc_encap.h"
#include "ipv4/multicast/lib/ip6mc_idb.h"
#include "ipv4/multicast/lib/ip6mc_platform_err.h"
#include "ipv4/multicast/lib/ip6mc_route.h"
#include "ipv4/multicast/lib/ip6mc_shmwin.h"
#include "ipv4/multicast/lib/ip6mc_table.h"
#include "services/gtrie/layout.h"

namespace mfwd6::check {

// One read of a word that others may be writing.
template <class T>
T load(const T &field) {
    static_assert(sizeof(T) <= sizeof(uint64_t));
    T value;
    __atomic_load(&field, &value, __ATOMIC_RELAXED);
    return value;
}

// The record that a finding is about. The name is made only when there is a finding.
struct subject {
    const char *record;
    const void *address;
    std::string (*name)(const void *record) = nullptr;
};

// What a pointer must lead to: memory of a block of this type, `offset` bytes in, and `bytes` long
// (or longer).
struct kind {
    const char *record;
    uint32_t type;
    uint32_t bytes;
    bool or_more = false;
    uint32_t offset = 0;
};

namespace kinds {

inline constexpr uint32_t leaf_bytes = sizeof(gtrie::leaf);
inline constexpr uint32_t any_type = UINT32_MAX;

inline constexpr kind vrf_table{"VRF table", IPMC_SHMWIN_ALLOC_TABLE, sizeof(ipv4mc_table_st)};
inline constexpr kind tid_table{"table", IPMC_SHMWIN_ALLOC_AVL, sizeof(ipv4mc_table_st)};
inline constexpr kind tid_tree{"tree of tables", IPMC_SHMWIN_ALLOC_AVL, 48};
inline constexpr kind route{"route", IPMC_SHMWIN_ALLOC_ROUTE, sizeof(ipv4mc_route_entry_st), true,
                            leaf_bytes};
inline constexpr kind rate{"rate record", IPMC_SHMWIN_ALLOC_ROUTE, sizeof(ipv4mc_route_rate_st)};
inline constexpr kind entry{"interface entry", IPMC_SHMWIN_ALLOC_INTF, sizeof(ipv4mc_intf_entry_st),
                            true};
inline constexpr kind idb{"interface", IPMC_SHMWIN_ALLOC_IDB, sizeof(ipv4mc_idb_st)};
inline constexpr kind members{"bundle members", IPMC_SHMWIN_ALLOC_BUNDLE_MEMBERS,
                              sizeof(ipmc_bundle_member_st) * IPMC_BUNDLE_MEMBERS_MAX};
inline constexpr kind bundle_tree{"bundle tree", IPMC_SHMWIN_ALLOC_BUNDLE, sizeof(rt_head_t), true};
inline constexpr kind vlan{"bundle child", IPMC_SHMWIN_ALLOC_VLAN, sizeof(ipmc_vlan_node_st)};
inline constexpr kind intf_request{"interface request", IPMC_SHMWIN_ALLOC_INTF_CHANGE,
                                   sizeof(ipmc_intf_change_req_st)};
inline constexpr kind encap{"encap", IPMC_SHMWIN_ALLOC_ROUTE, sizeof(ipv4mc_encap_entry_st), false,
                            leaf_bytes};
inline constexpr kind encap_leaf{"encap leaf", IPMC_SHMWIN_ALLOC_ENCAP_LEAF,
                                 sizeof(ipv4mc_encap_leaf_st)};
inline constexpr kind regdb_tree{"transport tree", IPMC_SHMWIN_ALLOC_REGDB, sizeof(rn_root_t)};
inline constexpr kind transport{"transport", IPMC_SHMWIN_ALLOC_REGDB,
                                sizeof(ipv4mc_regdb_entry_st)};
inline constexpr kind bvi_tree{"BVI tree", IPMC_SHMWIN_ALLOC_BVI_ENTRY, sizeof(rn_root_t)};
inline constexpr kind bvi_entry{"BVI entry", IPMC_SHMWIN_ALLOC_BVI_ENTRY,
                                sizeof(ipv4mc_bvi_entry_t)};
inline constexpr kind bvi_if_tree{"BVI tie tree", any_type, sizeof(rn_root_t)};
inline constexpr kind bvi_if{"BVI tie", IPMC_SHMWIN_ALLOC_BVI_IF, sizeof(ipv4mc_bvi_if_t)};
inline constexpr kind bvi_intf_tree{"BVI mapping tree", IPMC_SHMWIN_ALLOC_BVI_INTF_DB,
                                    sizeof(rn_root_t)};
inline constexpr kind bvi_intf{"BVI mapping", IPMC_SHMWIN_ALLOC_BVI_INTF_DB,
                               sizeof(ipv4mc_bvi_intf_db_t)};
inline constexpr kind queue{"retry queue", IPMC_SHMWIN_ALLOC_RETRY_QUEUE, sizeof(dlqueue_node_t)};
inline constexpr kind retry{"retry element", IPMC_SHMWIN_ALLOC_RETRY_MSG, sizeof(ipmc_retry_msg)};
inline constexpr kind trie_handle{"trie handle", IPMC_SHMWIN_ALLOC_GTRIE_HANDLE,
                                  sizeof(gtrie::handle)};
inline constexpr kind trie{"trie", IPMC_SHMWIN_ALLOC_GTRIE_HANDLE, sizeof(gtrie::trie)};
inline constexpr kind trie_node{"trie node", IPMC_SHMWIN_ALLOC_GTRIE_NODE, sizeof(gtrie::node),
                                true};
inline constexpr kind trie_leaf{"trie leaf", IPMC_SHMWIN_ALLOC_ROUTE, sizeof(gtrie::leaf), true};
inline constexpr kind trie_index{"trie index", IPMC_SHMWIN_ALLOC_GTRIE_INDEX, sizeof(uint64_t),
                                 true};

}  // namespace kinds

// One walk over the window.
class walk {
  public:
    walk(uint32_t window, const ipv4mc_shmwin_hdr_st *header, bool live, size_t most_findings);

    const ipv4mc_shmwin_hdr_st &header() const { return *header_; }
    uint32_t window() const { return window_; }
    bool live() const { return live_; }
    heap_map &heap() { return heap_; }
    report &result() { return result_; }

    // Something does not agree.
    void wrong(const subject &about, const char *field, const std::string &what);

    // Something that was not met where it should be: which beside others' changes says little.
    void missing(const subject &about, const char *field, const std::string &what);

    // How many findings there were so far.
    uint64_t faults() const { return result_.findings.size() + result_.more_findings; }

    // Something that the death of an owner in the middle of an operation may leave, and that goes
    // with the end of the record.
    void leftover(const subject &about, const char *field, const std::string &what);

    // Two numbers that must be the same.
    template <class A, class B>
    void equal(const subject &about, const char *field, A says, B is, const char *of_what) {
        if (static_cast<uint64_t>(says) != static_cast<uint64_t>(is)) {
            wrong(about, field,
                  "says " + std::to_string(static_cast<uint64_t>(says)) + ", there are " +
                      std::to_string(static_cast<uint64_t>(is)) + " " + of_what);
        }
    }

    // The record behind a pointer, its block marked as reached; null for null, and, with a finding
    // about the field, when no such record is there.
    template <class T>
    const T *follow(const subject &about, const char *field, const T *pointer, const kind &what) {
        if (pointer == nullptr) {
            return nullptr;
        }
        return reach(about, field, reinterpret_cast<uint64_t>(pointer), what) ? pointer : nullptr;
    }

    // The same without a mark and without a finding.
    bool is(const void *pointer, const kind &what);

    // Marks a block of any type that begins at this address; false when there is none.
    bool reach_any(const void *pointer);

    void count(const char *record, uint64_t step = 1) { counts_[record] += step; }
    const std::unordered_map<const char *, uint64_t> &counts() const { return counts_; }

  private:
    bool reach(const subject &about, const char *field, uint64_t pointer, const kind &what);
    void keep(std::vector<finding> &to, uint64_t *more, const subject &about, const char *field,
              const std::string &what);

    uint32_t window_;
    const ipv4mc_shmwin_hdr_st *header_;
    bool live_;
    size_t most_findings_;
    heap_map heap_;
    report result_;
    std::unordered_map<const char *, uint64_t> counts_;
};

std::string hex(uint64_t value);
std::string hex(const void *pointer);

// Names by which the operator knows records.
subject about(const ipv4mc_shmwin_hdr_st *header);
subject about(const ipv4mc_table_st *table);
subject about(const ipv4mc_route_entry_st *route);
subject about(const ipv4mc_intf_entry_st *entry);
subject about(const ipv4mc_idb_st *idb);
subject about(const ipv4mc_encap_entry_st *encap);
subject about(const ipv4mc_regdb_entry_st *transport);
subject about(const ipv4mc_bvi_entry_t *bvi);
inline subject about(const char *record, const void *address) {
    return {record, address, nullptr};
}

}  // namespace mfwd6::check

#endif
