// The exit codes of swu-client, one per way an operation can end, and their
// texts: the help text and the README's list are both printed from the one
// table (swu-client --exit-codes).
#pragma once

#include <string>

enum swuc_exit_code : int {
    SWUC_EXIT_OK = 0,
    SWUC_EXIT_LOCAL = 1,
    SWUC_EXIT_USAGE = 2,
    SWUC_EXIT_NO_ANSWER = 3,
    SWUC_EXIT_BUSY = 4,
    SWUC_EXIT_BATTERY = 5,
    SWUC_EXIT_REFUSED = 6,
    SWUC_EXIT_INCOMPLETE = 7,
    SWUC_EXIT_NO_MEMORY = 8,
    SWUC_EXIT_FS_FAILURE = 9,
    SWUC_EXIT_INSTALL = 10,
    SWUC_EXIT_SESSION_LOST = 11,
    SWUC_EXIT_STALLED = 12,
    SWUC_EXIT_FLEET = 13,
    SWUC_EXIT_PACKAGE = 14,
    SWUC_EXIT_INTERNAL = 15,
    SWUC_EXIT_VERSION = 16,
    SWUC_EXIT_OLD_VERSION = 17,
    SWUC_EXIT_NOT_BACK = 18,
};

struct swuc_exit_info {
    swuc_exit_code code;
    const char *text;
};

// Every exit code in order, with its meaning.
extern const swuc_exit_info swuc_exit_table[];
extern const size_t swuc_exit_count;

// "Exit codes:\n  0   done\n  1   ...": the table as the help shows it.
std::string swuc_exit_code_help();

// The exit code for an error report with status code `status_code`.
int swuc_exit_for_status(unsigned status_code);
