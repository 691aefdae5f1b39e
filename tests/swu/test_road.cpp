// What only a whole daemon shows: its idle steps run the states' clocks (the
// finish state's 30 s), and what the daemon's tools inherit from it. (The
// whole road of an update runs through swu-client, in its tests; the error
// state's 10 s, in the handler tests.)
#include "support/terminal_fixture.h"

namespace
{

using Road = TerminalTest;

TEST_F(Road, FactoryBootLeavesTheMicrocontrollerAloneAndRebootsWithoutBeingAsked)
{
    // The tools the daemon runs write down what they inherited from it.
    for (const char *tool : {"tar", "md5sum"}) {
        root_.write(
            std::string("shim/") + tool,
            "#!/bin/sh\n"
            "for f in /proc/$$/fd/*; do echo \"$0 $(readlink \"$f\")\"; done >>\"$SHIM_LOG\"\n"
            "PATH=${PATH#*:} exec \"${0##*/}\" \"$@\"\n");
        std::filesystem::permissions(root_.path(std::string("shim/") + tool),
                                     std::filesystem::perms::owner_all);
    }
    const std::string path = getenv("PATH");
    setenv("PATH", (root_.path("shim") + ":" + path).c_str(), 1);
    setenv("SHIM_LOG", root_.path("shim/inherited").c_str(), 1);
    TerminalSetup setup;
    setup.initiate_reg = 0;
    setup.err_boot_reg = REG_FACTORY_BOOT;
    start(setup);
    setenv("PATH", path.c_str(), 1);
    ASSERT_FALSE(HasFatalFailure());
    EXPECT_EQ(std::vector<uint16_t>(first_adv_.adv.factory_sw_v, first_adv_.adv.factory_sw_v + 3),
              (std::vector<uint16_t>{0, 1, 3}));

    const std::string st = test_bytes(4096, 4);
    std::string pkg = make_package("factory.pkg", {file_member("st.bin", st)});
    swuc_session s;
    ASSERT_NO_FATAL_FAILURE(open_session(&s));
    conection_response_t rsp;
    ASSERT_EQ(swuc_connect(&s, &rsp), 0);
    EXPECT_EQ(rsp.swu_mode_reason_bitfield, SWU_REASON_ERROR_BOOT | SWU_REASON_KEEP_MCU);
    ASSERT_EQ(swuc_send_file(&s, pkg.c_str(), "factory.pkg", nullptr, {}, nullptr), 0);
    swuc_follow_opts follow = {200, 60000 * SLOW};
    ASSERT_EQ(swuc_follow_install(&s, &follow, {}, nullptr), 0);
    const int64_t finish_seen = swuc_now_ms();
    EXPECT_EQ(card_file("st.bin"), st);
    EXPECT_EQ(sim_->flash(), old_st_bin_);
    const std::string inherited = root_.read("shim/inherited");
    EXPECT_NE(inherited.find("tar "), std::string::npos);
    EXPECT_NE(inherited.find("md5sum "), std::string::npos);
    EXPECT_EQ(inherited.find("socket:"), std::string::npos) << inherited;
    EXPECT_EQ(inherited.find("factory.pkg"), std::string::npos) << inherited;

    ASSERT_TRUE(swu_.wait_end(40s)) << "the finished daemon did not reboot by itself";
    const int64_t waited = swuc_now_ms() - finish_seen;
    EXPECT_GE(waited, 28000);
    EXPECT_LE(waited, 36000 * SLOW);
    EXPECT_EQ(swu_.exit_code(), 0);
    EXPECT_TRUE(root_.exists("var/log/reboot.log"));
}

} // namespace
