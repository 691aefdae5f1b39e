// swu-client as a technician runs it, against a real daemon with the
// microcontroller simulator: a terminal updated from discovery to the reboot
// (the whole road of an update), and a failed update cleared with the
// commands that follow it.
#include "support/terminal_fixture.h"
#include "swu-client/lib/client_update.h"

#include <nlohmann/json.hpp>

namespace
{

using nlohmann::json;

run_result client(const SimRoot &root, std::vector<std::string> args, bool tty = false)
{
    args.insert(args.begin(), SWU_BIN_DIR "/swu-client");
    return run_to_end(args, root.dir(), tty);
}

json parsed(const run_result &r)
{
    return json::parse(r.out, nullptr, false);
}

class ClientCli : public TerminalTest
{
  protected:
    void SetUp() override
    {
        TerminalTest::SetUp();
        // The remembered session ports stay inside this test's root.
        setenv("XDG_STATE_HOME", root_.path("client/state").c_str(), 1);
    }
};

// The whole road of an update: the terminal's advertisement, discovery,
// stream, check, installation onto the card, microcontroller programming,
// finish and reboot.
TEST_F(ClientCli, UpdateTravelsFromDiscoveryToTheReboot)
{
    ASSERT_NO_FATAL_FAILURE(start());
    const std::string banner =
        std::string(57, '/') + "\n// SWU App Version 1.0.0\n" + std::string(57, '/') + "\n\n";
    EXPECT_EQ(swu_.output().rfind(banner, 0), 0u) << swu_.output();
    run_result d = client(root_, {"discover", "--json", "--timeout", "3.5"});
    ASSERT_EQ(d.exit_code, 0) << d.out << d.err;
    EXPECT_EQ(parsed(d), json::array({{{"address", "127.0.0.1"},
                                       {"port", 12226},
                                       {"identity", "ID"},
                                       {"installed_version", "1.2.3"},
                                       {"factory_version", "0.0.0"},
                                       {"config_version", 505},
                                       {"terminal_type", "dynamic"},
                                       {"busy", false}}}));

    const std::string app = test_bytes(300000, 21), st = test_bytes(4096, 22);
    const std::string ver = "[pkg_data]\nversion=2.0.1\n";
    std::string pkg =
        make_package("update-2.0.1.swu", {file_member("app.bin", app), file_member("st.bin", st),
                                          file_member("pkg_ver.txt", ver)});
    const std::string pkg_bytes = root_.read("client/update-2.0.1.swu");
    run_result u = client(root_, {"update", "127.0.0.1", pkg, "--no-reboot"}, true);
    EXPECT_EQ(u.exit_code, 0) << u.out;
    for (const char *shown :
         {"\r[", "100%", "verifying the package", "installing", "not asked to reboot"})
        EXPECT_NE(u.out.find(shown), std::string::npos) << shown << " not in\n" << u.out;

    // The package stays without its footer; the artifacts are on the
    // unmounted card beside its other files; the microcontroller runs the
    // new image; the finished terminal still advertises its session.
    EXPECT_EQ(root_.read("work/update-2.0.1.swu"), pkg_bytes.substr(0, pkg_bytes.size() - 12));
    EXPECT_FALSE(card_mounted());
    EXPECT_EQ(card_file("app.bin"), app);
    EXPECT_EQ(card_file("pkg_ver.txt"), ver);
    EXPECT_TRUE(root_.exists("dev/mmcblk0p1/old.txt"));
    EXPECT_EQ(sim_->flash(), st);
    swuc_advert adv = {};
    for (int k = 0; k < 5 && adv.adv.connection_status != SWU_CON_STATUS_BUSY; k++)
        ASSERT_EQ(swuc_listen_next(&adv_, &adv, 4000), 0);
    EXPECT_EQ(adv.adv.connection_status, SWU_CON_STATUS_BUSY);
    EXPECT_NE(adv.adv.hdr.seq_num, first_adv_.adv.hdr.seq_num);

    run_result r = client(root_, {"reboot", "127.0.0.1"});
    EXPECT_EQ(r.exit_code, 0) << r.out << r.err;
    ASSERT_TRUE(swu_.wait_end(10s * SLOW)) << "the daemon did not end after the reboot request";
    EXPECT_EQ(swu_.exit_code(), 0);
    std::string reboots = root_.read("var/log/reboot.log");
    EXPECT_EQ(std::count(reboots.begin(), reboots.end(), '\n'), 1) << reboots;
    EXPECT_EQ(reg(2), 0u) << "reboot mode not set to production";
    EXPECT_EQ(swu_.count("[sim] not run: /etc/init.d/S42hostapd stop"), 1u);
    EXPECT_EQ(swu_.count("[sim] not run: ifconfig wlan0 down"), 1u);
}

TEST_F(ClientCli, FailedStreamGivesItsExitCodeAndTheNextCommandsClearTheError)
{
    TerminalSetup setup;
    setup.daemon_args = {"-S"}; // the first stream end is found incomplete
    ASSERT_NO_FATAL_FAILURE(start(setup));
    std::string pkg = make_package("p.swu", {file_member("a.bin", "a")});
    run_result u = client(root_, {"update", "127.0.0.1", pkg, "--retries", "0"});
    EXPECT_EQ(u.exit_code, SWUC_EXIT_INCOMPLETE) << u.out << u.err;
    EXPECT_EQ(u.err, "swu-client: 127.0.0.1: packets missing at the end of the stream: invalid "
                     "stream, some packets are missing... (status code 2)\n");

    // The terminal answers the acknowledgement at the session's own port,
    // which the command remembers; then a new session is confirmed.
    run_result ack = client(root_, {"ack-error", "127.0.0.1"});
    EXPECT_EQ(ack.exit_code, 0) << ack.out << ack.err;
    run_result st = client(root_, {"status", "127.0.0.1", "--json"});
    EXPECT_EQ(st.exit_code, 0) << st.out << st.err;
    EXPECT_EQ(parsed(st)["status"]["stage_code"], SM_STATE_CONNECT) << st.out;
}

} // namespace
