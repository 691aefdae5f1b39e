// swu-client as a technician runs it, against a real daemon with the
// microcontroller simulator: a terminal updated from discovery to the reboot
// (the whole road of an update), and a failed update cleared with the
// commands that follow it.
#include "lib/fleet.h"
#include "lib/policy.h"
#include "lib/update.h"
#include "support/terminal_lan.h"

#include <nlohmann/json.hpp>

#include <fstream>
#include <sstream>
#include <thread>

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

using ClientCli = TerminalTest;

// The whole road of an update: the terminal's advertisement, discovery,
// stream, check, installation onto the card, microcontroller programming,
// finish and reboot.
TEST_F(ClientCli, UpdateTravelsFromDiscoveryToTheReboot)
{
    ASSERT_NO_FATAL_FAILURE(start());
    const std::string banner =
        std::string(57, '/') + "\n// SWU App Version 1.0.0\n" + std::string(57, '/') + "\n\n";
    // The advertisement can overtake the reader of the daemon's output.
    EXPECT_TRUE(swu_.wait_output(banner, 5s));
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
    // The stages between the stream and the finish are sampled by status
    // polls and may pass unseen; the finish always ends the follow.
    for (const char *shown : {"\r[", "100%", "installed: ", "not asked to reboot"})
        EXPECT_NE(u.out.find(shown), std::string::npos) << shown << " not in\n" << u.out;

    // The package stays without its footer; the artifacts are on the
    // unmounted card beside its other files; the microcontroller runs the
    // new image; the finished terminal still advertises its session.
    const std::string sent_as = swuc_attempt_name(
        pkg, pkg_bytes.size(),
        swuc_footer_crc(reinterpret_cast<const uint8_t *>(pkg_bytes.data()), pkg_bytes.size()), 1);
    EXPECT_TRUE(root_.read("work/" + sent_as) == pkg_bytes.substr(0, pkg_bytes.size() - 12))
        << sent_as << " holds " << root_.read("work/" + sent_as).size() << " bytes";
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

// A technician on the terminal's Wi-Fi: a 2 ms round trip with ±1 ms of
// jitter, 5 % of the datagrams lost each way, some duplicated, some
// reordered. The update still arrives whole.
TEST_F(ClientCli, AnUpdateOverALossyWiFiHopInstallsTheRightFiles)
{
    const std::string relay_bin = SWU_BIN_DIR "/lossy_relay";
    ASSERT_NO_FATAL_FAILURE(start());
    TestProcess relay;
    ASSERT_TRUE(relay.start({relay_bin, "--to", "127.0.0.1:12226", "--listen", "12300", "--drop",
                             "0.05", "--dup", "0.01", "--reorder", "0.01", "--delay", "1",
                             "--jitter", "0.5", "--seed", "5"},
                            root_.dir()));
    ASSERT_TRUE(relay.wait_output("listening on 12300", 5s));

    const std::string app = test_bytes(1000000, 31), st = test_bytes(4096, 32);
    const std::string ver = "[pkg_data]\nversion=2.0.2\n";
    std::string pkg =
        make_package("update-2.0.2.swu", {file_member("app.bin", app), file_member("st.bin", st),
                                          file_member("pkg_ver.txt", ver)});
    run_result u =
        client(root_, {"update", "127.0.0.1:12300", pkg, "--no-reboot", "--json", "--window", "32",
                       "--ack-timeout", "5", "--install-timeout", "60"});
    ASSERT_EQ(u.exit_code, 0) << u.out << u.err;
    EXPECT_GT(parsed(u).value("retransmitted", 0), 0) << "no loss on the way: " << u.out;
    EXPECT_EQ(card_file("app.bin"), app);
    EXPECT_EQ(card_file("pkg_ver.txt"), ver);
    EXPECT_EQ(sim_->flash(), st);
    relay.stop();
    EXPECT_NE(relay.output().find("dropped"), std::string::npos) << relay.output();
}

TEST_F(ClientCli, FailedStreamGivesItsExitCodeAndTheNextCommandsClearTheError)
{
    TerminalSetup setup;
    setup.daemon_args = {"-S"}; // the first stream end is found incomplete, the file kept
    ASSERT_NO_FATAL_FAILURE(start(setup));
    std::string pkg = make_package("p.swu", {file_member("a.bin", test_bytes(5000, 3))});
    run_result u = client(root_, {"update", "127.0.0.1", pkg, "--retries", "0", "--name", "p.swu"});
    EXPECT_EQ(u.exit_code, SWUC_EXIT_INCOMPLETE) << u.out << u.err;
    EXPECT_EQ(u.err, "swu-client: 127.0.0.1: packets missing at the end of the stream: invalid "
                     "stream, some packets are missing... (status code 2)\n");
    run_result st = client(root_, {"status", "127.0.0.1"});
    EXPECT_NE(st.out.find("\nstage      5  Terminal encountered"), std::string::npos) << st.out;
    st = client(root_, {"status", "127.0.0.1", "--json"});
    EXPECT_EQ(parsed(st)["status"]["status_code"], SWU_STAGE_CODE_MISSING_PCKTS) << st.out;

    // The terminal answers the acknowledgement at the session's own port,
    // which the command remembers; then it takes a new session.
    run_result ack = client(root_, {"ack-error", "127.0.0.1"});
    EXPECT_EQ(ack.exit_code, 0) << ack.out << ack.err;

    // A shorter package under the kept file's name is checked against the
    // old file's tail, and fails; the client saw that coming. Under a fresh
    // name it installs.
    std::string other = make_package("q.swu", {file_member("b.bin", "b")});
    u = client(root_, {"update", "127.0.0.1", other, "--no-reboot", "--name", "p.swu"});
    EXPECT_EQ(u.exit_code, SWUC_EXIT_INSTALL) << u.out << u.err;
    EXPECT_NE(u.err.find("warning: the name 'p.swu' carried another package to 127.0.0.1"),
              std::string::npos)
        << u.err;
    ASSERT_EQ(client(root_, {"ack-error", "127.0.0.1"}).exit_code, 0);
    u = client(root_, {"update", "127.0.0.1", other, "--no-reboot"});
    EXPECT_EQ(u.exit_code, 0) << u.out << u.err;
    EXPECT_EQ(u.err, "");
    EXPECT_EQ(card_file("b.bin"), "b");
}

// What a terminal sends is shown, never obeyed: no escape sequence reaches
// the technician's screen, and text that is not UTF-8 does not end the tool.
TEST_F(ClientCli, AForgedIdentityIsShownEscapedAndNeverAbortsTheClient)
{
    Stranger forged({Stranger::advert("\x1b]0;owned\x07\x1b[2J\xff\xfe", 0)}, "127.0.0.1", 0);
    run_result d = client(root_, {"discover", "--json", "--timeout", "1"});
    EXPECT_EQ(d.exit_code, 0) << d.out << d.err;
    json list = parsed(d);
    ASSERT_TRUE(list.is_array()) << d.out;
    EXPECT_EQ(list[0]["identity"], "\x1b]0;owned\x07\x1b[2J\xef\xbf\xbd\xef\xbf\xbd");
    d = client(root_, {"discover", "--timeout", "1"});
    EXPECT_EQ(d.exit_code, 0) << d.out << d.err;
    EXPECT_EQ(d.out.find('\x1b'), std::string::npos) << d.out;
    EXPECT_NE(d.out.find("\\x1B]0;owned\\x07\\x1B[2J\\xFF\\xFE"), std::string::npos) << d.out;
}

// A package that would wipe the card or erase the microcontroller is refused
// before anything is sent (no terminal answers here): --force sends it. The
// terminal's tar strips the leading '/'.
TEST_F(ClientCli, AHarmfulPackageIsRefusedBeforeAnythingIsSent)
{
    const std::string empty_st = make_package("empty-st.swu", {file_member("/st.bin", "")});
    run_result u = client(root_, {"update", "127.0.0.1", empty_st, "--reply-timeout", "100"});
    EXPECT_EQ(u.exit_code, SWUC_EXIT_PACKAGE) << u.out << u.err;
    EXPECT_NE(u.err.find("refused: 'st.bin' is empty"), std::string::npos) << u.err;
    u = client(root_, {"update", "--all", empty_st, "--timeout", "0.2"});
    EXPECT_EQ(u.exit_code, SWUC_EXIT_PACKAGE) << u.out << u.err;
    u = client(root_,
               {"update", "127.0.0.1", empty_st, "--force", "--reply-timeout", "100", "--json"});
    EXPECT_EQ(u.exit_code, SWUC_EXIT_NO_ANSWER) << u.out << u.err;

    run_result c = client(root_, {"check", empty_st});
    EXPECT_EQ(c.exit_code, SWUC_EXIT_PACKAGE) << c.out;
    EXPECT_NE(c.out.find("REFUSED  'st.bin' is empty"), std::string::npos) << c.out;
    c = client(root_, {"check", empty_st, "--json"});
    EXPECT_EQ(c.exit_code, SWUC_EXIT_PACKAGE) << c.out;
    EXPECT_EQ(parsed(c)["result"], "refused") << c.out;
    const std::string good = make_package("good.swu", {file_member("st.bin", "123456789")});
    c = client(root_, {"check", good});
    EXPECT_EQ(c.exit_code, 0) << c.out;
    EXPECT_NE(c.out.find("st.bin     9 bytes, crc32 0xCBF43926\n"), std::string::npos) << c.out;
    EXPECT_NE(c.out.find("verdict    ok"), std::string::npos) << c.out;

    root_.write("client/noise.bin", test_bytes(5000, 8));
    u = client(root_, {"update", "127.0.0.1", root_.path("client/noise.bin"), "--json"});
    EXPECT_EQ(u.exit_code, SWUC_EXIT_PACKAGE) << u.out << u.err;
    EXPECT_NE(parsed(u)["message"].get<std::string>().find("the terminal would refuse it: CRC"),
              std::string::npos)
        << u.out;
}

// The exit codes and their meanings, as --exit-codes and the help print
// them for the README.
TEST_F(ClientCli, ExitCodesArePrintedFromTheirTable)
{
    run_result r = client(root_, {"--exit-codes"});
    EXPECT_EQ(r.exit_code, 0);
    EXPECT_EQ(r.out, swuc_exit_code_help() + "\n");
    EXPECT_EQ(r.out.rfind("Exit codes:\n  0   done\n  1   the command could not run here", 0), 0u)
        << r.out;
    r = client(root_, {"--help"});
    EXPECT_NE(r.out.find(swuc_exit_code_help()), std::string::npos) << r.out;
    // The manual's list is a copy of the same output.
    std::ifstream in(SWU_SOURCE_DIR "/docs/manual.md");
    const std::string manual((std::istreambuf_iterator<char>(in)), {});
    EXPECT_NE(manual.find("<!-- exit-codes -->\n```\n" + swuc_exit_code_help() + "\n```\n"),
              std::string::npos)
        << "docs/manual.md: paste in the output of swu-client --exit-codes";
}

// The terminal runs 1.2.3: the same version or an older one is not sent
// unless asked for; a dry run checks the terminal and sends nothing.
TEST_F(ClientCli, VersionFloorAndDryRun)
{
    ASSERT_NO_FATAL_FAILURE(start());
    const std::string same =
        make_package("same.swu", {file_member("pkg_ver.txt", "[pkg_data]\nversion=1.2.3\n")});
    run_result u = client(root_, {"update", "127.0.0.1", same, "--dry-run"});
    EXPECT_EQ(u.exit_code, SWUC_EXIT_VERSION) << u.out << u.err;
    EXPECT_NE(u.err.find("the package installs 1.2.3, the terminal runs 1.2.3 (--reinstall"),
              std::string::npos)
        << u.err;
    u = client(root_, {"update", "127.0.0.1", same, "--dry-run", "--reinstall", "--allow-downgrade",
                       "--json"});
    EXPECT_EQ(u.exit_code, 0) << u.out << u.err;
    EXPECT_EQ(parsed(u)["terminal_state"], "free") << u.out;
    EXPECT_EQ(parsed(u)["installed_version"], "1.2.3") << u.out;
    const std::string older =
        make_package("older.swu", {file_member("pkg_ver.txt", "[pkg_data]\nversion=1.2\n")});
    u = client(root_, {"update", "127.0.0.1", older, "--reinstall"});
    EXPECT_EQ(u.exit_code, SWUC_EXIT_VERSION) << u.out << u.err;
    EXPECT_TRUE(std::filesystem::is_empty(root_.path("work"))) << "nothing was sent";
}

// The Wireshark dissector over the capture of one update that fails its
// first stream (-S) and is started over: every message of the protocol.
TEST_F(ClientCli, TheDissectorDecodesEveryMessageOfAnUpdate)
{
    if (system("command -v tshark >/dev/null && command -v dumpcap >/dev/null") != 0)
        GTEST_SKIP() << "tshark is not installed (scripts/install-deps installs it)";
    TestProcess capture;
    ASSERT_TRUE(
        capture.start({"dumpcap", "-i", "lo", "-w", root_.path("client/cap.pcapng")}, root_.dir()));
    ASSERT_TRUE(capture.wait_output("Capturing on", 10s)) << capture.output();
    TerminalSetup setup;
    setup.daemon_args = {"-S"};
    ASSERT_NO_FATAL_FAILURE(start(setup));
    std::string pkg = make_package("p.swu", {file_member("a.bin", test_bytes(4000, 5))});
    run_result u = client(root_, {"update", "127.0.0.1", pkg, "--no-confirm"});
    EXPECT_EQ(u.exit_code, 0) << u.out << u.err;
    std::this_thread::sleep_for(500ms);
    capture.stop();

    run_result t =
        run_to_end({"tshark", "-r", root_.path("client/cap.pcapng"), "-X",
                    "lua_script:" SWU_SOURCE_DIR "/tools/wireshark/swu.lua", "-Y", "swu", "-V"},
                   root_.dir());
    ASSERT_EQ(t.exit_code, 0) << t.err;
    for (const char *op :
         {"CONNECTION_REQST (0x21)", "STATUS_REQST (0x22)", "STREAM_REQST (0x23)",
          "PCKT_TRNSFR (0x24)", "FILE_STREAM_END (0x25)", "ERROR_RECEIVED (0x26)",
          "TERMINAL_REBOOT_REQ (0x27)", "SWU_SELF_ADVERTISE_OPCD (0x70)", "CONNECTION_RSPNS (0x71)",
          "STATUS_RSPNS (0x72)", "FILE_STREAM_RSPNS (0x73)", "PCKT_TRNSFR_ACK (0x74)",
          "FILE_STREAM_END_RSPNS (0x75)", "RESTARTING_UPDATE_PROC (0x76)",
          "TERMINAL_REBOOT_RSPNS (0x77)"})
        EXPECT_NE(t.out.find(std::string("Opcode: ") + op), std::string::npos) << op;
    for (const char *field :
         {"Client stream port: ", "Session id: ", "Connection: connection confirmed (1)",
          "Package size: 4", "Segment: 3", "Segments: 3", "Payload length: ",
          "Stage: error: Terminal encountered", "Status: invalid stream, some packets are missing",
          "Installed version: 1.2.3", "Identity: ID", "Largest payload: 1452"})
        EXPECT_NE(t.out.find(field), std::string::npos) << field;
}

// After the reboot the client waits for the terminal's advertisement: back
// with the new version, or back with its old one.
TEST_F(ClientCli, AfterItsRebootTheTerminalIsConfirmedWithItsNewVersion)
{
    ASSERT_NO_FATAL_FAILURE(start());
    const std::string v2 =
        make_package("v2.swu", {file_member("pkg_ver.txt", "[pkg_data]\nversion=2.0.0\n")});
    const std::string v3 =
        make_package("v3.swu", {file_member("pkg_ver.txt", "[pkg_data]\nversion=3.0.0\n")});
    // One update while this thread plays the terminal's boot: the daemon
    // again once the last one ended, with `card` (when given) as the card's
    // version file. The update's exit code and output.
    auto update_and_boot = [this](const std::string &pkg, TestProcess &last, TestProcess &next,
                                  const std::string &card) {
        TestProcess update;
        EXPECT_TRUE(update.start(
            {SWU_BIN_DIR "/swu-client", "update", "127.0.0.1", pkg, "--confirm-timeout", "30"},
            root_.dir()));
        EXPECT_TRUE(last.wait_end(60s)) << "no reboot";
        if (!card.empty())
            root_.write("dev/mmcblk0p1/pkg_ver.txt", card);
        EXPECT_TRUE(next.start({SWU_BIN_DIR "/swu"}, root_.path("work")));
        EXPECT_TRUE(update.wait_end(60s));
        return std::pair{update.exit_code(), update.output()};
    };
    TestProcess second, third;
    auto [code, out] = update_and_boot(v2, swu_, second, "");
    EXPECT_EQ(code, 0) << out;
    EXPECT_NE(out.find("confirmed: the terminal is back, running 2.0.0"), std::string::npos) << out;

    std::tie(code, out) = update_and_boot(v3, second, third, "[pkg_data]\nversion=2.0.0\n");
    EXPECT_EQ(code, SWUC_EXIT_OLD_VERSION) << out;
    EXPECT_NE(out.find("came back running 2.0.0, not 3.0.0"), std::string::npos) << out;
}

// Two terminals on one LAN, each daemon in a namespace of its own.
class ClientLan : public ClientCli
{
  protected:
    // The lines of the report file.
    std::vector<json> report() const
    {
        std::vector<json> lines;
        std::istringstream in(root_.read("client/fleet.jsonl"));
        for (std::string line; std::getline(in, line);)
            lines.push_back(json::parse(line, nullptr, false));
        return lines;
    }

    TerminalLan lan_;
};

// The fleet runs to the end in both output modes: a failed canary holds the
// rest back and spends the failure budget; then the other one updates. Every
// terminal gets its row, its JSON entry and its report line.
TEST_F(ClientLan, UpdateAllRunsToTheEndAndReportsEveryTerminal)
{
    TerminalSetup failing;
    failing.daemon_args = {"-S"}; // its first stream end is found incomplete
    const std::string a = lan_.add("T-A", failing);
    const std::string b = lan_.add("T-B");
    const std::string pkg =
        make_package("v2.swu", {file_member("pkg_ver.txt", "[pkg_data]\nversion=2.0.0\n")});
    const std::string report_path = root_.path("client/fleet.jsonl");
    run_result r =
        client(root_, {"update", "--all", pkg, "--local", TerminalLan::CLIENT, "--timeout", "4.5",
                       "--parallel", "2", "--canary", "1", "--max-failures", "1", "--retries", "0",
                       "--no-reboot", "--json", "--report", report_path});
    EXPECT_EQ(r.exit_code, SWUC_EXIT_FLEET) << r.out << r.err;
    json list = parsed(r);
    ASSERT_TRUE(list.is_array() && list.size() == 2) << r.out;
    EXPECT_EQ(list[0]["terminal"], a);
    EXPECT_EQ(list[0]["exit_code"], SWUC_EXIT_INCOMPLETE);
    EXPECT_EQ(list[1]["result"], "not started") << "T-B";
    ASSERT_EQ(report().size(), 2u);
    EXPECT_EQ(report()[1]["exit_code"], nullptr);

    // The acknowledged terminal takes connections but advertises busy until
    // its next session: skipped, and the failure budget starts afresh.
    ASSERT_EQ(client(root_, {"ack-error", a, "--local", TerminalLan::CLIENT}).exit_code, 0);
    r = client(root_, {"update", "--all", pkg, "--local", TerminalLan::CLIENT, "--timeout", "4.5",
                       "--parallel", "2", "--no-reboot", "--report", report_path});
    EXPECT_EQ(r.exit_code, 0) << r.out << r.err;
    EXPECT_NE(r.out.find("[" + b + "] updated in "), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("\n" + a + "  T-A       1.2.3  skipped"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("\n" + b + "  T-B       1.2.3  updated"), std::string::npos) << r.out;
    ASSERT_EQ(report().size(), 4u);
    EXPECT_EQ(lan_.at(1).root->read("dev/mmcblk0p1/pkg_ver.txt"), "[pkg_data]\nversion=2.0.0\n");
}

// A second host on the LAN advertises the terminal's identity and answers
// every request of the client's ports: the client takes nothing from it. A
// fleet limited to known terminals leaves its claim apart; the package the
// terminal refuses is reported refused; the confirmation after a reboot is
// not faked.
TEST_F(ClientLan, AHostileHostOnTheLanIsNeverBelieved)
{
    const std::string a = lan_.add("T-A");
    const std::string b = lan_.add("T-B");
    const sockaddr_in rx = Stranger::to(TerminalLan::CLIENT, 40001);
    const sockaddr_in stream = Stranger::to(TerminalLan::CLIENT, 40002);
    const std::string finish =
        R"({"battery_status":80,"status_code":0,"status_message":"ok","stage_code":6,)"
        R"("stage_description":"Update finished","stage_progress":100,"stage_complete":1})";
    Stranger forger({Stranger::advert("T-A", 2), Stranger::status(finish, rx),
                     Stranger::header(TERMINAL_REBOOT_RSPNS, rx),
                     Stranger::header(FILE_STREAM_END_RSPNS, stream), Stranger::ack(1, stream)},
                    TerminalLan::STRANGER);
    const std::string v2 =
        make_package("v2.swu", {file_member("pkg_ver.txt", "[pkg_data]\nversion=2.0.0\n")});

    // The identity is claimed from two addresses: a bare --only trusts neither.
    run_result r = client(root_, {"update", "--all", v2, "--only", "T-A", "--local",
                                  TerminalLan::CLIENT, "--timeout", "4.5"});
    EXPECT_EQ(r.exit_code, 0) << r.out << r.err;
    EXPECT_NE(r.out.find("updating 0 of 0 terminals heard"), std::string::npos) << r.out;
    EXPECT_NE(
        r.out.find(std::string("not known terminals (left alone):\nADDRESS     IDENTITY  WHY\n") +
                   a + "  T-A       its identity is advertised from 2 addresses"),
        std::string::npos)
        << r.out;

    // A package the terminal refuses, while the forger reports it finished.
    std::string bytes = root_.read("client/v2.swu");
    bytes[bytes.size() / 2] ^= 0x55;
    root_.write("client/bad.swu", bytes);
    r = client(root_, {"update", b, root_.path("client/bad.swu"), "--force", "--local",
                       TerminalLan::CLIENT, "--rx-port", "40001", "--stream-port", "40002", "-v"});
    EXPECT_EQ(r.exit_code, SWUC_EXIT_INSTALL) << r.out << r.err;
    for (const char *never : {"installed", "reboot confirmed", "is back"})
        EXPECT_EQ(r.out.find(never), std::string::npos) << never << " in\n" << r.out;
    EXPECT_NE(r.err.find("datagrams dropped: not from the terminal"), std::string::npos) << r.err;
    run_result ack = client(root_, {"ack-error", b, "--local", TerminalLan::CLIENT, "--rx-port",
                                    "40001", "--json", "-v"});
    EXPECT_EQ(ack.exit_code, 0) << ack.out << ack.err;

    // An inventory pins T-A to its address: it is updated and reboots, and
    // does not come back (nothing restarts its daemon), whatever the forger
    // advertises.
    root_.write("client/inventory", "T-A " + a + "\n");
    r = client(root_,
               {"update", "--all", v2, "--inventory", root_.path("client/inventory"), "--local",
                TerminalLan::CLIENT, "--timeout", "4.5", "--confirm-timeout", "6", "--json"});
    EXPECT_EQ(r.exit_code, SWUC_EXIT_FLEET) << r.out << r.err;
    json list = parsed(r);
    ASSERT_TRUE(list.is_array() && list.size() == 3) << r.out;
    EXPECT_EQ(list[0]["terminal"], a);
    EXPECT_EQ(list[0]["exit_code"], SWUC_EXIT_NOT_BACK) << r.out;
    EXPECT_GT(list[0]["foreign"].get<int>(), 0) << r.out;
    EXPECT_EQ(list[2]["terminal"], TerminalLan::STRANGER);
    EXPECT_EQ(list[2]["result"], "not known");
    EXPECT_TRUE(lan_.at(0).swu.wait_end(5s)) << "T-A was not asked to reboot";
}

} // namespace
