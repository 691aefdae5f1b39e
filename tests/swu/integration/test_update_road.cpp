// The whole road of an update through the running daemon: advertisement,
// connection, stream, verification, installation onto the card,
// microcontroller programming, finish and reboot.
#include "status_texts.h"
#include "support/terminal_fixture.h"

#include <set>

namespace
{

class UpdateRoad : public TerminalTest
{
  protected:
    // Builds a package from `artifacts` (name, bytes) with the swu-pack tool.
    std::string pack_with_tool(const std::string &name,
                               const std::vector<std::pair<std::string, std::string>> &artifacts)
    {
        std::vector<std::string> argv = {SWU_BIN_DIR "/swu-pack", "-o",
                                         root_.path("client/" + name), "--bitmask", "5"};
        for (const auto &[file, bytes] : artifacts) {
            root_.write("client/artifacts/" + file, bytes);
            argv.push_back(root_.path("client/artifacts/" + file));
        }
        TestProcess pack;
        EXPECT_TRUE(pack.start(argv, root_.dir(), root_.path("client/pack.log")));
        EXPECT_TRUE(pack.wait_end(30s));
        pack.stop();
        EXPECT_TRUE(WIFEXITED(pack.exit_status()) && WEXITSTATUS(pack.exit_status()) == 0)
            << pack.output();
        return root_.path("client/" + name);
    }

    // Waits for an advertisement with the given connection status, asking
    // for status meanwhile so that the session lives on.
    bool advertised_as(swuc_session *s, uint8_t connection_status)
    {
        for (int k = 0; k < 3; k++) {
            status(s);
            swuc_advert adv;
            if (swuc_listen_next(&adv_, &adv, 2000) == 0 &&
                adv.adv.connection_status == connection_status)
                return true;
        }
        return false;
    }
};

TEST_F(UpdateRoad, PackageTravelsFromTheAdvertisementToTheReboot)
{
    ASSERT_NO_FATAL_FAILURE(start());

    // The terminal introduces itself.
    const self_adv_t &adv = first_adv_.adv;
    EXPECT_EQ(first_adv_.sender.sin_addr.s_addr, htonl(INADDR_LOOPBACK));
    EXPECT_EQ(adv.hdr.opcode, SWU_SELF_ADVERTISE_OPCD);
    EXPECT_EQ(adv.connection_status, SWU_CON_STATUS_AVAIL);
    EXPECT_EQ(adv.tx_port, 12226);
    EXPECT_EQ(adv.rx_port, 12226);
    EXPECT_EQ(std::vector<uint16_t>(adv.curr_sw_v, adv.curr_sw_v + 3),
              (std::vector<uint16_t>{1, 2, 3}));
    EXPECT_EQ(std::vector<uint16_t>(adv.factory_sw_v, adv.factory_sw_v + 3),
              (std::vector<uint16_t>{0, 0, 0}));
    EXPECT_EQ(adv.conf_ver, 505);
    EXPECT_EQ(adv.term_type, 1);
    EXPECT_EQ(swuc_advert_id(adv), "ID");
    EXPECT_EQ(std::string(adv.orvanID + 2, 30), std::string(30, '\0'));

    const std::string app = test_bytes(300000, 2);
    const std::string st = test_bytes(4096, 3);
    const std::string ver = "[pkg_data]\nversion=2.0.1\n";
    std::string pkg = pack_with_tool("update-2.0.1.pkg",
                                     {{"app.bin", app}, {"st.bin", st}, {"pkg_ver.txt", ver}});
    const std::string pkg_bytes = root_.read("client/update-2.0.1.pkg");

    swuc_session s;
    ASSERT_NO_FATAL_FAILURE(open_session(&s));
    conection_response_t rsp;
    ASSERT_EQ(swuc_connect(&s, &rsp), 0);
    EXPECT_EQ(rsp.connection_status, SWU_CON_RES_CONNECTION_CONFIRMED);
    EXPECT_EQ(rsp.power_source, 1);
    EXPECT_EQ(rsp.bettery_status, 80);
    EXPECT_EQ(rsp.swu_mode_reason_bitfield, 1);
    EXPECT_EQ(status(&s).text, STT_CONNECTED);
    EXPECT_TRUE(advertised_as(&s, SWU_CON_STATUS_BUSY));

    swuc_stream_opts opts;
    opts.window = 16;
    swuc_progress progress;
    uint64_t reports = 0;
    ASSERT_EQ(swuc_send_file(
                  &s, pkg.c_str(), "update-2.0.1.pkg", &opts,
                  [&](const swuc_progress &) { reports++; }, &progress),
              0);
    EXPECT_EQ(progress.acked_bytes, pkg_bytes.size());
    EXPECT_EQ(progress.acked_packets, (pkg_bytes.size() + 1451) / 1452);
    EXPECT_GE(reports, 1u);

    // Every report on the way is one of the known texts.
    std::set<std::string> seen;
    swuc_follow_opts follow_opts;
    follow_opts.poll_ms = 100;
    follow_opts.timeout_ms = 60000 * SLOW;
    swuc_status last;
    ASSERT_EQ(swuc_follow_install(
                  &s, &follow_opts,
                  [&](const swuc_status &st_report) { seen.insert(st_report.text); }, &last),
              0)
        << last.text;
    for (const std::string &text : seen)
        EXPECT_TRUE(text == STT_VERIFYING || text == STT_UPGRADING || text == STT_FINISHED) << text;
    EXPECT_EQ(last.text, STT_FINISHED);

    // The package stays in the daemon's working directory without its footer.
    EXPECT_EQ(root_.read("work/update-2.0.1.pkg"), pkg_bytes.substr(0, pkg_bytes.size() - 12));
    // The artifacts are on the card, which is no longer mounted; other card
    // files stay.
    EXPECT_FALSE(card_mounted());
    EXPECT_EQ(card_file("app.bin"), app);
    EXPECT_EQ(card_file("st.bin"), st);
    EXPECT_EQ(card_file("pkg_ver.txt"), ver);
    EXPECT_TRUE(root_.exists("dev/mmcblk0p1/old.txt"));
    // The microcontroller runs the new image.
    EXPECT_TRUE(mcu_flash() == st) << "flash holds " << mcu_flash().size() << " bytes";
    EXPECT_EQ(sim_.count("programmed 4096 bytes"), 1u);

    ASSERT_EQ(swuc_reboot(&s), 0) << "no reboot response";
    ASSERT_TRUE(swu_.wait_end(10s * SLOW)) << "the daemon did not end after the reboot request";
    EXPECT_TRUE(WIFEXITED(swu_.exit_status()) && WEXITSTATUS(swu_.exit_status()) == 0);
    std::string reboots = root_.read("var/log/reboot.log");
    EXPECT_EQ(std::count(reboots.begin(), reboots.end(), '\n'), 1) << reboots;
    EXPECT_EQ(reg(2), 0u) << "reboot mode not set to production";
    EXPECT_EQ(reg(0), REG_INITIATE_UPDATE);
    EXPECT_EQ(swu_.count("[sim] not run: /etc/init.d/S42hostapd stop"), 1u);
    EXPECT_EQ(swu_.count("[sim] not run: ifconfig wlan0 down"), 1u);
}

TEST_F(UpdateRoad, FactoryBootLeavesTheMicrocontrollerAloneAndRebootsWithoutBeingAsked)
{
    TerminalSetup setup;
    setup.initiate_reg = 0;
    setup.err_boot_reg = REG_FACTORY_BOOT;
    ASSERT_NO_FATAL_FAILURE(start(setup));
    EXPECT_EQ(std::vector<uint16_t>(first_adv_.adv.factory_sw_v, first_adv_.adv.factory_sw_v + 3),
              (std::vector<uint16_t>{0, 1, 3}));

    const std::string st = test_bytes(4096, 4);
    std::string pkg =
        make_package("factory.pkg", {file_member("st.bin", st), file_member("a.bin", "a")});

    swuc_session s;
    ASSERT_NO_FATAL_FAILURE(open_session(&s));
    conection_response_t rsp;
    ASSERT_EQ(swuc_connect(&s, &rsp), 0);
    EXPECT_EQ(rsp.connection_status, SWU_CON_RES_CONNECTION_CONFIRMED);
    EXPECT_EQ(rsp.swu_mode_reason_bitfield, 6);
    ASSERT_EQ(send_file(&s, pkg, "factory.pkg"), 0);
    swuc_status last = follow(&s);
    ASSERT_EQ(last.stage_code, SWUC_STAGE_FINISH);
    const int64_t finish_seen = swuc_now_ms();

    EXPECT_EQ(card_file("st.bin"), st);
    EXPECT_EQ(mcu_flash(), old_st_bin_);
    EXPECT_EQ(sim_.count("programmed"), 0u);

    // Only the connected client may ask for the reboot.
    swuc_session other;
    ASSERT_NO_FATAL_FAILURE(open_session(&other, "127.0.0.2", 1000));
    EXPECT_NE(swuc_reboot(&other), 0) << "a stranger's reboot request was answered";

    ASSERT_TRUE(swu_.wait_end(40s)) << "the finished daemon did not reboot by itself";
    const int64_t waited = swuc_now_ms() - finish_seen;
    EXPECT_GE(waited, 28000);
    EXPECT_LE(waited, 36000 * SLOW);
    EXPECT_TRUE(WIFEXITED(swu_.exit_status()) && WEXITSTATUS(swu_.exit_status()) == 0);
    EXPECT_TRUE(root_.exists("var/log/reboot.log"));
    EXPECT_EQ(reg(2), 0u);
}

} // namespace
