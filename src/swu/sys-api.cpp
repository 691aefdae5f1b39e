#include "swu/sys-api.h"

#include "lib/sys/swu_assert.h"
#include "platform/platform.h"

#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

namespace {

// One request on a freshly opened device, as the driver expects.
int misc_request(unsigned long request, uint32_t *value)
{
    int fd = plat_open("/dev/ovmisc", O_RDWR | O_CLOEXEC);
    if (fd < 0) {
        puts("Failed to open power interface device.");
        return -1;
    }
    int ret = plat_misc_request(fd, request, value);
    close(fd);
    if (ret < 0) {
        puts("ioctl failed.");
        return -1;
    }
    return 0;
}

} // namespace

int sys_api_get_initiate_update_reg(uint32_t *ui_value)
{
    return misc_request(PLAT_MISC_GET_INITIATE_UPDATE, ui_value);
}

int sys_api_get_err_boot_reg(uint32_t *ui_value)
{
    return misc_request(PLAT_MISC_GET_ERR_BOOT, ui_value);
}

uint8_t sys_api_get_swu_reson_reg()
{
    uint32_t initiate = 0;
    uint32_t err_boot = 0;
    sys_api_get_initiate_update_reg(&initiate);
    sys_api_get_err_boot_reg(&err_boot);

    uint8_t reason = initiate == SYS_API_INITIATE_UPDATE_VALUE ? 1 : 0;
    if (err_boot == SYS_API_ERR_BOOT_VALUE)
        reason |= 2;
    if (err_boot == SYS_API_ERR_BOOT_KEEP_MCU_VALUE)
        reason |= 6;
    return reason;
}

int sys_api_set_reboot_mode_production()
{
    uint32_t mode = 0;
    return misc_request(PLAT_MISC_SET_REBOOT_MODE, &mode);
}

int sys_api_force_reboot()
{
    int fd = plat_open("/dev/ovmisc", O_RDWR | O_CLOEXEC);
    if (fd < 0) {
        puts("Failed to open power interface device.");
        return -1;
    }
    plat_reboot();
    puts("ioctl failed.");
    close(fd);
    return -1;
}

int sys_api_get_factory_fw_version(uint16_t *arr, size_t size)
{
    SWU_ASSERT(size == 3);
    arr[0] = 0;
    arr[1] = 1;
    arr[2] = 3;
    return -1;
}

uint8_t stub_get_power_source() { return SWU_PWR_SRC_EXTERNAL; }

uint8_t stub_get_battery_status() { return 80; }

uint8_t get_term_type() { return SWU_TERM_TYPE_DYNAMIC; }
