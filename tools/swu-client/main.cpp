// swu-client: the technician's tool for the terminal's update service.
#include "cli/command_line.h"
#include "common/printable.h"

#include <map>

#include <CLI/CLI.hpp>

#include <csignal>

namespace
{

int run(int argc, char **argv)
{
    CLI::App app{"swu-client: finds terminals in update mode, reads their status and updates "
                 "them.\nHOST is an IPv4 address or name, optionally with :PORT (default 12226)."};
    app.require_subcommand(0, 1);
    app.option_defaults()->always_capture_default();
    app.footer(swuc_exit_code_help());
    bool exit_codes = false;
    app.add_flag("--exit-codes", exit_codes, "print the exit codes and their meanings");

    // Braced lists run left to right: the help lists the commands in this
    // order.
    command_line cl;
    std::map<std::string, command_run> commands = {{"discover", define_discover(app, cl)},
                                                   {"status", define_status(app, cl)},
                                                   {"update", define_update(app, cl)}};
    CLI::App *check = app.add_subcommand(
        "check", "show and verify a package without a terminal: footer, CRC, listing against "
                 "the artifact rules, version, st.bin");
    check->add_option("PACKAGE", cl.package, "the update package")->required();
    check->add_flag("--json", cl.o.json,
                    "print one machine-readable result (JSON) and nothing else");

    commands["check"] = [](command_line &c) { return cmd_check(c.o, c.package); };
    commands["reboot"] = define_reboot(app, cl);
    commands["ack-error"] = define_ack_error(app, cl);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &e) {
        int rc = app.exit(e);
        return rc == 0 ? SWUC_EXIT_OK : SWUC_EXIT_USAGE;
    }
    if (exit_codes) {
        puts(swuc_exit_code_help().c_str());
        return SWUC_EXIT_OK;
    }
    if (app.get_subcommands().empty()) {
        fprintf(stderr, "swu-client: a command is required\n%s", app.help().c_str());
        return SWUC_EXIT_USAGE;
    }
    return commands.at(app.get_subcommands().front()->get_name())(cl);
}

} // namespace

int main(int argc, char **argv)
{
    // A terminal that vanishes mid-update must give an exit code, not a
    // signal from writing to a closed pipe.
    signal(SIGPIPE, SIG_IGN);
    // Whatever a terminal sends, the technician gets one line and an exit
    // code, never an abort.
    try {
        return run(argc, argv);
    } catch (const std::exception &e) {
        fprintf(stderr, "swu-client: unexpected error: %s\n", printable(e.what()).c_str());
    } catch (...) {
        fprintf(stderr, "swu-client: unexpected error\n");
    }
    return SWUC_EXIT_INTERNAL;
}
