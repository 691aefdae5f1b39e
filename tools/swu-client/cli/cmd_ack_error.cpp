// ack-error: acknowledge a terminal's error, which sends it back to idle.
#include "cli_common.h"
#include "command_line.h"

int cmd_ack_error(const client_options &o, const std::string &host)
{
    return end_request(o, host, false);
}

command_run define_ack_error(CLI::App &app, command_line &cl)
{
    CLI::App *ack = app.add_subcommand(
        "ack-error", "acknowledge a terminal's error, which sends it back to idle");
    ack->add_option("HOST", cl.host, "the terminal")->required();
    add_common_options(ack, cl.o, true);

    return [](command_line &c) { return cmd_ack_error(c.o, c.host); };
}
