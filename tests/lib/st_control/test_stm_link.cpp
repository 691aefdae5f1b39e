// The UART link and the command exchange, on pure bytes: the frame layout and
// CRC-8, the receive parser's state table and resynchronisation, and each
// command against a scripted peer on a packet socket pair, where every
// scripted write is exactly one read of the command's poll loop.
#include "lib/st_control/stm_com/zynq_st_uart_link.h"
#include "lib/st_control/stm_com/zynq_st_uart_prot.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
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

struct Parser : ::testing::Test {
    stm::msg_t msg{};
    void SetUp() override { parse_reset_state(); }
    int feed(const bytes &b) { return parse_msg(b.data(), b.size(), &msg); }
};

} // namespace

TEST(Frame, Crc8AndGoldenFrames)
{
    const uint8_t digits[] = {'1', '2', '3', '4', '5', '6', '7', '8', '9'};
    EXPECT_EQ(crc8(digits, sizeof(digits)), 0xF4);
    EXPECT_EQ(crc8(digits, 0), 0);
    EXPECT_EQ(frame(STM32_STATUS_REQ, {}), (bytes{0xEF, 0xBE, 0xAD, 0xDE, 0x0F, 0x00, 0xC3}));
    EXPECT_EQ(frame(STM32_LED_CTRL, {0x00}),
              (bytes{0xEF, 0xBE, 0xAD, 0xDE, 0x1E, 0x01, 0x00, 0x9B}));
    EXPECT_EQ(frame(STM32_PROGRAM_START, {0xE8, 0x03, 0x00, 0x00}),
              (bytes{0xEF, 0xBE, 0xAD, 0xDE, 0x78, 0x04, 0xE8, 0x03, 0x00, 0x00, 0x7A}));
    EXPECT_EQ(frame(STM32_INIT_DONE, {0xAA}),
              (bytes{0xEF, 0xBE, 0xAD, 0xDE, 0x5A, 0x01, 0xAA, 0xE9}));
}

TEST_F(Parser, FollowsEveryRowOfItsStateTable)
{
    const bytes pre = {0xEF, 0xBE, 0xAD, 0xDE};
    const bytes good = frame(15, {1, 2});
    bytes bad = good;
    bad.back() ^= 1;
    struct row {
        bytes in;
        state_t state;
        int ret;
    } rows[] = {
        {{0x00}, IDLE, 0},
        {{0xEF}, RCV_PREAMBLE_B2, 0},
        {{0xEF, 0xEF}, RCV_PREAMBLE_B2, 0},
        {{0xEF, 0x00}, IDLE, 0},
        {{0xEF, 0xBE}, RCV_PREAMBLE_B3, 0},
        {{0xEF, 0xBE, 0xEF}, RCV_PREAMBLE_B2, 0},
        {{0xEF, 0xBE, 0x00}, IDLE, 0},
        {{0xEF, 0xBE, 0xAD}, RCV_FULL_PREAMBLE, 0},
        {pre, RCV_OPC, 0},
        {{0xEF, 0xBE, 0xAD, 0xEF}, RCV_PREAMBLE_B2, 0},
        {{0xEF, 0xBE, 0xAD, 0xDF}, IDLE, 0},
        {cat(pre, {0x0F}), RCV_LEN, 0},
        {cat(pre, {0x0F, 0x00}), RCV_CS, 0},
        {cat(pre, {0x0F, 0x02}), RCV_DATA, 0},
        {cat(pre, {0x0F, 0x02, 0x01}), RCV_DATA, 0},
        {cat(pre, {0x0F, 0x02, 0x01, 0x02}), RCV_CS, 0},
        {good, IDLE, 1},
        {bad, IDLE, 0},
    };
    for (const auto &r : rows) {
        parse_reset_state();
        EXPECT_EQ(feed(r.in), r.ret) << ::testing::PrintToString(r.in);
        EXPECT_EQ(parse_get_state(), r.state) << ::testing::PrintToString(r.in);
    }
    // A preamble restarted on EF goes on to a whole frame.
    parse_reset_state();
    EXPECT_EQ(feed({0xEF, 0xBE, 0xAD, 0xEF}), 0);
    EXPECT_EQ(feed(bytes(good.begin() + 1, good.end())), 1);
    EXPECT_EQ(msg.opc, 15);
}

TEST_F(Parser, ResynchronisesOnBrokenPreambles)
{
    const bytes f = frame(75, {9, 8, 7});
    const bytes body(f.begin() + 4, f.end());
    for (const bytes &lead :
         {bytes{0xEF, 0xEF, 0xBE, 0xAD, 0xDE}, bytes{0xEF, 0xBE, 0xEF, 0xBE, 0xAD, 0xDE},
          bytes{0xEF, 0xBE, 0xAD, 0xEF, 0xBE, 0xAD, 0xDE},
          bytes{0x13, 0xDE, 0xAD, 0xBE, 0xEF, 0xBE, 0xAD, 0xDE}}) {
        parse_reset_state();
        msg = {};
        EXPECT_EQ(feed(cat(lead, body)), 1) << ::testing::PrintToString(lead);
        EXPECT_EQ(msg.opc, 75);
        EXPECT_EQ(msg.length, 3);
        EXPECT_EQ(msg.buf[2], 7);
    }
}

TEST_F(Parser, AssemblesFramesSplitAtAnyByte)
{
    bytes full(255);
    for (size_t k = 0; k < full.size(); k++)
        full[k] = static_cast<uint8_t>(k * 7);
    for (const bytes &payload : {bytes{}, bytes{0x42}, full}) {
        const bytes f = frame(135, payload);
        for (size_t split = 1; split < f.size(); split++) {
            parse_reset_state();
            msg = {};
            ASSERT_EQ(feed(bytes(f.begin(), f.begin() + static_cast<long>(split))), 0);
            ASSERT_EQ(feed(bytes(f.begin() + static_cast<long>(split), f.end())), 1);
            ASSERT_EQ(msg.length, payload.size());
            ASSERT_EQ(bytes(msg.buf, msg.buf + msg.length), payload);
            ASSERT_EQ(msg.buf[payload.size()], f.back()); // 255: the record's last byte
        }
        parse_reset_state();
        int last = 0;
        for (uint8_t b : f)
            last = feed({b});
        EXPECT_EQ(last, 1);
    }
}

TEST_F(Parser, DropsWrongCrcAndStopsAfterFirstGoodFrame)
{
    bytes bad = frame(15, {1});
    bad.back() ^= 0x80;
    EXPECT_EQ(feed(cat(bad, frame(30, {2}))), 1);
    EXPECT_EQ(msg.opc, 30);

    EXPECT_EQ(feed(cat(frame(60, {}), frame(90, {0xAA}))), 1);
    EXPECT_EQ(msg.opc, 60);
    EXPECT_EQ(parse_get_state(), IDLE); // the second frame was never looked at
}

TEST(Frame, ShortOrFailedWriteReportsOne)
{
    int p[2];
    ASSERT_EQ(pipe(p), 0);
    fcntl(p[1], F_SETFL, O_NONBLOCK);
    int cap = fcntl(p[1], F_GETPIPE_SZ);
    std::vector<uint8_t> fill(static_cast<size_t>(cap) - 3);
    ASSERT_EQ(write(p[1], fill.data(), fill.size()), static_cast<ssize_t>(fill.size()));
    stm::msg_t m;
    stm_build_msg(&m, STM32_STATUS_REQ, nullptr, 0);
    EXPECT_EQ(stm_send_msg(p[1], &m), 1);
    close(p[0]);
    close(p[1]);
    EXPECT_EQ(stm_send_msg(p[1], &m), 1);
}

namespace
{

// The Zynq's end `fd` (non-blocking, so each empty poll costs just its 10 ms)
// and the scripted STM32 end `peer`.
struct Line : ::testing::Test {
    int fd = -1, peer = -1;
    void SetUp() override
    {
        signal(SIGPIPE, SIG_IGN);
        int sv[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, sv), 0);
        fd = sv[0];
        peer = sv[1];
        fcntl(fd, F_SETFL, O_NONBLOCK);
        fcntl(peer, F_SETFL, O_NONBLOCK);
        parse_reset_state();
    }
    void TearDown() override
    {
        close(fd);
        close(peer);
    }
    void post(const bytes &b) { ASSERT_EQ(write(peer, b.data(), b.size()), (ssize_t)b.size()); }
    void post_bytewise(const bytes &b)
    {
        for (uint8_t x : b)
            post({x});
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

} // namespace

TEST_F(Line, CommandsSendTheirRequestsAndTakeTheirResults)
{
    uint8_t s0 = 0, s1 = 0x77;
    post(frame(STM32_STATUS_REP, {2, 0xAA}));
    EXPECT_EQ(stm_status_req(fd, &s0, &s1), 0);
    EXPECT_EQ(s0, 2);
    EXPECT_EQ(s1, 0xAA);
    EXPECT_EQ(sent(), std::vector<bytes>{frame(STM32_STATUS_REQ, {})});
    for (const bytes &odd : {bytes{4}, bytes{4, 0x55, 0}}) {
        s1 = 0x77;
        post(frame(STM32_STATUS_REP, odd));
        EXPECT_EQ(stm_status_req(fd, &s0, &s1), 0);
        EXPECT_EQ(s0, 4);
        EXPECT_EQ(s1, 0x77);
    }

    uint32_t api = 0, boot = 0;
    post(frame(STM32_VERSION_REP, {0x04, 0x03, 0x02, 0x01, 0x0D, 0x0C, 0x0B, 0x0A}));
    EXPECT_EQ(stm_version_req(fd, &api, &boot), 0);
    EXPECT_EQ(api, 0x01020304u);
    EXPECT_EQ(boot, 0x0A0B0C0Du);
    EXPECT_EQ(sent().size(), 3u);

    post(frame(STM32_LED_CTRL_REP, {0xFD}));
    EXPECT_EQ(stm_led_ctrl(fd, 0, 7, 10), 5);
    EXPECT_EQ(stm_led_ctrl(fd, 1, 7, 10), 0);
    EXPECT_EQ(sent(),
              (std::vector<bytes>{frame(STM32_LED_CTRL, {0x22}), frame(STM32_LED_CTRL, {0x62})}));

    for (uint8_t active : {1, 0, 2}) {
        post(frame(STM32_BTN_CTRL_REP, {}));
        EXPECT_EQ(stm_btn_ctrl(fd, active), 0);
        EXPECT_EQ(sent(),
                  std::vector<bytes>{frame(STM32_BTN_CTRL_REQ, {uint8_t(active == 1 ? 0 : 1)})});
    }

    EXPECT_EQ(stm_shutdown_req(fd), 0);
    EXPECT_EQ(stm_goto_bootloader(fd), 0);
    EXPECT_EQ(sent(),
              (std::vector<bytes>{frame(STM32_SHUTDOWN, {}), frame(STM32_INIT_SW_UPDATE, {})}));
}

TEST_F(Line, ReplyCountsOnlyWhenCompleteBeforeTheLastPoll)
{
    const bytes reply = frame(STM32_STATUS_REP, {1, 0x55}); // 9 bytes: 9 polls
    post_bytewise(reply);
    EXPECT_EQ(stm_status_req(fd, nullptr, nullptr), 0);

    post({0x00}); // one more poll: the reply completes in the tenth
    post_bytewise(reply);
    EXPECT_EQ(stm_status_req(fd, nullptr, nullptr), -1);
}

TEST_F(Line, FramesOfOtherOpcodesArePassedOverButHideWhatFollowsInTheirRead)
{
    post(frame(STM32_SHUTDOWN_REQ, {}));
    post(frame(STM32_ERASE_DONE, {0xAA}));
    EXPECT_EQ(stm_erase_api(fd), 0);

    post(cat(frame(STM32_SHUTDOWN_REQ, {}), frame(STM32_ERASE_DONE, {0xAA})));
    EXPECT_EQ(stm_erase_api(fd), -1);
}

TEST_F(Line, TimeOutsResetTheParserExceptForLedAndButton)
{
    const bytes half = {0xEF, 0xBE, 0xAD, 0xDE, STM32_STATUS_REP};
    post(half);
    EXPECT_EQ(stm_status_req(fd, nullptr, nullptr), -1);
    EXPECT_EQ(parse_get_state(), IDLE);

    post(half);
    EXPECT_EQ(stm_led_ctrl(fd, 0, 0, 0), -1);
    EXPECT_EQ(parse_get_state(), RCV_LEN);
    post(half);
    EXPECT_EQ(stm_btn_ctrl(fd, 1), -1);
    EXPECT_NE(parse_get_state(), IDLE);
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

TEST_F(Line, ProgrammingCommandsCheckArgumentsAndAnswers)
{
    const uint8_t chunk[256] = {};
    EXPECT_EQ(stm_program_bytes(fd, chunk, 0), -2);
    EXPECT_EQ(stm_program_bytes(fd, chunk, 7), -2);
    EXPECT_EQ(stm_program_bytes(fd, chunk, 256), -2);
    EXPECT_EQ(stm_program_bytes(fd, nullptr, 8), -2);
    EXPECT_TRUE(sent().empty());

    post(frame(STM32_WRITE_DONE, {0xAA}));
    EXPECT_EQ(stm_program_bytes(fd, chunk, 248), 0);
    post(frame(STM32_PROGRAM_READY, {0x55}));
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
    post(frame(STM32_VERIFIY_REP, crc));
    EXPECT_EQ(stm_program_verifiy(fd, fileno(image)), 0);
    for (const bytes &wrong :
         {bytes{0x27, 0x1A, 0x8C}, cat(crc, {0}), bytes{0x26, 0x39, 0xF4, 0xCB}}) {
        post(frame(STM32_VERIFIY_REP, wrong));
        EXPECT_EQ(stm_program_verifiy(fd, fileno(image)), -1);
    }
    fclose(image);
}

TEST_F(Line, ShutdownRequestIsFoundPastAFullAreaAndAnswered)
{
    post(bytes(200, 0x11));
    post(frame(STM32_STATUS_REP, {1}));
    post(bytes(200, 0x22));
    post(frame(STM32_SHUTDOWN_REQ, {}));
    EXPECT_EQ(stm_detect_shutdown_rq(fd, 'x'), 0);
    post(frame(STM32_SHUTDOWN_REQ, {}));
    EXPECT_EQ(stm_detect_shutdown_rq(fd, 'a'), 0);
    post(frame(STM32_SHUTDOWN_REQ, {}));
    EXPECT_EQ(stm_detect_shutdown_rq(fd, 'N'), 0);
    EXPECT_EQ(sent(),
              (std::vector<bytes>{frame(STM32_SHUTDOWN, {0x00}), frame(STM32_SHUTDOWN, {0xAA}),
                                  frame(STM32_SHUTDOWN, {0x55})}));
}
