// A network namespace with links whose far ends the test holds: packets go in and come out there.
#ifndef MFWD6_TESTS_PLATFORMS_LINUX_NETWORK_H
#define MFWD6_TESTS_PLATFORMS_LINUX_NETWORK_H

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "ipv4/multicast/lib/ip6mc_types.h"

namespace net {

// Takes the process into a fresh network namespace (and, without root, a user namespace once).
// Empty on success, else the reason why not, for a skip.
std::string enter_namespace();

ip_maddr_st address(const std::string &text);
std::string text_of(const ip_maddr_st &address);

// Runs lines of ip(8) -batch; throws when one fails.
void ip_batch(const std::string &lines);

struct packet {
    std::string source;
    std::string group;
    uint32_t number = 0;  // in the payload
    uint8_t hop_limit = 64;
    bool operator==(const packet &) const = default;
};

// Links "if<n>" with their far ends "pe<n>", all up. `index` of link n is n + 100.
class network {
  public:
    explicit network(const std::vector<uint32_t> &numbers);
    ~network();
    network(const network &) = delete;
    network &operator=(const network &) = delete;

    static uint32_t handle(uint32_t number) { return number + 100; }
    static std::string name(uint32_t number) { return "if" + std::to_string(number); }

    // Makes and deletes a link; a link of a number that was there before gets another index with
    // `index` not 0.
    void add(uint32_t number, uint32_t index = 0);
    void remove(uint32_t number);

    // A packet arrives at the router on link `number`.
    void send(uint32_t number, const packet &p);

    // The multicast packets that left by the link since the last call.
    std::vector<packet> received(uint32_t number);
    // Waits until so many have left, at most `milliseconds`.
    std::vector<packet> wait_for(uint32_t number, size_t count, int milliseconds = 1000);

  private:
    int open_far_end(uint32_t number);
    std::map<uint32_t, int> far_ends_;
};

}  // namespace net

#endif
