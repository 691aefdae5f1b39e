#include "lib/st_control/st_control.h"

#include "lib/st_control/logFile.h"
#include "lib/st_control/stm_com/zynq_st_uart_prot.h"
#include "lib/sys/unique_fd.h"
#include "platform/platform.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <getopt.h>
#include <unistd.h>

namespace
{

constexpr const char *UART_DEVICE = "/dev/ttyUL1";
constexpr const char *FIRMWARE_IMAGE = "/mnt/emmc/st.bin";
constexpr uint16_t LOG_FLAGS = 260; // millisecond time field only
constexpr uint32_t BTN_NOT_GIVEN = 0xFFFFFFFF;
constexpr uint8_t LED_NO_ACTION = 0xFF;

struct ledCtrl_t {
    uint8_t r0w1;
    uint32_t blink;
    uint32_t color;
};

} // namespace

int st_soft_control(int argc, char **argv)
{
    const char *goto_app = nullptr;
    const char *detect_shutdown_req = nullptr;
    bool softUpdate = false;
    bool get_status = false;
    uint32_t btn = BTN_NOT_GIVEN;
    int version_flag = 0;
    const char *filePath = nullptr;
    const char *ttyPath = nullptr;
    ledCtrl_t ledCtrl = {LED_NO_ACTION, 0, 0};

    initLog(nullptr, LOG_FLAGS);

    // 0, not 1: glibc then starts its scanner afresh, forgetting whatever an
    // earlier scan in this process (the service's own, or ours) left behind.
    optind = 0;
    int opt;
    while ((opt = getopt(argc, argv, "sg:d:uf:t:b:l:v")) != -1) {
        switch (opt) {
        case 'b': {
            unsigned long value = strtoul(optarg, nullptr, 0);
            if (value != 0 && value != 1) {
                addLog("btn value is invalid");
                return -1;
            }
            btn = static_cast<uint32_t>(value);
            break;
        }
        case 'l': {
            size_t len = strlen(optarg);
            if (len != 1 && len != 5) {
                addLog("ERROR: -l flag not valid!!");
                break;
            }
            if (optarg[0] == 'r') {
                ledCtrl.r0w1 = 0;
            } else if (optarg[0] == 'w') {
                ledCtrl.r0w1 = 1;
                unsigned int blink = ledCtrl.blink;
                unsigned int color = ledCtrl.color;
                sscanf(optarg, "wb%uc%u", &blink, &color);
                ledCtrl.blink = blink;
                ledCtrl.color = color;
            }
            break;
        }
        case 's':
            get_status = true;
            break;
        case 'u':
            softUpdate = true;
            break;
        case 'v':
            version_flag = 1;
            break;
        case 'd':
            detect_shutdown_req = optarg;
            break;
        case 'f':
            filePath = optarg;
            break;
        case 'g':
            goto_app = optarg;
            break;
        case 't':
            ttyPath = optarg;
            break;
        default:
            return -1;
        }
    }

    if (ttyPath == nullptr) {
        addLog("ERROR: USE -t FLAG!");
        return -1;
    }

    unique_fd uart(plat_open(UART_DEVICE, O_RDWR | O_NOCTTY | O_SYNC | O_CLOEXEC));
    if (uart.get() < 0) {
        addLog("ERROR OPENNING UART TTY");
        return -1;
    }
    stm_init_uart(uart.get());

    if (softUpdate) {
        addLog("*** Starting STM software update ***");
        unique_fd image(plat_open(FIRMWARE_IMAGE, O_RDONLY | O_CLOEXEC));
        if (image.get() < 0) {
            if (filePath != nullptr)
                puts(filePath);
            addLog("ERROR OPENNING UPDATE FILE");
            return -1;
        }
        if (stm_update_file(uart.get(), image.get()) != 0)
            addLog("ERROR update STM");
        else
            addLog("SUCCESS to update STM");
    }

    if (ledCtrl.r0w1 != LED_NO_ACTION) {
        int led = stm_led_ctrl(uart.get(), ledCtrl.r0w1, static_cast<uint8_t>(ledCtrl.blink),
                               static_cast<uint8_t>(ledCtrl.color));
        if (ledCtrl.r0w1 == 0)
            printf("Current LED sate: 0x%x\n", static_cast<unsigned>(led));
    }

    if (btn != BTN_NOT_GIVEN)
        stm_btn_ctrl(uart.get(), static_cast<uint8_t>(btn));

    if (version_flag) {
        uint32_t api_ver = 0;
        uint32_t boot_ver = 0;
        if (stm_version_req(uart.get(), &api_ver, &boot_ver) == 0)
            printf("Main APP Version:%08x ,BootLoader Version: %08x\n", api_ver, boot_ver);
        else
            addLog("ERROR: stm_version_req failed");
    }

    if (goto_app != nullptr) {
        if (goto_app[0] == 'm')
            stm_program_done(uart.get());
        else if (goto_app[0] == 'b')
            stm_goto_bootloader(uart.get());
        else
            addLog("Error with -g flag");
    }

    if (detect_shutdown_req != nullptr)
        stm_detect_shutdown_rq(uart.get(), detect_shutdown_req[0]);

    if (get_status) {
        uint8_t flag = 0;
        if (stm_status_req(uart.get(), nullptr, &flag) != 0) {
            addLog("ERROR: stm_status_req failed");
        } else if (flag == STM32_ACK) {
            puts("Recovery requested");
        } else if (flag == STM32_NAK) {
            puts("Recovery NOT requested");
        } else {
            addLog("ERROR: stm_status_req return unknown value");
        }
    }
    return 0;
}
