// update --all: three simulated terminals, each in a network namespace of its
// own behind a veth pair on one bridge, updated by one command; one of them
// refuses the stream, the others must still be updated.
#include "cli_run.h"
#include "pack.h"
#include "support/sim_root.h"
#include "swu/pkg_footer.h"

#include <chrono>
#include <memory>
#include <unistd.h>

using namespace std::chrono_literals;

namespace
{

constexpr int TERMINALS = 3;
constexpr int EXIT_REFUSED = 6;
constexpr int EXIT_FLEET = 13;
const char *const CLIENT_ADDR = "10.77.0.100";

std::string terminal_addr(int i)
{
    return "10.77.0." + std::to_string(11 + i);
}

struct terminal {
    std::unique_ptr<SimRoot> root;
    std::string netns;
    TestProcess sim;
    TestProcess swu;
};

class ClientFleet : public ::testing::Test
{
  protected:
    void TearDown() override
    {
        for (terminal &t : terms_) {
            t.swu.stop();
            t.sim.stop();
            if (HasFailure())
                printf("---- %s ----\n%s\n", t.netns.c_str(), t.swu.output().c_str());
            if (!t.netns.empty())
                run_command({"ip", "netns", "del", t.netns});
        }
    }

    // The bridge that joins the terminals and the client.
    void bridge()
    {
        ASSERT_EQ(
            run_command({"ip", "link", "add", "swubr", "type", "bridge", "mcast_snooping", "0"}),
            0);
        ASSERT_EQ(
            run_command({"ip", "addr", "add", std::string(CLIENT_ADDR) + "/24", "dev", "swubr"}),
            0);
        ASSERT_EQ(run_command({"ip", "link", "set", "swubr", "up"}), 0);
    }

    // Terminal i in its own namespace, its daemon started with `args`.
    void start_terminal(int i, const std::vector<std::string> &args)
    {
        terminal &t = terms_[static_cast<size_t>(i)];
        t.root = std::make_unique<SimRoot>(); // names SWU_ROOT for the programs below
        SimRoot &r = *t.root;
        r.registers(0xFAACABBA, 0);
        std::string block0 = "<orVanId>T" + std::to_string(i) + "</orVanId>";
        block0.resize(4096, '\xFF');
        r.write("dev/mtd0", block0);
        r.write("dev/mtd1", std::string(4096, '\xFF'));
        r.write("dev/mmcblk0p1/pkg_ver.txt", "[pkg_data]\nversion=1.0.0\n");
        for (const char *dir : {"mnt", "tmp", "var/log", "work", "sim"})
            r.mkdir(dir);

        t.netns = "swuc-" + std::to_string(getpid()) + "-" + std::to_string(i);
        const std::string veth = "swuv" + std::to_string(i);
        const std::string addr = terminal_addr(i);
        ASSERT_EQ(run_command({"ip", "netns", "add", t.netns}), 0);
        ASSERT_EQ(run_command({"ip", "link", "add", veth, "type", "veth", "peer", "name", "eth0",
                               "netns", t.netns}),
                  0);
        ASSERT_EQ(run_command({"ip", "link", "set", veth, "master", "swubr", "up"}), 0);
        for (std::vector<std::string> cmd :
             {std::vector<std::string>{"addr", "add", addr + "/24", "dev", "eth0"},
              {"link", "set", "eth0", "up"},
              {"link", "set", "lo", "up"},
              {"route", "add", "224.0.0.0/4", "dev", "eth0"}}) {
            cmd.insert(cmd.begin(), {"ip", "-n", t.netns});
            ASSERT_EQ(run_command(cmd), 0) << cmd[3] << " " << cmd[4];
        }

        ASSERT_TRUE(t.sim.start({SWU_BIN_DIR "/stm32-sim"}, r.dir(), r.path("sim/sim.log")));
        ASSERT_TRUE(t.sim.wait_output("stm32-sim: ready", 10s)) << t.sim.output();
        std::vector<std::string> argv = {"/usr/bin/env", "ip",    "netns",
                                         "exec",         t.netns, SWU_BIN_DIR "/swu"};
        argv.insert(argv.end(), args.begin(), args.end());
        ASSERT_TRUE(t.swu.start(argv, r.path("work"), r.path("var/log/swu.log")));
        ASSERT_TRUE(t.swu.wait_output("orvanID", 10s)) << t.swu.output();
    }

    terminal terms_[TERMINALS];
};

TEST_F(ClientFleet, OneCommandUpdatesEveryFreeTerminalAndTablesTheOutcomes)
{
    ASSERT_NO_FATAL_FAILURE(bridge());
    ASSERT_NO_FATAL_FAILURE(start_terminal(0, {}));
    ASSERT_NO_FATAL_FAILURE(start_terminal(1, {"-F"})); // refuses the stream request
    ASSERT_NO_FATAL_FAILURE(start_terminal(2, {}));

    SimRoot client;
    const std::string app(200000, 'a');
    const std::string ver = "[pkg_data]\nversion=3.1.4\n";
    std::string err;
    std::vector<pack_member> members(2);
    members[0].name = "app.bin";
    members[0].data = app;
    members[1].name = "pkg_ver.txt";
    members[1].data = ver;
    ASSERT_EQ(pack_write(client.path("fleet-3.1.4.swu"), members, 0, PKG_MAX_SIZE, &err), 0) << err;

    cli_result r = run_program({client_bin(), "update", "--all", client.path("fleet-3.1.4.swu"),
                                "--local", CLIENT_ADDR, "--timeout", "4", "--parallel", "2"},
                               client.dir(), client.path("client.log"));
    EXPECT_EQ(r.exit_code, EXIT_FLEET) << r.out << r.err;
    if (getenv("SWU_TEST_VERBOSE") != nullptr)
        printf("%s\n", r.out.c_str());

    // One row a terminal: address, identity, version before, outcome.
    for (int i = 0; i < TERMINALS; i++) {
        size_t at = r.out.find("\n" + terminal_addr(i) + " ");
        ASSERT_NE(at, std::string::npos) << r.out;
        std::string row = r.out.substr(at + 1, r.out.find('\n', at + 1) - at - 1);
        EXPECT_NE(row.find(" T" + std::to_string(i) + " "), std::string::npos) << row;
        EXPECT_NE(row.find(" 1.0.0 "), std::string::npos) << row;
        if (i == 1) {
            EXPECT_NE(row.find("FAILED"), std::string::npos) << row;
            EXPECT_NE(row.find(" " + std::to_string(EXIT_REFUSED) + " "), std::string::npos) << row;
            EXPECT_NE(row.find("invalid stream request"), std::string::npos) << row;
        } else {
            EXPECT_NE(row.find("updated"), std::string::npos) << row;
            EXPECT_EQ(terms_[i].root->read("dev/mmcblk0p1/pkg_ver.txt"), ver);
            EXPECT_EQ(terms_[i].root->read("dev/mmcblk0p1/app.bin"), app);
            EXPECT_TRUE(terms_[i].swu.wait_end(10s)) << "terminal " << i << " did not restart";
        }
    }
}

} // namespace
