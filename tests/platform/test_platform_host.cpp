#include "platform/platform.h"
#include "platform/shell_words.h"

#include "../support/sim_root.h"

#include <cerrno>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{

struct HostSim : ::testing::Test {
    SimRoot root;
};

TEST_F(HostSim, FixedPathsResolveUnderTheRootWhichProgramsRequire)
{
    EXPECT_EQ(plat_path("/dev/ovmisc"), root.dir() + "/dev/ovmisc");
    EXPECT_EQ(plat_path("/mnt/emmc/"), root.dir() + "/mnt/emmc/");
    EXPECT_EQ(plat_path("package.tar.gz"), "package.tar.gz");
    unsetenv("SWU_ROOT");
    EXPECT_EXIT(plat_require_root("swu"), ::testing::ExitedWithCode(2), "swu: SWU_ROOT is not set");
}

TEST_F(HostSim, RegisterRequestsReadAndWriteLittleEndianWords)
{
    root.registers(0xFAACABBA, 0xD00EFAAC, 0x11111111);
    int fd = plat_open("/dev/ovmisc", O_RDWR);
    ASSERT_GE(fd, 0);
    uint32_t v = 0;
    ASSERT_EQ(plat_misc_request(fd, PLAT_MISC_GET_INITIATE_UPDATE, &v), 0);
    EXPECT_EQ(v, 0xFAACABBAu);
    ASSERT_EQ(plat_misc_request(fd, PLAT_MISC_GET_ERR_BOOT, &v), 0);
    EXPECT_EQ(v, 0xD00EFAACu);
    v = 0x01020304;
    ASSERT_EQ(plat_misc_request(fd, PLAT_MISC_SET_REBOOT_MODE, &v), 0);
    EXPECT_EQ(root.read("dev/ovmisc").substr(8), std::string("\x04\x03\x02\x01", 4));
    EXPECT_EQ(plat_misc_request(fd, 0x4206, &v), -1);
    EXPECT_EQ(errno, ENOTTY);
    close(fd);

    root.write("dev/ovmisc", "abc");
    fd = plat_open("/dev/ovmisc", O_RDWR);
    EXPECT_EQ(plat_misc_request(fd, PLAT_MISC_GET_ERR_BOOT, &v), -1);
    close(fd);
}

TEST_F(HostSim, InjectedFailuresCountDownThenStop)
{
    root.write("dev/mtd1", std::string(16, 'x'));
    int fd = plat_open("/dev/mtd1", O_RDWR);
    ASSERT_GE(fd, 0);
    root.fail("erase", 2, ENXIO);
    EXPECT_EQ(plat_mtd_erase(fd, 0, 32), -1);
    EXPECT_EQ(errno, ENXIO);
    EXPECT_EQ(plat_mtd_erase(fd, 0, 32), -1);
    EXPECT_EQ(plat_mtd_erase(fd, 4, 28), 0);
    EXPECT_EQ(root.read("dev/mtd1"), std::string(4, 'x') + std::string(28, '\xFF'));

    root.fail("read", 0);
    char c;
    EXPECT_EQ(plat_read(fd, &c, 1), -1);
    EXPECT_EQ(plat_read(fd, &c, 1), -1); // count 0: every call
    EXPECT_EQ(errno, EIO);
    close(fd);
}

TEST_F(HostSim, RestartIsRecordedAndEndsTheProcessCleanly)
{
    EXPECT_EXIT(plat_reboot(), ::testing::ExitedWithCode(0), "");
    EXPECT_NE(root.read("var/log/reboot.log").find("restart requested"), std::string::npos);

    root.fail("reboot");
    EXPECT_EQ(plat_reboot(), -1);
}

TEST_F(HostSim, MountShowsThePartitionAtTheMountPointOnlyWhileMounted)
{
    root.write("dev/mmcblk0p1/pkg_ver.txt", "[pkg_data]\nversion=1\n");
    root.write("mnt/emmc/hidden", "on the root file system");
    struct statfs sfs;
    ASSERT_EQ(plat_statfs("/mnt/emmc/", &sfs), 0);
    EXPECT_EQ(sfs.f_type, PLAT_TMPFS_MAGIC);

    ASSERT_EQ(plat_mount("/dev/mmcblk0p1", "/mnt/emmc/", "vfat", PLAT_MS_DIRSYNC, ""), 0);
    ASSERT_EQ(plat_statfs("/mnt/emmc/", &sfs), 0);
    EXPECT_EQ(sfs.f_type, PLAT_MSDOS_MAGIC);
    EXPECT_TRUE(root.exists("mnt/emmc/pkg_ver.txt"));
    EXPECT_FALSE(root.exists("mnt/emmc/hidden"));
    root.write("mnt/emmc/new.bin", "written through the mount");
    EXPECT_EQ(root.read("dev/mmcblk0p1/new.bin"), "written through the mount");

    EXPECT_EQ(plat_mount("/dev/mmcblk0p1", "/mnt/emmc/", "vfat", PLAT_MS_DIRSYNC, ""), -1);
    EXPECT_EQ(errno, EBUSY);

    ASSERT_EQ(plat_umount("/mnt/emmc/"), 0);
    EXPECT_FALSE(root.exists("mnt/emmc/pkg_ver.txt"));
    EXPECT_EQ(root.read("mnt/emmc/hidden"), "on the root file system");
    EXPECT_EQ(plat_umount("/mnt/emmc/"), -1);
    EXPECT_EQ(errno, EINVAL);

    // No partition, or a failure asked for; a file-system type asked for.
    EXPECT_EQ(plat_mount("/dev/mmcblk0p2", "/mnt/emmc/", "vfat", 0, ""), -1);
    EXPECT_EQ(errno, ENOENT);
    root.fail("mount");
    EXPECT_EQ(plat_mount("/dev/mmcblk0p1", "/mnt/emmc/", "vfat", 0, ""), -1);
    root.write("sim/fstype", "0x9123683E\n");
    ASSERT_EQ(plat_statfs("/mnt/emmc/", &sfs), 0);
    EXPECT_EQ(sfs.f_type, 0x9123683E);
}

TEST(ShellWords, OnlyQuotedArgumentsReachTheShell)
{
    for (const char *good : {" -xzf 'a b;c$(x)`y`*' -C '/r/pkg/'", " 'it'\\''s'", " \"a b\""})
        EXPECT_TRUE(plat_is_quoted_safely(good)) << good;
    for (const char *bad : {" a;b", " a|b", " a&b", " $(x)", " `x`", " a>b", " \"$HOME\"",
                            " \"`x`\"", " a\nb", " *", " 'unterminated"})
        EXPECT_FALSE(plat_is_quoted_safely(bad)) << bad;
}

TEST(ShellWords, CommandsThatWouldChangeTheHostAreSimulated)
{
    EXPECT_EQ(plat_classify_command("tar -xzf 'p.tgz' -C '/x/tmp/pkg/'").kind, PLAT_CMD_RUN);
    EXPECT_EQ(plat_classify_command("md5sum '/x/a b' 2>/dev/null").kind, PLAT_CMD_RUN);
    EXPECT_EQ(plat_classify_command("md5sum /x/a;reboot 2>/dev/null").kind, PLAT_CMD_REFUSE);
    EXPECT_EQ(plat_classify_command("tar -xzf p.tgz -C /tmp/pkg/ > /dev/sda").kind,
              PLAT_CMD_REFUSE);
    EXPECT_EQ(plat_classify_command("echo -e \"d\no\nn\np\n1\n\n\nw\" | fdisk /dev/mmcblk0").kind,
              PLAT_CMD_FDISK);
    plat_cmd_t mkfs = plat_classify_command("mkfs.vfat /dev/mmcblk0p1");
    EXPECT_EQ(mkfs.kind, PLAT_CMD_MKFS);
    EXPECT_EQ(mkfs.argument, "/dev/mmcblk0p1");
    EXPECT_EQ(plat_classify_command("/etc/init.d/S42hostapd stop").kind, PLAT_CMD_LOG_ONLY);
    EXPECT_EQ(plat_classify_command("ifconfig wlan0 down").kind, PLAT_CMD_LOG_ONLY);
    for (const char *other : {"reboot", "rm -rf /", "sh -c 'tar'", "", "  mount /dev/sda /x"})
        EXPECT_EQ(plat_classify_command(other).kind, PLAT_CMD_REFUSE) << other;
}

TEST_F(HostSim, ShellRunsOnlyWhatIsSafeAndFormatsOnlyTheSimulatedCard)
{
    EXPECT_EQ(plat_system(("md5sum /dev/null; touch " + root.path("ran")).c_str()), 127 << 8);
    EXPECT_FALSE(root.exists("ran"));
    root.write("a b", "x");
    FILE *p = plat_popen(("md5sum '" + root.path("a b") + "' 2>/dev/null").c_str(), "r");
    char line[80] = "";
    ASSERT_NE(fgets(line, sizeof line, p), nullptr);
    EXPECT_EQ(std::string(line, 32), "9dd4e461268c8034f5c8564e155c67a6"); // md5 of "x"
    EXPECT_EQ(plat_pclose(p), 0);

    root.write("dev/mmcblk0p1/old.bin", "old");
    EXPECT_EQ(plat_system("echo -e \"d\no\nn\np\n1\n\n\nw\" | fdisk /dev/mmcblk0"), 0);
    EXPECT_EQ(plat_system("mkfs.vfat /dev/mmcblk0p1"), 0);
    EXPECT_EQ(plat_system("/etc/init.d/S42hostapd stop"), 0);
    EXPECT_TRUE(std::filesystem::is_empty(root.path("dev/mmcblk0p1")));
}

} // namespace
