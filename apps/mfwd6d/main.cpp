// mfwd6d: IPv6 multicast forwarding whose state survives its processes.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include "apps/keeper/keeper_link.h"
#include "apps/mfwd6d/config/document.h"
#include "apps/mfwd6d/config/files.h"
#include "apps/mfwd6d/keeper/keeper.h"
#include "apps/mfwd6d/options.h"
#include "apps/mfwd6d/owner/owner.h"
#include "services/diag/run_dir.h"

namespace {

using namespace mfwd6;

constexpr char examples[] = R"(Examples:
  mfwd6d run                              with /etc/mfwd6.conf, if it is there
  mfwd6d run --config router.conf         with another configuration
  mfwd6d run --platform sim --run-dir /tmp/m6   without root: keeps state, forwards nothing
  mfwd6d check-config router.conf         says whether a configuration is right
  mfwd6ctl route add ff3e::1 --from eth0 --to eth1   talks to a running mfwd6d)";

// The packet path's program stands beside this one.
std::string default_signald() {
    std::error_code ignored;
    const std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe", ignored);
    const std::filesystem::path program = self.parent_path() / "mfwd6-signald";
    return access(program.c_str(), X_OK) == 0 ? program.string() : std::string();
}

std::string default_run_dir() {
    const char *named = getenv(keeper::run_dir_variable);
    return named != nullptr && *named != '\0' ? named : diag_run_dir();
}

void add_options(CLI::App *command, daemon::options *o, bool *no_syslog) {
    command->add_option("--run-dir", o->run_dir,
                        "folder of the window, the command socket and the traces "
                        "[MFWD6_RUN_DIR, /run/mfwd6]");
    command->add_option("--platform", o->platform, "what forwards: linux or sim [linux]");
    command->add_flag("--new-window", o->new_window,
                      "throw away a window that is damaged or of another version");
    command->add_flag("--no-syslog", *no_syslog, "speak on stderr only");
}

int check_configuration(const std::string &path) {
    config::document document;
    std::string error;
    if (!config::read_document(path, config::disk(), &document, &error)) {
        std::fprintf(stderr, "%s\n", error.c_str());
        return daemon::exit_error;
    }
    for (const std::string &warning : document.warnings) {
        std::fprintf(stderr, "%s\n", warning.c_str());
    }
    std::printf("%s: %zu routes, %zu groups to join, %zu VRFs\n", path.c_str(),
                document.routes.size(), document.joins.size(), document.vrfs.size());
    return 0;
}

// Whatever was said, both processes see it the same way wherever they stand.
bool complete(daemon::options *o, bool no_syslog, bool config_was_named) {
    std::error_code failed;
    if (o->run_dir.empty()) {
        o->run_dir = default_run_dir();
    }
    o->run_dir = std::filesystem::absolute(o->run_dir, failed).lexically_normal().string();
    while (o->run_dir.size() > 1 && o->run_dir.back() == '/') {
        o->run_dir.pop_back();
    }
    if (!config_was_named && access(daemon::default_config, F_OK) == 0) {
        o->config = daemon::default_config;
    }
    if (!o->config.empty()) {
        o->config = std::filesystem::absolute(o->config, failed).string();
    }
    o->to_syslog = !no_syslog;
    if (diag_set_run_dir(o->run_dir.c_str()) != 0) {
        std::fprintf(stderr, "mfwd6d: the run dir's path is too long: %s\n", o->run_dir.c_str());
        return false;
    }
    return true;
}

}  // namespace

int main(int argc, char **argv) {
    daemon::options o;
    bool no_syslog = false;
    bool no_signald = false;
    std::string checked;
    CLI::App app("Routes IPv6 multicast; the state outlives the processes.", "mfwd6d");
    app.footer(examples);
    app.require_subcommand(1);

    CLI::App *run = app.add_subcommand("run", "keep the daemon running, until SIGTERM or Ctrl-C");
    run->footer(examples);
    add_options(run, &o, &no_syslog);
    CLI::Option *config =
        run->add_option("--config", o.config,
                        "configuration; SIGHUP reads it again [/etc/mfwd6.conf, if it is there]");
    o.signald = default_signald();
    run->add_option("--signald", o.signald, "program of the packet path [beside this program]");
    run->add_flag("--no-signald", no_signald, "do not start the packet path");

    CLI::App *owner = app.add_subcommand("owner", "");
    owner->group("");  // the keeper starts it
    add_options(owner, &o, &no_syslog);
    CLI::Option *owner_config = owner->add_option("--config", o.config, "");

    CLI::App *check =
        app.add_subcommand("check-config", "read a configuration and say what is wrong");
    check->add_option("FILE", checked, "the configuration")->required();

    CLI11_PARSE(app, argc, argv);
    if (check->parsed()) {
        return check_configuration(checked);
    }
    if (!complete(&o, no_syslog, config->count() != 0 || owner->parsed())) {
        return daemon::exit_error;
    }
    if (owner->parsed()) {
        if (owner_config->count() == 0) {
            o.config.clear();
        }
        return daemon::run_owner(o);
    }
    if (no_signald || o.platform != "linux") {
        o.signald.clear();
    }
    return daemon::run_keeper(o);
}
