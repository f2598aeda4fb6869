// The commands. Each function adds one to `parent`; `how` lives as long as the parsing does.
#ifndef MFWD6_APPS_MFWD6CTL_COMMANDS_H
#define MFWD6_APPS_MFWD6CTL_COMMANDS_H

#include <CLI/CLI.hpp>

#include "apps/mfwd6ctl/options.h"

namespace ctl {

// What reads the window, or diagnostics. They work without an owner.
void add_show_routes(CLI::App &show, const options &how);
void add_show_route(CLI::App &show, const options &how);
void add_show_signals(CLI::App &show, const options &how);
void add_show_flows(CLI::App &show, const options &how);
void add_show_tables(CLI::App &show, const options &how);
void add_show_interfaces(CLI::App &show, const options &how);
void add_show_encaps(CLI::App &show, const options &how);
void add_show_bvi(CLI::App &show, const options &how);
void add_show_memory(CLI::App &show, const options &how);
void add_show_locks(CLI::App &show, const options &how);
void add_show_clients(CLI::App &show, const options &how);
void add_show_status(CLI::App &show, const options &how);
void add_trace(CLI::App &program, const options &how);
void add_debug(CLI::App &program, const options &how);
void add_check(CLI::App &program, const options &how);

// What the owner does, asked for over the command socket.
void add_add(CLI::App &program, const options &how);
void add_delete(CLI::App &program, const options &how);
void add_set(CLI::App &program, const options &how);
void add_clear(CLI::App &program, const options &how);
void add_load(CLI::App &program, const options &how);
void add_shutdown(CLI::App &program, const options &how);

// Scripts for shells, made from the commands that `program` has.
void add_completion(CLI::App &program);

}  // namespace ctl

#endif
