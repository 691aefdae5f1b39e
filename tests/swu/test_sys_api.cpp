#include "swu/sys-api.h"

#include "support/sim_root.h"

#include <gtest/gtest.h>

namespace
{

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

class SysApi : public ::testing::Test
{
  protected:
    SimRoot root;
};

TEST_F(SysApi, ReasonBitsComeFromTheRecognisedRegisterValues)
{
    struct {
        uint32_t initiate, err_boot;
        uint8_t reason;
    } const cases[] = {
        {0xFAACABBA, 0, 1},
        {0, 0xDEADBEEF, 2},
        {0, 0xD00EFAAC, 6},
        {0xFAACABBA, 0xDEADBEEF, 3},
        {0xFAACABBA, 0xD00EFAAC, 7},
        {0xBAABACFA, 0xEFBEADDE, 0},
        {0, 0, 0},
    };
    for (const auto &c : cases) {
        root.registers(c.initiate, c.err_boot);
        EXPECT_EQ(sys_api_get_swu_reson_reg(), c.reason)
            << std::hex << c.initiate << " " << c.err_boot;
    }
}

TEST_F(SysApi, WithoutTheDeviceEveryRequestFailsAndNothingRestarts)
{
    CaptureStdout();
    EXPECT_EQ(sys_api_get_swu_reson_reg(), 0);
    uint32_t v = 7;
    EXPECT_EQ(sys_api_get_initiate_update_reg(&v), -1);
    EXPECT_EQ(sys_api_get_err_boot_reg(&v), -1);
    EXPECT_EQ(sys_api_set_reboot_mode_production(), -1);
    EXPECT_EQ(sys_api_force_reboot(), -1);
    std::string out = GetCapturedStdout();
    std::string line = "Failed to open power interface device.\n";
    std::string expected;
    for (int i = 0; i < 6; i++)
        expected += line;
    EXPECT_EQ(out, expected);
    EXPECT_FALSE(root.exists("var/log/reboot.log"));
}

TEST_F(SysApi, AFailingRequestIsReported)
{
    root.registers(0xFAACABBA, 0);
    root.fail("ioctl", 1);
    CaptureStdout();
    EXPECT_EQ(sys_api_get_swu_reson_reg(), 0) << "a failed read counts as 0";
    EXPECT_EQ(GetCapturedStdout(), "ioctl failed.\n");

    root.fail("reboot", 1);
    CaptureStdout();
    EXPECT_EQ(sys_api_force_reboot(), -1);
    EXPECT_EQ(GetCapturedStdout(), "ioctl failed.\n");
}

TEST_F(SysApi, ProductionModeIsWrittenAndTheRestartEndsTheProcess)
{
    root.registers(0, 0, 0xFFFFFFFF);
    ASSERT_EQ(sys_api_set_reboot_mode_production(), 0);
    EXPECT_EQ(root.read("dev/ovmisc").substr(8), std::string(4, '\0'));
    EXPECT_EXIT(sys_api_force_reboot(), ::testing::ExitedWithCode(0), "");
    EXPECT_TRUE(root.exists("var/log/reboot.log"));
}

} // namespace
