// The one seam between the system and the machine it runs on.
//
// Everything that touches terminal hardware or the host's system state goes
// through these functions: the misc register device, the flash partitions,
// the card's mount, the restart, the shell commands, and the resolution of
// every fixed absolute path. Two builds implement them:
//   terminal  the real calls, with the paths as they stand;
//   host      a simulation kept under the directory named by SWU_ROOT, which
//             never reboots, partitions, formats, mounts or takes down an
//             interface of the machine it runs on (see README.md).
// Results follow the system calls they stand for: 0 or a count on success,
// -1 with errno set on failure.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <sys/types.h>
#include <sys/vfs.h>

// Mount flag for a mount whose directory changes are synchronous.
inline constexpr unsigned long PLAT_MS_DIRSYNC = 0x80;

// File-system type numbers that statfs reports for the card's mount point.
inline constexpr long PLAT_TMPFS_MAGIC = 0x01021994;
inline constexpr long PLAT_MSDOS_MAGIC = 0x4D44;

// Requests of the misc register device.
inline constexpr unsigned long PLAT_MISC_GET_INITIATE_UPDATE = 0x4207;
inline constexpr unsigned long PLAT_MISC_SET_REBOOT_MODE = 0x4208;
inline constexpr unsigned long PLAT_MISC_GET_ERR_BOOT = 0x4209;

// True in the host build (the simulation).
bool plat_is_simulation();

// Called first by every terminal program's main. The host build exits with
// status 2 and one line naming SWU_ROOT when it is not set; the terminal build
// does nothing.
void plat_require_root(const char *prog_name);

// The path under which the system's fixed absolute path `abs_path` is found:
// unchanged on the terminal, "$SWU_ROOT<abs_path>" on the host. A trailing
// slash is kept.
std::string plat_path(const char *abs_path);

// open/read/write of a device or file named by its system path (resolved with
// plat_path). The host build can be told to fail them (see README.md).
int plat_open(const char *abs_path, int flags, mode_t mode = 0);
ssize_t plat_read(int fd, void *buf, size_t count);
ssize_t plat_write(int fd, const void *buf, size_t count);

// Allocates the first `len` bytes of the file open on `fd` on its disk, so
// that writing them later cannot find the disk full (posix_fallocate). The
// host build can be told to fail it, as the card filling up would.
int plat_reserve(int fd, off_t len);

// One request of the misc register device on `fd` (opened with plat_open):
// the two reads fill *value, the reboot-mode request passes it.
int plat_misc_request(int fd, unsigned long request, uint32_t *value);

// Erases `length` bytes at `start` of the flash partition open on `fd`.
int plat_mtd_erase(int fd, uint32_t start, uint32_t length);

// Restarts the machine at once. Does not return on success; the host build
// records the restart and ends the process with status 0.
int plat_reboot();

// mount/umount/statfs/sync with the system's own paths.
int plat_mount(const char *source, const char *target, const char *fstype, unsigned long flags,
               const void *data);
int plat_umount(const char *target);
int plat_statfs(const char *abs_path, struct statfs *buf);
void plat_sync();

// A shell command, as system() and popen()/pclose() run it. Paths inside
// `command` are already resolved with plat_path. The host build runs only
// commands that cannot change the host (tar, md5sum) and simulates the rest.
int plat_system(const char *command);
FILE *plat_popen(const char *command, const char *mode);
int plat_pclose(FILE *stream);
