// The update service daemon: serves one update over UDP and restarts the
// terminal when the update is done.
#include "platform/platform.h"
#include "swu/swu.h"
#include "swu/sys-api.h"

#include <cstdio>
#include <cstdlib>

namespace
{

#define APP_HELLO_RULE "/////////////////////////////////////////////////////////"
constexpr const char *APP_HELLO_MSG =
    APP_HELLO_RULE "\n// SWU App Version 1.0.0\n" APP_HELLO_RULE "\n";
#undef APP_HELLO_RULE

} // namespace

int main(int argc, char **argv)
{
    plat_require_root(argv[0]);
    swu_data_t swu_data = {};
    swu_parse_options(argc, argv);
    puts(APP_HELLO_MSG);

    thread_desc_t rx_desc = {0, &swu_data.sock[TXRX_SOCK], &swu_data.msg_q[RX_MSG_Q]};
    thread_desc_t tx_desc = {0, &swu_data.sock[TXRX_SOCK], &swu_data.msg_q[TX_MSG_Q]};
    thread_desc_t adv_desc = {0, &swu_data.sock[MC_SOCK], &swu_data.msg_q[TX_MSG_Q]};
    swu_init(&swu_data);

    // Without any one of its threads the service could not serve an update.
    int ret = swu_start_threads(&swu_data, &adv_desc, &rx_desc, &tx_desc);
    if (ret != 0) {
        swu_cleanup(&swu_data);
        exit(ret);
    }

    fsm_run(&swu_data.sm, SM_EVNT_NO_EVENT, SM_STATE_FINISH, SM_EVNT_INT_UPDATE_DONE);

    swu_stop_threads(&swu_data, &adv_desc, &rx_desc, &tx_desc);
    swu_cleanup(&swu_data);
    sys_api_set_reboot_mode_production();
    plat_sync();
    plat_system("/etc/init.d/S42hostapd stop");
    plat_system("ifconfig wlan0 down");
    sys_api_force_reboot();
    return 0;
}
