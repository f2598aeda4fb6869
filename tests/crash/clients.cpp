#include "tests/crash/clients.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "ipv4/multicast/lib/ip6mc_signal.h"
#include "services/diag/text.h"
#include "services/window/epochs.h"
#include "tests/kit/library.h"

namespace crash {
namespace {

constexpr uint32_t most_leaves = 100'000;

bool covers(const ipv4mc_route_entry_st *route, const route_key &k) {
    if (route->pfx_len == IPV4MC_ROUTE_PFX_LEN_SG) {
        return std::memcmp(&route->group, &k.group, sizeof(k.group)) == 0 &&
               std::memcmp(&route->source, &k.source, sizeof(k.source)) == 0;
    }
    return inet6_compare_masked(&route->group, &k.group, route->pfx_len) == 0;
}

// A table may be deleted and made again, with its id, while a lookup in it is under way: where tables
// share a trie, the routes that it finds are those of the new one.
bool belongs(const ipv4mc_route_entry_st *route, ipv4mc_table_st *table) {
    return route->table == table ||
           (route->table->tid == table->tid && ip6mc_table_is_valid(table) == 0);
}

// A reader that the owner waits for before it uses freed memory again.
class announced {
  public:
    announced() {
        const cerrno rc = shmwin_reader_enter(ipv4mc_desc->shmwin_id, &reader_);
        if (rc != 0) {
            give_up("a client could not announce itself: " + std::to_string(rc));
        }
    }
    ~announced() { shmwin_reader_leave(ipv4mc_desc->shmwin_id, reader_); }
    announced(const announced &) = delete;
    announced &operator=(const announced &) = delete;

    void pass() const { shmwin_reader_quiescent(ipv4mc_desc->shmwin_id, reader_); }

  private:
    uint32_t reader_ = 0;
};

kit::start attached() {
    kit::start how;
    how.attach_only = 1;
    how.with_callback = false;
    return how;
}

int look_up(generator &random, ipv4mc_table_st *table) {
    const route_key k = key_of(static_cast<uint32_t>(random() % 24));
    const ifhtype ifh = ifh_of(static_cast<uint32_t>(random() % interfaces));
    ipv4mc_route_entry_st *route = nullptr;
    ipv4mc_intf_entry_st *intf = nullptr;
    const cerrno rc = ip6mc_lookup(table, &k.source, &k.group, ifh, &route, &intf);
    // Its table was deleted under it: the trie is closed.
    if (rc == EFAULT || rc == EINVAL) {
        return 0;
    }
    if (rc != 0 && rc != ENOENT) {
        fail("a reader's lookup gave " + std::to_string(rc));
        return 21;
    }
    if (rc == 0 && (!belongs(route, table) || !covers(route, k))) {
        fail(std::string("a reader's lookup found a route ") +
             (covers(route, k) ? "of another table" : "that does not cover the packet"));
        return 22;
    }
    if (intf != nullptr && intf->key_ifh != ifh) {
        fail("a reader's lookup found another interface");
        return 23;
    }
    return 0;
}

int walk(ipv4mc_table_st *table) {
    const ip_maddr_st any{};
    uint32_t seen = 0;
    for (ipv4mc_route_entry_st *route = ip6mc_route_first_key(table, &any, &any, 0);
         route != nullptr; route = ip6mc_route_next(table, route)) {
        if (route->table != table || ++seen > most_leaves) {
            fail("a reader's walk left its table, or has no end");
            return 24;
        }
        uint32_t entries = 0;
        for (const ipv4mc_intf_entry_st *entry = ip6mc_get_first_intf(route, MRIB_INTF_ANY);
             entry != nullptr;
             entry = ip6mc_get_next_intf(route, const_cast<ipv4mc_intf_entry_st *>(entry),
                                         MRIB_INTF_ANY)) {
            if (++entries > 1000) {
                fail("a reader's walk over interfaces has no end");
                return 25;
            }
        }
    }
    return 0;
}

}  // namespace

int read_routes(const setting &, uint64_t seed) {
    const kit::library client(attached());
    const announced reader;
    generator random(seed);
    int wrong = 0;
    for (uint64_t round = 0; shared().stop.load() == 0 && wrong == 0; ++round) {
        ipv4mc_table_st *table = find_table(static_cast<uint32_t>(random() % tables));
        // A table may be deleted meanwhile: its tries are looked at only while it has them.
        if (table != nullptr && ip6mc_table_is_valid(table) != 0) {
            wrong = round % 64 == 0 ? walk(table) : look_up(random, table);
            ++shared().lookups;
        }
        reader.pass();
        if (round % 32 == 0) {
            usleep(500);
        }
    }
    return wrong;
}

int post_signals(const setting &, uint64_t seed, const std::function<void()> &before,
                 const std::function<void()> &inside) {
    const kit::library client(attached());
    // It holds pointers to tables, which the owner may delete.
    const announced reader;
    generator random(seed);
    while (shared().stop.load() == 0) {
        reader.pass();
        if (shared().hush.load() != 0) {
            usleep(200);
            continue;
        }
        ipv4mc_table_st *table = find_table(static_cast<uint32_t>(random() % tables));
        if (table == nullptr || ip6mc_table_is_valid(table) == 0) {
            usleep(500);
            continue;
        }
        const route_key k = signal_key_of(static_cast<uint32_t>(random() % signals));
        const ifhtype ifh = ifh_of(static_cast<uint32_t>(random() % interfaces));
        before();
        switch (random() % 8) {
            case 0:
                ip6mc_signal_remove_mutex(table, &k.source, &k.group, ifh);
                break;
            case 1:
                ip6mc_signal_rpf_alive(table, &k.group, ifh, &k.source);
                break;
            case 2:
                if (ip6mc_shmwin_mutex_lock(__func__, __LINE__) == 0) {
                    ipv4mc_route_entry_st *route = nullptr;
                    ip6mc_signal_add(table, &k.source, &k.group, ifh, &route);
                    inside();
                    ip6mc_shmwin_mutex_unlock();
                }
                break;
            default: {
                ipv4mc_route_entry_st *route = nullptr;
                ip6mc_signal_add_mutex(table, &k.source, &k.group, ifh, &route, nullptr, nullptr);
            }
        }
        ++shared().posts;
        usleep(static_cast<useconds_t>(random() % 300));
    }
    return 0;
}

}  // namespace crash
