#include "proto/codes.h"

#include <iterator>

namespace
{

// Indexed by status code; codes from 3 on have no text.
constexpr const char *STATUS_TEXTS[] = {
    "operation compleated successfully...",
    "invalid stream request...",
    "invalid stream, some packets are missing...",
};

// Indexed by stage code; the idle stage has no text.
constexpr const char *STAGE_TEXTS[] = {
    "NULL",
    "Terminal is in update mode, connected...",
    "Terminal is receiving update stream...",
    "Terminal verifiying upgrade package...",
    "Terminal in upgradded to new version...",
    "Terminal encountered a major error, returning to initial state, re-connect to continue",
    "Terminal is rebooting...",
};
static_assert(std::size(STAGE_TEXTS) == SM_STATE_COUNT);

} // namespace

const char *swu_status_text(unsigned status_code)
{
    return status_code < std::size(STATUS_TEXTS) ? STATUS_TEXTS[status_code] : "NULL";
}

const char *swu_stage_text(unsigned stage)
{
    return stage < std::size(STAGE_TEXTS) ? STAGE_TEXTS[stage] : "NULL";
}
