// SPDX-License-Identifier: GPL-2.0
/*
 * Stand-in for the terminal's boot-register driver: /dev/ovmisc answers the
 * three requests the update service makes, each on a pointer to a u32. The
 * register values come from module parameters, which the emulated terminal's
 * init takes from the kernel command line; the reboot mode written by the
 * service is kept readable in /sys/module/ovmisc/parameters/reboot_mode.
 */
#include <linux/fs.h>
#include <linux/miscdevice.h>
#include <linux/module.h>
#include <linux/uaccess.h>

#define OVMISC_GET_INITIATE_UPDATE 0x4207
#define OVMISC_SET_REBOOT_MODE 0x4208
#define OVMISC_GET_ERR_BOOT 0x4209

static unsigned int initiate_update;
module_param(initiate_update, uint, 0444);
MODULE_PARM_DESC(initiate_update, "initiate-update register");

static unsigned int err_boot;
module_param(err_boot, uint, 0444);
MODULE_PARM_DESC(err_boot, "error-boot register");

/* All ones until the service writes it. */
static unsigned int reboot_mode = 0xffffffff;
module_param(reboot_mode, uint, 0444);
MODULE_PARM_DESC(reboot_mode, "reboot mode last written");

static long ovmisc_ioctl(struct file *file, unsigned int cmd, unsigned long arg)
{
    u32 __user *value = (u32 __user *)arg;
    u32 mode;

    switch (cmd) {
    case OVMISC_GET_INITIATE_UPDATE:
        return put_user(initiate_update, value);
    case OVMISC_GET_ERR_BOOT:
        return put_user(err_boot, value);
    case OVMISC_SET_REBOOT_MODE:
        if (get_user(mode, value))
            return -EFAULT;
        reboot_mode = mode;
        pr_info("ovmisc: reboot mode 0x%08x\n", mode);
        return 0;
    default:
        return -ENOTTY;
    }
}

static const struct file_operations ovmisc_fops = {
    .owner = THIS_MODULE,
    .unlocked_ioctl = ovmisc_ioctl,
};

static struct miscdevice ovmisc_dev = {
    .minor = MISC_DYNAMIC_MINOR,
    .name = "ovmisc",
    .fops = &ovmisc_fops,
    .mode = 0600,
};

static int __init ovmisc_init(void)
{
    pr_info("ovmisc: initiate-update 0x%08x, error-boot 0x%08x\n", initiate_update, err_boot);
    return misc_register(&ovmisc_dev);
}

static void __exit ovmisc_exit(void)
{
    misc_deregister(&ovmisc_dev);
}

module_init(ovmisc_init);
module_exit(ovmisc_exit);
MODULE_DESCRIPTION("Boot-register stand-in of the emulated terminal");
MODULE_LICENSE("GPL");
