// What the files of the table room share.
#ifndef IP6MC_SRC_IPV4_MCAST_TABLES_TABLES_H
#define IP6MC_SRC_IPV4_MCAST_TABLES_TABLES_H

#include "ipv4/multicast/lib/ip6mc_table.h"
#include "ipv4/multicast/platform_default/src/diagnostics/report.h"

// The process's search key for tables by id.
extern ipv4mc_table_st *table_search;

// Insertion and removal under the write lock. A failure is reported; the caller is not told.
void ipmc_table_add_wavl(ipv4mc_table_st *table, uint32_t thread);
void ipmc_table_rem_wavl(ipv4mc_table_st *table, uint32_t thread);
void ipmc_table_add_avl(ipv4mc_table_st *table);
void ipmc_table_rem_avl(ipv4mc_table_st *table);

// Both return 1 on success, 0 after a failure that was reported and undone.
int ipmc_table_create(const char *vrf_name, uint32_t tid, uint32_t vrf_id,
                      ipv4mc_table_st **vrf_table, int *vrf_is_new, ipv4mc_table_st **tid_table,
                      int *tid_is_new);

// Gives a VRF table the keys that it lacks, and puts it into their threads.
void ipmc_table_take_vrf_keys(ipv4mc_table_st *table, const char *vrf_name, uint32_t vrf_id);

void ipmc_table_zero_route_counters(ipv4mc_table_st *table);
// The same for a table that was cleared: the routes that the platform kept still count.
void ipmc_table_reset_route_counters(ipv4mc_table_st *table);

cerrno ipmc_table_activate_tid(uint32_t tid, uint32_t vrf_id, const char *vrf_name,
                               ipv4mc_table_st **vrf_table, ipv4mc_table_st **tid_table,
                               int *is_new);
cerrno ipmc_table_activate(uint32_t tid, uint32_t vrf_id, const char *vrf_name,
                           ipv4mc_table_st **vrf_table, int is_new);

// What one call of ip6mc_table_operation works on.
struct table_request {
    ipv4mc_action_type action;
    uint32_t tid;
    uint32_t vrf_id;
    const char *vrf_name;  // never null
    ipv4mc_table_st **table_pp;
    uint32_t arg;
    ipv4mc_table_st *vrf_table;
    ipv4mc_table_st *tid_table;
    char name_of_table[IPV4MC_VRF_NAME_SIZE];  // outlives the table that it is taken from
};

cerrno ipmc_table_deactivate(table_request &request);

// Ends what links a table with its other side, on both sides: a link that only one of the two knew
// of would outlive the other's record.
void ipmc_table_cut_links(ipv4mc_table_st *table);

// Ends the routes and signals that the bulk removal left, ahead of the table's own end: routes with
// an interface that the platform would not let go, and signal routes with several interfaces.
void ipmc_table_remove_rest(ipv4mc_table_st *table);

// Ends the signal trie of a table that goes, with the signals that were posted until now. All under
// the window mutex: whoever posts behind it finds no trie.
void ipmc_table_close_signal_gtrie(ipv4mc_table_st *table);

// Takes the keys of a VRF table away, and with them its places in the trees.
void ipmc_table_drop_vrf_keys(ipv4mc_table_st *table);

// Takes a VRF table out of its trees, cuts what points at it, and gives it back.
void ipmc_table_free_vrf(ipv4mc_table_st *vrf_table);

void ipmc_table_memd_routes_clear(ipv4mc_table_st *table, uint32_t link_index);
cerrno ipmc_idb_link_mdt_idb_to_vrf(ipv4mc_table_st *table, ifhtype handle, uint32_t vrf_id,
                                    int with_mtu);

// Reports and lines from the steps of an operation bear its name, which stands in `operation` of
// the file.
#define TABLE_ERR(...) mlib::report_error(operation, __LINE__, __VA_ARGS__)
#define TABLE_DEBUG(debug_class, ...)                                        \
    do {                                                                     \
        if (ipv4_debug_event_active_inline(debug_class)) {                   \
            mlib::debug_line(debug_class, operation, __LINE__, __VA_ARGS__); \
        }                                                                    \
    } while (false)

// Texts for messages.
inline const char *table_name_text(const char *name) {
    return name == nullptr || name[0] == '\0' ? "-" : name;
}

#endif
