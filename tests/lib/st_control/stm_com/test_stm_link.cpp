// The link layer and the command exchange on pure bytes: frame layout and
// CRC-8, the receive parser, and each command against a scripted STM32 on a
// packet socket pair, where every scripted write is exactly one read of the
// command's poll loop and a read that finds nothing is a poll too.
#include "lib/st_control/stm_com/zynq_st_uart_link.h"
#include "lib/st_control/stm_com/zynq_st_uart_prot.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdio>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace
{

using bytes = std::vector<uint8_t>;

bytes frame(uint8_t opc, const bytes &payload)
{
    stm::msg_t m;
    stm_build_msg(&m, opc, payload.data(), static_cast<uint8_t>(payload.size()));
    auto *p = reinterpret_cast<const uint8_t *>(&m);
    return bytes(p, p + m.length + STM_FRAME_OVERHEAD);
}

bytes cat(bytes a, const bytes &b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

stm::msg_t g_msg;

TEST(Frame, Crc8AndWireLayout)
{
    EXPECT_EQ(crc8(reinterpret_cast<const uint8_t *>("123456789"), 9), 0xF4);
    EXPECT_EQ(frame(STM32_STATUS_REQ, {}), (bytes{0xEF, 0xBE, 0xAD, 0xDE, 0x0F, 0x00, 0xC3}));
    EXPECT_EQ(frame(STM32_PROGRAM_START, {0xE8, 0x03, 0x00, 0x00}),
              (bytes{0xEF, 0xBE, 0xAD, 0xDE, 0x78, 0x04, 0xE8, 0x03, 0x00, 0x00, 0x7A}));
}

TEST(Parser, FindsFramesOnlyBehindWholePreamblesAndWithTheirCrc)
{
    const bytes good = frame(15, {1, 2}), body(good.begin() + 4, good.end());
    bytes bad = good;
    bad.at(8) ^= 1; // the CRC
    const std::pair<bytes, int> rows[] = {
        {good, 1},
        {bad, 0},
        {cat({0xEF}, good), 1},
        {cat({0xEF, 0xBE}, good), 1},
        {cat({0xEF, 0xBE, 0xAD}, good), 1},
        {cat({0x13, 0xDE, 0xAD, 0xBE}, good), 1},
        {cat(bad, good), 1},
        {cat({0xEF, 0x00, 0xBE, 0xAD, 0xDE}, body), 0},
        {cat({0xEF, 0xBE, 0x00, 0xAD, 0xDE}, body), 0},
        {cat({0xEF, 0xBE, 0xAD, 0xDF}, body), 0},
    };
    for (const auto &[in, ret] : rows) {
        parse_reset_state();
        EXPECT_EQ(parse_msg(in.data(), in.size(), &g_msg), ret) << ::testing::PrintToString(in);
    }
}

TEST(Parser, AssemblesFramesSplitAtAnyByte)
{
    bytes full(255);
    for (size_t k = 0; k < full.size(); k++)
        full[k] = static_cast<uint8_t>(k * 7);
    for (const bytes &payload : {bytes{}, bytes{0x42}, full}) {
        const bytes f = frame(135, payload);
        for (size_t split = 1; split < f.size(); split++) {
            parse_reset_state();
            g_msg = {};
            ASSERT_EQ(parse_msg(f.data(), split, &g_msg), 0);
            ASSERT_EQ(parse_msg(f.data() + split, f.size() - split, &g_msg), 1);
            ASSERT_EQ(bytes(g_msg.buf, g_msg.buf + g_msg.length), payload);
            ASSERT_EQ(g_msg.buf[payload.size()], f.back()); // 255: the record's last byte
        }
    }
}

// The Zynq's end `fd` (non-blocking, so each empty poll costs just its 10 ms)
// and the scripted STM32 end `peer`.
struct Line : ::testing::Test {
    int fd = -1, peer = -1;
    void SetUp() override
    {
        signal(SIGPIPE, SIG_IGN);
        int sv[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK, 0, sv), 0);
        fd = sv[0];
        peer = sv[1];
        parse_reset_state();
    }
    ~Line() override
    {
        close(fd);
        close(peer);
    }
    void post(const bytes &b) { ASSERT_EQ(write(peer, b.data(), b.size()), (ssize_t)b.size()); }
    // The reply completes in poll `n`: n - 1 polls read a byte of noise first.
    void reply_in_poll(int n, uint8_t opc, const bytes &payload)
    {
        for (int k = 1; k < n; k++)
            post({0x00});
        post(frame(opc, payload));
    }
    // Every frame the Zynq sent since the last call.
    std::vector<bytes> sent()
    {
        std::vector<bytes> out;
        uint8_t buf[300];
        ssize_t n;
        while ((n = read(peer, buf, sizeof(buf))) > 0)
            out.emplace_back(buf, buf + n);
        return out;
    }
};

TEST_F(Line, CommandsSendTheirRequestsAndTakeTheirResults)
{
    uint8_t s0 = 0, s1 = 0x77;
    post(frame(STM32_STATUS_REP, {2, 0xAA}));
    EXPECT_EQ(stm_status_req(fd, &s0, &s1), 0);
    EXPECT_EQ(s0, 2);
    EXPECT_EQ(s1, 0xAA);
    post(frame(STM32_STATUS_REP, {4})); // no flag: its place holds the CRC
    EXPECT_EQ(stm_status_req(fd, &s0, &s1), 0);
    EXPECT_EQ(s0, 4);
    EXPECT_EQ(s1, 0xAA);
    uint32_t api = 0, boot = 0;
    post(frame(STM32_VERSION_REP, {0x04, 0x03, 0x02, 0x01, 0x0D, 0x0C, 0x0B, 0x0A}));
    EXPECT_EQ(stm_version_req(fd, &api, &boot), 0);
    EXPECT_EQ(api, 0x01020304u);
    EXPECT_EQ(boot, 0x0A0B0C0Du);

    post(frame(STM32_LED_CTRL_REP, {0xFD}));
    EXPECT_EQ(stm_led_ctrl(fd, 0, 7, 10), 5);
    EXPECT_EQ(stm_led_ctrl(fd, 1, 7, 10), 0); // a write waits for nothing
    for (uint8_t active : {1, 2}) {
        post(frame(STM32_BTN_CTRL_REP, {}));
        EXPECT_EQ(stm_btn_ctrl(fd, active), 0);
    }
    EXPECT_EQ(stm_shutdown_req(fd), 0);
    EXPECT_EQ(stm_goto_bootloader(fd), 0);
    EXPECT_EQ(sent(),
              (std::vector<bytes>{frame(STM32_STATUS_REQ, {}), frame(STM32_STATUS_REQ, {}),
                                  frame(STM32_VERSION_REQ, {}), frame(STM32_LED_CTRL, {0x22}),
                                  frame(STM32_LED_CTRL, {0x62}), frame(STM32_BTN_CTRL_REQ, {0}),
                                  frame(STM32_BTN_CTRL_REQ, {1}), frame(STM32_SHUTDOWN, {}),
                                  frame(STM32_INIT_SW_UPDATE, {})}));
}

// A reply counts only when it completes before the last poll of the budget:
// 10 polls for ordinary commands, 50 for a chunk and for the done step.
TEST_F(Line, PollBudgets)
{
    const uint8_t chunk[8] = {};
    reply_in_poll(9, STM32_ERASE_DONE, {0xAA});
    EXPECT_EQ(stm_erase_api(fd), 0);
    reply_in_poll(10, STM32_ERASE_DONE, {0xAA});
    EXPECT_EQ(stm_erase_api(fd), -1);

    reply_in_poll(49, STM32_WRITE_DONE, {0xAA});
    EXPECT_EQ(stm_program_bytes(fd, chunk, 8), 0);
    reply_in_poll(49, STM32_PROGRAM_DONE_REP, {0xAA});
    EXPECT_EQ(stm_program_done(fd), 0);
    reply_in_poll(50, STM32_PROGRAM_DONE_REP, {0xAA});
    EXPECT_EQ(stm_program_done(fd), -1);
    reply_in_poll(50, STM32_WRITE_DONE, {0xAA});
    EXPECT_EQ(stm_program_bytes(fd, chunk, 8), -1);
}

// Neither a frame of another opcode nor the rest of a timed-out reply is taken
// for the reply.
TEST_F(Line, OnlyTheMatchingReplyCounts)
{
    post(frame(STM32_SHUTDOWN_REQ, {}));
    post(frame(STM32_ERASE_DONE, {0xAA}));
    EXPECT_EQ(stm_erase_api(fd), 0);
    post({0xEF, 0xBE, 0xAD, 0xDE, STM32_STATUS_REP});
    EXPECT_EQ(stm_status_req(fd, nullptr, nullptr), -1);
    post(frame(STM32_STATUS_REP, {1}));
    EXPECT_EQ(stm_status_req(fd, nullptr, nullptr), 0);
}

TEST_F(Line, FailedSendReturnsAtOnceWithoutReading)
{
    post(frame(STM32_STATUS_REP, {1}));
    shutdown(fd, SHUT_WR);
    EXPECT_EQ(stm_status_req(fd, nullptr, nullptr), -1);
    EXPECT_EQ(stm_goto_bootloader(fd), -1);
    uint8_t buf[32];
    EXPECT_EQ(read(fd, buf, sizeof(buf)), 8); // the reply is still waiting
}

TEST_F(Line, ProgrammingStepsCheckArgumentsAndAnswers)
{
    const uint8_t chunk[256] = {};
    for (uint32_t size : {0u, 7u, 256u})
        EXPECT_EQ(stm_program_bytes(fd, chunk, size), -2);
    EXPECT_EQ(stm_program_bytes(fd, nullptr, 8), -2);
    EXPECT_TRUE(sent().empty());

    post(frame(STM32_WRITE_DONE, {0xAA}));
    EXPECT_EQ(stm_program_bytes(fd, chunk, 248), 0);
    post(frame(STM32_PROGRAM_READY, {0x00})); // anything but 0xAA refuses
    EXPECT_EQ(stm_program_start(fd, 1000), -1);
    post(frame(STM32_PROGRAM_DONE_REP, {})); // no acknowledge byte at all
    EXPECT_EQ(stm_program_done(fd), -1);
    auto frames = sent();
    ASSERT_EQ(frames.size(), 3u);
    EXPECT_EQ(frames[1], frame(STM32_PROGRAM_START, {0xE8, 0x03, 0x00, 0x00}));

    // The image's CRC-32 covers its zero padding to a multiple of 8.
    FILE *image = tmpfile();
    fputs("123456789", image);
    fflush(image);
    const bytes crc = {0x27, 0x1A, 0x8C, 0x0E};
    for (const auto &[reply, rc] : {std::pair{crc, 0},
                                    {bytes{0x27, 0x1A, 0x8C}, -1},
                                    {cat(crc, {0}), -1},
                                    {bytes{0x26, 0x39, 0xF4, 0xCB}, -1}}) {
        post(frame(STM32_VERIFIY_REP, reply));
        EXPECT_EQ(stm_program_verifiy(fd, fileno(image)), rc);
    }
    fclose(image);
}

TEST_F(Line, ShutdownRequestIsFoundPastAFullAreaAndAnswered)
{
    post(bytes(200, 0x11));
    post(frame(STM32_STATUS_REP, {1}));
    post(bytes(200, 0x22));
    for (char answer : {'x', 'a', 'N'}) {
        post(frame(STM32_SHUTDOWN_REQ, {}));
        EXPECT_EQ(stm_detect_shutdown_rq(fd, answer), 0);
    }
    EXPECT_EQ(sent(),
              (std::vector<bytes>{frame(STM32_SHUTDOWN, {0x00}), frame(STM32_SHUTDOWN, {0xAA}),
                                  frame(STM32_SHUTDOWN, {0x55})}));
}

} // namespace
