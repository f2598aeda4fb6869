// What the tests of tables share: a library on a fresh window, and proofs of what stands in it.
#ifndef MFWD6_TESTS_LIB_IPV4_MCAST_TABLES_TABLES_H
#define MFWD6_TESTS_LIB_IPV4_MCAST_TABLES_TABLES_H

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "ipv4/multicast/lib/ip6mc_route.h"
#include "ipv4/multicast/lib/ip6mc_table.h"
#include "platforms/sim/sim.h"
#include "services/diag/debug.h"
#include "services/diag/errors.h"
#include "services/window/inspect.h"
#include "tests/kit/library.h"
#include "tests/kit/listener.h"
#include "tests/kit/run_dir.h"

namespace tables {

using texts = std::vector<std::string>;

inline bool has(const texts &all, const std::string &text) {
    return std::find(all.begin(), all.end(), text) != all.end();
}

// Live blocks by type.
using counts = std::array<uint32_t, IPMC_SHMWIN_ALLOC_TYPES>;
inline counts live_blocks() {
    counts now{};
    for (uint32_t type = 0; type < now.size(); ++type)
        now[type] = ipmc_shmwin_live_blocks(ipv4mc_desc->shmwin_info, type);
    return now;
}

// What is wrong with the trees of tables and the links between tables; empty when nothing is.
inline std::string faults() {
    wavl_tree *names = ip6mc_get_table_vid_name_db();
    shm_avl_tree *tids = ip6mc_get_table_tid_db();
    uint64_t seen = 0;
    for (uint32_t thread = 0; thread < IPV4MC_TABLE_THREADS; ++thread) {
        if (shm_wavl_verify(&ipmc_db_table_fns, names, thread, &seen) != 0) {
            return "name tree, thread " + std::to_string(thread);
        }
    }
    if (shm_avl_tree_verify(&ipmc_db_tid_fns, tids, &seen) != 0) {
        return "tree of table ids";
    }
    for (uint32_t thread = 0; thread < IPV4MC_TABLE_THREADS; ++thread) {
        for (void *node = multicast_table_wrapper_for_shm_wavl_get_first(names, thread);
             node != nullptr;
             node = multicast_table_wrapper_for_shm_wavl_get_next(names, node, thread)) {
            auto *table = static_cast<ipv4mc_table_st *>(ip6mc_tbl_wavl2db(node));
            const std::string who = std::string("VRF table ") + table->vrf_name;
            if (table->table_type != IPV4MC_TABLE_VRF)
                return who + ": type";
            if (thread == 0 ? table->vrf_name[0] == 0 : table->vrf_id == 0)
                return who + ": no key";
            if (table->vrf_name[0] != 0 && !tree_node_linked(&table->node[0]))
                return who + ": name";
            if ((table->vrf_id != 0) != (tree_node_linked(&table->node[1]) != 0))
                return who + ": id";
            if (wavl_running(&table->idb_tree) == 0)
                return who + ": no tree of interfaces";
            if (table->bvi_db_root == nullptr)
                return who + ": no L2 states";
            if (table->tid_table != nullptr &&
                (table->tid_table->vtable != table ||
                 ip6mc_table_lookup_by_tbl_id(table->tid_table->tid) != table->tid_table)) {
                return who + ": link";
            }
        }
    }
    for (ipv4mc_table_st *table = ip6mc_table_tid_get_first(); table != nullptr;
         table = ip6mc_table_tid_get_next(table->tid)) {
        const std::string who = "TID table " + std::to_string(table->tid);
        if (table->table_type != IPV4MC_TABLE_TID)
            return who + ": type";
        if (table->active != 0 && ip6mc_table_is_valid(table) == 0)
            return who + ": no tries";
        if (table->vtable != nullptr && table->vtable->tid_table != table)
            return who + ": link";
    }
    char why[200];
    uint32_t id = 0;
    ip6mc_shmwin_get_id(&id);
    return shmwin_check_heap(id, why, sizeof(why)) != 0 ? why : "";
}

inline cerrno operate(ipv4mc_action_type action, uint32_t tid, uint32_t vrf_id, const char *name,
                      ipv4mc_table_st **table) {
    return ip6mc_table_operation(action, tid, vrf_id, name, table, 16);
}

inline ipv4mc_table_st *find(uint32_t vrf_id, const char *name) {
    ipv4mc_table_st *table = nullptr;
    return operate(2, 0, vrf_id, name, &table) == 0 ? table : nullptr;
}

// Table calls of the platform since the log was cleared: "action tid vrf_id new", and "!code" where
// one was refused.
inline texts platform_calls() {
    texts all;
    for (uint64_t i = 0; i < sim_log_count(); ++i) {
        const sim_call *call = sim_log_at(i);
        if (call->op == SIM_OP_TABLE) {
            std::string text = std::to_string(call->action) + " " + std::to_string(call->tid) +
                               " " + std::to_string(call->vrf_id) + " " +
                               std::to_string(call->is_new);
            if (call->result != 0)
                text += " !" + std::to_string(call->result);
            all.push_back(text);
        }
    }
    sim_log_clear();
    return all;
}

// An owner on a fresh window. The parameter says whether tables share their tries.
class with_owner : public testing::TestWithParam<int> {
  protected:
    with_owner() {
        sim_reset();
        sim_answer_sw_only_gtrie(1);
        ip6mc_gtrie_set_sharing(GetParam());
        owner = std::make_unique<kit::library>();
        sim_log_on(4096);
        heard.clear();
    }
    ~with_owner() override {
        EXPECT_EQ(faults(), "");
        owner.reset();
        ip6mc_gtrie_set_sharing(0);
    }
    texts events() { return heard.lines(IPV4_DEBUG_EV); }

    kit::run_dir dir;
    kit::listener heard;
    std::unique_ptr<kit::library> owner;
};

inline std::string sharing_name(const testing::TestParamInfo<int> &info) {
    return info.param != 0 ? "SharedTries" : "OwnTries";
}

}  // namespace tables

#define FOR_BOTH_KINDS_OF_TRIES(fixture) \
    INSTANTIATE_TEST_SUITE_P(, fixture, testing::Values(0, 1), tables::sharing_name)

#endif
