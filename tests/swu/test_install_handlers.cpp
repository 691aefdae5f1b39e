// The states after the stream. The test plays the installation thread: the
// verification finds one started, and the test publishes its status.
#include "handler_test.h"

namespace
{

class InstallHandlers : public HandlerTest
{
  protected:
    InstallHandlers() { h.ctx.instatll_thrd_fd = pthread_t(1); }
};

struct status_case {
    int install_status;
    uint8_t event;
    int signals;
    bool thread_forgotten;
};

TEST_F(InstallHandlers, VerifyAndUpgradeFollowTheThreadsVerdicts)
{
    const status_case verify[] = {
        {INSTALL_STT_IN_PROGRESS, SM_EVNT_EXT_STATUS_REQ, 0, false},
        {INSTALL_STT_CRC_OK, SM_EVNT_EXT_STATUS_REQ, 0, false},
        {INSTALL_STT_ARTIFACT_OK, SM_EVNT_INT_PKG_VERIEFIED, 1, false},
        {INSTALL_STT_CRC_ERROR, SM_EVNT_INT_ERROR, 1, true},
        {INSTALL_STT_ARTIFACT_ERROR, SM_EVNT_INT_ERROR, 1, true},
    };
    const status_case upgrade[] = {
        {INSTALL_STT_INSTALLING, SM_EVNT_EXT_STATUS_REQ, 0, false},
        {INSTALL_STT_INSTALL_COMPLEATE, SM_EVNT_INT_PKG_INSTALLED, 1, false},
        {INSTALL_STT_INSTALL_FAILURE, SM_EVNT_INT_ERROR, 1, true},
    };
    for (uint8_t state : {SM_STATE_VERIFY, SM_STATE_UPGRADE}) {
        for (const status_case &c : state == SM_STATE_VERIFY ? std::vector(verify, verify + 5)
                                                             : std::vector(upgrade, upgrade + 3)) {
            SCOPED_TRACE(testing::Message() << int(state) << "/" << c.install_status);
            h.ctx.instatll_thrd_fd = pthread_t(1);
            set_install_status(c.install_status);
            testing::internal::CaptureStdout();
            EXPECT_EQ(h.run(state, dgram::hdr(STATUS_REQST)), c.event);
            bool done_line = testing::internal::GetCapturedStdout().find(
                                 "\t\tHERE: install stt = INSTALL_STT_INSTALL_COMPLEATE\n\n") !=
                             std::string::npos;
            EXPECT_EQ(done_line, c.event == SM_EVNT_INT_PKG_INSTALLED);
            EXPECT_EQ(h.sent().size(), 1u) << "the status is answered in the same call";
            EXPECT_EQ(h.take_install_signals(), c.signals);
            EXPECT_EQ(h.ctx.instatll_thrd_fd == 0, c.thread_forgotten);
            EXPECT_EQ(g_stage_code, state);
        }
    }
}

TEST_F(InstallHandlers, ConnectionRequestIsAnsweredInUpgradeOnlyWithoutAStreamPort)
{
    EXPECT_EQ(h.run(SM_STATE_VERIFY, dgram::con_req()), SM_EVNT_NO_EVENT);
    EXPECT_EQ(h.run(SM_STATE_UPGRADE, dgram::con_req()), SM_EVNT_NO_EVENT);
    EXPECT_TRUE(h.sent().empty());
    g_connected_client_stream_port = 0;
    EXPECT_EQ(h.run(SM_STATE_UPGRADE, dgram::con_req()), SM_EVNT_INT_CONNECTED);
    EXPECT_EQ(h.sent().size(), 1u);
}

TEST_F(InstallHandlers, TimeOutInVerifyGivesWayToTheChecksVerdict)
{
    h.session_age(6);
    EXPECT_EQ(h.run(SM_STATE_VERIFY), SM_EVNT_INT_TIMEOUT);
    set_install_status(INSTALL_STT_ARTIFACT_OK);
    EXPECT_EQ(h.run(SM_STATE_VERIFY), SM_EVNT_INT_PKG_VERIEFIED);
    EXPECT_EQ(h.take_install_signals(), 3) << "one per time-out, one go-ahead";
}

TEST_F(InstallHandlers, ErrorStateHoldsWhileTheClientPollsAndEndsOnItsAcknowledgement)
{
    set_status_code(SWU_STAGE_CODE_MISSING_PCKTS);
    h.session_age(9);
    EXPECT_EQ(h.run(SM_STATE_ERROR), SM_EVNT_NO_EVENT) << "10 s in the error state";
    EXPECT_EQ(h.run(SM_STATE_ERROR, dgram::hdr(STATUS_REQST)), SM_EVNT_EXT_STATUS_REQ);
    auto out = h.sent();
    ASSERT_EQ(out.size(), 1u);
    std::string text(out[0].data.begin() + 6, out[0].data.end());
    EXPECT_NE(text.find("\"status_code\":2,"), std::string::npos) << text;
    EXPECT_NE(text.find("\"stage_code\":5,"), std::string::npos) << text;

    EXPECT_EQ(h.run(SM_STATE_ERROR, dgram::con_req()), SM_EVNT_NO_EVENT) << "until the time-out";
    EXPECT_EQ(h.run(SM_STATE_ERROR, dgram::hdr(ERROR_RECEIVED), STRANGER_IP), SM_EVNT_NO_EVENT);
    EXPECT_TRUE(h.sent().empty());
    EXPECT_EQ(h.run(SM_STATE_ERROR, dgram::hdr(ERROR_RECEIVED), CLIENT_IP, 999),
              SM_EVNT_INT_TIMEOUT);
    out = h.sent();
    ASSERT_EQ(out.size(), 1u);
    expect_sent(out[0], CLIENT_IP, CLIENT_RX_PORT, {0, 0, RESTARTING_UPDATE_PROC, 0});
    EXPECT_EQ(get_connection_status(), SWU_CON_STATUS_BUSY) << "the client stays connected";
    EXPECT_EQ(h.ctx.timer.timeout_sec, SWU_ERROR_TIMEOUT_S) << "only a time-out shortens it";
}

TEST_F(InstallHandlers, ErrorStateTimesOutAfterTenSecondsWithoutStatus)
{
    h.session_age(11);
    EXPECT_EQ(h.run(SM_STATE_ERROR, dgram::hdr(ERROR_RECEIVED)), SM_EVNT_INT_TIMEOUT);
    EXPECT_TRUE(h.sent().empty());
    EXPECT_EQ(get_connection_status(), SWU_CON_STATUS_AVAIL);
    EXPECT_EQ(h.ctx.timer.timeout_sec, SWU_SESSION_TIMEOUT_S);
}

TEST_F(InstallHandlers, FinishEndsOnTheClientsRebootRequestOrAfterThirtySeconds)
{
    EXPECT_EQ(h.run(SM_STATE_FINISH, dgram::hdr(TERMINAL_REBOOT_REQ), STRANGER_IP),
              SM_EVNT_NO_EVENT);
    EXPECT_TRUE(h.sent().empty());
    EXPECT_EQ(h.run(SM_STATE_FINISH, dgram::hdr(TERMINAL_REBOOT_REQ)), SM_EVNT_INT_UPDATE_DONE);
    auto out = h.sent();
    ASSERT_EQ(out.size(), 1u);
    expect_sent(out[0], CLIENT_IP, CLIENT_RX_PORT, {0, 0, TERMINAL_REBOOT_RSPNS, 0});

    EXPECT_EQ(h.run(SM_STATE_FINISH), SM_EVNT_NO_EVENT);
    finish_state_start_time -= 30;
    EXPECT_EQ(h.run(SM_STATE_FINISH), SM_EVNT_INT_UPDATE_DONE);
}

} // namespace
