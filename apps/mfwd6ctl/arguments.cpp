#include "apps/mfwd6ctl/arguments.h"

#include <arpa/inet.h>

#include <CLI/CLI.hpp>
#include <charconv>

namespace ctl {
namespace {

constexpr uint8_t multicast_first_byte = 0xff;
constexpr uint32_t address_bits = 128;

bool parse_address(const std::string &text, ip_maddr_st *address) {
    return inet_pton(AF_INET6, text.c_str(), address) == 1;
}

uint32_t length_of(const std::string &whole, const std::string &text) {
    uint32_t length = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), length);
    if (error != std::errc() || end != text.data() + text.size() || length > address_bits) {
        throw CLI::ValidationError("GROUP", whole + ": the length is a number from 0 to 128");
    }
    return length;
}

void clear_behind(ip_maddr_st &address, uint32_t length) {
    for (uint32_t n = length; n < address_bits; ++n) {
        address.bytes[n / 8] = static_cast<uint8_t>(address.bytes[n / 8] & ~(0x80U >> (n % 8)));
    }
}

}  // namespace

ip_maddr_st source_of(const std::string &text) {
    ip_maddr_st address{};
    if (text == "*" || text == "any") {
        return address;
    }
    if (!parse_address(text, &address)) {
        throw CLI::ValidationError("SOURCE", text + " is no IPv6 address (\"any\" is any source)");
    }
    if (address.bytes[0] == multicast_first_byte) {
        throw CLI::ValidationError("SOURCE", text + " is a group: the source comes first");
    }
    return address;
}

prefix group_of(const std::string &text) {
    prefix group;
    const size_t slash = text.find('/');
    if (!parse_address(text.substr(0, slash), &group.address)) {
        throw CLI::ValidationError("GROUP", text + " is no IPv6 address or prefix");
    }
    if (group.address.bytes[0] != multicast_first_byte) {
        throw CLI::ValidationError("GROUP", text + " is no multicast group: those begin with ff");
    }
    if (slash != std::string::npos) {
        group.length = length_of(text, text.substr(slash + 1));
        group.has_length = true;
    }
    clear_behind(group.address, group.length);
    return group;
}

}  // namespace ctl
