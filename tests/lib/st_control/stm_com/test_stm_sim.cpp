// The programming sequence end to end over a real pseudo-terminal, against
// stm32-sim: what needs a whole conversation rather than single exchanges.
#include "lib/st_control/stm_com/zynq_st_uart_prot.h"
#include "support/stm32_sim.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <memory>

namespace
{

struct SimLine : ::testing::Test {
    SimRoot root;
    std::unique_ptr<Stm32Sim> sim;
    int fd = -1;

    // A fresh simulator, flash state and line.
    void start(std::vector<std::string> args = {})
    {
        if (fd >= 0)
            close(fd);
        sim.reset();
        std::filesystem::remove(root.path("sim/stm32.state"));
        sim = std::make_unique<Stm32Sim>(root, std::move(args));
        fd = open(root.path("dev/ttyUL1").c_str(), O_RDWR | O_NOCTTY);
        ASSERT_GE(fd, 0);
        stm_init_uart(fd);
    }
    void TearDown() override { close(fd); }

    std::string image(size_t size)
    {
        std::string bytes(size, '\0');
        for (size_t k = 0; k < size; k++)
            bytes[k] = static_cast<char>((k * 131 + 7) >> 1);
        root.write("st.bin", bytes);
        return bytes;
    }
    // Runs `call` on the image file; its result and what it printed.
    std::pair<int, std::string> with_image(int (*call)(int, int))
    {
        int file = open(root.path("st.bin").c_str(), O_RDONLY);
        testing::internal::CaptureStdout();
        int rc = call(fd, file);
        std::string out = testing::internal::GetCapturedStdout();
        close(file);
        return {rc, out};
    }
};

TEST_F(SimLine, ChunksPadsVerifiesAndReadsBack)
{
    for (size_t size : {1001, 248}) {
        const size_t padded = (size + 7) / 8 * 8;
        start();
        const std::string bytes = image(size);
        auto [rc, out] = with_image(stm_update_file);
        EXPECT_EQ(rc, 0) << sim->log();
        std::string lines; // one line per chunk of 248 bytes, the last one padded
        for (size_t total = 248; total < padded + 248; total += 248)
            lines += "* BYTES: " + std::to_string(std::min(total, padded)) + " *\n";
        EXPECT_EQ(out, lines);
        EXPECT_EQ(sim->flash(), bytes + std::string(padded - size, '\0'));
        EXPECT_EQ(with_image(stm_dow_file).first, 0);
    }
}

// An STM32 running its application is ordered into its bootloader, a bounded
// number of times.
TEST_F(SimLine, StatusRoundsRestartTheApplicationAndAreBounded)
{
    start({"--start", "app"});
    image(600);
    EXPECT_EQ(with_image(stm_update_file).first, 0);
    sim->stop(); // all it logged has been read
    EXPECT_EQ(sim->count("rx opc=15 (status)"), 2u);
    EXPECT_EQ(sim->count("application started"), 1u);

    start({"--start", "app", "--stay-in-app"});
    EXPECT_EQ(with_image(stm_update_file).first, -1);
    sim->stop();
    EXPECT_EQ(sim->count("rx opc=90 (init)"), 50u);
    EXPECT_EQ(sim->count("rx opc=105"), 0u);
}

TEST_F(SimLine, EachFailingStepEndsTheSequence)
{
    const struct {
        std::vector<std::string> args;
        size_t size;
        size_t chunks;     // chunks sent before the end
        const char *never; // the step after the failing one
    } rows[] = {
        {{"--nak", "init"}, 1001, 0, "rx opc=105"},
        {{"--nak", "erase"}, 1001, 0, "rx opc=120"},
        {{"--nak", "start"}, 1001, 0, "rx opc=135"},
        {{"--nak", "bytes:3"}, 1001, 3, "rx opc=150"},
        {{}, 0, 0, "rx opc=150"}, // an empty image
        {{"--wrong-verify"}, 1001, 5, "rx opc=165"},
        {{"--nak", "done"}, 1001, 5, "application started"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(::testing::PrintToString(row.args));
        start(row.args);
        image(row.size);
        EXPECT_EQ(with_image(stm_update_file).first, -1);
        sim->stop();
        EXPECT_EQ(sim->count("rx opc=135"), row.chunks);
        EXPECT_EQ(sim->count(row.never), 0u) << sim->log();
    }
}

TEST_F(SimLine, ReadBackStopsBeforePassingItsArea)
{
    // 210 KiB in flash, answered 255 bytes at a time.
    image(210 * 1024);
    start({"--image", root.path("st.bin"), "--read-chunk", "255"});
    auto [rc, out] = with_image(stm_dow_file);
    EXPECT_EQ(rc, -1);
    EXPECT_NE(out.find("offset: 204765\n"), std::string::npos); // 803 answers of 255
    EXPECT_EQ(out.find("offset: 205020"), std::string::npos);
}

} // namespace
