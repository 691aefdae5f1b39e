// The front end st_soft_control: its options, the order of its actions and
// every failure row, in process against stm32-sim on a fresh simulation root.
#include "lib/st_control/st_control.h"
#include "support/stm32_sim.h"

#include <gtest/gtest.h>

#include <memory>

namespace
{

// One event line of the front end's log: millisecond stamp, then the text.
bool logged(const std::string &out, const std::string &text)
{
    size_t at = out.find("(ms) | --> " + text + "\n");
    return at != std::string::npos && out.rfind("LOG--> Time: ", at) != std::string::npos;
}

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
    // Runs, expecting result `rc` and `event` logged; the output.
    std::string expect_event(std::vector<std::string> args, int rc, const std::string &event)
    {
        auto [got, out] = run(std::move(args));
        EXPECT_EQ(got, rc) << out;
        EXPECT_TRUE(logged(out, event)) << out;
        return out;
    }
    void image(size_t size) { root.write("mnt/emmc/st.bin", std::string(size, '\x5A')); }
};

TEST_F(FrontEnd, InstallerVectorUpdatesTwiceInOneProcess)
{
    start();
    image(1001);
    for (int round = 1; round <= 2; round++) {
        std::string out =
            expect_event({"-t /dev/ttyUL1", "-f /mnt/st.bin", "-u"}, 0, "SUCCESS to update STM");
        EXPECT_TRUE(logged(out, "*** Starting STM software update ***")) << out;
        EXPECT_TRUE(sim->wait_for("programmed 1008 bytes", round));
    }
}

TEST_F(FrontEnd, ActionsRunInTheirOwnOrder)
{
    start();
    image(64);
    EXPECT_EQ(run({"-s", "-g", "m", "-v", "-b", "0x1", "-l", "r", "-t", "x", "-u"}).first, 0);
    sim->stop(); // everything it logged has been read
    const std::string log = sim->log();
    size_t at = 0;
    for (const char *step : {"165 ", "30 ", "195 (button) len=1 data=00", "75 ", "165 ", "15 "}) {
        at = log.find(std::string("rx opc=") + step, at);
        ASSERT_NE(at, std::string::npos) << step << " in order in\n" << log;
    }
}

TEST_F(FrontEnd, EachOptionAgainstTheSimulator)
{
    start({"--start", "app", "--api-version", "0x01020304", "--boot-version", "0xa0b0c0d"});
    EXPECT_EQ(run({"-l", "wb1c3", "-t", "x"}), std::make_pair(0, std::string()));
    EXPECT_TRUE(sim->wait_for("LED set to 3 blinking"));
    EXPECT_EQ(run({"-t", "x", "-l", "r"}).second, "Current LED sate: 0x3\n");
    expect_event({"-t", "x", "-l", "red", "-l", "q"}, 0, "ERROR: -l flag not valid!!");
    EXPECT_EQ(run({"-tx", "-v"}).second,
              "Main APP Version:01020304 ,BootLoader Version: 0a0b0c0d\n");
    EXPECT_EQ(run({"-t", "x", "-g", "b"}).first, 0);
    EXPECT_TRUE(sim->wait_for("restarted into the bootloader"));
    EXPECT_EQ(run({"-t", "x", "-g", "main"}).first, 0);
    EXPECT_TRUE(sim->wait_for("application started"));
    std::string out = expect_event({"-t", "x", "-g", "x", "-s"}, 0, "Error with -g flag");
    EXPECT_NE(out.find("Recovery NOT requested\n"), std::string::npos);
    sim->stop();
    EXPECT_EQ(sim->count("rx opc=30"), 2u);

    start({"--recovery", "yes"});
    EXPECT_EQ(run({"-t", "x", "-s"}).second, "Recovery requested\n");
    start({"--recovery", "none"});
    expect_event({"-t", "x", "-s"}, 0, "ERROR: stm_status_req return unknown value");
    start({"--shutdown-after", "400"});
    expect_event({"-t", "x", "-d", "accept"}, 0, "Got shutdown Request!!");
    EXPECT_TRUE(sim->wait_for("shutdown request accepted"));
}

TEST_F(FrontEnd, FailureRows)
{
    EXPECT_EQ(expect_event({"-b", "2", "-t", "x"}, -1, "btn value is invalid").find("UART"),
              std::string::npos);
    expect_event({"-s"}, -1, "ERROR: USE -t FLAG!");
    EXPECT_EQ(run({"-t", "x", "-q"}).first, -1);
    expect_event({"-t", "x", "-s"}, -1, "ERROR OPENNING UART TTY"); // no simulator: no line

    start();
    std::string out =
        expect_event({"-t", "x", "-f /mnt/st.bin", "-u", "-s"}, -1, "ERROR OPENNING UPDATE FILE");
    EXPECT_NE(out.find("\n /mnt/st.bin\n"), std::string::npos) << out;
    sim->stop();
    EXPECT_EQ(sim->count("rx opc="), 0u);

    // Failed actions are logged and the call goes on.
    image(1000);
    start({"--nak", "erase"});
    expect_event({"-t", "x", "-u"}, 0, "ERROR update STM");
    start({"--hangup-after", "button"});
    out = expect_event({"-t", "x", "-b", "1", "-v", "-s"}, 0, "ERROR: stm_version_req failed");
    EXPECT_TRUE(logged(out, "ERROR: stm_status_req failed")) << out;
}

} // namespace
