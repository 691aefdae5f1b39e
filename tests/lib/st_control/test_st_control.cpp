// The front end st_soft_control: its options, the order of its actions and
// every failure row, in process against stm32-sim on a fresh simulation root.
#include "lib/st_control/st_control.h"
#include "stm32_sim_process.h"

#include <gtest/gtest.h>

#include <memory>

namespace
{

struct FrontEnd : ::testing::Test {
    SimRoot root;
    std::unique_ptr<Stm32Sim> sim;

    void start(std::vector<std::string> args = {})
    {
        sim.reset();
        sim = std::make_unique<Stm32Sim>(root, std::move(args));
    }

    // Runs st_soft_control("self", args...); its result and standard output.
    std::pair<int, std::string> run(std::vector<std::string> args)
    {
        args.insert(args.begin(), "self");
        std::vector<char *> argv;
        for (auto &a : args)
            argv.push_back(a.data());
        testing::internal::CaptureStdout();
        int rc = st_soft_control(static_cast<int>(argv.size()), argv.data());
        return {rc, testing::internal::GetCapturedStdout()};
    }

    void image(size_t size) { root.write("mnt/emmc/st.bin", std::string(size, '\x5A')); }
};

// One event line of the front end's log: millisecond stamp, then the text.
bool logged(const std::string &out, const std::string &text)
{
    size_t at = out.find("(ms) | --> " + text + "\n");
    return at != std::string::npos && out.rfind("LOG--> Time: ", at) != std::string::npos;
}

} // namespace

TEST_F(FrontEnd, InstallerVectorUpdatesTwiceInOneProcess)
{
    start();
    image(1001);
    for (int round = 1; round <= 2; round++) {
        auto [rc, out] = run({"-t /dev/ttyUL1", "-f /mnt/st.bin", "-u"});
        EXPECT_EQ(rc, 0);
        EXPECT_TRUE(logged(out, "*** Starting STM software update ***")) << out;
        EXPECT_NE(out.find("* BYTES: 1008 *\n"), std::string::npos);
        EXPECT_TRUE(logged(out, "SUCCESS to update STM")) << out;
        EXPECT_TRUE(sim->wait_for("programmed 1008 bytes", round));
    }
}

TEST_F(FrontEnd, LedOptions)
{
    start();
    auto [rc, out] = run({"-l", "wb1c3", "-t", "x"});
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(out.find("LED"), std::string::npos);
    EXPECT_TRUE(sim->wait_for("LED set to 3 blinking"));
    EXPECT_EQ(run({"-t", "x", "-l", "r"}).second, "Current LED sate: 0x3\n");

    EXPECT_EQ(run({"-t", "x", "-l", "w"}).first, 0);
    EXPECT_TRUE(sim->wait_for("rx opc=30 (led) len=1 data=40"));
    std::tie(rc, out) = run({"-t", "x", "-l", "red", "-l", "q"});
    EXPECT_EQ(rc, 0);
    EXPECT_TRUE(logged(out, "ERROR: -l flag not valid!!")) << out;
    EXPECT_EQ(sim->count("rx opc=30"), 3u);
}

TEST_F(FrontEnd, ButtonVersionsBootloaderApplicationAndStatus)
{
    start({"--start", "app", "--api-version", "0x01020304", "--boot-version", "0xa0b0c0d"});
    EXPECT_EQ(run({"-t", "x", "-b", "0x1"}).first, 0);
    EXPECT_TRUE(sim->wait_for("rx opc=195 (button) len=1 data=00"));
    EXPECT_EQ(run({"-tx", "-v"}).second,
              "Main APP Version:01020304 ,BootLoader Version: 0a0b0c0d\n");
    EXPECT_EQ(run({"-t", "x", "-g", "b"}).first, 0);
    EXPECT_TRUE(sim->wait_for("restarted into the bootloader"));
    EXPECT_EQ(run({"-t", "x", "-g", "main"}).first, 0);
    EXPECT_TRUE(sim->wait_for("application started"));
    auto [rc, out] = run({"-t", "x", "-g", "x", "-s"});
    EXPECT_EQ(rc, 0);
    EXPECT_TRUE(logged(out, "Error with -g flag")) << out;
    EXPECT_NE(out.find("Recovery NOT requested\n"), std::string::npos);

    start({"--recovery", "yes"});
    EXPECT_EQ(run({"-t", "x", "-s"}).second, "Recovery requested\n");
    start({"--recovery", "none"});
    EXPECT_TRUE(
        logged(run({"-t", "x", "-s"}).second, "ERROR: stm_status_req return unknown value"));
}

TEST_F(FrontEnd, ActionsRunInTheirOwnOrder)
{
    start();
    image(64);
    EXPECT_EQ(run({"-s", "-v", "-t", "x", "-u"}).first, 0);
    std::string log = sim->log();
    EXPECT_LT(log.find("rx opc=165"), log.find("rx opc=75"));
    EXPECT_LT(log.find("rx opc=75"), log.rfind("rx opc=15"));
}

TEST_F(FrontEnd, ShutdownRequestIsAwaitedAndAnswered)
{
    start({"--shutdown-after", "400"});
    auto [rc, out] = run({"-t", "x", "-d", "accept"});
    EXPECT_EQ(rc, 0);
    EXPECT_TRUE(logged(out, "Got shutdown Request!!")) << out;
    EXPECT_TRUE(sim->wait_for("shutdown request accepted"));
}

TEST_F(FrontEnd, EarlyFailuresReturnMinusOne)
{
    auto [rc, out] = run({"-b", "2", "-t", "x"});
    EXPECT_EQ(rc, -1);
    EXPECT_TRUE(logged(out, "btn value is invalid")) << out;
    EXPECT_EQ(out.find("UART"), std::string::npos);

    std::tie(rc, out) = run({"-s"});
    EXPECT_EQ(rc, -1);
    EXPECT_TRUE(logged(out, "ERROR: USE -t FLAG!")) << out;

    EXPECT_EQ(run({"-t", "x", "-q"}).first, -1);
    EXPECT_EQ(run({"-t", "x", "-b"}).first, -1);

    std::tie(rc, out) = run({"-t", "x", "-s"}); // no simulator: no line
    EXPECT_EQ(rc, -1);
    EXPECT_TRUE(logged(out, "ERROR OPENNING UART TTY")) << out;

    start();
    std::tie(rc, out) = run({"-t", "x", "-f /mnt/st.bin", "-u", "-s"});
    EXPECT_EQ(rc, -1);
    EXPECT_NE(out.find("\n /mnt/st.bin\n"), std::string::npos) << out;
    EXPECT_TRUE(logged(out, "ERROR OPENNING UPDATE FILE")) << out;
    EXPECT_EQ(sim->count("rx opc="), 0u);
}

TEST_F(FrontEnd, FailedActionsAreLoggedAndTheCallGoesOn)
{
    image(1000);
    start({"--nak", "erase"});
    auto [rc, out] = run({"-t", "x", "-u"});
    EXPECT_EQ(rc, 0);
    EXPECT_TRUE(logged(out, "ERROR update STM")) << out;

    start({"--hangup-after", "button"});
    std::tie(rc, out) = run({"-t", "x", "-b", "1", "-v", "-s"});
    EXPECT_EQ(rc, 0);
    EXPECT_TRUE(logged(out, "ERROR: stm_version_req failed")) << out;
    EXPECT_TRUE(logged(out, "ERROR: stm_status_req failed")) << out;
}
