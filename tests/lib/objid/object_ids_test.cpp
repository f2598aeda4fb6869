#include <algorithm>

#include "ipv4/multicast/lib/ip6mc_objid.h"
#include "services/events/event_manager.h"
#include "tests/kit/child.h"
#include "tests/kit/service_faults.h"
#include "tests/kit/window_check.h"
#include "tests/lib/routes/bed.h"

using namespace bed;

namespace {

constexpr uint64_t none = IPMC_OBJ_ID_NONE;
constexpr uint64_t unspecified = IPMC_OBJ_ID_UNSPECIFIED;

class ObjectIds : public bed::Test {
  protected:
    ObjectIds() {
        switch_ids(10);
        heard.clear();
    }
    ~ObjectIds() override { switch_ids(0); }
    static void switch_ids(uint32_t router_type) {
        platform_info_t info{};
        platform_info_get(&info);
        info.router_type = router_type;
        platform_info_set(&info);
        static event_manager_t *manager = nullptr;
        if (manager == nullptr) {
            event_manager_create(&manager);
        }
        EXPECT_EQ(ipmc_platform_err_handler_init(manager), 0U);
        EXPECT_EQ(ipmc_object_ida_init_domain(), 0U);  // init leaves it alone on the other routers
    }
    // The service reports beside the library.
    std::string last_said() {
        const auto all = errors();
        EXPECT_EQ(all.size(), 2U);
        EXPECT_NE(all.front().find(" Error: "), std::string::npos) << all.front();
        return all.empty() ? "" : all.back();
    }
    std::string said() {
        const auto all = errors();
        EXPECT_EQ(all.size(), 1U);
        return all.empty() ? "" : all[0];
    }
};

}  // namespace

TEST_F(ObjectIds, AreOffWhereErrorsAreNotAsynchronous) {
    switch_ids(0);
    auto *route = create(table, sg(1));
    route->obj_id = 77;
    EXPECT_EQ(ipmc_object_ida_alloc_route(route), 0U);
    EXPECT_EQ(route->obj_id, 77U);
    auto *intf = ipv4mc_create_intf(0x10, 0, 0, 0, 0);
    EXPECT_EQ(ipmc_object_ida_alloc_intf(intf), 0U);
    EXPECT_EQ(intf->obj_id, none);
    ipv4mc_clear_intf(&intf);
}

TEST_F(ObjectIds, NameRoutesAndInterfacesForBothWays) {
    auto *route = add(table, sg(1));
    auto *intf = join(route, {IPV4MC_INTF_ORDINARY, 0x100, 0, 0});
    ASSERT_LT(route->obj_id, none);
    ASSERT_LT(intf->obj_id, none);
    ipv4mc_route_entry_st *found_route = nullptr;
    ipv4mc_intf_entry_st *found_intf = nullptr;
    EXPECT_EQ(ipmc_route_get_from_id(route->obj_id, &found_route), 0U);
    EXPECT_EQ(found_route, route);
    EXPECT_EQ(ip6mc_intf_get_from_id(intf->obj_id, &found_intf), 0U);
    EXPECT_EQ(found_intf, intf);
    heard.clear();
    EXPECT_EQ(ipmc_route_get_from_id(intf->obj_id, &found_route), 22U);
    EXPECT_NE(said().find(" - Object type mismatch 0x"), std::string::npos);
    const uint64_t id = intf->obj_id;
    ASSERT_EQ(
        intf_operate(IPV4MC_ACTION_DELETE, route, {IPV4MC_INTF_ORDINARY, 0x100, 0, 0}, &intf, 0),
        0U);
    heard.clear();
    EXPECT_NE(ip6mc_intf_get_from_id(id, &found_intf), 0U);
}

TEST_F(ObjectIds, AreFreedOnceAndSilentlyTwice) {
    uint64_t id = 0;
    ASSERT_EQ(ipmc_object_ida_alloc(this, IPMC_OBJ_ROUTE, &id), 0U);
    heard.clear();
    char text[64];
    snprintf(text, sizeof(text), "Free ID = 0x%lx", id);
    EXPECT_EQ(ipmc_object_ida_free(&id), 0U);
    EXPECT_EQ(heard.lines(IPV4_DEBUG_DEV), texts{text});
    EXPECT_EQ(id, none);
    EXPECT_EQ(ipmc_object_ida_free(&id), 22U);
    id = unspecified;
    EXPECT_EQ(ipmc_object_ida_free(&id), 22U);
    EXPECT_EQ(id, unspecified);
    EXPECT_EQ(ipmc_object_ida_free(nullptr), 22U);
    EXPECT_TRUE(errors().empty());
}

TEST_F(ObjectIds, BadQuestionsNeverReachTheService) {
    void *object = nullptr;
    uint32_t type = 0;
    EXPECT_EQ(ipmc_object_ida_get_object_from_id(1, nullptr), 22U);
    EXPECT_EQ(said(), "Object pointer is NULL");
    EXPECT_EQ(ipmc_object_ida_get_type_from_id(1, nullptr), 22U);
    EXPECT_EQ(said(), "Object pointer is NULL");
    EXPECT_EQ(ipmc_object_ida_get_object_from_id(none, &object), 22U);
    EXPECT_EQ(said(), "Invalid/Unspecified Object ID = fffffffffffffffe");
    EXPECT_EQ(ipmc_object_ida_get_type_from_id(unspecified, &type), 22U);
    EXPECT_EQ(said(), "Invalid/Unspecified Object ID = ffffffffffffffff");
    EXPECT_EQ(ipmc_obj_get_from_id(none, 1, &object), 22U);
    const auto both = errors();
    ASSERT_EQ(both.size(), 2U);
    EXPECT_NE(both[1].find(" - Failed to determine object type for 0xfffffffffffffffe, rc:"),
              std::string::npos);
}

TEST_F(ObjectIds, BadAllocationsSayWhy) {
    uint64_t id = 5;
    EXPECT_EQ(ipmc_object_ida_alloc(this, 1, nullptr), 22U);
    EXPECT_EQ(said(), "Object ID allocation failed - obj_id is NULL");
    EXPECT_EQ(ipmc_object_ida_alloc(nullptr, 1, &id), 22U);
    EXPECT_EQ(said(), "Object ID allocation failed - Object is NULL");
    EXPECT_EQ(id, unspecified);
    id = 5;
    EXPECT_EQ(ipmc_object_ida_alloc(this, 3, &id), 22U);
    EXPECT_TRUE(said().ends_with(",Object type 3 is invalid"));
    EXPECT_EQ(id, unspecified);
    // A domain that was never built: the caller is not told.
    auto *domain = ipv4mc_desc->shmwin_info->obj_id_domain;
    ipv4mc_desc->shmwin_info->obj_id_domain = nullptr;
    id = 5;
    EXPECT_EQ(ipmc_object_ida_alloc(this, 1, &id), 0U);
    EXPECT_EQ(said(), "Object ID allocation failed get domain error, NULL rc = " +
                          std::string(cerr_strerror(0)));
    EXPECT_EQ(id, unspecified);
    void *object = nullptr;
    EXPECT_EQ(ipmc_object_ida_get_object_from_id(1, &object), 2U);
    EXPECT_EQ(said(), "Object ID allocation failed get domain error, NULL rc = " +
                          std::string(cerr_strerror(0)));
    id = 1;
    EXPECT_EQ(ipmc_object_ida_free(&id), 0U);
    EXPECT_EQ(said(), "Object ID free failed get domain error, Domain NULL rc = " +
                          std::string(cerr_strerror(0)));
    ipv4mc_desc->shmwin_info->obj_id_domain = domain;
}

TEST_F(ObjectIds, AStaleIdFindsNothing) {
    uint64_t id = 0;
    ASSERT_EQ(ipmc_object_ida_alloc(this, IPMC_OBJ_ROUTE, &id), 0U);
    const uint64_t kept = id;
    ipmc_object_ida_free(&id);
    heard.clear();
    void *object = nullptr;
    EXPECT_NE(ipmc_object_ida_get_object_from_id(kept, &object), 0U);
    EXPECT_TRUE(last_said().starts_with("Get Object from ID failed for ID = "));
    uint64_t again = kept;
    EXPECT_NE(ipmc_object_ida_free(&again), 0U);
    EXPECT_EQ(again, kept);
    EXPECT_TRUE(last_said().starts_with("Object ID free failed for ID = "));
}

TEST_F(ObjectIds, AServiceThatRefusesADomainIsToldByNameAndNothingIsBuilt) {
    struct step {
        const char *service;
        const char *said;
    };
    const step steps[] = {
        {"fib_obj_id_domain_params_init", "domain params init failed: rc = "},
        {"fib_obj_id_params_init", "fib_obj_id_params_init failed: rc = "},
        {"fib_obj_id_params_set_dbg_fn", "fib_obj_id_params_set_dbg_fn failed: rc = "},
        {"fib_obj_id_params_set_dbg_err_fn", "fib_obj_id_params_set_dbg_err_fn failed: rc = "},
        {"fib_obj_id_params_set_mem_alloc_fn", "fib_obj_id_params_set_mem_alloc_fn failed: rc = "},
        {"fib_obj_id_params_set_mem_free_fn", "fib_obj_id_params_set_mem_free_fn failed: rc = "},
        {"fib_obj_id_params_set_id_cnt", "fib_obj_id_params_set_id_cnt failed: rc = "},
        {"fib_obj_id_params_set_id_table_size",
         "fib_obj_id_params_set_id_table_size failed: rc = "},
        {"fib_obj_id_params_set_id_instance_cnt",
         "fib_obj_id_params_set_id_instance_cnt failed: rc = "},
        {"fib_obj_id_params_set_id_version_cnt",
         "fib_obj_id_params_set_id_version_cnt failed: rc = "},
        {"fib_obj_id_params_set_id_userdata_cnt",
         "fib_obj_id_params_set_id_userdata_cnt failed: rc = "},
        {"fib_obj_id_domain_init", "fib_obj_id_domain_init failed: rc = "}};
    fib_obj_id_domain_t *&domain = ipv4mc_desc->shmwin_info->obj_id_domain;
    fib_obj_id_domain_t *const built = std::exchange(domain, nullptr);
    const auto blocks = kit::live_blocks();
    for (const step &each : steps) {
        kit::fail_service(each.service, 12);
        EXPECT_EQ(ipmc_object_ida_init_domain(), 12U) << each.service;
        EXPECT_EQ(said(), each.said + std::string(cerr_strerror(12)));
        EXPECT_EQ(domain, nullptr);
        EXPECT_EQ(kit::live_blocks(), blocks);
        kit::heal_services();
    }
    ipv4mc_desc->shmwin_init = 0;
    EXPECT_EQ(ipmc_object_ida_init_domain(), 9U);
    ipv4mc_desc->shmwin_init = 1;
    const auto all = errors();
    EXPECT_EQ(std::count(all.begin(), all.end(),
                         "Can not get shared memory info: rc: " + std::string(cerr_strerror(9))),
              1);
    domain = built;
    EXPECT_EQ(ipmc_object_ida_init_domain(), 0U);
}

TEST_F(ObjectIds, ARouteLivesWithoutAnIdAndAnInterfaceDoesNot) {
    kit::fail_service("fib_obj_id_alloc", 12, 2);
    auto *route = add(table, sg(1));
    ASSERT_NE(route, nullptr);
    EXPECT_EQ(route->obj_id, unspecified);
    heard.clear();
    ipv4mc_intf_entry_st *entry = nullptr;
    EXPECT_EQ(intf_operate(IPV4MC_ACTION_CREATE, route, {0, 0x100, 0, 0}, &entry, 1), 12U);
    EXPECT_EQ(errors().back(), "Failed to assign object id for interface ifhandle: 0x100");
    // It stays with the caller, who may clear it.
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry->obj_id, unspecified);
    EXPECT_EQ(ipv4mc_clear_intf(&entry), 0U);
    const auto all = errors();
    EXPECT_TRUE(std::any_of(all.begin(), all.end(), [](const std::string &text) {
        return text.starts_with("Object_id free failed for 0x100, 0xffffffffffffffff rc = ");
    }));
    kit::heal_services();
    // A route without an id has none to lose.
    int is_new = 0;
    EXPECT_EQ(operate(IPV4MC_ACTION_DELETE, table, sg(1), &route, &is_new), 0U);
    EXPECT_TRUE(errors().empty());
}

TEST_F(ObjectIds, AnIdThatCannotBeGivenBackIsToldAndTheRouteGoes) {
    auto *route = add(table, sg(1));
    kit::fail_service("fib_obj_id_free", 5);
    int is_new = 0;
    forget();
    EXPECT_EQ(operate(IPV4MC_ACTION_DELETE, table, sg(1), &route, &is_new), 0U);
    kit::heal_services();
    EXPECT_EQ(errors().back(),
              "Failed to free Object_ID for Route (2001:db8::1,ff3e::1/256, v:red)");
    EXPECT_EQ(heard.lines(IPV4_DEBUG_OBJ_ID),
              texts{"Freeing for Route (2001:db8::1,ff3e::1/256, v:red)"});
    EXPECT_EQ(find(table, sg(1)), nullptr);
}

TEST_F(ObjectIds, AClearedRouteGetsNoNewOne) {
    auto *route = add(table, sg(1));
    const uint64_t id = route->obj_id;
    ASSERT_LT(id, none);
    int is_new = 0;
    EXPECT_EQ(operate(IPV4MC_ACTION_CLEAR, table, sg(1), &route, &is_new), 0U);
    EXPECT_EQ(route->obj_id, none);
    void *object = nullptr;
    EXPECT_NE(ipmc_object_ida_get_object_from_id(id, &object), 0U);
    forget();
    EXPECT_EQ(commit(table, route, 0), 0U);
    EXPECT_EQ(operate(IPV4MC_ACTION_CREATE, table, sg(1), &route, &is_new), 17U);
    EXPECT_EQ(commit(table, route, is_new), 0U);
    EXPECT_EQ(route->obj_id, none);
    EXPECT_EQ(operate(IPV4MC_ACTION_DELETE, table, sg(1), &route, &is_new), 0U);
    EXPECT_TRUE(errors().empty());
    EXPECT_LT(add(table, sg(1))->obj_id, none);  // only a new leaf does
}

// An owner that was killed: the next one finds the objects by the ids that were given out before.
TEST(ObjectIdsAcrossProcesses, FindTheirObjectsAfterARestart) {
    kit::run_dir dir;
    const auto start = [](event_manager_t **manager) {
        platform_info_t info{};
        platform_info_defaults(&info);
        info.router_type = 16;
        platform_info_set(&info);
        kit::start_library();
        start_interfaces();
        event_manager_create(manager);
        ipmc_platform_err_handler_init(*manager);
    };
    kit::child first([&](const kit::post &parent) {
        event_manager_t *manager = nullptr;
        start(&manager);
        auto *made = make_table(0xe0000005, 0x60000006, "red");
        auto *route = add(made, sg(1));
        join(route, {IPV4MC_INTF_ORDINARY, 0x100, 0, 0});
        mfwd_route_entry_event_add_msg(route, 1);
        parent.tell(route->obj_id < none ? 'y' : 'n');
        parent.hear();
        return 0;
    });
    ASSERT_EQ(first.hear(), 'y');
    first.kill();
    kit::child second([&](const kit::post &) {
        event_manager_t *manager = nullptr;
        start(&manager);
        auto *route = find(ip6mc_table_lookup_by_tbl_id(0xe0000005), sg(1));
        if (route == nullptr)
            return 1;
        if (route->event_history != nullptr)
            return 2;  // memory of a process that is gone
        ipv4mc_route_entry_st *found = nullptr;
        ipv4mc_intf_entry_st *intf = nullptr;
        if (ipmc_route_get_from_id(route->obj_id, &found) != 0 || found != route)
            return 3;
        if (ip6mc_intf_get_from_id(route->intf_list->obj_id, &intf) != 0 ||
            intf != route->intf_list)
            return 4;
        auto *other = add(route->table, sg(2));
        return other->obj_id != route->obj_id && other->obj_id < none ? 0 : 5;
    });
    EXPECT_EQ(second.wait(), 0);
}
