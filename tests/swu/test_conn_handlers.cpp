#include "handler_test.h"

namespace
{

using ConnHandlers = HandlerTest;

TEST_F(ConnHandlers, IdleConfirmsOnlyValidConnectionRequests)
{
    const struct {
        const char *name;
        byte_vec request;
        bool confirmed;
    } cases[] = {
        {"valid", dgram::con_req(), true},
        {"app id 0", dgram::con_req(0), false},
        {"cut before its fixed part ends", dgram::cut(dgram::con_req(), 18), false},
        {"status request", dgram::hdr(STATUS_REQST), false},
        {"three bytes", byte_vec{0, 0, CONNECTION_REQST}, false},
        {"empty", byte_vec{}, false},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        swu_harness::reset_globals();
        g_swu_reson = 0x106; // only the low byte travels
        EXPECT_EQ(h.run(SM_STATE_IDLE, c.request, CLIENT_IP, 50000),
                  c.confirmed ? SM_EVNT_INT_CONNECTED : SM_EVNT_NO_EVENT);
        auto out = h.sent();
        ASSERT_EQ(out.size(), c.confirmed ? 1u : 0u);
        EXPECT_EQ(get_connection_status(), c.confirmed ? SWU_CON_STATUS_BUSY : 0);
        if (c.confirmed) {
            expect_sent(out[0], CLIENT_IP, CLIENT_RX_PORT, {0, 0, 0x71, 0, 1, 1, 80, 0x06});
            EXPECT_EQ(g_connected_client_stream_port, htons(CLIENT_STREAM_PORT));
        }
    }
    EXPECT_EQ(h.run(SM_STATE_IDLE), SM_EVNT_NO_EVENT) << "nothing received";
}

TEST_F(ConnHandlers, SecondClientIsToldAnotherSessionIsActive)
{
    for (uint8_t state : {SM_STATE_CONNECT, SM_STATE_STREAM}) {
        EXPECT_EQ(h.run(state, dgram::con_req(9, 0x4444), STRANGER_IP), SM_EVNT_EXT_CONNECTION_REQ);
        auto out = h.sent();
        ASSERT_EQ(out.size(), 1u);
        expect_sent(out[0], STRANGER_IP, 0x4444, {0, 0, 0x71, 0, 0, 1, 80, 7});
        EXPECT_EQ(g_connected_client_addr.sin_addr.s_addr, htonl(CLIENT_IP));
        EXPECT_EQ(h.run(state, byte_vec(10, CONNECTION_REQST)), SM_EVNT_NO_EVENT);
        EXPECT_TRUE(h.sent().empty()) << "a short request is dropped";
    }
}

TEST_F(ConnHandlers, StatusGoesToTheClientsRxPortFromItsAddressOnly)
{
    h.session_age(4);
    ASSERT_EQ(h.run(SM_STATE_CONNECT, dgram::hdr(STATUS_REQST), CLIENT_IP, 1111),
              SM_EVNT_EXT_STATUS_REQ);
    EXPECT_FALSE(timer_is_timeout(&h.ctx.timer)) << "an answered status restarts the session";
    char text[STT_RSPNS_MSG_BUFF_MIN_SIZE];
    uint32_t n = build_stt_message(text, sizeof(text));
    ASSERT_NE(std::string(text).find("\"stage_code\":1,"), std::string::npos);
    byte_vec expected = {0, 0, STATUS_RSPNS, 0, 0x90, 0x01};
    expected.insert(expected.end(), text, text + n);
    auto out = h.sent();
    ASSERT_EQ(out.size(), 1u);
    expect_sent(out[0], CLIENT_IP, CLIENT_RX_PORT, expected);

    EXPECT_EQ(h.run(SM_STATE_CONNECT, dgram::hdr(STATUS_REQST), STRANGER_IP), SM_EVNT_NO_EVENT);
    EXPECT_EQ(h.run(SM_STATE_IDLE, dgram::hdr(STATUS_REQST)), SM_EVNT_NO_EVENT);
    EXPECT_TRUE(h.sent().empty());
}

TEST_F(ConnHandlers, SessionTimeOutForgetsTheClientAndDropsThePackage)
{
    ASSERT_EQ(h.run(SM_STATE_CONNECT, dgram::stream_req(3000, "p.bin")), SM_EVNT_EXT_STREAM_REQ);
    uint8_t payload[PAYLOAD_SIZE] = {};
    ASSERT_EQ(h.run(SM_STATE_STREAM, dgram::packet(1, payload, sizeof(payload))),
              SM_EVNT_EXT_STREAM_REQ);
    h.sent();
    h.take_install_signals();

    h.session_age(4);
    EXPECT_EQ(h.run(SM_STATE_STREAM), SM_EVNT_NO_EVENT);
    h.session_age(6);
    h.push(dgram::hdr(STATUS_REQST));
    EXPECT_EQ(h.run(SM_STATE_STREAM), SM_EVNT_INT_TIMEOUT);
    EXPECT_TRUE(h.sent().empty());
    EXPECT_FALSE(std::filesystem::exists("p.bin"));
    EXPECT_EQ(g_pkg_name[0], '\0');
    EXPECT_EQ(g_pkg_fd, 0);
    EXPECT_EQ(h.ctx.pkg_file, nullptr);
    EXPECT_EQ(g_connected_client_addr.sin_addr.s_addr, 0u);
    EXPECT_EQ(g_connected_client_stream_port, 0);
    EXPECT_EQ(get_connection_status(), SWU_CON_STATUS_AVAIL);
    EXPECT_EQ(h.take_install_signals(), 1);
    // Still pending: the connect state ends at once, leaving the request queued.
    EXPECT_EQ(h.run(SM_STATE_CONNECT), SM_EVNT_INT_TIMEOUT);
    EXPECT_FALSE(ilq_is_empty(&h.ctx.msg_q[RX_MSG_Q]));
}

} // namespace
