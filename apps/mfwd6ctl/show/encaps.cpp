// show encaps: encap ids, the routes that name them, and the transports that they stand for.
#include <arpa/inet.h>
#include <fmt/format.h>

#include "apps/mfwd6ctl/commands.h"
#include "apps/mfwd6ctl/interrupts.h"
#include "apps/mfwd6ctl/output/output.h"
#include "apps/mfwd6ctl/output/text_table.h"
#include "apps/mfwd6ctl/output/words.h"
#include "apps/mfwd6ctl/window/attach.h"
#include "apps/mfwd6ctl/window/step.h"
#include "apps/mfwd6ctl/window/trie_walk.h"
#include "ipv4/multicast/lib/ip6mc_encap.h"

namespace ctl {
namespace {

constexpr size_t encaps_of_step = 64;
constexpr size_t most_leaves = 65536;  // a list longer than this is damaged

struct transport_copy {
    ipv4mc_regdb_key_st key{};
    uint32_t flag = 0;  // as the platform took it
};

struct encap_copy {
    uint32_t id = 0;
    uint32_t routes = 0;
    uint32_t local_egress = 0;
    bool looks_up = false;
    std::vector<transport_copy> transports;
};

encap_copy copy(const ipv4mc_encap_entry_st &encap) {
    encap_copy c;
    c.id = encap.encap_id;
    c.routes = encap.route_cnt;
    c.local_egress = encap.intf_local_EG_cnt;
    c.looks_up = encap.ip_lkp != 0;
    for (const ipv4mc_encap_leaf_st *leaf = encap.encap_leaf_head;
         leaf != nullptr && c.transports.size() < most_leaves; leaf = leaf->next_encap_leaf) {
        if (const ipv4mc_regdb_entry_st *transport = leaf->regdb_entry; transport != nullptr) {
            c.transports.push_back({transport->key, leaf->tr});
        }
    }
    return c;
}

// The key of the trie: 20 bits, most significant first.
trie_place::key key_of(uint32_t id) {
    trie_place::key key{};
    key[0] = static_cast<uint8_t>(id >> 12);
    key[1] = static_cast<uint8_t>(id >> 4);
    key[2] = static_cast<uint8_t>(id << 4);
    return key;
}

std::vector<encap_copy> read_encaps(const window &w) {
    std::vector<encap_copy> encaps;
    trie_place place;
    for (bool more = true; more;) {
        stop_if_interrupted();
        const step now(w);
        void *trie = w.header().encap_gtrie;
        more = trie != nullptr;
        for (size_t n = 0; more && n < encaps_of_step; ++n) {
            const auto *encap = static_cast<const ipv4mc_encap_entry_st *>(place.resume(trie));
            more = encap != nullptr;
            if (more) {
                encaps.push_back(copy(*encap));
                place.reach(key_of(encap->encap_id), IPV4MC_ENCAP_ID_BITS);
            }
        }
    }
    return encaps;
}

std::string type_of(uint32_t type) {
    static constexpr const char *names[REGDB_TYPES] = {"none", "lsm",   "te",
                                                       "gre",  "mofrr", "next-hop"};
    return type < REGDB_TYPES ? names[type] : fmt::format("type-{}", type);
}

std::string ipv4_text(uint32_t address) {
    char text[INET_ADDRSTRLEN];
    return inet_ntop(AF_INET, &address, text, sizeof(text));
}

std::string core_text(const mdt_addr &address) {
    switch (address.type) {
        case MDT_ADDR_ANY:
            return "*";
        case MDT_ADDR_IPV4:
        case MDT_ADDR_CORE_IPV4:
            return ipv4_text(address.word1);
        case MDT_ADDR_PAIR_11:
        case MDT_ADDR_PAIR_12:
            return fmt::format("{}.{}", address.word1, address.word2);
        default:
            return std::to_string(address.word1);
    }
}

std::string key_text(const ipv4mc_regdb_key_st &key) {
    switch (key.type) {
        case REGDB_TYPE_LSM:
            return std::to_string(key.u.lsm_id);
        case REGDB_TYPE_TE:
            return "if-" + hex(key.u.te_ifh);
        case REGDB_TYPE_GRE:
        case REGDB_TYPE_TI_MOFRR:
            return fmt::format("({},{})", core_text(key.u.core.source),
                               core_text(key.u.core.group));
        case REGDB_TYPE_IPV4_NH:
            return ipv4_text(key.u.nh.address);
        default:
            return "";
    }
}

std::string transports_text(const encap_copy &encap) {
    std::vector<std::string> words;
    for (const transport_copy &t : encap.transports) {
        words.push_back(fmt::format("{} {}", type_of(t.key.type), key_text(t.key)));
    }
    return words.empty() ? "-" : joined(words, ", ");
}

json to_json(const encap_copy &encap) {
    json j;
    j["id"] = encap.id;
    j["routes"] = encap.routes;
    j["local_egress"] = encap.local_egress;
    j["lookup"] = encap.looks_up;
    j["transports"] = json::array();
    for (const transport_copy &t : encap.transports) {
        j["transports"].push_back(
            {{"type", type_of(t.key.type)}, {"key", key_text(t.key)}, {"flag", t.flag}});
    }
    return j;
}

void show_encaps(const options &how) {
    const window w(how, need::library);
    const std::vector<encap_copy> encaps = read_encaps(w);
    if (how.json) {
        json_array list("encaps");
        for (const encap_copy &e : encaps) {
            list.add(to_json(e));
        }
        list.end();
        return;
    }
    text_table table({">ENCAP ID", ">ROUTES", ">LOCAL EGRESS", "LOOKUP", "TRANSPORTS"});
    for (const encap_copy &e : encaps) {
        table.add({std::to_string(e.id), std::to_string(e.routes), std::to_string(e.local_egress),
                   e.looks_up ? "yes" : "no", transports_text(e)});
    }
    table.end();
}

}  // namespace

void add_show_encaps(CLI::App &show, const options &how) {
    CLI::App *command = show.add_subcommand("encaps", "Encap ids and their transports");
    command->footer("Examples:\n  mfwd6ctl show encaps\n  mfwd6ctl show encaps --json");
    command->callback([&how] { show_encaps(how); });
}

}  // namespace ctl
