// Access lists as text.
#include <arpa/inet.h>

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "services/acl/prefix.h"

namespace mfwd6::acl {
namespace {

constexpr std::string_view blanks = " \t\r";

// Takes the first word off `line`; empty at the end of it.
std::string_view take_word(std::string_view *line) {
    const size_t begin = std::min(line->find_first_not_of(blanks), line->size());
    const size_t end = std::min(line->find_first_of(blanks, begin), line->size());
    const std::string_view word = line->substr(begin, end - begin);
    line->remove_prefix(end);
    return word;
}

std::string_view take_line(std::string_view *text) {
    const size_t end = std::min(text->find('\n'), text->size());
    const std::string_view line = text->substr(0, end);
    text->remove_prefix(std::min(end + 1, text->size()));
    return line.substr(0, line.find('#'));
}

// The reason why a piece of text cannot be read, or NULL.
using reason = const char *;

template <class T>
bool read_number(std::string_view word, T *out) {
    const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), *out);
    return error == std::errc{} && end == word.data() + word.size();
}

reason read_address(std::string_view word, uint8_t (&address)[16]) {
    char text[INET6_ADDRSTRLEN];
    if (word.size() >= sizeof text) {
        return "not an IPv6 address";
    }
    std::memcpy(text, word.data(), word.size());
    text[word.size()] = '\0';
    return inet_pton(AF_INET6, text, address) == 1 ? nullptr : "not an IPv6 address";
}

reason read_prefix(std::string_view word, std::string_view *line, uint8_t (&address)[16],
                   uint8_t *length) {
    if (word == "any") {
        *length = 0;
        return nullptr;
    }
    if (word == "host") {
        *length = 128;
        return read_address(take_word(line), address);
    }
    const size_t slash = word.find('/');
    if (slash == std::string_view::npos) {
        return "expected ADDRESS/LENGTH, host ADDRESS or any";
    }
    if (const reason why = read_address(word.substr(0, slash), address); why != nullptr) {
        return why;
    }
    if (!read_number(word.substr(slash + 1), length) || *length > 128) {
        return "prefix length is not a number from 0 to 128";
    }
    return is_prefix(address, *length) ? nullptr : "address has bits behind the prefix length";
}

reason read_sequence(std::string_view *word, std::string_view *line, uint32_t last,
                     ipv6_acl_entry_t *e) {
    const bool given = word->front() >= '0' && word->front() <= '9';
    if (!given) {
        e->sequence = last > UINT32_MAX - 10 ? 0 : last + 10;
        return e->sequence != 0 ? nullptr : "no sequence number is left";
    }
    if (!read_number(*word, &e->sequence)) {
        return "sequence is not a number from 1 to 4294967295";
    }
    *word = take_word(line);
    return e->sequence > last ? nullptr : "sequence numbers must ascend, from 1";
}

// Reads a line whose first word is `word`.
reason read_entry(std::string_view word, std::string_view line, uint32_t last,
                  ipv6_acl_entry_t *e) {
    if (const reason why = read_sequence(&word, &line, last, e); why != nullptr) {
        return why;
    }
    if (word != "permit" && word != "deny") {
        return "expected permit or deny";
    }
    e->action = word == "permit" ? IPV6_ACL_PERMIT : IPV6_ACL_DENY;
    if (const reason why = read_prefix(take_word(&line), &line, e->source, &e->source_length);
        why != nullptr) {
        return why;
    }
    const std::string_view second = take_word(&line);
    if (!second.empty()) {
        const reason why = read_prefix(second, &line, e->destination, &e->destination_length);
        if (why != nullptr) {
            return why;
        }
    }
    return take_word(&line).empty() ? nullptr : "something follows the entry";
}

struct entries {
    ipv6_acl_entry_t *at;
    size_t count;
    size_t room;

    bool reserve_one() {
        if (count < room) {
            return true;
        }
        const size_t more = room == 0 ? 32 : 2 * room;
        void *const grown = realloc(at, more * sizeof *at);
        if (grown == nullptr) {
            return false;
        }
        at = static_cast<ipv6_acl_entry_t *>(grown);
        room = more;
        return true;
    }
};

// Where and why reading stopped.
struct fault {
    unsigned line;
    reason why;
};

cerrno read_entries(std::string_view text, entries *to, fault *f) {
    for (f->line = 1; !text.empty(); ++f->line) {
        std::string_view line = take_line(&text);
        const std::string_view word = take_word(&line);
        if (word.empty()) {
            continue;
        }
        if (to->count == IPV6_ACL_MAX_ENTRIES) {
            f->why = "too many entries";
            return IPV6_ACL_TOO_MANY;
        }
        if (!to->reserve_one()) {
            f->why = "no memory";
            return ENOMEM;
        }
        ipv6_acl_entry_t &e = to->at[to->count];
        e = {};
        f->why = read_entry(word, line, to->count > 0 ? to->at[to->count - 1].sequence : 0, &e);
        if (f->why != nullptr) {
            return IPV6_ACL_SYNTAX;
        }
        ++to->count;
    }
    return 0;
}

}  // namespace
}  // namespace mfwd6::acl

using namespace mfwd6::acl;

cerrno ipv6_acl_set_text(const char *name, const char *text, char *error, size_t error_size) {
    if (error != nullptr && error_size != 0) {
        error[0] = '\0';
    }
    if (text == nullptr) {
        return EINVAL;
    }
    entries read{};
    fault f{};
    cerrno rc = read_entries(text, &read, &f);
    if (rc == 0) {
        rc = ipv6_acl_set(name, read.at, read.count);
    } else if (error != nullptr) {
        snprintf(error, error_size, "line %u: %s", f.line, f.why);
    }
    free(read.at);
    return rc;
}
