// What the tests of signals share: an owner with a table, addresses, and what was said.
#ifndef MFWD6_TESTS_LIB_SIGNAL_FIXTURE_H
#define MFWD6_TESTS_LIB_SIGNAL_FIXTURE_H

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "ipv4/multicast/lib/ip6mc_idb.h"
#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "ipv4/multicast/lib/ip6mc_signal.h"
#include "ipv4/multicast/lib/ip6mc_table.h"
#include "platforms/sim/sim.h"
#include "services/diag/debug.h"
#include "services/diag/errors.h"
#include "services/journal/journal.h"
#include "tests/kit/library.h"
#include "tests/kit/listener.h"
#include "tests/kit/run_dir.h"
#include "tests/kit/window_check.h"

namespace signals {

using texts = std::vector<std::string>;

constexpr uint32_t tid = 5;
constexpr ifhtype ifh_a = 0x10;
constexpr ifhtype ifh_b = 0x20;
constexpr ifhtype ifh_c = 0x30;
constexpr const char *name_a = "Nf0x00000010";
constexpr const char *name_b = "Nf0x00000020";

// 2001:db8::N and ff0e::N.
inline ip_maddr_st source(uint32_t n) {
    ip_maddr_st a{};
    a.bytes[0] = 0x20;
    a.bytes[1] = 0x01;
    a.bytes[2] = 0x0d;
    a.bytes[3] = 0xb8;
    for (uint32_t i = 0; i < 4; ++i)
        a.bytes[15 - i] = static_cast<uint8_t>(n >> (8 * i));
    return a;
}
inline ip_maddr_st group(uint32_t n) {
    ip_maddr_st a{};
    a.bytes[0] = 0xff;
    a.bytes[1] = 0x0e;
    for (uint32_t i = 0; i < 4; ++i)
        a.bytes[15 - i] = static_cast<uint8_t>(n >> (8 * i));
    return a;
}
constexpr ip_maddr_st any{};

__attribute__((format(printf, 1, 2))) inline std::string text(const char *format, ...) {
    char buffer[1024];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(buffer, sizeof(buffer), format, arguments);
    va_end(arguments);
    return buffer;
}

inline bool has(const texts &all, const std::string &one) {
    return std::find(all.begin(), all.end(), one) != all.end();
}
inline bool has_start(const texts &all, const std::string &one) {
    return std::any_of(all.begin(), all.end(),
                       [&](const std::string &t) { return t.starts_with(one); });
}
inline std::string reason(cerrno rc) {
    return cerr_strerror(rc);
}

inline ipv4mc_table_st *make_table(uint32_t id = tid, const char *name = "red") {
    ipv4mc_table_st *table = nullptr;
    if (ip6mc_table_operation(IPV4MC_ACTION_ACTIVATE, id, 0x60000000 + id, name, &table, 16) != 0) {
        return nullptr;
    }
    return ip6mc_table_lookup_by_tbl_id(id);
}

inline cerrno add(ipv4mc_table_st *table, uint32_t s, uint32_t g, ifhtype ifh,
                  ipv4mc_route_entry_st **route = nullptr, int *is_new = nullptr,
                  int *exists = nullptr) {
    ipv4mc_route_entry_st *ignored = nullptr;
    const ip_maddr_st sa = source(s);
    const ip_maddr_st ga = group(g);
    return ip6mc_signal_add_mutex(table, &sa, &ga, ifh, route != nullptr ? route : &ignored, is_new,
                                  exists);
}

inline cerrno probe(ipv4mc_table_st *table, uint32_t s, uint32_t g, ifhtype ifh) {
    const ip_maddr_st sa = source(s);
    const ip_maddr_st ga = group(g);
    return ip6mc_signal_rpf_alive(table, &ga, ifh, &sa);
}

inline ipv4mc_route_entry_st *route_of(ipv4mc_table_st *table, uint32_t s, uint32_t g) {
    const ip_maddr_st sa = source(s);
    const ip_maddr_st ga = group(g);
    ipv4mc_route_entry_st *route = nullptr;
    EXPECT_EQ(ip6mc_signal_lookup(table, &sa, &ga, 0, &route, nullptr), 0U);
    return route;
}

inline ipv4mc_intf_entry_st *intf_of(ipv4mc_route_entry_st *route, ifhtype ifh) {
    return route == nullptr ? nullptr : ip6mc_intf_route_lookup(route, 0, ifh, 0, 0);
}

inline size_t interfaces(ipv4mc_route_entry_st *route) {
    size_t n = 0;
    for (auto *i = ipv4mc_intf_route_get_first_intf(route); i != nullptr;
         i = ipv4mc_intf_route_get_next_intf(route, i)) {
        ++n;
    }
    return n;
}

inline std::vector<ipv4mc_route_entry_st *> changed() {
    std::vector<ipv4mc_route_entry_st *> all;
    for (auto *r = ipv4mc_desc->shmwin_info->changed_route_head; r != nullptr; r = r->change_next) {
        all.push_back(r);
    }
    EXPECT_EQ(all.size(), ipv4mc_desc->shmwin_info->changed_route_count);
    return all;
}

inline std::array<uint32_t, IPMC_SHMWIN_ALLOC_TYPES> counts() {
    std::array<uint32_t, IPMC_SHMWIN_ALLOC_TYPES> all{};
    for (uint32_t type = 0; type < all.size(); ++type)
        all[type] = ipmc_shmwin_live_blocks(ipv4mc_desc->shmwin_info, type);
    return all;
}

// What is wrong with the window and the table's signals; empty when nothing is.
inline std::string faults(ipv4mc_table_st *table) {
    const char *trie = ip6mc_gtrie_verify(table->signal_gtrie);
    if (trie != nullptr)
        return trie;
    const texts window = kit::window_faults();
    if (!window.empty())
        return window.front();
    uint32_t routes = 0;
    for (auto *r = ip6mc_signal_first_key(table, &any, &any); r != nullptr;
         r = ip6mc_signal_next(table, r)) {
        ++routes;
        if (r->table != table)
            return "table of a route";
        if (interfaces(r) == 0)
            return "route without interface";
        for (auto *i = r->intf_list; i != nullptr; i = i->next_intf) {
            if (i->route != r || intf_of(r, i->ifh) != i)
                return "interface";
            if (i->next_intf != nullptr && i->next_intf->prev_intf != i)
                return "links";
        }
    }
    if (routes != table->signal_route_count) {
        return text("%u routes, counted %u", routes, table->signal_route_count);
    }
    return "";
}

// An owner on a fresh window with one table.
class with_owner : public testing::Test {
  protected:
    with_owner() { start({}); }

    void start(const kit::start &how) {
        owner.reset();
        heard.reset();
        sim_reset();
        owner = std::make_unique<kit::library>(how);
        if (ip6mc_idb_init(nullptr, nullptr, 0, nullptr, nullptr, nullptr, nullptr) != 0) {
            throw std::runtime_error("ip6mc_idb_init");
        }
        heard = std::make_unique<kit::listener>();
        table = make_table();
        if (table == nullptr)
            throw std::runtime_error("no table");
        tag = text("0x%x(%s)", table->tid, table->vrf_name);
        heard->clear();
    }

    texts errors() { return heard->errors(); }
    texts signal_lines() { return heard->lines(IPV4_DEBUG_SIG); }
    texts event_lines() { return heard->lines(IPV4_DEBUG_EV); }

    kit::run_dir dir;
    std::unique_ptr<kit::library> owner;
    std::unique_ptr<kit::listener> heard;
    ipv4mc_table_st *table = nullptr;
    std::string tag;
};

// While it lives, the calling thread holds as many logged locks as a thread can: the window mutex
// answers ENOLCK.
class no_lock {
  public:
    no_lock() {
        mfwd6::journal::format(memory_, sizeof(memory_));
        while (mfwd6::journal::bind_thread(log(), 1))
            ++bound_;
    }
    ~no_lock() { release(); }
    void release() {
        for (; bound_ > 0; --bound_)
            mfwd6::journal::unbind_thread(log());
    }

  private:
    mfwd6::journal::log *log() { return reinterpret_cast<mfwd6::journal::log *>(memory_); }
    alignas(64) char memory_[64 + 16 * 512];
    int bound_ = 0;
};

// Gives the window mutex up as soon as a line that begins so is printed, so that the unlock of the
// function at work fails.
class unlock_at {
  public:
    explicit unlock_at(std::string start) : start_(std::move(start)) {
        ipv4_debug_set_sink(
            [](void *self, uint32_t, const char *, const char *line) {
                auto *me = static_cast<unlock_at *>(self);
                if (std::string(line).starts_with(me->start_) && !me->done_) {
                    me->done_ = true;
                    ip6mc_shmwin_mutex_unlock();
                }
            },
            this);
    }
    ~unlock_at() { ipv4_debug_set_sink(nullptr, nullptr); }
    unlock_at(const unlock_at &) = delete;
    unlock_at &operator=(const unlock_at &) = delete;
    bool done() const { return done_; }

  private:
    std::string start_;
    bool done_ = false;
};

// Allocators of a trie that fail on demand.
struct failing_memory {
    static inline uint32_t refuse_type = UINT32_MAX;  // or ANY
    static inline bool close_window = false;
    static constexpr uint32_t any_type = UINT32_MAX - 1;

    static void *alloc(size_t size, uint32_t type) {
        if (type == refuse_type || refuse_type == any_type)
            return nullptr;
        void *block = ipv4mc_shmwin_malloc_inline(size, type);
        if (close_window)
            ipv4mc_desc->shmwin_init = 0;
        return block;
    }
    static cerrno free(void *block, uint32_t type) {
        ipv4mc_desc->shmwin_init = 1;
        return ipv4mc_shmwin_free_inline(block, type);
    }
    static void into(ipv4mc_table_st *table) {
        refuse_type = UINT32_MAX;
        close_window = false;
        ip6mc_gtrie_params_t params;
        ipv4mc_set_default_gtrie_init(&params, table, 1);
        params.alloc_fn = alloc;
        params.free_fn = free;
        ASSERT_EQ(ip6mc_gtrie_re_init(table->signal_gtrie, &params), 0U);
    }
};

}  // namespace signals

#endif
