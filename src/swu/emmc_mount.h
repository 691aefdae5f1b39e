// Mount and release of the eMMC card's FAT partition on "/mnt/emmc/". The
// mount itself is the state: neither function keeps any.
#pragma once

// Makes sure "/dev/mmcblk0p1" is mounted on "/mnt/emmc/", creating the mount
// point if needed. 0 when it is mounted afterwards; -1 otherwise, after
// releasing the card again.
int mount_emmc();

// Flushes the file systems and unmounts "/mnt/emmc/": 0 when the unmount
// succeeded, -1 after "umount Faild...." otherwise.
int do_cleanup();
