// reboot: ask a terminal that finished its update to reboot.
#include "cli_common.h"

int cmd_reboot(const client_options &o, const std::string &host)
{
    return end_request(o, host, true);
}
