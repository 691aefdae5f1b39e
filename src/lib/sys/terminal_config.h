// The terminal's configuration blocks on the raw flash partitions:
// block 0 on "/dev/mtd0" (the terminal's identity), block 1 on "/dev/mtd1".
//
// Every call opens and closes the device and keeps no state; nothing
// coordinates concurrent writers. Failures are printed on standard output,
// naming the operation and the system's error text.
#pragma once

#include <cstdint>

// Size of the erase region that write_config rewrites, and the most it takes.
inline constexpr uint32_t TERMINAL_CONFIG_REGION_SIZE = 262144;

// Zeroes buff_size bytes of `buff`, then reads once up to buff_size bytes from
// the start of the device `dev` (a system path such as "/dev/mtd0"). A short
// read succeeds with the rest of `buff` zero. 0 on success, -1 on failure.
int read_config(const char *dev, char *buff, uint32_t buff_size);

// read_config of "/dev/mtd0" and of "/dev/mtd1".
int read_config0(char *buff, uint32_t buff_size);
int read_config1(char *buff, uint32_t buff_size);

// Erases the first 262144 bytes of "/dev/mtd1" and writes `usr_buff`
// followed by zero bytes over them in one write. More than 262144 bytes are
// refused with -1 before the device is opened. 0 on success, -1 on failure
// (after a failed erase the old contents stay; after a failed write the
// region may be partly written).
int write_config(const char *usr_buff, uint32_t buff_size);
