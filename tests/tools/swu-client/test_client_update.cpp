// swu-client against one simulated terminal: discovery, the update's road to
// the reboot, every refusal and failure the terminal reports, a slow
// installation, a lossy link, and the commands that end the finish and error
// states.
#include "cli_run.h"
#include "support/terminal_fixture.h"

#include <sys/socket.h>

namespace
{

using nlohmann::json;

// Exit codes of swu-client.
constexpr int EXIT_NO_ANSWER = 3;
constexpr int EXIT_BUSY = 4;
constexpr int EXIT_BATTERY = 5;
constexpr int EXIT_REFUSED = 6;
constexpr int EXIT_INCOMPLETE = 7;
constexpr int EXIT_NO_MEMORY = 8;
constexpr int EXIT_INSTALL = 10;

class ClientCli : public TerminalTest
{
  protected:
    void SetUp() override
    {
        TerminalTest::SetUp();
        // The remembered session ports stay inside this test's root.
        setenv("XDG_STATE_HOME", root_.path("client/state").c_str(), 1);
        app_ = test_bytes(300000, 21);
        st_ = test_bytes(4096, 22);
        ver_ = "[pkg_data]\nversion=2.0.1\n";
    }

    cli_result client(std::vector<std::string> args, bool tty = false)
    {
        args.insert(args.begin(), client_bin());
        return run_program(args, root_.dir(), root_.path("client/swu-client.log"), tty);
    }

    std::string package(const std::string &name = "update-2.0.1.swu")
    {
        return make_package(name, {file_member("app.bin", app_), file_member("st.bin", st_),
                                   file_member("pkg_ver.txt", ver_)});
    }

    // The card holds the package, the microcontroller its image, and the
    // terminal restarted.
    void expect_installed()
    {
        EXPECT_EQ(card_file("app.bin"), app_);
        EXPECT_EQ(card_file("st.bin"), st_);
        EXPECT_EQ(card_file("pkg_ver.txt"), ver_);
        EXPECT_EQ(mcu_flash(), st_);
        EXPECT_TRUE(swu_.wait_end(10s)) << "the daemon did not end after the reboot request";
        EXPECT_TRUE(root_.exists("var/log/reboot.log"));
    }

    std::string app_, st_, ver_;
};

TEST_F(ClientCli, DiscoveryListsTheTerminalAndUpdateShowsABarUpToTheReboot)
{
    ASSERT_NO_FATAL_FAILURE(start());
    cli_result d = client({"discover", "--json", "--timeout", "3.5"});
    ASSERT_EQ(d.exit_code, 0) << d.out << d.err;
    ASSERT_TRUE(d.json.is_array() && d.json.size() == 1) << d.out;
    const json &t = d.json[0];
    EXPECT_EQ(t["address"], "127.0.0.1");
    EXPECT_EQ(t["identity"], "ID");
    EXPECT_EQ(t["installed_version"], "1.2.3");
    EXPECT_EQ(t["factory_version"], "0.0.0");
    EXPECT_EQ(t["config_version"], 505);
    EXPECT_EQ(t["terminal_type"], "dynamic");
    EXPECT_EQ(t["busy"], false);

    cli_result u = client({"update", "127.0.0.1", package()}, true);
    EXPECT_EQ(u.exit_code, 0) << u.out;
    // A terminal gets a bar redrawn in place.
    EXPECT_NE(u.out.find("\r["), std::string::npos) << u.out;
    EXPECT_NE(u.out.find("100%"), std::string::npos) << u.out;
    EXPECT_NE(u.out.find("verifying the package"), std::string::npos) << u.out;
    EXPECT_NE(u.out.find("installing"), std::string::npos) << u.out;
    EXPECT_NE(u.out.find("reboot confirmed"), std::string::npos) << u.out;
    expect_installed();
}

TEST_F(ClientCli, WithoutATerminalTheProgressIsPlainLines)
{
    ASSERT_NO_FATAL_FAILURE(start());
    cli_result u = client({"update", "127.0.0.1", package(), "--window", "8"});
    EXPECT_EQ(u.exit_code, 0) << u.out << u.err;
    EXPECT_EQ(u.out.find('\r'), std::string::npos) << u.out;
    EXPECT_NE(u.out.find("\nstream 100%"), std::string::npos) << u.out;
    EXPECT_NE(u.out.find("updated in"), std::string::npos) << u.out;
    expect_installed();
}

struct refusal {
    const char *daemon_switch;
    int exit_code;
    unsigned status_code;
};
void PrintTo(const refusal &r, std::ostream *os)
{
    *os << "swu " << r.daemon_switch;
}

class ClientRefusal : public ClientCli, public ::testing::WithParamInterface<refusal>
{
};

TEST_P(ClientRefusal, StreamRequestRefusalGivesItsExitCodeAndOneLine)
{
    TerminalSetup setup;
    setup.daemon_args = {GetParam().daemon_switch};
    ASSERT_NO_FATAL_FAILURE(start(setup));
    cli_result u = client({"update", "127.0.0.1", package(), "--json"});
    EXPECT_EQ(u.exit_code, GetParam().exit_code) << u.out << u.err;
    ASSERT_TRUE(u.json.is_object()) << u.out;
    EXPECT_EQ(u.json["exit_code"], GetParam().exit_code);
    EXPECT_EQ(u.json["result"], "failed");
    EXPECT_EQ(u.json["step"], "stream");
    EXPECT_EQ(u.json["status"]["stage_code"], 5);
    EXPECT_EQ(u.json["status"]["status_code"], GetParam().status_code);
    EXPECT_EQ(u.err, "") << "--json prints nothing else";
}

INSTANTIATE_TEST_SUITE_P(Switches, ClientRefusal,
                         ::testing::Values(refusal{"-F", EXIT_REFUSED, 1},
                                           refusal{"-L", EXIT_REFUSED, 1},
                                           refusal{"-Z", EXIT_REFUSED, 1},
                                           refusal{"-M", EXIT_NO_MEMORY, 3}),
                         [](const auto &p) { return std::string(p.param.daemon_switch + 1); });

TEST_F(ClientCli, IncompleteStreamIsStartedOverUnlessRetriesAreOff)
{
    TerminalSetup setup;
    setup.daemon_args = {"-S"}; // the first stream end is found incomplete
    ASSERT_NO_FATAL_FAILURE(start(setup));
    cli_result u = client({"update", "127.0.0.1", package(), "--json"});
    EXPECT_EQ(u.exit_code, 0) << u.out << u.err;
    EXPECT_EQ(u.json["attempts"], 2) << u.out;
    expect_installed();
}

TEST_F(ClientCli, IncompleteStreamWithoutRetriesExits7)
{
    TerminalSetup setup;
    setup.daemon_args = {"-S"};
    ASSERT_NO_FATAL_FAILURE(start(setup));
    cli_result u = client({"update", "127.0.0.1", package(), "--retries", "0"});
    EXPECT_EQ(u.exit_code, EXIT_INCOMPLETE) << u.out << u.err;
    // One line on standard error says why.
    EXPECT_EQ(std::count(u.err.begin(), u.err.end(), '\n'), 1) << u.err;
    EXPECT_NE(u.err.find("invalid stream, some packets are missing..."), std::string::npos)
        << u.err;
}

TEST_F(ClientCli, RejectedPackageExits10AndALaterCommandAcknowledgesTheError)
{
    ASSERT_NO_FATAL_FAILURE(start());
    std::string bad = write_client_file("broken.swu", test_bytes(50000, 5));
    cli_result u = client({"update", "127.0.0.1", bad, "--json"});
    EXPECT_EQ(u.exit_code, EXIT_INSTALL) << u.out << u.err;
    EXPECT_EQ(u.json["step"], "install");
    EXPECT_EQ(u.json["status"]["stage_code"], 5);

    // The terminal answers the acknowledgement to the session's own port,
    // which the command remembers.
    cli_result ack = client({"ack-error", "127.0.0.1"});
    EXPECT_EQ(ack.exit_code, 0) << ack.out << ack.err;
    EXPECT_NE(ack.out.find("error acknowledged"), std::string::npos);

    // Back at idle: a new session is confirmed.
    cli_result st = client({"status", "127.0.0.1", "--json"});
    EXPECT_EQ(st.exit_code, 0) << st.out << st.err;
    EXPECT_EQ(st.json["status"]["stage_code"], 1) << st.out;
    EXPECT_EQ(st.json["connection_status"], 1) << st.out;
}

TEST_F(ClientCli, BusyTerminalRefusesASecondClient)
{
    ASSERT_NO_FATAL_FAILURE(start());
    swuc_session first;
    ASSERT_NO_FATAL_FAILURE(connect(&first));

    cli_result u = client({"update", "127.0.0.1", package(), "--local", "127.0.0.2", "--json"});
    EXPECT_EQ(u.exit_code, EXIT_BUSY) << u.out << u.err;
    EXPECT_EQ(u.json["step"], "connect");
    status(&first); // the first session goes on
    cli_result s =
        client({"status", "127.0.0.1", "--local", "127.0.0.2", "--reply-timeout", "300"});
    EXPECT_EQ(s.exit_code, EXIT_BUSY) << s.out << s.err;
    EXPECT_EQ(status(&first).stage_code, SWUC_STAGE_CONNECT);
}

TEST_F(ClientCli, NoRebootLeavesTheFinishToTheRebootCommand)
{
    ASSERT_NO_FATAL_FAILURE(start());
    cli_result u = client({"update", "127.0.0.1", package(), "--no-reboot", "--json"});
    ASSERT_EQ(u.exit_code, 0) << u.out << u.err;
    EXPECT_EQ(u.json["reboot_confirmed"], false);
    EXPECT_EQ(u.json["status"]["stage_code"], 6);
    EXPECT_FALSE(swu_.ended());

    cli_result r = client({"reboot", "127.0.0.1", "--json"});
    EXPECT_EQ(r.exit_code, 0) << r.out << r.err;
    EXPECT_EQ(r.json["result"], "rebooting");
    expect_installed();
}

TEST_F(ClientCli, SessionStaysAliveThroughASlowInstallation)
{
    TerminalSetup setup;
    setup.sim_args = {"--pace"}; // the microcontroller's line at its real rate
    st_ = test_bytes(96 * 1024, 23);
    ASSERT_NO_FATAL_FAILURE(start(setup));
    cli_result u = client({"update", "127.0.0.1", package(), "--json"});
    EXPECT_EQ(u.exit_code, 0) << u.out << u.err;
    // Longer than the terminal keeps a silent session.
    EXPECT_GT(u.json["total_seconds"].get<double>(), 6.0) << u.out;
    expect_installed();
}

TEST_F(ClientCli, UpdateCompletesOverALossyLink)
{
    ASSERT_NO_FATAL_FAILURE(start());
    TestProcess relay;
    ASSERT_TRUE(relay.start({SWU_BIN_DIR "/lossy_relay", "--to", "127.0.0.1:12226", "--drop",
                             "0.05", "--dup", "0.02", "--reorder", "0.03", "--seed", "7"},
                            root_.dir(), root_.path("client/relay.log")));
    ASSERT_TRUE(relay.wait_output("\n", 5s));
    std::string line = relay.output();
    size_t at = line.find("listening on ");
    ASSERT_NE(at, std::string::npos) << line;
    const std::string port = std::to_string(std::stoi(line.substr(at + 13)));

    cli_result u = client({"update", "127.0.0.1:" + port, package(), "--json"});
    relay.stop();
    EXPECT_EQ(u.exit_code, 0) << u.out << u.err << relay.output();
    EXPECT_GT(u.json["retransmitted"].get<int>(), 0) << "no loss on the way?";
    EXPECT_NE(relay.output().find("dropped"), std::string::npos);
    expect_installed();
}

// A stand-in terminal that answers every connection request with a low
// battery, and one that never answers.
TEST(ClientRefusedConnection, LowBatteryAndSilenceHaveTheirOwnExitCodes)
{
    SimRoot root;
    root.write("client/p.swu", "bytes");
    auto bound = [] {
        int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_in sa = {};
        sa.sin_family = AF_INET;
        sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        bind(fd, reinterpret_cast<sockaddr *>(&sa), sizeof(sa));
        socklen_t len = sizeof(sa);
        getsockname(fd, reinterpret_cast<sockaddr *>(&sa), &len);
        return std::make_pair(fd, std::to_string(ntohs(sa.sin_port)));
    };
    auto [low, low_port] = bound();
    auto [mute, mute_port] = bound();

    TestProcess p;
    ASSERT_TRUE(
        p.start({client_bin(), "update", "127.0.0.1:" + low_port, root.path("client/p.swu")},
                root.dir(), root.path("client.log")));
    while (!p.ended()) {
        pollfd pfd = {low, POLLIN, 0};
        if (poll(&pfd, 1, 50) != 1)
            continue;
        uint8_t buf[512];
        sockaddr_in from = {};
        socklen_t from_len = sizeof(from);
        ssize_t n =
            recvfrom(low, buf, sizeof(buf), 0, reinterpret_cast<sockaddr *>(&from), &from_len);
        if (n < 9 || buf[2] != CONNECTION_REQST)
            continue;
        from.sin_port = htons(static_cast<uint16_t>(buf[5] | buf[6] << 8));
        const uint8_t rsp[8] = {1, 0, CONNECTION_RSPNS, 0, SWU_CON_RES_BATTERY_TOO_LOW, 0, 42, 1};
        sendto(low, rsp, sizeof(rsp), 0, reinterpret_cast<sockaddr *>(&from), sizeof(from));
    }
    ASSERT_TRUE(WIFEXITED(p.exit_status()));
    EXPECT_EQ(WEXITSTATUS(p.exit_status()), EXIT_BATTERY) << p.output();
    EXPECT_NE(p.output().find("battery too low"), std::string::npos) << p.output();
    EXPECT_NE(p.output().find("42 %"), std::string::npos) << p.output();

    cli_result r = run_program({client_bin(), "update", "127.0.0.1:" + mute_port,
                                root.path("client/p.swu"), "--reply-timeout", "100"},
                               root.dir(), root.path("client2.log"));
    EXPECT_EQ(r.exit_code, EXIT_NO_ANSWER) << r.out << r.err;
    close(low);
    close(mute);
}

} // namespace
