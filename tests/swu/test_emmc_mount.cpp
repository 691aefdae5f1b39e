#include "swu/emmc_mount.h"

#include "support/sim_root.h"

#include <functional>
#include <gtest/gtest.h>

namespace
{

using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

class EmmcMount : public ::testing::Test
{
  protected:
    // The terminal's root file system has /mnt; the card's mount point is made on demand.
    static void lay_out(const SimRoot &r)
    {
        r.write("dev/mmcblk0p1/pkg_ver.txt", "[pkg_data]\n");
        r.mkdir("mnt");
    }
    void SetUp() override { lay_out(root); }
    SimRoot root;
};

TEST_F(EmmcMount, MountsOnceCreatingTheMountPointAndReleases)
{
    ASSERT_FALSE(root.exists("mnt/emmc"));
    ASSERT_EQ(mount_emmc(), 0);
    EXPECT_TRUE(root.exists("mnt/emmc/pkg_ver.txt"));
    EXPECT_EQ(mount_emmc(), 0) << "already mounted";
    EXPECT_EQ(do_cleanup(), 0);
    EXPECT_FALSE(root.exists("mnt/emmc/pkg_ver.txt"));

    CaptureStderr();
    EXPECT_EQ(do_cleanup(), -1);
    EXPECT_EQ(GetCapturedStderr(), "umount Faild....: Invalid argument\n");
}

TEST_F(EmmcMount, EveryFailureReleasesTheCardWithItsOwnReport)
{
    struct {
        const char *name;
        std::function<void(const SimRoot &)> arrange;
        const char *report;
    } const cases[] = {
        {"mount point can't be created",
         [](const SimRoot &r) {
             std::filesystem::remove(r.path("mnt"));
             r.write("mnt", "not a directory");
         },
         "mkdir faild....\n: Not a directory\numount Faild....: Invalid argument\n"},
        {"mount point can't be queried", [](const SimRoot &r) { r.fail("statfs"); },
         "failed to stat mountpoint:: Input/output error\numount Faild....: Invalid argument\n"},
        {"mount fails", [](const SimRoot &r) { r.fail("mount", 1, 19); },
         "mount faild: No such device\numount Faild....: Invalid argument\n"},
        {"another file-system type", [](const SimRoot &r) { r.write("sim/fstype", "0xEF53"); },
         "umount Faild....: Invalid argument\n"},
    };
    for (const auto &c : cases) {
        SimRoot fresh;
        lay_out(fresh);
        c.arrange(fresh);
        CaptureStderr();
        EXPECT_EQ(mount_emmc(), -1) << c.name;
        EXPECT_EQ(GetCapturedStderr(), c.report) << c.name;
        EXPECT_FALSE(fresh.exists("mnt/emmc/pkg_ver.txt")) << c.name;
    }
}

} // namespace
