#include "tests/lib/ipv4_mcast_idb/fixture.h"

namespace idb_test {
namespace {

// Every entry point that asks for readiness, with arguments that would do.
std::vector<cerrno> call_everything(ipv4mc_idb_st *idb, ipv4mc_route_entry_st *route,
                                    ipv4mc_intf_entry_st *entry) {
    ipv4mc_idb_st *other = nullptr;
    ipv4mc_idb_st *held = idb;
    uint32_t word = 0;
    cerrno rc = 0;
    const auto idb_fn = [](ipv4mc_idb_st *, void *) { return cerrno{0}; };
    const auto route_fn = [](ipv4mc_idb_st *, ipv4mc_route_entry_st *, ipv4mc_intf_entry_st *,
                             void *) { return cerrno{0}; };
    EXPECT_EQ(ipv4mc_idb_alloc(77, 0, nullptr, &rc, 0), nullptr);
    return {rc,
            ip6mc_idb_lookup(5, &other),
            ip6mc_idb_lookup_by_name("x", &other),
            ip6mc_idb_lookup_vrf("x", 5, &other),
            ip6mc_idb_insert_in_name_tree(idb),
            ip6mc_idb_delete_from_name_tree(idb),
            ip6mc_idb_set_name(idb, "x"),
            ip6mc_idb_get_type(idb, &word),
            ip6mc_idb_set_type(idb, 0, 1),
            ip6mc_idb_find_or_create(5, 0, &other, nullptr, 1),
            ip6mc_idb_lock(5, &other, nullptr),
            ip6mc_idb_lock_v2(5, 6, &other, nullptr),
            ip6mc_idb_lock_v3(5, "x", &other, nullptr),
            ip6mc_idb_lock_idb(&held),
            ip6mc_idb_unlock(&held),
            ipv4mc_idb_save_unlock(&held, 1),
            ip6mc_idb_delete_all(0),
            ip6mc_idb_route_add(&other, route, &entry),
            ip6mc_idb_route_add_idb(idb, route, &entry),
            ip6mc_idb_route_remove(route, &entry),
            ip6mc_idb_route_remove_idb(&held, route, &entry),
            ip6mc_idb_walk(nullptr, idb_fn, nullptr, 0, 0),
            ip6mc_idb_walk_with_count(nullptr, 0, 0, idb_fn, nullptr, 0, 0),
            ip6mc_idb_route_walk(idb, route_fn, 0, nullptr, 0),
            ip6mc_idb_route_walk_with_count(nullptr, nullptr, 0, 0, idb, route_fn, 0, nullptr, 0)};
}

using IdbReadiness = Idb;

TEST_F(IdbReadiness, IsRequiredOfTheLibraryAndOfTheInterfaceHalf) {
    ipv4mc_idb_st *idb = locked(10);
    ipv4mc_route_entry_st *route = make_route(1, 2);
    ipv4mc_intf_entry_st *entry = make_entry(route, 10);
    const uint32_t records = live_idbs();

    for (const bool library : {true, false}) {
        heard_.errors();
        uint32_t &state = library ? ipv4mc_desc->state : ipv4mc_desc->idb_state;
        for (const uint32_t not_ready : {0U, 1U}) {
            state = not_ready;
            for (const cerrno rc : call_everything(idb, route, entry)) {
                EXPECT_EQ(rc, 9U);
            }
        }
        state = 2;
        const auto errors = heard_.errors();
        EXPECT_TRUE(contains(
            errors, library ? "Multicast library Not ready\n" : "IDB library NOT ready\n"));
        EXPECT_FALSE(contains(
            errors, library ? "IDB library NOT ready\n" : "Multicast library Not ready\n"));
    }
    EXPECT_EQ(live_idbs(), records);
    EXPECT_EQ(idb->refcount, 1U);
    EXPECT_EQ(entry->on_idb_list, 0);
}

}  // namespace
}  // namespace idb_test
