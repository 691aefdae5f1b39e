#include "swu/sys-api.h"

#include "lib/sys/swu_assert.h"
#include "lib/sys/unique_fd.h"
#include "platform/platform.h"

#include <cstdio>
#include <fcntl.h>

namespace
{

// One request on a freshly opened device, as the driver expects.
int misc_request(unsigned long request, uint32_t *value)
{
    unique_fd fd(plat_open("/dev/ovmisc", O_RDWR | O_CLOEXEC));
    if (!fd.valid()) {
        puts("Failed to open power interface device.");
        return -1;
    }
    if (plat_misc_request(fd.get(), request, value) < 0) {
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

    uint8_t reason = initiate == SYS_API_INITIATE_UPDATE_VALUE ? SWU_REASON_UPDATE_REQUESTED : 0;
    if (err_boot == SYS_API_ERR_BOOT_VALUE)
        reason |= SWU_REASON_ERROR_BOOT;
    if (err_boot == SYS_API_ERR_BOOT_KEEP_MCU_VALUE)
        reason |= SWU_REASON_ERROR_BOOT | SWU_REASON_KEEP_MCU;
    return reason;
}

int sys_api_set_reboot_mode_production()
{
    uint32_t mode = 0;
    return misc_request(PLAT_MISC_SET_REBOOT_MODE, &mode);
}

int sys_api_force_reboot()
{
    unique_fd fd(plat_open("/dev/ovmisc", O_RDWR | O_CLOEXEC));
    if (!fd.valid()) {
        puts("Failed to open power interface device.");
        return -1;
    }
    plat_reboot();
    puts("ioctl failed.");
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

uint8_t stub_get_power_source()
{
    return SWU_PWR_SRC_EXTERNAL;
}

uint8_t stub_get_battery_status()
{
    return 80;
}

uint8_t get_term_type()
{
    return SWU_TERM_TYPE_DYNAMIC;
}
