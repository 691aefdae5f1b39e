// Connections, status requests and the session time-out through the running
// daemon.
#include "status_texts.h"
#include "support/terminal_fixture.h"

namespace
{

class Connection : public TerminalTest
{
  protected:
    // A connection request from `from`'s socket announcing s's ports.
    static void send_connection_request(swuc_session *s, swuc_channel from, uint8_t app_id = 1)
    {
        conection_request_t req = {};
        req.hdr = {swuc_next_seq(s), CONNECTION_REQST, 0};
        req.app_id = app_id;
        req.uma_rx_port = s->port[SWUC_RX];
        req.uma_stream_port = s->port[SWUC_STREAM];
        uint8_t buf[64];
        int n = proto_encode_connection_request(buf, sizeof(buf), &req);
        ASSERT_GT(n, 0);
        ASSERT_EQ(swuc_send(s, from, buf, static_cast<size_t>(n)), 0);
    }

    static bool nothing_on(swuc_session *s, swuc_channel ch, int ms)
    {
        uint8_t buf[2048];
        return swuc_recv(s, ch, buf, sizeof(buf), ms) < 0;
    }

    // Sends connection requests from `probe` until one is confirmed; the
    // moment it was, or -1 when none was within `limit_ms`.
    static int64_t connect_when_idle(swuc_session *probe, int limit_ms)
    {
        int64_t deadline = swuc_now_ms() + limit_ms;
        while (swuc_now_ms() < deadline) {
            conection_response_t rsp;
            if (swuc_connect(probe, &rsp) == 0 &&
                rsp.connection_status == SWU_CON_RES_CONNECTION_CONFIRMED)
                return swuc_now_ms();
            std::this_thread::sleep_for(200ms);
        }
        return -1;
    }
};

TEST_F(Connection, RequestsAreAnsweredAtTheAnnouncedPortsAndASecondClientIsTurnedAway)
{
    ASSERT_NO_FATAL_FAILURE(start());
    swuc_session a;
    ASSERT_NO_FATAL_FAILURE(open_session(&a, "127.0.0.1", 500 * SLOW));
    a.cfg.status_tries = 1;

    // Idle: status requests and invalid connection requests go unanswered.
    EXPECT_NE(swuc_get_status(&a, nullptr), 0);
    ASSERT_NO_FATAL_FAILURE(send_connection_request(&a, SWUC_RX, 0));
    EXPECT_TRUE(nothing_on(&a, SWUC_RX, 500 * SLOW)) << "a connection with app id 0 was answered";

    // Sent from the stream socket, answered at the announced rx port.
    ASSERT_NO_FATAL_FAILURE(send_connection_request(&a, SWUC_STREAM));
    uint8_t buf[2048];
    ssize_t n = swuc_await(&a, SWUC_RX, CONNECTION_RSPNS, buf, sizeof(buf), 1000 * SLOW);
    ASSERT_EQ(n, static_cast<ssize_t>(PROTO_CON_RSP_SIZE));
    conection_response_t rsp;
    ASSERT_EQ(proto_decode_connection_response(buf, static_cast<size_t>(n), &rsp), 0);
    EXPECT_EQ(rsp.connection_status, SWU_CON_RES_CONNECTION_CONFIRMED);
    EXPECT_EQ(rsp.swu_mode_reason_bitfield, 1);
    EXPECT_TRUE(nothing_on(&a, SWUC_STREAM, 100));
    EXPECT_EQ(status(&a).text, STT_CONNECTED);

    // A second client is told that another session is active.
    swuc_session b;
    ASSERT_NO_FATAL_FAILURE(open_session(&b, "127.0.0.1", 500 * SLOW));
    b.cfg.status_tries = 1;
    ASSERT_EQ(swuc_connect(&b, &rsp), 0);
    EXPECT_EQ(rsp.connection_status, SWU_CON_RES_ALREADY_CONNECTED);
    EXPECT_EQ(rsp.swu_mode_reason_bitfield, 7);
    EXPECT_EQ(rsp.power_source, 1);
    EXPECT_EQ(rsp.bettery_status, 80);
    // So is the connected client itself.
    ASSERT_EQ(swuc_connect(&a, &rsp), 0);
    EXPECT_EQ(rsp.connection_status, SWU_CON_RES_ALREADY_CONNECTED);

    // Status is answered for the connected client's address only, always at
    // its announced rx port.
    swuc_session stranger;
    ASSERT_NO_FATAL_FAILURE(open_session(&stranger, "127.0.0.2", 500 * SLOW));
    stranger.cfg.status_tries = 1;
    EXPECT_NE(swuc_get_status(&stranger, nullptr), 0) << "a stranger's status request was answered";
    ASSERT_EQ(swuc_send_header(&b, SWUC_RX, STATUS_REQST), 0);
    n = swuc_await(&a, SWUC_RX, STATUS_RSPNS, buf, sizeof(buf), 1000 * SLOW);
    ASSERT_GT(n, 6);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(buf) + 6, static_cast<size_t>(n) - 6),
              STT_CONNECTED);
    EXPECT_EQ(buf[4] | buf[5] << 8, 400) << "data_length";
    EXPECT_TRUE(nothing_on(&b, SWUC_RX, 100));

    // The first session goes on.
    EXPECT_EQ(status(&a).stage_code, SWUC_STAGE_CONNECT);
}

TEST_F(Connection, SilentSessionTimesOutAndItsPackageFileIsRemoved)
{
    ASSERT_NO_FATAL_FAILURE(start());
    swuc_session a;
    ASSERT_NO_FATAL_FAILURE(connect(&a));
    file_transfer_response_t ftr;
    ASSERT_EQ(swuc_stream_request(&a, "partial.pkg", 10000, &ftr), 0);
    const std::string data = test_bytes(10000, 5);
    const auto *bytes = reinterpret_cast<const uint8_t *>(data.data());
    ASSERT_EQ(swuc_send_packet(&a, 1, 7, bytes, 1452), 0);
    ASSERT_EQ(swuc_send_packet(&a, 2, 7, bytes + 1452, 1452), 0);
    uint8_t buf[64];
    ASSERT_GT(swuc_await(&a, SWUC_STREAM, PCKT_TRNSFR_ACK, buf, sizeof(buf), 1000 * SLOW), 0);
    ASSERT_GT(swuc_await(&a, SWUC_STREAM, PCKT_TRNSFR_ACK, buf, sizeof(buf), 1000 * SLOW), 0);
    ASSERT_EQ(status(&a).text, STT_STREAMING);
    const int64_t last_answer = a.last_status_ms;
    EXPECT_GE(std::filesystem::file_size(root_.path("work/partial.pkg")), 10000u);

    // Connection requests neither keep the session alive nor get confirmed
    // while it lasts.
    swuc_session probe;
    ASSERT_NO_FATAL_FAILURE(open_session(&probe, "127.0.0.1", 500 * SLOW));
    const int64_t idle_at = connect_when_idle(&probe, 12000);
    ASSERT_GT(idle_at, 0) << "the session never timed out";
    EXPECT_GT(idle_at - last_answer, 5000);
    EXPECT_LT(idle_at - last_answer, 8500 * SLOW);
    EXPECT_FALSE(root_.exists("work/partial.pkg")) << "the half-received package stayed";
}

} // namespace
