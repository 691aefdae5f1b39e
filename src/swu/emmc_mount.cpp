#include "swu/emmc_mount.h"

#include "platform/platform.h"

#include <cstdio>
#include <cstring>
#include <sys/stat.h>

int mount_emmc()
{
    std::string mount_point = plat_path("/mnt/emmc/");
    struct stat st;
    if (stat(mount_point.c_str(), &st) != 0 && mkdir(mount_point.c_str(), 0777) != 0) {
        perror("mkdir faild....\n");
        do_cleanup();
        return -1;
    }

    struct statfs sfs;
    memset(&sfs, 0, sizeof sfs);
    if (plat_statfs("/mnt/emmc/", &sfs) != 0) {
        perror("failed to stat mountpoint:");
        do_cleanup();
        return -1;
    }

    switch (sfs.f_type) {
    case PLAT_TMPFS_MAGIC:
        if (plat_mount("/dev/mmcblk0p1", "/mnt/emmc/", "vfat", PLAT_MS_DIRSYNC, "") != 0) {
            perror("mount faild");
            do_cleanup();
            return -1;
        }
        return 0;
    case PLAT_MSDOS_MAGIC:
        return 0;
    default:
        do_cleanup();
        return -1;
    }
}

int do_cleanup()
{
    plat_sync();
    if (plat_umount("/mnt/emmc/") != 0) {
        perror("umount Faild....");
        return -1;
    }
    return 0;
}
