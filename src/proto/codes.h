// The codes and fixed values that the terminal reports and a client reads:
// the stage and status codes of the status report with their texts, the
// update-reason bits, the power and terminal-type values, and the least
// battery charge for an update.
#pragma once

#include <cstdint>

// Stage codes: the state whose handler ran last. The state machine's states
// are these.
enum SM_STATE_ID : uint8_t {
    SM_STATE_IDLE = 0,
    SM_STATE_CONNECT = 1,
    SM_STATE_STREAM = 2,
    SM_STATE_VERIFY = 3,
    SM_STATE_UPGRADE = 4,
    SM_STATE_ERROR = 5,
    SM_STATE_FINISH = 6,
    SM_STATE_COUNT = 7,
};

// Status codes: the outcome of the terminal's last operation.
enum stage_code : uint8_t {
    SWU_STAGE_CODE_OK = 0,
    SWU_STAGE_CODE_INVL_STREAM_REQ = 1,
    SWU_STAGE_CODE_MISSING_PCKTS = 2,
    SWU_STAGE_CODE_MEM_ALLOC_FAILURE = 3,
    SWU_STAGE_CODE_FS_FAILURE = 4,
    SWU_STAGE_CODE_EINVAL_PKG = 5,
    SWU_STAGE_CODE_COUNT = 6,
};

// The texts the status report carries for a status code and for a stage
// code; "NULL" for a code without one.
const char *swu_status_text(unsigned status_code);
const char *swu_stage_text(unsigned stage);

// Update-mode reason bits, as the boot registers give them and the connection
// response carries them.
inline constexpr uint8_t SWU_REASON_UPDATE_REQUESTED = 1;
inline constexpr uint8_t SWU_REASON_ERROR_BOOT = 2;
// Only with the error boot that asks for the factory firmware: the
// advertisement reports its version and the microcontroller is left alone.
inline constexpr uint8_t SWU_REASON_KEEP_MCU = 4;

enum swu_power_source {
    SWU_PWR_SRC_BATTERY = 0,
    SWU_PWR_SRC_EXTERNAL = 1,
};

enum swu_power_status {
    // Least battery charge (percent) with which a battery-powered terminal
    // accepts a connection.
    SWU_PWR_SRC_MIN_BATTERY_ALOWED = 60,
};

enum term_type {
    SWU_TERM_TYPE_STATIC = 0,
    SWU_TERM_TYPE_DYNAMIC = 1,
};
