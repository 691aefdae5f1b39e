// swu-client: the technician's tool for the terminal's update service.
#include "cli/client_commands.h"
#include "common/printable.h"

#include <fstream>
#include <iostream>
#include <sstream>

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

    client_options o;
    update_params u;
    double timeout_s = 4;
    fleet_opts fleet;
    std::string report_path;
    bool no_confirm = false;
    bool all = false;
    std::string host, package;

    auto common = [&](CLI::App *cmd, bool ports) {
        cmd->add_option("--local", o.local_addr,
                        "local IPv4 address to send from and to join the advertisement group on");
        cmd->add_flag("--json", o.json,
                      "print one machine-readable result (JSON) and nothing else");
        cmd->add_flag("-v,--verbose", o.verbose,
                      "also say how many datagrams were dropped for not coming from the "
                      "terminal's address and port");
        cmd->add_option("--reply-timeout", o.reply_timeout_ms,
                        "milliseconds to wait for each answer")
            ->check(CLI::Range(50, 60000));
        if (ports) {
            cmd->add_option("--rx-port", o.rx_port,
                            "local UDP port for connection, status, reboot and restart answers "
                            "(default: ephemeral)");
            cmd->add_option("--stream-port", o.stream_port,
                            "local UDP port for the stream's answers (default: ephemeral)");
        }
    };

    CLI::App *discover =
        app.add_subcommand("discover", "list the terminals heard on 227.0.0.0:12225");
    discover
        ->add_option("--timeout", timeout_s, "seconds to listen (advertisements come every 3 s)")
        ->check(CLI::Range(0.1, 3600.0));
    common(discover, false);

    CLI::App *status = app.add_subcommand(
        "status", "connect, print the terminal's status report and let the session lapse");
    status->add_option("HOST", host, "the terminal")->required();
    common(status, true);

    CLI::App *update = app.add_subcommand(
        "update", "update one terminal (HOST PACKAGE) or every free one (--all PACKAGE)");
    update->add_option("HOST_OR_PACKAGE", host, "the terminal (left out with --all)")->required();
    update->add_option("PACKAGE", package, "the update package (swu-pack builds one)");
    update->add_flag("--all", all, "discover and update every free terminal");
    update->add_option("--timeout", timeout_s, "with --all: seconds to listen for terminals")
        ->check(CLI::Range(0.1, 3600.0));
    update->add_option("--parallel", fleet.parallel, "with --all: terminals updated at once")
        ->check(CLI::Range(1, 64));
    update
        ->add_option("--canary", fleet.canary,
                     "with --all: update this many terminals first, and the rest only if all of "
                     "them succeed")
        ->check(CLI::Range(0, 100000));
    update
        ->add_option("--max-failures", fleet.max_failures,
                     "with --all: start no new update after this many failures (0: no limit)")
        ->check(CLI::Range(0, 100000));
    update->add_option("--report", report_path,
                       "with --all: add one JSON line per terminal to this file");
    std::string only, inventory;
    update->add_option("--only", only,
                       "with --all: update only the terminals of these identities (ID,ID,...); "
                       "others heard are listed apart and left alone");
    update->add_option("--inventory", inventory,
                       "with --all: update only the terminals listed in this file, one a line: "
                       "IDENTITY [ADDRESS]");
    update->add_flag("--no-confirm", no_confirm,
                     "don't wait for the terminal to come back after its reboot");
    update
        ->add_option("--confirm-timeout", u.confirm_timeout_s,
                     "seconds to wait for the terminal's advertisement after its reboot")
        ->check(CLI::Range(1, 3600));
    update
        ->add_option("--window", u.window,
                     "most packets in flight (1: one at a time); fewer while the link loses "
                     "packets")
        ->check(CLI::Range(1, 1024));
    update
        ->add_option("--ack-timeout", u.ack_timeout_ms,
                     "least milliseconds without an acknowledgement before resending from the "
                     "oldest unacknowledged packet (the wait follows the round trip above it)")
        ->check(CLI::Range(0, 10000));
    update
        ->add_option("--retries", u.retries,
                     "times a stream is started over after packets went missing or stalled")
        ->check(CLI::Range(0, 10));
    update
        ->add_option("--install-timeout", u.install_timeout_s,
                     "seconds to wait for the check and the installation")
        ->check(CLI::Range(1, 86400));
    update->add_option("--name", u.name,
                       "package name announced to the terminal (default: a fresh name for each "
                       "attempt, from the file's name, size and CRC)");
    update->add_flag("--dry-run", o.dry_run,
                     "connect and check everything an update would (package, free or busy, "
                     "battery, versions), send nothing, and let the session lapse");
    update->add_flag("--allow-downgrade", o.policy.allow_downgrade,
                     "send a package older than the installed version");
    update->add_flag("--reinstall", o.policy.reinstall, "send a package of the installed version");
    update->add_flag("--force", o.policy.force,
                     "send a package that would harm the terminal (names its card can't hold, "
                     "an empty or oversized st.bin, a bad CRC)");
    bool no_reboot = false;
    update->add_flag("--no-reboot", no_reboot,
                     "leave the terminal in its finish state (it restarts by itself after 30 s)");
    common(update, true);

    CLI::App *check = app.add_subcommand(
        "check", "show and verify a package without a terminal: footer, CRC, listing against "
                 "the artifact rules, version, st.bin");
    check->add_option("PACKAGE", package, "the update package")->required();
    check->add_flag("--json", o.json, "print one machine-readable result (JSON) and nothing else");

    CLI::App *reboot =
        app.add_subcommand("reboot", "ask a terminal that finished its update to reboot");
    reboot->add_option("HOST", host, "the terminal")->required();
    common(reboot, true);

    CLI::App *ack = app.add_subcommand(
        "ack-error", "acknowledge a terminal's error, which sends it back to idle");
    ack->add_option("HOST", host, "the terminal")->required();
    common(ack, true);

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
    u.reboot = !no_reboot;
    if (!only.empty() && !inventory.empty()) {
        fprintf(stderr, "swu-client: --only and --inventory exclude each other\n");
        return SWUC_EXIT_USAGE;
    }
    if (!only.empty())
        o.known = known_terminals::from_list(only);
    if (!inventory.empty()) {
        std::ifstream in(inventory);
        std::stringstream text;
        text << in.rdbuf();
        std::string err;
        if (!in || !known_terminals::from_inventory(text.str(), &o.known, &err)) {
            fprintf(stderr, "swu-client: inventory '%s': %s\n", printable(inventory).c_str(),
                    in ? err.c_str() : "cannot read it");
            return SWUC_EXIT_USAGE;
        }
    }
    if (no_confirm)
        u.confirm_timeout_s = 0;

    if (*discover)
        return cmd_discover(o, timeout_s);
    if (*status)
        return cmd_status(o, host);
    if (*check)
        return cmd_check(o, package);
    if (*reboot)
        return cmd_reboot(o, host);
    if (*ack)
        return cmd_ack_error(o, host);
    if (all) {
        if (!package.empty()) {
            fprintf(stderr, "swu-client: update --all takes the package alone, no HOST\n");
            return SWUC_EXIT_USAGE;
        }
        return cmd_update_all(o, host, u, timeout_s, fleet, report_path);
    }
    if (package.empty()) {
        fprintf(stderr, "swu-client: update needs HOST and PACKAGE (or --all PACKAGE)\n");
        return SWUC_EXIT_USAGE;
    }
    return cmd_update(o, host, package, u);
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
