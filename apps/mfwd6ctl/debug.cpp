// debug: classes of debug lines, per program. No window is needed; a program that does not run yet
// finds its classes when it starts.
#include "services/diag/debug.h"

#include <fmt/format.h>

#include <memory>

#include "apps/mfwd6ctl/commands.h"
#include "apps/mfwd6ctl/failure.h"
#include "apps/mfwd6ctl/output/output.h"
#include "apps/mfwd6ctl/output/text_table.h"
#include "apps/mfwd6ctl/output/words.h"
#include "services/diag/errors.h"
#include "services/diag/run_dir.h"

namespace ctl {
namespace {

struct request {
    std::string program = "*";
    std::vector<std::string> classes;
};

void check(cerrno code, const std::string &what) {
    if (code == EACCES || code == EPERM) {
        throw failure(exit_code::forbidden, "not permitted to " + what);
    }
    if (code != 0) {
        throw failure(exit_code::failed, fmt::format("cannot {}: {}", what, cerr_strerror(code)));
    }
}

void use_folder(const options &how) {
    check(diag_set_run_dir(how.folder().c_str()), "use " + how.folder());
}

uint64_t mask_of(const std::vector<std::string> &classes) {
    uint64_t mask = 0;
    for (const std::string &name : classes) {
        const int number = ipv4_debug_class_of(name.c_str());
        if (name == "all") {
            mask = ~uint64_t{0};
        } else if (number < 0) {
            throw CLI::ValidationError("CLASS",
                                       name + " is no debug class: see mfwd6ctl debug show");
        } else {
            mask |= uint64_t{1} << number;
        }
    }
    return mask;
}

std::vector<std::string> names_of(uint64_t mask) {
    std::vector<std::string> names;
    for (uint32_t n = 0; n < IPV4_DEBUG_CLASSES; ++n) {
        const char *name = ipv4_debug_class_name(n);
        if (((mask >> n) & 1U) != 0 && name != nullptr) {
            names.push_back(name);
        }
    }
    return names;
}

void change(const options &how, const request &r, bool on) {
    const uint64_t mask = mask_of(r.classes);
    use_folder(how);
    check(ipv4_debug_switch(r.program.c_str(), on ? mask : 0, on ? 0 : mask),
          "switch the debug classes of " + r.program);
}

struct program_mask {
    std::string program;
    uint64_t mask;
};

int note(void *context, const char *program, uint64_t mask) {
    static_cast<std::vector<program_mask> *>(context)->push_back({program, mask});
    return 0;
}

void show(const options &how) {
    use_folder(how);
    std::vector<program_mask> programs;
    uint64_t everywhere = 0;
    check(ipv4_debug_get("*", &everywhere), "read the debug classes");
    check(ipv4_debug_walk(note, &programs), "read the debug classes");
    const std::vector<std::string> known = names_of(~uint64_t{0});
    if (how.json) {
        json j;
        j["classes"] = known;
        j["every_program"] = names_of(everywhere);
        j["programs"] = json::array();
        for (const program_mask &p : programs) {
            j["programs"].push_back({{"program", p.program}, {"on", names_of(p.mask)}});
        }
        put_json(j);
        return;
    }
    put(fmt::format("Classes: {}\n\n", joined(known, " ")));
    text_table table({"PROGRAM", "ON"});
    table.add({"(every program)", everywhere != 0 ? joined(names_of(everywhere), " ") : "-"});
    for (const program_mask &p : programs) {
        table.add({p.program, p.mask != 0 ? joined(names_of(p.mask), " ") : "-"});
    }
    table.end();
}

void add_switch(CLI::App &debug, const options &how, bool on) {
    auto r = std::make_shared<request>();
    CLI::App *command =
        debug.add_subcommand(on ? "on" : "off", on ? "Switch classes on" : "Switch classes off");
    command->add_option("class", r->classes, "Classes, or \"all\"")->required()->type_name("CLASS");
    command->add_option("--program", r->program, "Only in this program; \"*\" is every program")
        ->type_name("NAME");
    command->footer(on ? "Example:\n  mfwd6ctl debug on ROUTE INTF --program mfwd6d"
                       : "Example:\n  mfwd6ctl debug off all");
    command->callback([r, &how, on] { change(how, *r, on); });
}

}  // namespace

void add_debug(CLI::App &program, const options &how) {
    CLI::App *debug =
        program.add_subcommand("debug", "Debug lines: show classes, switch on and off");
    debug->require_subcommand(1);
    debug->footer(
        "Debug lines go to the standard error of the program and to its trace of kind \"debug\".\n"
        "A class stays as it is over restarts.\n\n"
        "Examples:\n"
        "  mfwd6ctl debug show\n"
        "  mfwd6ctl debug on ROUTE --program mfwd6d\n"
        "  mfwd6ctl trace --follow --kind debug");
    CLI::App *command = debug->add_subcommand("show", "Classes that are on, by program");
    command->footer("Example:\n  mfwd6ctl debug show --json");
    command->callback([&how] { show(how); });
    add_switch(*debug, how, true);
    add_switch(*debug, how, false);
}

}  // namespace ctl
