// check: proves that the window is whole, and gives back what nothing leads to.
#include "apps/check/check.h"

#include <fmt/format.h>

#include <cerrno>
#include <memory>

#include "apps/mfwd6ctl/commands.h"
#include "apps/mfwd6ctl/failure.h"
#include "apps/mfwd6ctl/output/output.h"
#include "apps/mfwd6ctl/output/text_table.h"
#include "apps/mfwd6ctl/output/words.h"
#include "apps/mfwd6ctl/window/attach.h"
#include "services/diag/errors.h"

namespace ctl {
namespace {

constexpr size_t shown_orphans = 20;

struct request {
    bool reclaim = false;
    uint32_t rounds = 4;
};

struct reclaimed {
    bool done = false;
    uint64_t blocks = 0;
    uint64_t bytes = 0;
};

mfwd6::check::report look(const window &w, const request &r) {
    mfwd6::check::options how;
    how.live = w.owner_pid() != 0;
    how.rounds = r.rounds;
    return mfwd6::check::check_window(how);
}

uint64_t bytes_of(const std::vector<mfwd6::check::orphan> &orphans) {
    uint64_t bytes = 0;
    for (const auto &orphan : orphans) {
        bytes += orphan.bytes;
    }
    return bytes;
}

void write_walked(const mfwd6::check::report &report) {
    text_table table({"RECORD", ">WALKED"});
    for (const auto &[name, count] : report.walked) {
        table.add({name, std::to_string(count)});
    }
    table.end();
    put("\n");
}

void write_orphans(const mfwd6::check::report &report) {
    for (size_t n = 0; n < report.orphans.size() && n < shown_orphans; ++n) {
        const auto &orphan = report.orphans[n];
        put(fmt::format("orphan: {} of {} bytes at {:#x}\n", allocation_type_name(orphan.type),
                        orphan.bytes, orphan.address));
    }
    if (report.orphans.size() > shown_orphans) {
        put(fmt::format("... and {} more\n", report.orphans.size() - shown_orphans));
    }
}

void write_text(const mfwd6::check::report &report, const reclaimed &back) {
    write_walked(report);
    for (const auto &finding : report.findings) {
        put(mfwd6::check::to_string(finding) + "\n");
    }
    for (const auto &leftover : report.leftovers) {
        put("left by a killed owner, no fault: " + mfwd6::check::to_string(leftover) + "\n");
    }
    write_orphans(report);
    const uint64_t findings = report.findings.size() + report.more_findings;
    put(fmt::format("{}: {} findings, {} orphans of {}; {} walks in {} ms{}\n",
                    report.clean() ? "clean" : "NOT CLEAN", findings, report.orphans.size(),
                    bytes_text(bytes_of(report.orphans)), report.rounds, report.ns / 1'000'000,
                    report.owner != 0 ? ", beside a live owner" : ", without an owner"));
    if (back.done) {
        put(fmt::format("given back: {} blocks, {}\n", back.blocks, bytes_text(back.bytes)));
    }
}

void write(const options &how, const mfwd6::check::report &report, const reclaimed &back) {
    if (!how.json) {
        write_text(report, back);
    } else {
        nlohmann::json whole = report;
        if (back.done) {
            whole["reclaimed"] = {{"blocks", back.blocks}, {"bytes", back.bytes}};
        }
        put(whole.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) + "\n");
    }
    flush_output();
    if (!report.clean()) {
        throw failure(exit_code::failed, "");
    }
}

void check(const options &how, const request &r) {
    const window w(how, need::header);
    write(how, look(w, r), {});
}

failure cannot_reclaim(cerrno code) {
    return {exit_code::failed,
            code == EBUSY
                ? "orphans are given back only while nobody else has the window open: end mfwd6d "
                  "first (`mfwd6ctl shutdown --keep` leaves packets flowing)"
                : fmt::format("cannot give orphans back: {}", cerr_strerror(code))};
}

// Attached first: who opens a damaged window as its owner throws it away.
void check_before_reclaim(const options &how, const request &r) {
    const window w(how, need::header);
    if (w.processes().size() > 1 && w.owner_pid() != 0) {
        throw cannot_reclaim(EBUSY);
    }
    const mfwd6::check::report report = look(w, r);
    if (!report.clean()) {
        write(how, report, {});
    }
}

void check_and_reclaim(const options &how, const request &r) {
    check_before_reclaim(how, r);
    const window w(how, need::ownership);
    const mfwd6::check::report report = mfwd6::check::check_window({});
    reclaimed back;
    if (report.clean() && !report.orphans.empty()) {
        const cerrno code = mfwd6::check::reclaim(report, &back.blocks, &back.bytes);
        if (code != 0) {
            throw cannot_reclaim(code);
        }
    }
    back.done = report.clean();
    write(how, report, back);
}

}  // namespace

void add_check(CLI::App &program, const options &how) {
    auto r = std::make_shared<request>();
    CLI::App *command = program.add_subcommand(
        "check", "Walk the whole window and prove that everything in it agrees");
    command->add_flag("--reclaim", r->reclaim,
                      "Give memory back that nothing leads to; only without an owner");
    command->add_option("--rounds", r->rounds, "Walks that must agree on a finding beside an owner")
        ->capture_default_str()
        ->check(CLI::Range(1U, 1000U))
        ->type_name("COUNT");
    command->footer(
        "Changes nothing without --reclaim. The exit code is 1 when something does not agree;\n"
        "orphans, which a killed owner may leave, are no fault.\n\n"
        "Examples:\n"
        "  mfwd6ctl check\n"
        "  mfwd6ctl check --json\n"
        "  mfwd6ctl shutdown --keep && mfwd6ctl check --reclaim");
    command->callback([r, &how] {
        if (r->reclaim) {
            check_and_reclaim(how, *r);
        } else {
            check(how, *r);
        }
    });
}

}  // namespace ctl
