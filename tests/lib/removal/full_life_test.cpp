// Routes and interfaces come, change, empty and go in several tables while the owner is killed at
// random points and started again, and readers in other processes look on.
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <random>

#include "services/diag/text.h"
#include "services/window/epochs.h"
#include "services/window/inspect.h"
#include "tests/kit/child.h"
#include "tests/lib/removal/rig.h"

using namespace bed;

namespace {

constexpr uint32_t tables = 3;
constexpr uint32_t groups = 40;
constexpr ifhtype interfaces = 6;
constexpr uint32_t tid_of(uint32_t n) {
    return 0xe0000010 + n;
}

constexpr uint64_t all_steps = 10'000;

// What an owner is in the middle of, as far as its death then may lose blocks.
enum phase : uint32_t { nothing, creating_route, creating_interface, phases };

struct shared {
    std::atomic<uint32_t> stop;
    std::atomic<uint32_t> phase;
    std::atomic<uint64_t> steps;  // of all owners
    uint32_t at_start[IPMC_SHMWIN_ALLOC_TYPES];
    uint32_t at_end[IPMC_SHMWIN_ALLOC_TYPES];
};

// Freed blocks wait for the readers; without room the block is ended at once only when nobody
// reads.
void defer(void *block, int) {
    while (shmwin_defer(ipv4mc_desc->shmwin_id, block) != 0) {
        shmwin_reclaim(ipv4mc_desc->shmwin_id, 0, nullptr, nullptr, nullptr);
    }
}

void reclaim() {
    shmwin_reclaim(ipv4mc_desc->shmwin_id, 0, nullptr, nullptr, nullptr);
}

struct owner {
    explicit owner(const char *hardware) {
        sim_reset();
        if (sim_hardware_open(hardware) != 0)
            throw std::runtime_error("hardware");
        kit::start how;
        how.free_hook = defer;
        library = std::make_unique<kit::library>(how);
        ip6mc_shmwin_buffer_status(0);
        start_interfaces();
        for (uint32_t n = 0; n < tables; ++n)
            table[n] = open_table(n);
    }
    static ipv4mc_table_st *open_table(uint32_t n) {
        ipv4mc_table_st *found = ip6mc_table_lookup_by_tbl_id(tid_of(n));
        const char name[] = {'t', static_cast<char>('0' + n), '\0'};
        return found != nullptr ? found : make_table(tid_of(n), 0x60000010 + n, name);
    }
    std::unique_ptr<kit::library> library;
    ipv4mc_table_st *table[tables];
};

key random_key(std::mt19937 &random) {
    const auto n = static_cast<uint32_t>(random() % groups);
    switch (random() % 4) {
        case 0:
            return {{}, numbered("ff3e::", n), 128};
        case 1:
            return {{}, numbered("ff3e::", n & ~7U), 125};
        default:
            return sg(n);
    }
}

void change_interfaces(std::mt19937 &random, ipv4mc_route_entry_st *route, shared *all) {
    const intf_key k{0, static_cast<ifhtype>(1 + random() % interfaces), 0, 0};
    ipv4mc_intf_entry_st *entry = nullptr;
    const uint32_t outer = all->phase.load();
    all->phase.store(outer != nothing ? outer : creating_interface);
    const cerrno rc = intf_operate(IPV4MC_ACTION_CREATE, route, k, &entry, 1);
    if (rc == 0)
        intf_operate(IPV4MC_ACTION_COMMIT, route, k, &entry, 1);
    all->phase.store(outer);
    if (rc != 0 && random() % 2 == 0) {
        intf_operate(IPV4MC_ACTION_DELETE, route, k, &entry, 0, entry->attributes);
    }
}

void erase_properly(ipv4mc_table_st *table, ipv4mc_route_entry_st *route) {
    const uint64_t old = route->attributes;
    route->attributes &= ~MRIB_ROUTE_IF;
    rig::erase(table, route, old);
}

void step(std::mt19937 &random, const owner &o, shared *all) {
    static const uint64_t words[] = {0, MRIB_ROUTE_IA, MRIB_ROUTE_IF,
                                     MRIB_ROUTE_IA | MRIB_ROUTE_IF};
    ipv4mc_table_st *table = o.table[random() % tables];
    const key k = random_key(random);
    ipv4mc_route_entry_st *route = nullptr;
    int is_new = 0;
    all->phase.store(creating_route);
    operate(IPV4MC_ACTION_CREATE, table, k, &route, &is_new);
    if (is_new != 0) {
        route->attributes = words[random() % 4];
        change_interfaces(random, route, all);
        commit(table, route, 1);
    }
    all->phase.store(nothing);
    if (is_new != 0)
        return;
    const uint64_t old = route->attributes;
    switch (random() % 6) {
        case 0:
        case 1:
            erase_properly(table, route);
            break;
        case 2:
            rig::clear(table, route);
            break;
        case 3:
            route->attributes = words[random() % 4];
            commit(table, route, 0, old);
            break;
        default:
            change_interfaces(random, route, all);
            break;
    }
}

std::string check(const owner &o) {
    uint32_t intfs = 0;
    for (ipv4mc_table_st *table : o.table) {
        if (const char *wrong = ip6mc_gtrie_verify(table->ingress_gtrie))
            return wrong;
        const ip_maddr_st any{};
        for (auto *r = ip6mc_route_first_key(table, &any, &any, 0); r != nullptr;
             r = ip6mc_route_next(table, r)) {
            const std::string wrong = check_interfaces(r);
            if (!wrong.empty())
                return wrong;
            for (auto *entry = r->intf_list; entry != nullptr; entry = entry->next_intf)
                ++intfs;
            // A parent is a route that is there.
            if (r->IF_parent != nullptr) {
                const ipv4mc_route_entry_st *p = r->IF_parent;
                if (find(table, {p->source, p->group, p->pfx_len}) != p)
                    return "a parent that is gone";
            }
        }
    }
    for (ifhtype ifh = 1; ifh <= interfaces; ++ifh) {
        ipv4mc_idb_st *idb = idb_of(ifh);
        if (idb == nullptr)
            continue;
        uint32_t listed = 0;
        for (auto *entry = idb->route_list; entry != nullptr; entry = entry->idb_next)
            ++listed;
        if (listed != idb->route_count)
            return "route_count";
    }
    if (ipmc_shmwin_live_blocks(rig::header(), IPMC_SHMWIN_ALLOC_INTF) < intfs)
        return "count of interface blocks";
    char why[256] = "";
    return shmwin_check_heap(ipv4mc_desc->shmwin_id, why, sizeof(why)) == 0 ? "" : why;
}

// Works on after its first steps, until it is killed.
int run_owner(const kit::post &parent, const char *hardware, uint32_t seed, uint32_t steps,
              shared *all) {
    owner o(hardware);
    const std::string wrong = check(o);
    if (!wrong.empty()) {
        fprintf(stderr, "after the start: %s\n", wrong.c_str());
        return 1;
    }
    parent.tell();
    std::mt19937 random(seed);
    for (uint32_t n = 0;; ++n) {
        if (n == steps) {
            const std::string later = check(o);
            if (!later.empty()) {
                fprintf(stderr, "after %u steps: %s\n", steps, later.c_str());
                return 2;
            }
            parent.tell();
        }
        step(random, o, all);
        all->steps.fetch_add(1);
        if (n % 32 == 0)
            reclaim();
    }
}

bool matches(const ipv4mc_route_entry_st *route, const key &k) {
    if (route->pfx_len == 256) {
        return std::memcmp(&route->group, &k.group, 16) == 0 &&
               std::memcmp(&route->source, &k.source, 16) == 0;
    }
    return inet6_compare_masked(&route->group, &k.group, route->pfx_len) == 0;
}

int look_on(const kit::post &parent, const std::atomic<uint32_t> &stop) {
    kit::start how;
    how.attach_only = 1;
    how.with_callback = false;
    parent.hear();
    const kit::library attached(how);
    uint32_t reader = 0;
    if (shmwin_reader_enter(ipv4mc_desc->shmwin_id, &reader) != 0)
        return 20;
    parent.tell();
    std::mt19937 random(77);
    for (uint64_t round = 0; stop.load() == 0; ++round) {
        ipv4mc_table_st *table =
            ip6mc_table_lookup_by_tbl_id(tid_of(static_cast<uint32_t>(random() % tables)));
        if (table != nullptr) {
            const key k = sg(static_cast<uint32_t>(random() % groups));
            const auto ifh = static_cast<ifhtype>(1 + random() % interfaces);
            ipv4mc_route_entry_st *route = nullptr;
            ipv4mc_intf_entry_st *intf = nullptr;
            const cerrno rc = ip6mc_lookup(table, &k.source, &k.group, ifh, &route, &intf);
            if (rc != 0 && rc != 2)
                return 21;
            if (rc == 0 && (route->table != table || !matches(route, k)))
                return 22;
            if (intf != nullptr && intf->key_ifh != ifh)
                return 23;
            if (round % 64 == 0) {
                const ip_maddr_st any{};
                uint32_t seen = 0;
                for (auto *r = ip6mc_route_first_key(table, &any, &any, 0); r != nullptr;
                     r = ip6mc_route_next(table, r)) {
                    if (r->table != table || ++seen > 100000)
                        return 24;
                }
            }
        }
        shmwin_reader_quiescent(ipv4mc_desc->shmwin_id, reader);
    }
    shmwin_reader_leave(ipv4mc_desc->shmwin_id, reader);
    return 0;
}

// Deletes all routes; the live blocks by type to `counts`.
int empty(const kit::post &, const char *hardware, uint32_t *counts) {
    const owner o(hardware);
    if (!check(o).empty())
        return 3;
    for (ipv4mc_table_st *table : o.table) {
        uint32_t spared = 0;
        if (ip6mc_route_delete_all(table, 16, 0, 0, &spared) != 0)
            return 4;
        if (!check(o).empty())
            return 5;
    }
    reclaim();
    for (uint32_t type = 0; type < IPMC_SHMWIN_ALLOC_TYPES; ++type)
        counts[type] = ipmc_shmwin_live_blocks(rig::header(), type);
    fflush(nullptr);
    kill(getpid(), SIGKILL);  // the window stays
    return 6;
}

constexpr int killed = 128 + SIGKILL;

class FullLife : public testing::TestWithParam<int> {
  protected:
    FullLife()
        : all_(new (mmap(nullptr, sizeof(shared), PROT_READ | PROT_WRITE,
                         MAP_SHARED | MAP_ANONYMOUS, -1, 0)) shared{}) {
        ip6mc_gtrie_set_sharing(GetParam());
        mkdir(hardware_.c_str(), 0700);
    }
    ~FullLife() override {
        ip6mc_gtrie_set_sharing(0);
        munmap(all_, sizeof(shared));
    }
    int end_with(uint32_t *counts) {
        kit::child last(
            [&](const kit::post &parent) { return empty(parent, hardware_.c_str(), counts); });
        return last.wait();
    }

    kit::run_dir dir_;
    std::string hardware_ = dir_.path() + "/hardware";
    shared *all_;
};

}  // namespace

TEST_P(FullLife, SurvivesItsOwnersAndEndsWithWhatItBeganWith) {
    kit::child readers[2] = {
        kit::child([&](const kit::post &up) { return look_on(up, all_->stop); }),
        kit::child([&](const kit::post &up) { return look_on(up, all_->stop); })};
    ASSERT_EQ(end_with(all_->at_start), killed);
    for (const auto &reader : readers) {
        reader.tell();
        ASSERT_EQ(reader.hear(), '.');
    }
    std::mt19937 random(4711);
    constexpr uint32_t steps = 500;
    uint32_t owners = 0;
    uint32_t died_in[phases] = {};
    for (; all_->steps.load() < all_steps; ++owners) {
        const auto seed = static_cast<uint32_t>(random());
        kit::child worker([&](const kit::post &up) {
            return run_owner(up, hardware_.c_str(), seed, steps, all_);
        });
        ASSERT_EQ(worker.hear(), '.') << "owner " << owners;
        if (owners % 4 == 3) {
            ASSERT_EQ(worker.hear(), '.') << "owner " << owners;  // a look behind its first steps
        }
        // The point of death is anywhere: this wait orders nothing.
        usleep(static_cast<useconds_t>(random() % 8000));
        worker.kill();
        ++died_in[all_->phase.exchange(nothing)];
    }
    ASSERT_EQ(end_with(all_->at_end), killed);
    all_->stop.store(1);
    for (auto &reader : readers)
        EXPECT_EQ(reader.wait(), 0);
    for (uint32_t type = 0; type < IPMC_SHMWIN_ALLOC_TYPES; ++type) {
        const uint32_t now = all_->at_end[type];
        const uint32_t then = all_->at_start[type];
        uint32_t lost = 0;
        switch (type) {
            // A leaf created and not committed, its interface, and an entry that had not joined.
            case IPMC_SHMWIN_ALLOC_ROUTE:
            case IPMC_SHMWIN_ALLOC_IDB:
                lost = died_in[creating_route];
                break;
            case IPMC_SHMWIN_ALLOC_INTF:
                lost = died_in[creating_route] + died_in[creating_interface];
                break;
            // The key of each process that searched tables: owners, readers, the one that counts.
            case IPMC_SHMWIN_ALLOC_AVL:
                lost = owners + 3;
                break;
            case IPMC_SHMWIN_ALLOC_GTRIE_INDEX:  // an index keeps its size
                continue;
            default:
                break;
        }
        EXPECT_GE(now, then) << "type " << type;
        EXPECT_LE(now, then + lost) << "type " << type;
    }
    printf("%lu steps of %u owners, %u killed in a creation\n", all_->steps.load(), owners,
           died_in[creating_route] + died_in[creating_interface]);
}

INSTANTIATE_TEST_SUITE_P(Tries, FullLife, testing::Values(0, 1));
