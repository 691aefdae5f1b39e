// reboot: ask a terminal that finished its update to reboot.
#include "cli_common.h"
#include "command_line.h"

int cmd_reboot(const client_options &o, const std::string &host)
{
    return end_request(o, host, true);
}

command_run define_reboot(CLI::App &app, command_line &cl)
{
    CLI::App *reboot =
        app.add_subcommand("reboot", "ask a terminal that finished its update to reboot");
    reboot->add_option("HOST", cl.host, "the terminal")->required();
    add_common_options(reboot, cl.o, true);

    return [](command_line &c) { return cmd_reboot(c.o, c.host); };
}
