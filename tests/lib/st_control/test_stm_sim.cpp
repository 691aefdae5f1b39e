// The commands and the programming sequence over a real pseudo-terminal,
// against stm32-sim (one simulator and one simulation root per test).
#include "lib/st_control/stm_com/zynq_st_uart_link.h"
#include "lib/st_control/stm_com/zynq_st_uart_prot.h"
#include "stm32_sim_process.h"

#include <gtest/gtest.h>

#include <chrono>
#include <fstream>
#include <memory>

namespace
{

struct SimLine : ::testing::Test {
    SimRoot root;
    std::unique_ptr<Stm32Sim> sim;
    int fd = -1;

    void start(std::vector<std::string> args = {})
    {
        sim.reset();
        sim = std::make_unique<Stm32Sim>(root, std::move(args));
        fd = sim->open_line();
        ASSERT_GE(fd, 0);
    }
    void TearDown() override
    {
        if (fd >= 0)
            close(fd);
        sim.reset();
    }

    std::string image(size_t size)
    {
        std::string bytes(size, '\0');
        for (size_t k = 0; k < size; k++)
            bytes[k] = static_cast<char>((k * 131 + 7) >> 1);
        root.write("st.bin", bytes);
        return bytes;
    }

    // Programs an image of `size` bytes; the sequence's result and its output.
    std::pair<int, std::string> program(size_t size)
    {
        image(size);
        int file = open(root.path("st.bin").c_str(), O_RDONLY);
        testing::internal::CaptureStdout();
        int rc = stm_update_file(fd, file);
        std::string out = testing::internal::GetCapturedStdout();
        close(file);
        return {rc, out};
    }

    // The flash as the simulator keeps it in its state file.
    std::string flash()
    {
        std::string state = root.read("sim/stm32.state");
        size_t at = state.find("flash ");
        size_t nl = state.find('\n', at);
        return state.substr(nl + 1);
    }
};

} // namespace

TEST_F(SimLine, AnswersStatusVersionLedAndButton)
{
    start({"--api-version", "0x01020304", "--boot-version", "0x0A0B0C0D"});
    uint8_t s0 = 0, s1 = 0;
    EXPECT_EQ(stm_status_req(fd, &s0, &s1), 0);
    EXPECT_EQ(s0, STM32_BOOTLOADER_NO_APPLICATION_PRESENT);
    EXPECT_EQ(s1, STM32_NAK);
    uint32_t api = 0, boot = 0;
    EXPECT_EQ(stm_version_req(fd, &api, &boot), 0);
    EXPECT_EQ(api, 0x01020304u);
    EXPECT_EQ(boot, 0x0A0B0C0Du);
    EXPECT_EQ(stm_led_ctrl(fd, 1, 1, 6), 0);
    EXPECT_EQ(stm_led_ctrl(fd, 0, 0, 0), 6);
    EXPECT_EQ(stm_btn_ctrl(fd, 1), 0);
    EXPECT_EQ(stm_shutdown_req(fd), 0);
    EXPECT_TRUE(sim->wait_for("shutdown ordered"));
}

TEST_F(SimLine, GotoBootloaderRestartsTheApplication)
{
    start({"--start", "app", "--recovery", "yes"});
    uint8_t s0 = 0, s1 = 0;
    EXPECT_EQ(stm_status_req(fd, &s0, &s1), 0);
    EXPECT_EQ(s0, STM32_APPLICATION);
    EXPECT_EQ(s1, STM32_ACK);
    EXPECT_EQ(stm_goto_bootloader(fd), 0);
    EXPECT_TRUE(sim->wait_for("restarted into the bootloader"));
    EXPECT_EQ(stm_status_req(fd, &s0, nullptr), 0);
    EXPECT_EQ(s0, STM32_BOOTLOADER_APPLICATION_TRIGGERED_RESTART);
}

// The one test of the suite that waits for a real time-out: the reply is cut
// off half-way and nothing more comes.
TEST_F(SimLine, SilentStm32MakesTheCommandGiveUpAfterTenPollsAndResetParser)
{
    start({"--truncate", "status:1"});
    auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(stm_status_req(fd, nullptr, nullptr), -1);
    double s = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    EXPECT_GT(s, 9.0); // the first poll took the half reply, nine waited 1 s each
    EXPECT_LT(s, 11.5);
    EXPECT_EQ(parse_get_state(), IDLE);
    uint8_t s0 = 0; // the next reply is not taken for the rest of the cut one
    EXPECT_EQ(stm_status_req(fd, &s0, nullptr), 0);
    EXPECT_EQ(s0, STM32_BOOTLOADER_NO_APPLICATION_PRESENT);
}

TEST_F(SimLine, NakNoiseSplitWritesAndPassedOverFrames)
{
    start({"--nak", "init:1", "--other-before", "status", "--noise", "9", "--split", "3"});
    EXPECT_EQ(stm_init_sw_update(fd), -1);
    EXPECT_EQ(stm_init_sw_update(fd), 0);
    uint8_t s0 = 0;
    EXPECT_EQ(stm_status_req(fd, &s0, nullptr), 0);
    EXPECT_EQ(s0, STM32_BOOTLOADER_NO_APPLICATION_PRESENT);
    EXPECT_EQ(sim->count("(unasked, before reply)"), 1u);
}

TEST_F(SimLine, HungUpLineFailsCommandsAtOnce)
{
    start({"--hangup-after", "led"});
    EXPECT_EQ(stm_led_ctrl(fd, 1, 0, 1), 0);
    EXPECT_TRUE(sim->wait_for("hung up"));
    auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(stm_version_req(fd, nullptr, nullptr), -1);
    EXPECT_EQ(stm_goto_bootloader(fd), -1);
    EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::seconds(2));
}

class ProgramImage : public SimLine, public ::testing::WithParamInterface<size_t>
{
};

TEST_P(ProgramImage, ChunksPadsAndVerifies)
{
    const size_t size = GetParam();
    const size_t padded = (size + 7) / 8 * 8;
    start();
    auto [rc, out] = program(size);
    ASSERT_EQ(rc, 0) << sim->log();

    std::string lines;
    for (size_t total = 248; total < padded + 248; total += 248)
        lines += "* BYTES: " + std::to_string(std::min(total, padded)) + " *\n";
    EXPECT_EQ(out, lines);
    uint8_t announced[4];
    put_le32(announced, static_cast<uint32_t>(padded));
    char hex[16];
    snprintf(hex, sizeof(hex), "%02x%02x%02x%02x", announced[0], announced[1], announced[2],
             announced[3]);
    EXPECT_EQ(sim->count(std::string("opc=120 (start) len=4 data=") + hex), 1u);
    EXPECT_EQ(sim->count("rx opc=135 (bytes) len=248"), size / 248);
    EXPECT_EQ(sim->count("rx opc=135"), (padded + 247) / 248);

    std::string expected = root.read("st.bin") + std::string(padded - size, '\0');
    EXPECT_EQ(flash(), expected);
    int file = open(root.path("st.bin").c_str(), O_RDONLY);
    testing::internal::CaptureStdout();
    EXPECT_EQ(stm_dow_file(fd, file), 0);
    testing::internal::GetCapturedStdout();
    close(file);
}

INSTANTIATE_TEST_SUITE_P(Sizes, ProgramImage, ::testing::Values(1000, 1001, 248));

TEST_F(SimLine, ProgramsAnStm32ThatRunsItsApplication)
{
    start({"--start", "app"});
    EXPECT_EQ(program(600).first, 0);
    EXPECT_EQ(sim->count("rx opc=15 (status)"), 2u);
    EXPECT_EQ(sim->count("restarted into the bootloader"), 1u);
    EXPECT_EQ(sim->count("application started"), 1u);

    // A later run of the simulator runs what this one programmed.
    uint32_t programmed = 0, api = 0;
    EXPECT_EQ(stm_version_req(fd, &programmed, nullptr), 0);
    EXPECT_NE(programmed, 0x00010000u);
    close(fd);
    start();
    uint8_t s0 = 0;
    EXPECT_EQ(stm_status_req(fd, &s0, nullptr), 0);
    EXPECT_EQ(s0, STM32_APPLICATION);
    EXPECT_EQ(stm_version_req(fd, &api, nullptr), 0);
    EXPECT_EQ(api, programmed);
}

TEST_F(SimLine, StatusRoundsAreBounded)
{
    start({"--start", "app", "--stay-in-app"});
    EXPECT_EQ(program(64).first, -1);
    EXPECT_EQ(sim->count("rx opc=90 (init)"), 50u);
    EXPECT_EQ(sim->count("rx opc=105"), 0u);
}

class ProgramFault : public SimLine, public ::testing::WithParamInterface<std::vector<std::string>>
{
};

TEST_P(ProgramFault, EndsTheSequenceAtTheFailingStep)
{
    start(GetParam());
    EXPECT_EQ(program(1001).first, -1) << sim->log();
    EXPECT_EQ(sim->count("application started"), 0u);
}

INSTANTIATE_TEST_SUITE_P(Steps, ProgramFault,
                         ::testing::Values(std::vector<std::string>{"--nak", "init"},
                                           std::vector<std::string>{"--nak", "erase"},
                                           std::vector<std::string>{"--nak", "start"},
                                           std::vector<std::string>{"--nak", "bytes:3"},
                                           std::vector<std::string>{"--nak", "verify"},
                                           std::vector<std::string>{"--nak", "done"},
                                           std::vector<std::string>{"--wrong-verify"},
                                           std::vector<std::string>{"--verify-len", "3"},
                                           std::vector<std::string>{"--verify-len", "5"}));

TEST_F(SimLine, NakAtEraseStopsBeforeProgramStart)
{
    start({"--nak", "erase"});
    EXPECT_EQ(program(1000).first, -1);
    EXPECT_EQ(sim->count("rx opc=120"), 0u);
}

TEST_F(SimLine, EmptyImageEndsTheSequence)
{
    start();
    EXPECT_EQ(program(0).first, -1);
    EXPECT_EQ(sim->count("rx opc=120 (start) len=4 data=00000000"), 1u);
    EXPECT_EQ(sim->count("rx opc=135"), 0u);
    EXPECT_EQ(sim->count("rx opc=150"), 0u);
}

TEST_F(SimLine, ReadBackStopsBeforePassingItsArea)
{
    // 210 KiB in flash, answered 255 bytes at a time.
    image(210 * 1024);
    start({"--image", root.path("st.bin"), "--read-chunk", "255"});
    int file = open(root.path("st.bin").c_str(), O_RDONLY);
    testing::internal::CaptureStdout();
    EXPECT_EQ(stm_dow_file(fd, file), -1);
    std::string out = testing::internal::GetCapturedStdout();
    close(file);
    EXPECT_NE(out.find("offset: 204765\n"), std::string::npos); // 803 answers of 255
    EXPECT_EQ(out.find("offset: 205020"), std::string::npos);
}
