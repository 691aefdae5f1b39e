// Terminal build of the platform seam: the real calls, with the system's
// paths as they stand.
#include "platform/platform.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <mtd/mtd-user.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/reboot.h>
#include <unistd.h>

static_assert(PLAT_MS_DIRSYNC == MS_DIRSYNC);
static_assert(sizeof(erase_info_t) == 8);

bool plat_is_simulation()
{
    return false;
}

void plat_require_root(const char *) {}

std::string plat_path(const char *abs_path)
{
    return abs_path == nullptr ? "" : abs_path;
}

int plat_open(const char *abs_path, int flags, mode_t mode)
{
    return open(abs_path, flags, mode);
}

ssize_t plat_read(int fd, void *buf, size_t count)
{
    return read(fd, buf, count);
}

ssize_t plat_write(int fd, const void *buf, size_t count)
{
    return write(fd, buf, count);
}

int plat_reserve(int fd, off_t len)
{
    int err = posix_fallocate(fd, 0, len);
    if (err != 0) {
        errno = err;
        return -1;
    }
    return 0;
}

int plat_misc_request(int fd, unsigned long request, uint32_t *value)
{
    return ioctl(fd, request, value);
}

int plat_mtd_erase(int fd, uint32_t start, uint32_t length)
{
    erase_info_t erase{};
    erase.start = start;
    erase.length = length;
    return ioctl(fd, MEMERASE, &erase);
}

int plat_reboot()
{
    return reboot(RB_AUTOBOOT);
}

int plat_mount(const char *source, const char *target, const char *fstype, unsigned long flags,
               const void *data)
{
    return mount(source, target, fstype, flags, data);
}

int plat_umount(const char *target)
{
    return umount(target);
}

int plat_statfs(const char *abs_path, struct statfs *buf)
{
    return statfs(abs_path, buf);
}

void plat_sync()
{
    sync();
}

int plat_system(const char *command)
{
    return system(command);
}

FILE *plat_popen(const char *command, const char *mode)
{
    return popen(command, mode);
}

int plat_pclose(FILE *stream)
{
    return pclose(stream);
}
