// The library on the Linux platform in a namespace of its own, with everything that a test does to
// it. Every test that uses it begins with
//
//     ROUTER_OR_SKIP(r, {1, 2, 3});
#ifndef MFWD6_TESTS_PLATFORMS_LINUX_ROUTER_H
#define MFWD6_TESTS_PLATFORMS_LINUX_ROUTER_H

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <optional>

#include "ipv4/multicast/lib/ip6mc_idb.h"
#include "ipv4/multicast/lib/ip6mc_route.h"
#include "ipv4/multicast/lib/ip6mc_table.h"
#include "platforms/linux/linux.h"
#include "services/events/event_manager.h"
#include "tests/kit/library.h"
#include "tests/kit/run_dir.h"
#include "tests/platforms/linux/network.h"

namespace bed {

constexpr uint64_t A = MRIB_INTF_ACCEPT;
constexpr uint64_t F = MRIB_INTF_FORWARD;
constexpr uint64_t N = MRIB_INTF_NEGATE_SIGNAL;
constexpr uint64_t L = MRIB_INTF_LOCAL_COPY;

struct leg {
    uint32_t number;  // of the link
    uint64_t attributes;
};

struct key {
    std::string source;
    std::string group;
    uint16_t length;
};

inline key sg(const std::string &source, const std::string &group) {
    return {source, group, 256};
}
inline key any(const std::string &group, uint16_t length = 128) {
    return {"::", group, length};
}

// Keeps table sockets as the keeper program does: they outlive the library.
class sockets {
  public:
    ~sockets();
    void use();  // has the platform take its sockets from here
    std::map<uint32_t, int> open;
    uint32_t released = 0;
};

// The library in this process.
class owner {
  public:
    explicit owner(const std::string &folder, event_manager_t *evm = nullptr);
    ~owner();
    // Ends the process's part and leaves the kernel alone.
    void leave();

    ipv4mc_table_st *table(uint32_t tid = kit::default_tid, const char *name = "default");

    // Makes a route; the code of the step that failed.
    cerrno add(ipv4mc_table_st *table, const key &k, const std::vector<leg> &legs,
               uint64_t attributes = 0);
    cerrno change(ipv4mc_table_st *table, const key &k, uint64_t attributes);
    cerrno set_leg(ipv4mc_table_st *table, const key &k, const leg &l);
    cerrno drop_leg(ipv4mc_table_st *table, const key &k, uint32_t number);
    cerrno remove(ipv4mc_table_st *table, const key &k);
    ipv4mc_route_entry_st *find(ipv4mc_table_st *table, const key &k);
    uint64_t packets(ipv4mc_table_st *table, const key &k);

    // Reads and answers reports until none has come for some milliseconds.
    struct report {
        linux_flow flow;
        uint32_t answer;
        cerrno code;
        ifhtype ifh;
        int signals;
    };
    std::vector<report> pump(int quiet_milliseconds = 15);

    static linux_status status();
    static linux_resync_counts resync();

  private:
    std::unique_ptr<kit::library> library_;
    bool left_ = false;
};

class router {
  public:
    explicit router(const std::vector<uint32_t> &links) : net(links) { start(); }
    ~router() { o.reset(); }

    // A killed owner, as far as one process can be: the library is left as it stands, the window
    // and the kernel stay.
    void restart();
    void start();

    // Sends a packet in and gives who received it; answers reports on the way.
    std::vector<uint32_t> forward(uint32_t in, const std::string &source, const std::string &group);
    void drain();

    net::network net;
    kit::run_dir dir;
    sockets keeper;
    std::unique_ptr<owner> o;
    ipv4mc_table_st *table = nullptr;
    std::vector<owner::report> reports;  // of the last forward
    uint32_t next_number = 1;
    std::vector<uint32_t> links_;
};

// What the kernel has: "source group in>out,out" lines of a table, sorted, by ip(8).
std::vector<std::string> kernel_entries(uint32_t kernel_table);

}  // namespace bed

#define ROUTER_OR_SKIP(name, ...)                                       \
    if (const std::string why = net::enter_namespace(); !why.empty()) { \
        std::cout << "skipped: " << why << "\n";                        \
        GTEST_SKIP() << why;                                            \
    }                                                                   \
    bed::router name(__VA_ARGS__)

#endif
