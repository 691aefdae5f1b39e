// ack-error: acknowledge a terminal's error, which sends it back to idle.
#include "cli_common.h"

int cmd_ack_error(const client_options &o, const std::string &host)
{
    return end_request(o, host, false);
}
