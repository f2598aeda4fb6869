// mfwd6ctl: shows what is in the window, with or without an owner, and tells the owner what to do.
#include <fmt/format.h>

#include <cstdio>

#include "apps/mfwd6ctl/commands.h"
#include "apps/mfwd6ctl/failure.h"
#include "apps/mfwd6ctl/interrupts.h"
#include "apps/mfwd6ctl/output/output.h"
#include "ipv4/multicast/lib/ip6mc_lib.h"

namespace {

using namespace ctl;

constexpr const char *exit_codes =
    "Exit codes:\n"
    "  0    done\n"
    "  1    the operation failed, or a part of it\n"
    "  2    the arguments make no sense\n"
    "  3    no window (yet), or no owner answers\n"
    "  4    the window cannot be used: damaged, of another version, its place taken, full\n"
    "  5    not permitted\n"
    "  130  interrupted    141  nobody reads the output any more\n";

constexpr const char *examples =
    "Examples:\n"
    "  mfwd6ctl show routes --tree\n"
    "  mfwd6ctl add route 2001:db8::1 ff3e::1234 --from eth0 --to eth1 eth2\n"
    "  mfwd6ctl load routes.conf\n"
    "  mfwd6ctl trace --follow\n"
    "  mfwd6ctl show status --json\n\n";

void add_global_options(CLI::App &program, options &how) {
    program
        .add_option("--run-dir", how.run_dir,
                    "Folder of window, traces and command socket (default: where one is found, "
                    "else /run/mfwd6)")
        ->envname("MFWD6_RUN_DIR")
        ->type_name("FOLDER");
    program
        .add_option("--platform", how.platform,
                    "Platform of the owner, asked for counters: linux, sim, ...")
        ->capture_default_str()
        ->envname("MFWD6_PLATFORM")
        ->type_name("NAME");
    program.add_flag("--json,-j", how.json, "Write JSON instead of a table");
    program.add_option("--timeout", how.timeout_s, "Seconds to wait for an answer of the owner")
        ->capture_default_str()
        ->check(CLI::Range(0.01, 86400.0))
        ->type_name("SECONDS");
}

void add_show(CLI::App &program, const options &how) {
    CLI::App *show = program.add_subcommand("show", "Show what is in the window; needs no owner");
    show->require_subcommand(1);
    show->footer(
        "Examples:\n"
        "  mfwd6ctl show routes --vrf red\n"
        "  mfwd6ctl show route 2001:db8::1 ff3e::1234\n"
        "  mfwd6ctl show memory --json");
    add_show_routes(*show, how);
    add_show_route(*show, how);
    add_show_signals(*show, how);
    add_show_flows(*show, how);
    add_show_tables(*show, how);
    add_show_interfaces(*show, how);
    add_show_encaps(*show, how);
    add_show_bvi(*show, how);
    add_show_memory(*show, how);
    add_show_locks(*show, how);
    add_show_clients(*show, how);
    add_show_status(*show, how);
}

void add_commands(CLI::App &program, const options &how) {
    add_show(program, how);
    add_add(program, how);
    add_delete(program, how);
    add_set(program, how);
    add_clear(program, how);
    add_load(program, how);
    add_shutdown(program, how);
    add_trace(program, how);
    add_debug(program, how);
    add_check(program, how);
    add_completion(program);
}

int run(CLI::App &program, int argc, char **argv) {
    try {
        program.parse(argc, argv);
        flush_output();
        return static_cast<int>(exit_code::good);
    } catch (const CLI::ParseError &e) {
        // Help and version are no errors.
        return program.exit(e) == 0 ? static_cast<int>(exit_code::good)
                                    : static_cast<int>(exit_code::usage);
    } catch (const failure &f) {
        std::fflush(stdout);
        if (*f.what() != '\0') {
            fmt::print(stderr, "mfwd6ctl: {}\n", f.what());
        }
        return static_cast<int>(f.code());
    } catch (const std::exception &e) {
        std::fflush(stdout);
        fmt::print(stderr, "mfwd6ctl: {}\n", e.what());
        return static_cast<int>(exit_code::failed);
    }
}

}  // namespace

int main(int argc, char **argv) {
    watch_interrupts();
    options how;
    CLI::App program("Shows and changes the IPv6 multicast forwarding state of mfwd6d.",
                     "mfwd6ctl");
    program.require_subcommand(1);
    program.fallthrough();
    program.set_version_flag("--version", fmt::format("mfwd6ctl, window layout {}.{}",
                                                      IP6MC_VERSION_MAJOR, IP6MC_VERSION_MINOR));
    program.set_help_all_flag("--help-all", "Help for all commands");
    program.footer(std::string(examples) + exit_codes);
    add_global_options(program, how);
    add_commands(program, how);
    return run(program, argc, argv);
}
