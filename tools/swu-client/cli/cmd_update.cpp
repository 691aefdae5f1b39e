// update HOST PACKAGE: one terminal, from the package check to the
// confirmation after its reboot; or with --dry-run, everything but the
// stream.
#include "cli_common.h"
#include "client_output.h"
#include "command_line.h"
#include "common/printable.h"
#include "lib/policy.h"

#include <fstream>
#include <sstream>
#include <unistd.h>

using nlohmann::json;

namespace
{

// Connects and lets the session lapse: what an update would meet.
int dry_run(const client_options &o, const std::string &host, const remembered_terminal &t, json j)
{
    swuc_session s;
    std::string err;
    if (open_session(&s, o, t, false, &err) != 0)
        return finish(o, host, j, SWUC_EXIT_LOCAL, err);
    conection_response_t rsp;
    if (swuc_connect(&s, &rsp) != 0)
        return finish(o, host, j, SWUC_EXIT_NO_ANSWER, "no answer to the connection request");
    const std::string power = rsp.power_source == SWU_PWR_SRC_BATTERY ? "battery" : "external";
    j["power_source"] = power;
    j["battery"] = rsp.bettery_status;
    int code = SWUC_EXIT_OK;
    std::string state = "free";
    if (rsp.connection_status == SWU_CON_RES_ALREADY_CONNECTED) {
        code = SWUC_EXIT_BUSY;
        state = "busy: another client is connected";
    } else if (rsp.connection_status == SWU_CON_RES_BATTERY_TOO_LOW) {
        code = SWUC_EXIT_BATTERY;
        state = "battery too low for an update";
    }
    j["terminal_state"] = state;
    if (!o.json) {
        printf("terminal   %s, %s power, battery %u %%\n", state.c_str(), power.c_str(),
               rsp.bettery_status);
        printf("dry run    %s\n", code == SWUC_EXIT_OK ? "an update would start; nothing was sent"
                                                       : "an update would not start");
    }
    j["result"] = code == SWUC_EXIT_OK ? "would update" : "would fail";
    return finish(o, host, j, code, code == SWUC_EXIT_OK ? "" : state);
}

} // namespace

void warn_reused_name(const client_options &o, const remembered_terminal &t, const update_params &u,
                      const pack_report &pkg)
{
    if (o.json || u.name.empty() ||
        !swuc_name_carried_another(t, u.name, pkg.package_size, pkg.footer_crc))
        return;
    fprintf(stderr,
            "swu-client: warning: the name '%s' carried another package to %s before; the "
            "terminal keeps that file and checks this package against its tail, so the check "
            "is likely to fail. Leave --name out for a fresh name.\n",
            printable(u.name).c_str(), addr_text(t.address).c_str());
}

int cmd_update(const client_options &o, const std::string &host, const std::string &package,
               const update_params &u)
{
    sockaddr_in terminal;
    std::string err;
    if (resolve_terminal(host, &terminal, &err) != 0)
        return finish(o, host, json::object(), SWUC_EXIT_USAGE, err);
    in_addr_t local;
    if (resolve_local(o, &local) != 0)
        return finish(o, host, json::object(), SWUC_EXIT_USAGE,
                      "bad local address '" + o.local_addr + "'");
    pack_report pkg;
    if (int code = check_package(o, package, &pkg, &err); code != SWUC_EXIT_OK)
        return finish(o, host, json::object(), code, err);
    // The installed version and the identity come with the terminal's
    // advertisement (every 3 s).
    json j = {{"package_version", pkg.has_version ? pkg_version_text(pkg.version) : ""}};
    remembered_terminal t;
    t.address = terminal;
    swuc_advert adv;
    if (find_advert(o, terminal, IDENTIFY_SECONDS, &adv)) {
        t.identity = swuc_advert_id(adv.adv);
        pkg_version_t installed;
        std::copy(adv.adv.curr_sw_v, adv.adv.curr_sw_v + 3, installed.v);
        j["installed_version"] = pkg_version_text(installed.v);
        j["identity"] = t.identity;
        if (!o.json && o.dry_run)
            printf("versions   package %s, installed %s\n",
                   pkg.has_version ? pkg_version_text(pkg.version).c_str() : "(none)",
                   pkg_version_text(installed).c_str());
        if (int code = swuc_version_floor(o.policy, installed, pkg, &err); code != SWUC_EXIT_OK)
            return finish(o, host, j, code, err);
    } else if (!o.json) {
        printf("installed version and identity unknown (no advertisement heard from %s); the "
               "version is not compared and the confirmation takes any identity\n",
               addr_text(terminal).c_str());
    }
    if (o.dry_run)
        return dry_run(o, host, t, j);
    warn_reused_name(o, t, u, pkg);
    update_params p = make_params(o, terminal, package, u);
    p.expected_version = pkg.has_version ? pkg_version_text(pkg.version) : "";
    p.expected_identity = t.identity;
    update_view view(stdout, isatty(STDOUT_FILENO) != 0, "", nullptr);
    update_events ev = o.json ? update_events{} : view.events();
    if (!o.json)
        view.line("updating " + addr_text(terminal) + " with " + package);
    update_outcome out = run_update(p, ev);
    if (out.rx_port != 0)
        swuc_remember_ports(t, out.rx_port, out.stream_port);
    swuc_remember_name(t, out.name, pkg.package_size, pkg.footer_crc);
    note_foreign(o, host, out.foreign);
    if (o.json)
        return finish(o, host, outcome_json(out), out.exit_code, "");
    if (out.exit_code == SWUC_EXIT_OK)
        view.line(summary(out));
    else
        error_line(host, out.message);
    return out.exit_code;
}

command_run define_update(CLI::App &app, command_line &cl)
{
    CLI::App *update = app.add_subcommand(
        "update", "update one terminal (HOST PACKAGE) or every free one (--all PACKAGE)");
    update->add_option("HOST_OR_PACKAGE", cl.host, "the terminal (left out with --all)")
        ->required();
    update->add_option("PACKAGE", cl.package, "the update package (swu-pack builds one)");
    update->add_flag("--all", cl.all, "discover and update every free terminal");
    update->add_option("--timeout", cl.timeout_s, "with --all: seconds to listen for terminals")
        ->check(CLI::Range(0.1, 3600.0));
    update->add_option("--parallel", cl.fleet.parallel, "with --all: terminals updated at once")
        ->check(CLI::Range(1, 64));
    update
        ->add_option("--canary", cl.fleet.canary,
                     "with --all: update this many terminals first, and the rest only if all of "
                     "them succeed")
        ->check(CLI::Range(0, 100000));
    update
        ->add_option("--max-failures", cl.fleet.max_failures,
                     "with --all: start no new update after this many failures (0: no limit)")
        ->check(CLI::Range(0, 100000));
    update->add_option("--report", cl.report_path,
                       "with --all: add one JSON line per terminal to this file");
    update->add_option("--only", cl.only,
                       "with --all: update only the terminals of these identities (ID,ID,...); "
                       "others heard are listed apart and left alone");
    update->add_option("--inventory", cl.inventory,
                       "with --all: update only the terminals listed in this file, one a line: "
                       "IDENTITY [ADDRESS]");
    update->add_flag("--no-confirm", cl.no_confirm,
                     "don't wait for the terminal to come back after its reboot");
    update
        ->add_option("--confirm-timeout", cl.u.confirm_timeout_s,
                     "seconds to wait for the terminal's advertisement after its reboot")
        ->check(CLI::Range(1, 3600));
    update
        ->add_option("--window", cl.u.window,
                     "most packets in flight (1: one at a time); fewer while the link loses "
                     "packets")
        ->check(CLI::Range(1, 1024));
    update
        ->add_option("--ack-timeout", cl.u.ack_timeout_ms,
                     "least milliseconds without an acknowledgement before resending from the "
                     "oldest unacknowledged packet (the wait follows the round trip above it)")
        ->check(CLI::Range(0, 10000));
    update
        ->add_option("--retries", cl.u.retries,
                     "times a stream is started over after packets went missing or stalled")
        ->check(CLI::Range(0, 10));
    update
        ->add_option("--install-timeout", cl.u.install_timeout_s,
                     "seconds to wait for the check and the installation")
        ->check(CLI::Range(1, 86400));
    update->add_option("--name", cl.u.name,
                       "package name announced to the terminal (default: a fresh name for each "
                       "attempt, from the file's name, size and CRC)");
    update->add_flag("--dry-run", cl.o.dry_run,
                     "connect and check everything an update would (package, free or busy, "
                     "battery, versions), send nothing, and let the session lapse");
    update->add_flag("--allow-downgrade", cl.o.policy.allow_downgrade,
                     "send a package older than the installed version");
    update->add_flag("--reinstall", cl.o.policy.reinstall,
                     "send a package of the installed version");
    update->add_flag("--force", cl.o.policy.force,
                     "send a package that would harm the terminal (names its card can't hold, "
                     "an empty or oversized st.bin, a bad CRC)");
    update->add_flag("--no-reboot", cl.no_reboot,
                     "leave the terminal in its finish state (it restarts by itself after 30 s)");
    add_common_options(update, cl.o, true);

    return [](command_line &c) {
        c.u.reboot = !c.no_reboot;
        if (c.no_confirm)
            c.u.confirm_timeout_s = 0;
        if (!c.only.empty() && !c.inventory.empty()) {
            fprintf(stderr, "swu-client: --only and --inventory exclude each other\n");
            return int{SWUC_EXIT_USAGE};
        }
        if (!c.only.empty())
            c.o.known = known_terminals::from_list(c.only);
        if (!c.inventory.empty()) {
            std::ifstream in(c.inventory);
            std::stringstream text;
            text << in.rdbuf();
            std::string err;
            if (!in || !known_terminals::from_inventory(text.str(), &c.o.known, &err)) {
                fprintf(stderr, "swu-client: inventory '%s': %s\n", printable(c.inventory).c_str(),
                        in ? err.c_str() : "cannot read it");
                return int{SWUC_EXIT_USAGE};
            }
        }
        if (c.all) {
            if (!c.package.empty()) {
                fprintf(stderr, "swu-client: update --all takes the package alone, no HOST\n");
                return int{SWUC_EXIT_USAGE};
            }
            return cmd_update_all(c.o, c.host, c.u, c.timeout_s, c.fleet, c.report_path);
        }
        if (c.package.empty()) {
            fprintf(stderr, "swu-client: update needs HOST and PACKAGE (or --all PACKAGE)\n");
            return int{SWUC_EXIT_USAGE};
        }
        return cmd_update(c.o, c.host, c.package, c.u);
    };
}
