// The service's contact with the terminal's boot and power hardware: the boot
// registers that say why the terminal is in update mode, the reboot mode, the
// restart, and the fixed answers about power, battery, terminal type and
// factory firmware version.
#pragma once

#include "proto/codes.h"

#include <cstddef>
#include <cstdint>

// Register values that carry meaning.
inline constexpr uint32_t SYS_API_INITIATE_UPDATE_VALUE = 0xFAACABBA;
inline constexpr uint32_t SYS_API_ERR_BOOT_VALUE = 0xDEADBEEF;
inline constexpr uint32_t SYS_API_ERR_BOOT_KEEP_MCU_VALUE = 0xD00EFAAC;

// Reads the initiate-update register into *ui_value: 0, or -1 after a line on
// standard output.
int sys_api_get_initiate_update_reg(uint32_t *ui_value);
// Reads the error-boot register into *ui_value: 0 or -1.
int sys_api_get_err_boot_reg(uint32_t *ui_value);
// The update-mode reason bits: 1 update requested, 2 error boot, 4 error boot
// that keeps the microcontroller's firmware. Unreadable registers count as 0.
uint8_t sys_api_get_swu_reson_reg();
// Sets the reboot mode to production: 0 or -1.
int sys_api_set_reboot_mode_production();
// Restarts the terminal at once; returns -1 only when it could not.
int sys_api_force_reboot();
// Fills arr[0..2] with the factory firmware version 0.1.3. Asserts size == 3.
// Always returns -1; callers ignore the result.
int sys_api_get_factory_fw_version(uint16_t *arr, size_t size);

uint8_t stub_get_power_source();   // SWU_PWR_SRC_EXTERNAL
uint8_t stub_get_battery_status(); // 80 (percent)
uint8_t get_term_type();           // SWU_TERM_TYPE_DYNAMIC
