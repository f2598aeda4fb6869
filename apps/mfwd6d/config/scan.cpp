#include "apps/mfwd6d/config/scan.h"

#include <cstring>

#include "apps/mfwd6d/digits.h"

namespace mfwd6::config {
namespace {

constexpr uint32_t groups_of_address = 8;
constexpr uint32_t no_gap = UINT32_MAX;

bool is_blank(char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

// One number of a dotted quad, without leading zeros.
bool take_quad_byte(std::string_view *text, uint8_t *byte) {
    uint32_t value = 0;
    size_t n = 0;
    while (n < text->size() && n < 3 && is_digit((*text)[n])) {
        value = value * 10 + static_cast<uint32_t>((*text)[n] - '0');
        ++n;
    }
    if (n == 0 || value > UINT8_MAX || (n > 1 && (*text)[0] == '0')) {
        return false;
    }
    *byte = static_cast<uint8_t>(value);
    text->remove_prefix(n);
    return true;
}

bool parse_quad(std::string_view text, uint8_t *bytes) {
    for (int i = 0; i < 4; ++i) {
        if (i != 0) {
            if (text.empty() || text[0] != '.') {
                return false;
            }
            text.remove_prefix(1);
        }
        if (!take_quad_byte(&text, bytes + i)) {
            return false;
        }
    }
    return text.empty();
}

// What has been read of an address: its 16-bit groups, and before which of them "::" stands.
struct address_parts {
    uint8_t bytes[16];
    uint32_t count = 0;
    uint32_t gap = no_gap;
};

bool finish(const address_parts &parts, ip_maddr_st *address) {
    if (parts.gap == no_gap) {
        if (parts.count != groups_of_address) {
            return false;
        }
        std::memcpy(address->bytes, parts.bytes, sizeof(address->bytes));
        return true;
    }
    if (parts.count >= groups_of_address) {
        return false;
    }
    const size_t head = size_t{parts.gap} * 2;
    const size_t tail = size_t{parts.count} * 2 - head;
    std::memset(address->bytes, 0, sizeof(address->bytes));
    std::memcpy(address->bytes, parts.bytes, head);
    std::memcpy(address->bytes + sizeof(address->bytes) - tail, parts.bytes + head, tail);
    return true;
}

}  // namespace

void words::step() {
    size_t from = 0;
    while (from < rest_.size() && is_blank(rest_[from])) {
        ++from;
    }
    if (from < rest_.size() && rest_[from] == '#') {
        from = rest_.size();
    }
    size_t to = from;
    while (to < rest_.size() && !is_blank(rest_[to])) {
        ++to;
    }
    word_ = rest_.substr(from, to - from);
    rest_.remove_prefix(to);
}

bool parse_number(std::string_view text, uint32_t least, uint32_t most, uint32_t *number) {
    if (text.empty()) {
        return false;
    }
    uint64_t value = 0;
    for (const char c : text) {
        if (!is_digit(c)) {
            return false;
        }
        value = value * 10 + static_cast<uint64_t>(c - '0');
        if (value > most) {
            return false;
        }
    }
    if (value < least) {
        return false;
    }
    *number = static_cast<uint32_t>(value);
    return true;
}

bool parse_ipv6(std::string_view text, ip_maddr_st *address) {
    address_parts parts;
    const char *at = text.data();
    const char *const end = at + text.size();
    if (text.size() >= 2 && at[0] == ':') {
        if (at[1] != ':') {
            return false;
        }
        parts.gap = 0;
        at += 2;
    }
    while (at != end) {
        if (parts.count == groups_of_address) {
            return false;
        }
        const char *const group = at;
        uint32_t value = 0;
        for (int digit = 0; at != end && (digit = hex_value(*at)) >= 0; ++at) {
            value = value << 4 | static_cast<uint32_t>(digit);
        }
        if (at == group || at - group > 4) {
            return false;
        }
        if (at != end && *at == '.') {
            if (parts.count > groups_of_address - 2 ||
                !parse_quad({group, static_cast<size_t>(end - group)},
                            parts.bytes + size_t{parts.count} * 2)) {
                return false;
            }
            parts.count += 2;
            break;
        }
        parts.bytes[parts.count * 2] = static_cast<uint8_t>(value >> 8);
        parts.bytes[parts.count * 2 + 1] = static_cast<uint8_t>(value);
        ++parts.count;
        if (at == end) {
            break;
        }
        if (*at != ':' || ++at == end) {
            return false;
        }
        if (*at == ':') {
            if (parts.gap != no_gap) {
                return false;
            }
            parts.gap = parts.count;
            ++at;
        }
    }
    return finish(parts, address);
}

bool looks_like_ipv4(std::string_view text) {
    uint8_t bytes[4];
    const size_t slash = text.find('/');
    return parse_quad(text.substr(0, slash), bytes);
}

void clear_behind(ip_maddr_st *address, uint32_t length) {
    for (uint32_t i = length / 8; i < sizeof(address->bytes); ++i) {
        const uint32_t kept = i == length / 8 ? length % 8 : 0;
        address->bytes[i] = static_cast<uint8_t>(address->bytes[i] & ~(0xffU >> kept));
    }
}

bool is_any(const ip_maddr_st &address) {
    return (address.words[0] | address.words[1] | address.words[2] | address.words[3]) == 0;
}

bool is_multicast(const ip_maddr_st &address) {
    constexpr uint8_t multicast_byte = 0xff;  // RFC 4291, 2.7
    return address.bytes[0] == multicast_byte;
}

}  // namespace mfwd6::config
