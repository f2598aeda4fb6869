#include "apps/check/check.h"

#include <algorithm>
#include <chrono>
#include <set>
#include <thread>
#include <tuple>

#include "apps/check/records.h"
#include "apps/check/walk.h"
#include "ipv4/multicast/lib/ip6mc_lib.h"
#include "services/window/inspect.h"

namespace mfwd6::check {
namespace {

constexpr uint32_t most_processes = 1024;

struct processes {
    uint32_t owner = 0;
    uint32_t alive = 0;
};

processes look_for_processes(uint32_t window) {
    std::vector<shmwin_process> list(most_processes);
    uint32_t count = 0;
    shmwin_get_processes(window, list.data(), most_processes, &count);
    list.resize(std::min(count, most_processes));
    processes found;
    for (const shmwin_process &each : list) {
        if (each.alive != 0) {
            ++found.alive;
            found.owner = each.owner != 0 ? static_cast<uint32_t>(each.pid) : found.owner;
        }
    }
    return found;
}

void check_heap(walk &w) {
    char why[256] = "";
    if (shmwin_check_heap(w.window(), why, sizeof(why)) != 0) {
        w.wrong(about("heap", nullptr), "spans", why);
    }
}

shmwin_usage usage_now() {
    shmwin_usage usage{};
    shmwin_get_usage(ipv4mc_desc->shmwin_id, &usage);
    return usage;
}

report walk_once(const options &how) {
    const shmwin_usage before = usage_now();
    walk w(ipv4mc_desc->shmwin_id, ipv4mc_desc->shmwin_info, how.live, how.most_findings);
    const processes found = look_for_processes(w.window());
    w.result().owner = found.owner;
    w.result().processes = found.alive;
    check_heap(w);
    walk_pool(w);
    walk_kept(w);
    records all(w);
    walk_tables(all);
    walk_encaps(all);
    walk_interfaces(all);
    walk_routes(all);
    walk_bvi(all);
    walk_retry_queue(all);
    walk_object_ids(all);
    check_blocks(all);
    check_table_counts(all);
    for (const auto &[record, count] : w.counts()) {
        w.result().walked[record] += count;
    }
    const shmwin_usage after = usage_now();
    w.result().rounds = 1;
    w.result().open_changes = after.open;
    w.result().quiet = before.changes == after.changes && before.open == 0 && after.open == 0;
    return std::move(w.result());
}

using finding_key = std::tuple<uint64_t, std::string, std::string, std::string>;

finding_key key_of(const finding &each) {
    return {each.address, each.record, each.field, each.what};
}

// Keeps in `first` what `again` has found as well.
void keep_common(std::vector<finding> &first, const std::vector<finding> &again) {
    std::set<finding_key> known;
    for (const finding &each : again) {
        known.insert(key_of(each));
    }
    std::erase_if(first, [&](const finding &each) { return known.count(key_of(each)) == 0; });
}

void keep_common(report &first, const report &again) {
    keep_common(first.findings, again.findings);
    keep_common(first.leftovers, again.leftovers);
    first.more_findings = std::min(first.more_findings, again.more_findings);
    first.more_leftovers = std::min(first.more_leftovers, again.more_leftovers);
}

// What a walk beside changes cannot know.
void forget_absences(report &found) {
    std::erase_if(found.findings, [](const finding &each) { return each.absence; });
    found.more_findings = 0;
}

void keep_orphans(report &found, const std::vector<orphan> &also) {
    std::set<uint64_t> known;
    for (const orphan &each : also) {
        known.insert(each.address);
    }
    std::erase_if(found.orphans,
                  [&](const orphan &each) { return known.count(each.address) == 0; });
    for (blocks_of_type &each : found.blocks) {
        each.orphans = 0;
        each.orphan_bytes = 0;
    }
    for (const orphan &each : found.orphans) {
        ++found.blocks[each.type].orphans;
        found.blocks[each.type].orphan_bytes += each.bytes;
    }
}

// What a quiet walk finds is so. A block that nothing leads to, however, may be in the hands of a
// live process: no quiet walk may find it led to.
report walk_beside_others(const options &how) {
    report found = walk_once(how);
    uint32_t quiet = found.quiet ? 1 : 0;
    uint32_t round = 1;
    for (; round < how.rounds && !(found.quiet && found.orphans.empty()); ++round) {
        std::this_thread::sleep_for(std::chrono::milliseconds(how.pause_ms));
        report again = walk_once(how);
        quiet += again.quiet ? 1U : 0U;
        if (found.quiet && again.quiet) {
            keep_orphans(found, again.orphans);
        } else if (again.quiet) {
            found = std::move(again);
        } else if (!found.quiet) {
            keep_common(found, again);
        }
    }
    if (!found.quiet) {
        forget_absences(found);
    }
    if (quiet < 2) {
        keep_orphans(found, {});
    }
    found.rounds = round;
    return found;
}

report no_window() {
    report none;
    none.findings.push_back({0, "window", "", "", "this process has no window open"});
    return none;
}

}  // namespace

report check_window(const options &how) {
    if (ipv4mc_desc->shmwin_init == 0 || ipv4mc_desc->shmwin_info == nullptr) {
        return no_window();
    }
    const auto start = std::chrono::steady_clock::now();
    report found = how.live ? walk_beside_others(how) : walk_once(how);
    found.ns = static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(
                                         std::chrono::steady_clock::now() - start)
                                         .count());
    return found;
}

}  // namespace mfwd6::check
