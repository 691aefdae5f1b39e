#include "lib/exit_codes.h"

#include "proto/codes.h"

const swuc_exit_info swuc_exit_table[] = {
    {SWUC_EXIT_OK, "done"},
    {SWUC_EXIT_LOCAL, "the command could not run here (package unreadable, no socket)"},
    {SWUC_EXIT_USAGE, "bad command line"},
    {SWUC_EXIT_NO_ANSWER, "no terminal answered (nothing heard, or no answer to a request)"},
    {SWUC_EXIT_BUSY, "the terminal is busy: another client is connected"},
    {SWUC_EXIT_BATTERY, "the terminal's battery is too low for an update"},
    {SWUC_EXIT_REFUSED, "the terminal refused the stream request (status code 1)"},
    {SWUC_EXIT_INCOMPLETE,
     "the terminal found packets missing at the end of the stream (status code 2)"},
    {SWUC_EXIT_NO_MEMORY, "the terminal could not reserve room for the package (status code 3)"},
    {SWUC_EXIT_FS_FAILURE, "the terminal could not create the package file (status code 4)"},
    {SWUC_EXIT_INSTALL, "the terminal rejected the package or its installation failed"},
    {SWUC_EXIT_SESSION_LOST,
     "the session was lost (the terminal went back to idle or stopped answering)"},
    {SWUC_EXIT_STALLED, "no progress: acknowledgements or the installation stalled"},
    {SWUC_EXIT_FLEET, "update --all: at least one terminal failed (see the table)"},
    {SWUC_EXIT_PACKAGE, "the package was refused before anything was sent (--force sends it)"},
    {SWUC_EXIT_INTERNAL, "an unexpected error inside swu-client"},
    {SWUC_EXIT_VERSION, "the package is older than the installed version, or the same\n"
                        "(--allow-downgrade, --reinstall send it)"},
    {SWUC_EXIT_OLD_VERSION, "the terminal came back from its reboot with its old version"},
    {SWUC_EXIT_NOT_BACK, "the terminal did not come back from its reboot within --confirm-timeout"},
};
const size_t swuc_exit_count = sizeof swuc_exit_table / sizeof swuc_exit_table[0];

std::string swuc_exit_code_help()
{
    std::string text = "Exit codes:";
    for (size_t i = 0; i < swuc_exit_count; i++) {
        std::string code = std::to_string(swuc_exit_table[i].code);
        code.resize(4, ' ');
        text += "\n  " + code;
        for (const char *c = swuc_exit_table[i].text; *c != '\0'; c++)
            text += *c == '\n' ? std::string("\n      ") : std::string(1, *c);
    }
    return text;
}

int swuc_exit_for_status(unsigned status_code)
{
    switch (status_code) {
    case SWU_STAGE_CODE_INVL_STREAM_REQ:
        return SWUC_EXIT_REFUSED;
    case SWU_STAGE_CODE_MISSING_PCKTS:
        return SWUC_EXIT_INCOMPLETE;
    case SWU_STAGE_CODE_MEM_ALLOC_FAILURE:
        return SWUC_EXIT_NO_MEMORY;
    case SWU_STAGE_CODE_FS_FAILURE:
        return SWUC_EXIT_FS_FAILURE;
    default:
        return SWUC_EXIT_INSTALL;
    }
}
