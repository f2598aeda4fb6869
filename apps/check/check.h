// Proof of a whole window: walks every record that the window header leads to, and every block of
// the heap, and says what does not agree.
//
// What is proved: each list both ways with its head and tail; trees against their order and counts;
// tries against their tables; counts of records against what they count; the references of each
// interface against its holders; marks in records against the lists they tell of; object ids both
// ways; the counts of blocks by type against the blocks that live; and that every live block is
// reached from the header, or is listed as an orphan.
//
// The walk trusts nothing that it reads: a pointer is followed only when a live block of the right
// type and size begins there, and every record is visited once, so that a damaged window ends in
// findings, neither in a crash nor in a loop. Nothing is changed.
//
// Works on the window of the library that this process has open (ip6mc_lib_init, or
// ip6mc_shmwin_open), as owner, as attached client, and as attached client of a window whose owner
// is gone. Changes that a dead process left open are run back by the next owner only: until then
// they appear as findings, and `report::owner` says that there is none.
//
// Thread-safety: one call at a time in a process. Beside a live owner set `options::live`.
#ifndef MFWD6_APPS_CHECK_H
#define MFWD6_APPS_CHECK_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "ipv4/multicast/lib/multicast_alloc.h"
#include "services/cerrno.h"

namespace mfwd6::check {

struct options {
    // Others may change the window meanwhile. A walk during which nobody did says the truth. If
    // there is none among `rounds` walks, `pause_ms` apart, a finding is reported when all of them
    // have it, unless it says that something was not met, which a walk beside changes cannot know.
    // Orphans are those that all quiet walks agree on, if there are two or more: a live process may
    // hold a block that nothing in the window leads to yet.
    bool live = false;
    uint32_t rounds = 4;
    uint32_t pause_ms = 20;

    // Findings beyond this many are counted, not kept; leftovers likewise.
    size_t most_findings = 1000;
};

// One thing that does not agree.
struct finding {
    uint64_t address = 0;  // of the record; 0 for the heap as a whole
    std::string record;    // its type, "route", "interface entry", ...
    std::string name;      // what the operator knows it by, empty where there is nothing: "(S,G) in
                           // table 0xe0800001"
    std::string field;     // member of the record, as in the headers
    std::string what;      // a sentence
    bool absence = false;  // of something that was not met where it should be
};

// A live block that nothing leads to.
struct orphan {
    uint64_t address = 0;  // of the memory behind the guard
    uint64_t bytes = 0;    // that were asked for
    uint32_t type = 0;     // ipmc_shmwin_alloc_type
};

// Blocks of one type, pool and orphans included.
struct blocks_of_type {
    uint64_t live = 0;     // outside the pool, reached or not
    uint64_t pooled = 0;   // in the pool of freed blocks, by the type that they had
    uint64_t kept = 0;     // freed, and kept for readers (services/window/epochs.h)
    uint64_t orphans = 0;  // of `live`
    uint64_t orphan_bytes = 0;
};

struct report {
    std::vector<finding> findings;
    uint64_t more_findings = 0;  // that were not kept

    // What the death of an owner in the middle of an operation may leave, and what goes with the
    // record: counts that are one too high, routes that were made and never committed, ... No
    // faults.
    std::vector<finding> leftovers;
    uint64_t more_leftovers = 0;

    std::vector<orphan> orphans;
    std::array<blocks_of_type, IPMC_SHMWIN_ALLOC_TYPES> blocks{};

    // Search keys of processes lie in the window and nothing leads to them. As many as processes
    // have the window open may be theirs; they are no orphans, the rest are.
    uint64_t search_keys = 0;
    std::vector<orphan> keys;

    // How many records of each kind were walked, by the name that findings use.
    std::map<std::string, uint64_t> walked;

    uint32_t owner = 0;         // pid of the live owner, 0 when there is none
    uint32_t processes = 0;     // live ones that have the window open, this one included
    uint32_t rounds = 0;        // walks that were made
    bool quiet = true;          // nobody changed anything during the walk that this tells of
    uint32_t open_changes = 0;  // begun and not finished: of a live process, or of a dead one,
                                // whose change the next owner runs back
    uint64_t ns = 0;            // that they took

    // Nothing is wrong. Orphans are no fault: a killed owner may leave some.
    bool clean() const { return findings.empty() && more_findings == 0; }
};

// Walks the window. A process without one gets a report with one finding that says so.
report check_window(const options &how = {});

// Gives the orphans of `found` back to the window, as its owner and with nobody else's change in
// between: call it right behind the check. Blocks of `found` that are not what they were are left
// alone. EBADF without a window, EPERM when this process is not its owner, EBUSY while another
// process has the window open, EINVAL for a report that is not clean: what is orphaned follows from
// what is reached. `*blocks` and `*bytes`, where not null, get what was given back.
cerrno reclaim(const report &found, uint64_t *blocks = nullptr, uint64_t *bytes = nullptr);

// "ROUTE" for IPMC_SHMWIN_ALLOC_ROUTE; "type 13" for a number without a name.
std::string type_name(uint32_t type);

// One line: `finding: route 0x200000123456 (...): pfx_len: ...`.
std::string to_string(const finding &what);

// {"clean":bool, "findings":[{"address":"0x...","record":...}], "orphans":..., ...}
void to_json(nlohmann::json &out, const report &from);
void to_json(nlohmann::json &out, const finding &from);

}  // namespace mfwd6::check

#endif
