// A whole configuration: what all lines of a file, and of the files that it includes, ask for.
//
// The files are read through a `reader` of the caller, so that this part does no input of its own.
#ifndef MFWD6_APPS_MFWD6D_CONFIG_DOCUMENT_H
#define MFWD6_APPS_MFWD6D_CONFIG_DOCUMENT_H

#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "apps/mfwd6d/config/line.h"

namespace mfwd6::config {

struct route_key {
    std::string vrf;
    ip_maddr_st source{};  // all zero: any
    prefix group;

    bool operator==(const route_key &other) const;
};

struct route_key_hash {
    size_t operator()(const route_key &key) const;
};

// Where a line stands.
struct place {
    std::shared_ptr<const std::string> file;
    uint32_t number = 0;

    std::string text() const;
};

struct route_wish {
    uint8_t flags = 0;           // line_flags
    std::set<std::string> from;  // with '+' at the end: all that begin so
    std::set<std::string> to;
    place where;

    bool asks_the_same(const route_wish &other) const {
        return flags == other.flags && from == other.from && to == other.to;
    }
};

struct vrf_wish {
    uint32_t table_id = 0;
    std::set<std::string> interfaces;
    place where;
};

struct interface_wish {
    switch_word enabled = switch_word::none;
    uint8_t ttl = 0;  // 0: not named
    std::vector<prefix> boundary;
};

struct document {
    std::map<std::string, vrf_wish> vrfs;
    std::map<std::string, interface_wish> interfaces;
    std::set<std::string> joins;  // mgroup lines, in line_text form
    std::unordered_map<route_key, route_wish, route_key_hash> routes;
    std::vector<std::string> warnings;

    bool is_empty() const;
    // All but routes and warnings.
    bool same_but_routes(const document &other) const;
};

// How files are read. Both give a sentence, empty for success.
struct file_reader {
    std::function<std::string(const std::string &path, std::string *text)> read;
    // The files that a pattern of `include` names, in order. A relative one counts from the folder
    // of `file`. No file is a success.
    std::function<std::string(std::string_view pattern, const std::string &file,
                              std::vector<std::string> *paths)>
        expand;
};

// Includes within includes.
inline constexpr uint32_t include_depth = 8;
// Includes in all: a few files that include one another many times would be read for ever.
inline constexpr uint32_t includes_of_document = 4096;

// Reads the configuration that begins with the file `path`. false with "FILE:LINE: reason" in
// `error`; what `out` holds then is not to be used.
bool read_document(const std::string &path, const file_reader &reader, document *out,
                   std::string *error);

// Reads a text without includes, named `name` in errors.
bool parse_document(std::string_view text, const std::string &name, document *out,
                    std::string *error);

// The key of a route line.
route_key key_of(const line &l);

// A text of which parse_document makes the same document, and one of its routes.
std::string document_text(const document &d);
// A route or a VRF is several lines where one would be longer than a line may be.
std::string route_lines(const route_key &key, const route_wish &wish);
std::string vrf_lines(const std::string &name, const vrf_wish &wish);
// The phyint line, left out where only those of the boundary have something to say, and those.
std::string interface_lines(const std::string &name, const interface_wish &wish);

}  // namespace mfwd6::config

#endif
