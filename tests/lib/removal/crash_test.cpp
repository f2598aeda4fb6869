// The owner is killed at every journaled store of what takes routes and interfaces apart. The next
// owner finds every list, tree and count whole and repeats the operation to its end; when all
// routes have gone, no block is left.
//
// MFWD6_CRASH_STEP=1 in the environment kills at every point; otherwise long operations are
// sampled.
#include "tests/kit/crash.h"

#include <sys/mman.h>
#include <sys/stat.h>

#include <cstdlib>
#include <functional>

#include "services/events/event_manager.h"
#include "services/objid/obj_id.h"
#include "tests/kit/window_check.h"
#include "tests/lib/removal/rig.h"
#include "tests/lib/removal/whole.h"

using namespace bed;

namespace {

constexpr uint32_t red_tid = 0xe0000005;
constexpr uint32_t blue_tid = 0xe0000006;
constexpr uint32_t encap_id = 7;
constexpr uint32_t empty_encap_id = 8;
constexpr uint64_t IA = MRIB_ROUTE_IA;
constexpr uint64_t IF = MRIB_ROUTE_IF;
constexpr uint64_t core_bits = MRIB_ROUTE_TID_DEMAND;

// What the processes of one kill share, beside the window.
struct scene {
    uint32_t blocks[IPMC_SHMWIN_ALLOC_TYPES];  // before there were routes
};

ipv4mc_table_st *table(uint32_t tid) {
    return ip6mc_table_lookup_by_tbl_id(tid);
}
ipv4mc_table_st *red() {
    return table(red_tid);
}
ipv4mc_table_st *core() {
    return table(kit::default_tid);
}
key victim_key() {
    return star_g("ff3e::1");
}
key core_key(uint32_t n) {
    return {address("2001:db8:c0::1"), numbered("ff3e:c0::", n), 256};
}
ipv4mc_route_entry_st *victim() {
    return find(red(), victim_key());
}

void start(const std::string &hardware) {
    platform_info_t info{};
    platform_info_defaults(&info);
    info.router_type = PLATFORM_ROUTER_TYPE_ASYNC_A;
    platform_info_set(&info);
    if (sim_hardware_open(hardware.c_str()) != 0)
        throw std::runtime_error("hardware");
    if (kit::start_library() != 0)
        throw std::runtime_error("start");
    event_manager_t *manager = nullptr;
    event_manager_create(&manager);
    ipmc_platform_err_handler_init(manager);
    start_interfaces();
}

void add_interface(ipv4mc_route_entry_st *route, const intf_key &k, uint64_t attributes) {
    join(route, k, attributes);
    if ((attributes & MRIB_INTF_EG) != 0) {
        ++route->intf_local_EG_cnt;
        ++route->table->route_counters.local_eg_cnt;
    }
    if ((attributes & MRIB_INTF_COUNTED) != 0)
        ++route->counted_intf_cnt;
    if ((attributes & MRIB_INTF_MI) != 0)
        ++route->mi_cnt;
    if ((attributes & MRIB_INTF_TMI) != 0)
        ++route->tmi_cnt;
}

void link_encap(ipv4mc_route_entry_st *route, uint32_t id = encap_id) {
    ipv4mc_route_update_st upd{};
    upd.encap_id = id;
    ip6mc_route_update(route, IPV4MC_ROUTE_UPDATE_ENCAP, &upd);
}

// Between two others on every list that a route can stand on.
void enlist(ipv4mc_route_entry_st *a, ipv4mc_route_entry_st *b, ipv4mc_route_entry_st *c) {
    using R = ipv4mc_route_entry_st;
    const auto put = [&](ipmc_route_lists which, auto next, auto prev) {
        rig::header()->route_list_heads[which] = a;
        a->*next = b;
        b->*prev = a;
        b->*next = c;
        c->*prev = b;
    };
    put(IPMC_ROUTE_LIST_MDT_CAND, &R::mdt_cand_next, &R::mdt_cand_prev);
    put(IPMC_ROUTE_LIST_MT_UPD, &R::mt_upd_next, &R::mt_upd_prev);
    put(IPMC_ROUTE_LIST_AMT_UPD, &R::amt_upd_next, &R::amt_upd_prev);
    put(IPMC_ROUTE_LIST_MOFRR_UPD, &R::mofrr_upd_next, &R::mofrr_upd_prev);
    for (R *route : {a, b, c}) {
        route->mdt_candidate = 1;
        route->attributes |= MRIB_ROUTE_MT | MRIB_ROUTE_MOFRR_UPD;
    }
}

// A window in which everything that a route can be tied to exists, and one route, (*, ff3e::1),
// that is tied to all of it.
void prepare(scene *shared) {
    rig::make_default_table();
    make_table(red_tid, 0x60000005, "red");
    make_table(blue_tid, 0x60000006, "blue");
    rig::make_encap(encap_id, IPV4MC_ENCAP_LKP_ON_FIRST);
    rig::make_encap(empty_encap_id, IPV4MC_ENCAP_LKP_ON_FIRST);
    auto *transport = rig::make_transport();
    auto *other_transport = rig::make_transport();
    const auto blocks = kit::live_blocks();
    std::copy(blocks.begin(), blocks.end(), shared->blocks);

    auto *grand = add(red(), star_g("ff3e::", 32), IF);
    auto *route = add(red(), victim_key(), IF | MRIB_ROUTE_ENCAP);
    for (uint32_t n = 1; n <= 2; ++n)
        add(red(), {address("2001:db8::1"), numbered("ff3e::", n), 256}, IA);
    auto *before = add(red(), sg(21));
    auto *behind = add(red(), sg(22));
    for (uint32_t n = 1; n <= 3; ++n) {
        auto *fed = add(core(), core_key(n), core_bits);
        ip6mc_route_link_route_to_vrf(fed, IPV4MC_VRF_LOCAL, red_tid, "core");
        ip6mc_route_link_route_to_vrf(fed, IPV4MC_VRF_REMOTE, blue_tid, "core");
    }
    add_interface(route, {0, 1, 0, 0}, MRIB_INTF_EG | MRIB_INTF_COUNTED);
    add_interface(route, {0, 2, 0, 0}, MRIB_INTF_EG | MRIB_INTF_TMI);
    add_interface(route, {0, 3, 0, 0}, MRIB_INTF_MI | MRIB_INTF_COUNTED);
    add_interface(route, {IPV4MC_INTF_AMT, 3, 0x01020304, 9}, 0);
    add_interface(grand, {0, 1, 0, 0}, 0);
    add_interface(add(table(blue_tid), sg(31)), {0, 3, 0, 0}, MRIB_INTF_EG);
    ip6mc_tbl_update_memd_routes(red(), 1);
    ip6mc_route_encap_ole_link(route->intf_list);
    rig::tie(ip6mc_intf_route_lookup(route, 0, 1, 0, 0), transport);
    rig::tie(ip6mc_intf_route_lookup(route, 0, 2, 0, 0), transport);
    rig::tie(ip6mc_intf_route_lookup(route, 0, 3, 0, 0), other_transport);
    for (auto *neighbour : {before, behind}) {
        add_interface(neighbour, {0, 2, 0, 0}, 0);
        rig::tie(neighbour->intf_list, other_transport);
    }
    enlist(before, route, behind);
    link_encap(before);
    link_encap(route);
    int is_new = 0;
    operate(IPV4MC_ACTION_RATE_ENABLE, red(), victim_key(), &route, &is_new);
    route->rate_per_route = 1;
    route->extranet_table_id = blue_tid;
    table(blue_tid)->child_route_count = 1;
    route->t_bit = 1;
    ipmc_platform_err_handler_async_route_err(before);
    ipmc_platform_err_handler_async_route_err(route);
    sim_clear_faults();
}

// ---- the operations, as a client that may have done a part of them before would call them

void delete_route(ipv4mc_table_st *of, const key &k, uint64_t without = 0) {
    ipv4mc_route_entry_st *route = find(of, k);
    if (route == nullptr)
        return;
    const uint64_t old = route->attributes | without;
    route->attributes &= ~without;
    rig::erase(of, route, old);
}

void delete_everything() {
    uint32_t spared = 0;
    for (const uint32_t tid : {red_tid, blue_tid, kit::default_tid}) {
        if (table(tid) != nullptr)
            ip6mc_route_delete_all(table(tid), 2, 0, 0, &spared);
    }
}

void update(ipv4mc_route_update_type type, const ipv4mc_route_update_st &upd) {
    ip6mc_route_update(victim(), type, &upd);
}

// By all the keys that are left, as a client that starts anew would.
void end_table(ipv4mc_action_type action) {
    ipv4mc_table_st *tid = red();
    ipv4mc_table_st *vrf = nullptr;
    ip6mc_table_operation(IPV4MC_ACTION_TABLE_LOOKUP, 0, 0, "red", &vrf, 0);
    ipv4mc_table_st *given = vrf != nullptr ? vrf : tid;
    if (given == nullptr)
        return;
    ip6mc_table_operation(action, tid != nullptr ? red_tid : 0, vrf != nullptr ? 0x60000005 : 0,
                          vrf != nullptr ? "red" : "", &given, 4);
}

ipv4mc_encap_entry_st *encap(uint32_t id) {
    ipv4mc_encap_entry_st *found = nullptr;
    ip6mc_encapid_lookup(id, &found);
    return found;
}

struct operation {
    const char *name;
    std::function<void()> work;
    std::function<const char *()> check = [] { return ""; };  // what is wrong behind it
};

const char *unless_emptied(const ipv4mc_route_entry_st *route) {
    if (route->intf_list != nullptr || route->counted_intf_cnt != 0 || route->mi_cnt != 0 ||
        route->tmi_cnt != 0 || route->intf_local_EG_cnt != 0)
        return "a cleared route with interfaces or counts of them";
    if (route->encap != nullptr || route->mdt_candidate != 0 || route->err != 0)
        return "a cleared route with links";
    return "";
}

const operation operations[] = {
    {"delete", [] { delete_route(red(), victim_key()); }},
    {"delete, with the children turned away", [] { delete_route(red(), victim_key(), IF); }},
    {"delete of a core route", [] { delete_route(core(), core_key(2)); }},
    {"clear", [] { rig::clear(red(), victim()); }, [] { return unless_emptied(victim()); }},
    {"clear of a core route", [] { rig::clear(core(), find(core(), core_key(2))); },
     [] { return unless_emptied(find(core(), core_key(2))); }},
    {"delete of an interface",
     [] {
         auto *route = victim();
         ipv4mc_intf_entry_st *entry = ip6mc_intf_route_lookup(route, 1, 3, 0x01020304, 9);
         if (entry != nullptr)
             intf_operate(IPV4MC_ACTION_DELETE, route, {1, 3, 0x01020304, 9}, &entry, 0);
     }},
    {"an encap that goes", [] { update(IPV4MC_ROUTE_UPDATE_ENCAP, {}); },
     [] { return encap(encap_id)->ip_lkp == 0 ? "" : "an encap that still looks up"; }},
    {"an encap that comes", [] { link_encap(find(table(blue_tid), sg(31)), empty_encap_id); }},
    {"links of a core route",
     [] {
         auto *route = find(core(), core_key(1));
         for (const uint32_t index : {0U, 1U})
             ip6mc_route_unlink_route_from_vrf(route, index, "core");
         ip6mc_route_link_route_to_vrf(route, IPV4MC_VRF_LOCAL, red_tid, "core");
     }},
    {"changed routes",
     [] {
         for (auto *route : {victim(), find(red(), sg(22)), find(red(), sg(21))})
             ip6mc_mark_route_changed(route);
         for (auto *route : {find(red(), sg(22)), victim(), find(red(), sg(21))})
             ipv4mc_changelist_remove_route(route);
     }},
    {"bulk delete",
     [] {
         uint32_t spared = 0;
         ip6mc_route_delete_all(red(), 2, 0, 0, &spared);
     }},
    {"clear of a table", [] { end_table(IPV4MC_ACTION_CLEAR); }},
    {"clear of all tables", [] { ip6mc_table_clear_all(4); }},
    {"delete of a table", [] { end_table(IPV4MC_ACTION_DELETE); }},
    {"delete of all tables", [] { ip6mc_table_delete_all(4); }},
};

class RemovalCrash : public testing::TestWithParam<int> {
  protected:
    RemovalCrash()
        : shared(static_cast<scene *>(mmap(nullptr, sizeof(scene), PROT_READ | PROT_WRITE,
                                           MAP_SHARED | MAP_ANONYMOUS, -1, 0))) {
        ip6mc_gtrie_set_sharing(GetParam());
    }
    ~RemovalCrash() override {
        ip6mc_gtrie_set_sharing(0);
        munmap(shared, sizeof(scene));
    }
    scene *shared;
};

std::string wrong_now(const char *when) {
    const std::string wrong =
        whole::faults({red_tid, blue_tid, kit::default_tid}, {1, 2, 3}, {encap_id, empty_encap_id});
    return wrong.empty() ? "" : std::string(when) + ": " + wrong;
}

std::string blocks_left(const scene &shared) {
    const auto now = kit::live_blocks();
    for (uint32_t type = 0; type < IPMC_SHMWIN_ALLOC_TYPES; ++type) {
        // The dead owner's key for searches of tables; an index and tables of ids keep their size.
        const uint32_t may_stay = type == IPMC_SHMWIN_ALLOC_AVL ? 1 : 0;
        if (type == IPMC_SHMWIN_ALLOC_GTRIE_INDEX || type == IPMC_SHMWIN_ALLOC_OBJ_ID)
            continue;
        if (now[type] > shared.blocks[type] + may_stay) {
            return "type " + std::to_string(type) + ": " + std::to_string(shared.blocks[type]) +
                   " blocks before, " + std::to_string(now[type]) + " now";
        }
    }
    return "";
}

// What the next owner finds, and what is left when it has repeated the operation and emptied all.
std::string take_over(const operation &op, const scene &shared) {
    std::string wrong = wrong_now("found");
    if (wrong.empty()) {
        op.work();
        wrong = wrong_now("repeated");
    }
    if (wrong.empty())
        wrong = op.check();
    if (wrong.empty()) {
        delete_everything();
        wrong = wrong_now("emptied");
    }
    return wrong.empty() ? blocks_left(shared) : wrong;
}

uint64_t step_from(uint64_t point) {
    static const char *const given = getenv("MFWD6_CRASH_STEP");
    if (given != nullptr)
        return strtoull(given, nullptr, 10);
    return point < 60 ? 3 : point < 300 ? 19 : 89;
}

}  // namespace

TEST_P(RemovalCrash, TheNextOwnerFindsAWholeWindowAndRepeats) {
    const char *only = getenv("MFWD6_CRASH_ONLY");
    for (const operation &op : operations) {
        if (only != nullptr && std::string(only) != op.name)
            continue;
        uint64_t killed = 0;
        // Not at the same points for each operation.
        for (uint64_t point = 1 + static_cast<uint64_t>(&op - operations) % step_from(1);;
             point += step_from(point)) {
            kit::run_dir dir;
            const std::string hardware = dir.path() + "/hardware";
            mkdir(hardware.c_str(), 0700);
            int code = 0;
            const bool died = kit::killed_at(
                point, [&] { start(hardware), prepare(shared); },
                [&] {
                    op.work();
                    return 0;
                },
                &code);
            ASSERT_TRUE(died || code == 0) << op.name << ": " << code;
            kit::child next([&](const kit::post &) {
                start(hardware);
                const std::string wrong = take_over(op, *shared);
                if (!wrong.empty()) {
                    fprintf(stderr, "%s, killed at point %lu: %s\n", op.name, point, wrong.c_str());
                    return 1;
                }
                return 0;
            });
            ASSERT_EQ(next.wait(), 0) << op.name << ", point " << point;
            if (!died)
                break;
            ++killed;
        }
        EXPECT_GT(killed, 2U) << op.name;
        printf("%s: killed at %lu points\n", op.name, killed);
    }
}

INSTANTIATE_TEST_SUITE_P(Tries, RemovalCrash, testing::Values(0, 1));
