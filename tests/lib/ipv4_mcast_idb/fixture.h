// An owner with the interface half ready, an interface manager filled by calls, and what tests of
// interfaces look at.
#ifndef MFWD6_TESTS_LIB_IDB_FIXTURE_H
#define MFWD6_TESTS_LIB_IDB_FIXTURE_H

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "ipv4/multicast/lib/ip6mc_idb.h"
#include "ipv4/multicast/lib/ip6mc_route.h"
#include "ipv4/multicast/lib/ip6mc_table.h"
#include "platforms/sim/sim.h"
#include "services/diag/debug.h"
#include "services/diag/errors.h"
#include "services/imc/imc.h"
#include "services/imc/table.h"
#include "services/journal/list.h"
#include "services/platform_info/platform_info.h"
#include "tests/kit/library.h"
#include "tests/kit/listener.h"
#include "tests/kit/run_dir.h"

namespace idb_test {

inline bool contains(const std::vector<std::string> &texts, const std::string &part) {
    return std::any_of(texts.begin(), texts.end(), [&](const std::string &text) {
        return text.find(part) != std::string::npos;
    });
}

inline ipv4mc_shmwin_hdr_st *header() {
    return ipv4mc_desc->shmwin_info;
}

inline ipv4mc_idb_st *found(ifhtype ifh) {
    ipv4mc_idb_st *idb = nullptr;
    EXPECT_EQ(ip6mc_idb_lookup(ifh, &idb), 0U);
    return idb;
}

inline ipv4mc_idb_st *locked(ifhtype ifh) {
    ipv4mc_idb_st *idb = nullptr;
    EXPECT_EQ(ip6mc_idb_lock(ifh, &idb, nullptr), 0U);
    return idb;
}

inline uint32_t live_idbs() {
    return header()->alloc_count[IPMC_SHMWIN_ALLOC_IDB];
}

inline uint32_t in_tree(uint32_t thread) {
    return wavl_count(&header()->idb_tree, thread);
}

// What must hold of the trees and of all lists, between any two operations.
inline void expect_whole() {
    for (uint32_t thread : {IPV4MC_IDB_THREAD_GLOBAL, IPV4MC_IDB_THREAD_NAME}) {
        uint64_t count = 0;
        EXPECT_EQ(shm_wavl_verify(&ipmc_idb_fns, &header()->idb_tree, thread, &count), 0U);
        EXPECT_EQ(count, in_tree(thread));
    }
    const auto check = [](void *node, void *) {
        auto *idb = static_cast<ipv4mc_idb_st *>(ipmc_idb_wavl2idb(node));
        using routes =
            mfwd6::journal::member_list<ipv4mc_intf_entry_st, &ipv4mc_intf_entry_st::idb_next,
                                        &ipv4mc_intf_entry_st::idb_prev>;
        size_t count = 0;
        EXPECT_EQ(routes(idb->route_list).check(100000, &count), mfwd6::journal::list_fault::none);
        EXPECT_EQ(count, idb->route_count) << idb->name;
        for (auto *entry = idb->route_list; entry != nullptr; entry = entry->idb_next) {
            EXPECT_EQ(entry->on_idb_list, 1);
        }
        EXPECT_GE(idb->refcount, idb->route_count) << idb->name;
        EXPECT_EQ((idb->tree_flags & IPV4MC_IDB_TREE_NAME) != 0,
                  tree_node_linked(&idb->node[IPV4MC_IDB_THREAD_NAME]) != 0)
            << idb->name;
        return 1;
    };
    wavl_walk(&header()->idb_tree, IPV4MC_IDB_THREAD_GLOBAL, check, nullptr);
}

// Calls of the seam for interfaces, in order.
inline std::vector<uint32_t> idb_calls() {
    std::vector<uint32_t> actions;
    for (uint64_t n = 0; n < sim_log_count(); ++n) {
        if (sim_log_at(n)->op == SIM_OP_IDB) {
            actions.push_back(sim_log_at(n)->action);
        }
    }
    return actions;
}

inline ip_maddr_st address(uint8_t last) {
    ip_maddr_st result{};
    result.bytes[0] = 0xff;
    result.bytes[1] = 0x3e;
    result.bytes[15] = last;
    return result;
}

// A route and entries on it as other rooms of the library make them.
inline ipv4mc_route_entry_st *make_route(uint8_t source, uint8_t group) {
    auto *route = static_cast<ipv4mc_route_entry_st *>(
        ipv4mc_shmwin_malloc_inline(sizeof(ipv4mc_route_entry_st), IPMC_SHMWIN_ALLOC_ROUTE));
    route->source = address(source);
    route->group = address(group);
    route->pfx_len = IPV4MC_ROUTE_PFX_LEN_SG;
    return route;
}

inline ipv4mc_intf_entry_st *make_entry(ipv4mc_route_entry_st *route, ifhtype ifh) {
    auto *entry = static_cast<ipv4mc_intf_entry_st *>(
        ipv4mc_shmwin_malloc_inline(sizeof(ipv4mc_intf_entry_st), IPMC_SHMWIN_ALLOC_INTF));
    entry->ifh = ifh;
    entry->key_ifh = ifh;
    entry->route = route;
    return entry;
}

inline ipv4mc_table_st *make_table(uint32_t tid, uint32_t vrf_id, const char *name) {
    ipv4mc_table_st *table = nullptr;
    EXPECT_EQ(ip6mc_table_operation(IPV4MC_ACTION_ACTIVATE, tid, vrf_id, name, &table, 16), 0U);
    return table;
}

struct manager {
    manager() { EXPECT_EQ(imc_table_open(&context), 0U); }
    ~manager() { imc_context_close(context); }
    void add(ifhtype ifh, const char *name, uint16_t type, ifhtype parent = 0) const {
        EXPECT_EQ(imc_table_add(context, ifh, name, type, parent), 0U);
    }
    imc_context_t *context = nullptr;
};

inline kit::start with_manager(const manager &im) {
    kit::start how;
    how.im_context = im.context;
    return how;
}

class Idb : public testing::Test {
  protected:
    Idb() {
        platform_info_t info;
        platform_info_defaults(&info);
        platform_info_set(&info);
        platform_ifhandle_forget(0);
        sim_reset();
        sim_log_on(1000);
        start_idbs();
    }

    ~Idb() override {
        ip6mc_idb_terminate(0, 0);
        ip6mc_idb_terminate(0, 0);
        sim_reset();
    }

    static void start_idbs() {
        ASSERT_EQ(ip6mc_idb_init(nullptr, nullptr, 0, nullptr, nullptr, nullptr, nullptr), 0U);
    }

    kit::run_dir dir_;
    kit::listener heard_;
    manager im_;
    kit::library owner_{with_manager(im_)};
};

}  // namespace idb_test

#endif
