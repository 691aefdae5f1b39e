#include "swu/status.h"

#include "lib/sys/swu_assert.h"
#include "swu/fsm.h"
#include "swu/sys-api.h"

#include <cstdio>

std::atomic<uint8_t> g_connection_status{SWU_CON_STATUS_AVAIL};
std::atomic<uint8_t> g_status_code{SWU_STAGE_CODE_OK};
std::atomic<uint8_t> g_stage_code{SM_STATE_IDLE};
std::atomic<uint8_t> g_stage_progress{0};
std::atomic<uint8_t> g_stage_complete{0};

void set_connection_status()
{
    g_connection_status = SWU_CON_STATUS_BUSY;
}

void unset_connection_status()
{
    g_connection_status = SWU_CON_STATUS_AVAIL;
}

uint8_t get_connection_status()
{
    return g_connection_status;
}

void set_stage_complete()
{
    g_stage_complete = 1;
}

void unset_stage_complete()
{
    g_stage_complete = 0;
}

void set_status_code(uint8_t stt)
{
    SWU_ASSERT(stt < SM_STATE_COUNT);
    g_status_code = stt;
}

void set_stage_code(uint8_t stg)
{
    SWU_ASSERT(stg < SM_STATE_COUNT);
    g_stage_code = stg;
}

void set_stage_progress(uint8_t prog)
{
    SWU_ASSERT(prog <= 100);
    g_stage_progress = prog;
}

uint32_t build_stt_message(char *msg, uint32_t size)
{
    SWU_ASSERT(msg);
    SWU_ASSERT(size >= STT_RSPNS_MSG_BUFF_MIN_SIZE);

    // One snapshot of each fact, so the codes and their texts agree.
    const unsigned status = g_status_code;
    const unsigned stage = g_stage_code;
    const unsigned progress = g_stage_progress;
    const unsigned complete = g_stage_complete;

    const int len =
        snprintf(msg, size,
                 "{\"battery_status\":%u,"
                 "\"status_code\":%u,"
                 "\"status_message\":\"%s\","
                 "\"stage_code\":%u,"
                 "\"stage_description\":\"%s\","
                 "\"stage_progress\":%u,"
                 "\"stage_complete\":%u}",
                 static_cast<unsigned>(stub_get_battery_status()), status, swu_status_text(status),
                 stage, swu_stage_text(stage), progress, complete);
    if (len < 0)
        return 0;
    // Cannot happen with the tables above; a report that did not fit is cut.
    return static_cast<uint32_t>(len) < size ? static_cast<uint32_t>(len) : size - 1;
}
