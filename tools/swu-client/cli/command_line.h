// The command line of swu-client: what its options set, and each command's
// definition (its subcommand, options and help) beside the command itself.
#pragma once

#include "client_commands.h"

#include <CLI/CLI.hpp>

#include <functional>
#include <string>

struct command_line {
    client_options o;
    update_params u;
    double timeout_s = 4;
    fleet_opts fleet;
    std::string report_path, only, inventory;
    std::string host, package;
    bool all = false, no_confirm = false, no_reboot = false;
};

// The options of every command that talks to a terminal; with `ports`, the
// local ports too.
void add_common_options(CLI::App *cmd, client_options &o, bool ports);

// Adds a command's subcommand to `app`; what runs it once parsed.
using command_run = std::function<int(command_line &)>;
command_run define_discover(CLI::App &app, command_line &cl);
command_run define_status(CLI::App &app, command_line &cl);
command_run define_update(CLI::App &app, command_line &cl);
command_run define_reboot(CLI::App &app, command_line &cl);
command_run define_ack_error(CLI::App &app, command_line &cl);
