#include "lib/sys/terminal_config.h"

#include "lib/sys/unique_fd.h"
#include "platform/platform.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <new>
#include <unistd.h>

namespace
{

constexpr const char *CONFIG0_DEV = "/dev/mtd0";
constexpr const char *CONFIG1_DEV = "/dev/mtd1";

} // namespace

int read_config(const char *dev, char *buff, uint32_t buff_size)
{
    // No buffer: refused before the device is touched.
    if (buff == NULL)
        return -1;
    memset(buff, 0, buff_size);

    unique_fd dev_fd(plat_open(dev, O_RDWR | O_CLOEXEC));
    if (!dev_fd.valid()) {
        printf("%s: open config failed. err:%s\n", __func__, strerror(errno));
        return -1;
    }
    if (plat_read(dev_fd.get(), buff, buff_size) < 0) {
        printf("%s: read config failed. err:%s\n", __func__, strerror(errno));
        return -1;
    }
    return 0;
}

int read_config0(char *buff, uint32_t buff_size)
{
    return read_config(CONFIG0_DEV, buff, buff_size);
}

int read_config1(char *buff, uint32_t buff_size)
{
    return read_config(CONFIG1_DEV, buff, buff_size);
}

int write_config(const char *usr_buff, uint32_t buff_size)
{
    // More than one erase region would overflow the staging buffer: refuse
    // before the device is touched, as for missing data.
    if (buff_size > TERMINAL_CONFIG_REGION_SIZE)
        return -1;
    if (usr_buff == NULL && buff_size != 0)
        return -1;

    unique_fd dev_fd(plat_open(CONFIG1_DEV, O_RDWR | O_CLOEXEC));
    if (!dev_fd.valid()) {
        printf("%s: open config failed. err:%s\n", __func__, strerror(errno));
        return -1;
    }
    if (plat_mtd_erase(dev_fd.get(), 0, TERMINAL_CONFIG_REGION_SIZE) != 0) {
        printf("%s: err on memerase: %s\n", __func__, strerror(errno));
        return -1;
    }
    if (lseek(dev_fd.get(), 0, SEEK_SET) < 0) {
        printf("%s: err on lseek: %s\n", __func__, strerror(errno));
        return -1;
    }

    std::unique_ptr<char[]> staging(new (std::nothrow) char[TERMINAL_CONFIG_REGION_SIZE]());
    if (!staging) {
        errno = ENOMEM;
        printf("%s: err on write: %s\n", __func__, strerror(errno));
        return -1;
    }
    if (buff_size != 0)
        memcpy(staging.get(), usr_buff, buff_size);

    // A short write leaves the region partly written: a failure like any other.
    ssize_t written = plat_write(dev_fd.get(), staging.get(), TERMINAL_CONFIG_REGION_SIZE);
    if (written != static_cast<ssize_t>(TERMINAL_CONFIG_REGION_SIZE)) {
        if (written >= 0)
            errno = EIO;
        printf("%s: err on write: %s\n", __func__, strerror(errno));
        return -1;
    }
    return 0;
}
