// update HOST PACKAGE: one terminal, from the package check to the
// confirmation after its reboot; or with --dry-run, everything but the
// stream.
#include "cli_common.h"
#include "client_output.h"
#include "common/printable.h"
#include "lib/policy.h"

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
    json j = {{"package_version", pkg.has_version ? pack_version_text(pkg.version) : ""}};
    remembered_terminal t;
    t.address = terminal;
    swuc_advert adv;
    if (find_advert(o, terminal, IDENTIFY_SECONDS, &adv)) {
        t.identity = swuc_advert_id(adv.adv);
        pack_version installed;
        std::copy(adv.adv.curr_sw_v, adv.adv.curr_sw_v + 3, installed.v);
        j["installed_version"] = pack_version_text(installed);
        j["identity"] = t.identity;
        if (!o.json && o.dry_run)
            printf("versions   package %s, installed %s\n",
                   pkg.has_version ? pack_version_text(pkg.version).c_str() : "(none)",
                   pack_version_text(installed).c_str());
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
    p.expected_version = pkg.has_version ? pack_version_text(pkg.version) : "";
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
