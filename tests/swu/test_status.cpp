#include "swu/status.h"

#include "swu/fsm.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

namespace
{

class StatusReport : public testing::Test
{
  protected:
    void SetUp() override
    {
        unset_connection_status();
        set_status_code(SWU_STAGE_CODE_OK);
        set_stage_code(SM_STATE_IDLE);
        set_stage_progress(0);
        unset_stage_complete();
    }

    // Builds the report into a heap buffer of exactly `size` bytes.
    static std::string report(uint32_t size = STT_RSPNS_MSG_BUFF_MIN_SIZE)
    {
        auto buf = std::make_unique<char[]>(size);
        memset(buf.get(), '#', size);
        uint32_t n = build_stt_message(buf.get(), size);
        EXPECT_EQ(n, strlen(buf.get()));
        return std::string(buf.get(), n);
    }
};

// The code and text pair of the report: "status" or "stage".
std::string code_and_text(const char *which, unsigned code, const char *text)
{
    char buf[256];
    snprintf(buf, sizeof buf, "\"%s_code\":%u,\"%s\":\"%s\",", which, code,
             strcmp(which, "status") == 0 ? "status_message" : "stage_description", text);
    return buf;
}

} // namespace

TEST_F(StatusReport, ErrorAfterMissingPacketsKeepsTheFailureCodeInTheLongestReport)
{
    set_status_code(SWU_STAGE_CODE_MISSING_PCKTS);
    set_stage_code(SM_STATE_ERROR);
    const std::string golden =
        R"({"battery_status":80,"status_code":2,"status_message":"invalid stream, some packets are missing...",)"
        R"("stage_code":5,"stage_description":"Terminal encountered a major error, returning to initial state, re-connect to continue",)"
        R"("stage_progress":0,"stage_complete":0})";
    ASSERT_EQ(golden.size(), 262u);
    EXPECT_EQ(report(), golden);
}

TEST_F(StatusReport, EveryCodeReportsItsText)
{
    // Status codes from 3 on, and the idle stage, have no text but "NULL".
    const char *status_texts[] = {"operation compleated successfully...",
                                  "invalid stream request...",
                                  "invalid stream, some packets are missing...",
                                  "NULL",
                                  "NULL",
                                  "NULL",
                                  "NULL"};
    const char *stage_texts[] = {"NULL",
                                 "Terminal is in update mode, connected...",
                                 "Terminal is receiving update stream...",
                                 "Terminal verifiying upgrade package...",
                                 "Terminal in upgradded to new version...",
                                 "Terminal encountered a major error, returning to initial state, "
                                 "re-connect to continue",
                                 "Terminal is rebooting..."};
    for (uint8_t code = 0; code < SM_STATE_COUNT; ++code) {
        set_status_code(code);
        set_stage_code(code);
        const std::string r = report();
        EXPECT_NE(r.find(code_and_text("status", code, status_texts[code])), std::string::npos)
            << r;
        EXPECT_NE(r.find(code_and_text("stage", code, stage_texts[code])), std::string::npos) << r;
    }
}

TEST_F(StatusReport, CompleteStageAndFullProgressAtTheEnd)
{
    set_stage_code(SM_STATE_FINISH);
    set_stage_progress(100);
    set_stage_complete();
    EXPECT_EQ(
        report(),
        R"({"battery_status":80,"status_code":0,"status_message":"operation compleated successfully...",)"
        R"("stage_code":6,"stage_description":"Terminal is rebooting...",)"
        R"("stage_progress":100,"stage_complete":1})");
    unset_stage_complete();
    EXPECT_NE(report().find(R"("stage_complete":0})"), std::string::npos);
}
