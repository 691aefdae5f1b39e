// status: connect, print the terminal's status report and let the session
// lapse.
#include "cli_common.h"
#include "client_output.h"
#include "command_line.h"
#include "common/printable.h"

#include <arpa/inet.h>

using nlohmann::json;

int cmd_status(const client_options &o, const std::string &host)
{
    sockaddr_in terminal;
    std::string err;
    if (resolve_terminal(host, &terminal, &err) != 0)
        return finish(o, host, json::object(), SWUC_EXIT_USAGE, err);
    const remembered_terminal t = identify(o, terminal, IDENTIFY_SECONDS);
    swuc_session s;
    if (open_session(&s, o, t, true, &err) != 0)
        return finish(o, host, json::object(), SWUC_EXIT_LOCAL, err);

    json j = json::object();
    std::string connection;
    bool connected = false;
    for (int attempt = 0; attempt < 3 && !connected; attempt++) {
        conection_response_t rsp;
        if (swuc_connect(&s, &rsp) != 0)
            continue;
        j["connection_status"] = rsp.connection_status;
        j["power_source"] = rsp.power_source == SWU_PWR_SRC_BATTERY ? "battery" : "external";
        j["battery"] = rsp.bettery_status;
        j["update_reason_bits"] = rsp.swu_mode_reason_bitfield;
        if (rsp.connection_status == SWU_CON_RES_BATTERY_TOO_LOW)
            return finish(o, host, j, SWUC_EXIT_BATTERY,
                          "battery too low for an update (" + std::to_string(rsp.bettery_status) +
                              " %)");
        if (rsp.connection_status == SWU_CON_RES_CONNECTION_CONFIRMED) {
            connected = true;
            connection = std::string(rsp.power_source == SWU_PWR_SRC_BATTERY ? "battery"
                                                                             : "external power") +
                         ", battery " + std::to_string(rsp.bettery_status) +
                         " %, update reason: " + reason_text(rsp.swu_mode_reason_bitfield);
            swuc_remember_ports(t, s.port[SWUC_RX], s.port[SWUC_STREAM]);
        } else {
            break; // busy: only its own client gets its status
        }
    }
    // Unconfirmed, the terminal may still be ours (a running update from this
    // machine, or one in its check, installation, error or finish state,
    // which take no connection): it answers status to its client's port.
    swuc_status st;
    const int got = swuc_get_status(&s, &st);
    note_foreign(o, host, s.foreign);
    if (got != 0) {
        if (j.contains("connection_status"))
            return finish(o, host, j, SWUC_EXIT_BUSY, "busy: another client is connected");
        return finish(o, host, j, SWUC_EXIT_NO_ANSWER, "no answer");
    }
    if (o.json) {
        j["status"] = status_json(st);
        j["foreign"] = s.foreign;
        return finish(o, host, j, SWUC_EXIT_OK, "");
    }
    printf("terminal   %s:%u\n", addr_text(terminal).c_str(), ntohs(terminal.sin_port));
    if (!connection.empty())
        printf("connected  %s\n", connection.c_str());
    printf("stage      %u  %s\n", st.stage_code, printable(st.stage_description).c_str());
    printf("status     %u  %s\n", st.status_code, printable(st.status_message).c_str());
    printf("progress   %u %%, stage %s\n", st.stage_progress,
           st.stage_complete ? "complete" : "not complete");
    printf("battery    %u %%\n", st.battery_status);
    return SWUC_EXIT_OK;
}

command_run define_status(CLI::App &app, command_line &cl)
{
    CLI::App *status = app.add_subcommand(
        "status", "connect, print the terminal's status report and let the session lapse");
    status->add_option("HOST", cl.host, "the terminal")->required();
    add_common_options(status, cl.o, true);

    return [](command_line &c) { return cmd_status(c.o, c.host); };
}
