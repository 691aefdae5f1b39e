// Classification of the shell commands the system runs, so that the host
// simulation knows which of them may reach the host's shell.
#pragma once

#include <string>

enum plat_cmd_kind {
    PLAT_CMD_RUN,      // tar or md5sum with every argument safely quoted
    PLAT_CMD_FDISK,    // the partitioning pipeline into fdisk
    PLAT_CMD_MKFS,     // mkfs.vfat of a partition
    PLAT_CMD_LOG_ONLY, // access point and interface control
    PLAT_CMD_REFUSE,   // anything else, or an unquoted shell operator
};

struct plat_cmd_t {
    plat_cmd_kind kind;
    std::string argument; // the device of PLAT_CMD_MKFS
};

plat_cmd_t plat_classify_command(const std::string &command);

// True when `text` holds no shell operator, expansion or glob character
// outside single or double quotes (in double quotes, $ and ` still count).
bool plat_is_quoted_safely(const std::string &text);
