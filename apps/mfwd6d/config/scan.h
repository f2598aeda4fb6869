// The small pieces of which lines are made: words, numbers, addresses. No allocation, no locale.
#ifndef MFWD6_APPS_MFWD6D_CONFIG_SCAN_H
#define MFWD6_APPS_MFWD6D_CONFIG_SCAN_H

#include <cstdint>
#include <string_view>

#include "ipv4/multicast/lib/ip6mc_types.h"

namespace mfwd6::config {

// The words of a line, parted by blanks and tabs, up to a '#' that begins a word or to the end.
class words {
  public:
    explicit words(std::string_view text) : rest_(text) { step(); }

    bool end() const { return word_.empty(); }
    // The word at hand; empty at the end.
    std::string_view peek() const { return word_; }
    std::string_view take() {
        const std::string_view word = word_;
        step();
        return word;
    }
    // Takes the word at hand if it is this one.
    bool take_if(std::string_view expected) {
        if (word_ != expected) {
            return false;
        }
        step();
        return true;
    }

  private:
    void step();

    std::string_view rest_;
    std::string_view word_;
};

// A decimal number from `least` to `most`, all of `text`, without a sign.
bool parse_number(std::string_view text, uint32_t least, uint32_t most, uint32_t *number);

// An IPv6 address in any of the forms of RFC 4291, 2.2; no zone, no length.
bool parse_ipv6(std::string_view text, ip_maddr_st *address);

// Four decimal numbers with dots between them, as far as that can be told apart from a slip.
bool looks_like_ipv4(std::string_view text);

// Clears the bits behind the first `length`.
void clear_behind(ip_maddr_st *address, uint32_t length);

bool is_any(const ip_maddr_st &address);
bool is_multicast(const ip_maddr_st &address);

}  // namespace mfwd6::config

#endif
