#include "handler_test.h"
#include "platform/platform.h"

#include <sys/stat.h>

namespace
{

class StreamHandlers : public HandlerTest
{
  protected:
    StreamHandlers()
    {
        for (size_t i = 0; i < pkg_.size(); i++)
            pkg_[i] = char(i * 7 + 3);
        std::filesystem::create_directory("blocked"); // a name that can't be a file
    }
    uint8_t request(uint32_t size = 3000, const std::string &name = "pkg.bin")
    {
        uint8_t event = h.run(SM_STATE_CONNECT, dgram::stream_req(size, name));
        h.sent();
        return event;
    }
    // Segment `seg` of the 3000-byte package (1452, 1452, 96 bytes); empty beyond.
    byte_vec packet(uint64_t seg)
    {
        size_t off = seg >= 1 && seg <= 3 ? (seg - 1) * PAYLOAD_SIZE : 0;
        size_t len = seg >= 1 && seg <= 3 ? std::min<size_t>(PAYLOAD_SIZE, 3000 - off) : 0;
        return dgram::packet(seg, pkg_.data() + off, len);
    }
    std::vector<uint64_t> acked()
    {
        std::vector<uint64_t> segs;
        for (const sent_msg &m : h.sent()) {
            file_packet_ack_t ack = {};
            EXPECT_EQ(m.data.size(), PROTO_PKT_ACK_SIZE);
            EXPECT_EQ(m.port, CLIENT_STREAM_PORT);
            proto_decode_file_packet_ack(m.data.data(), m.data.size(), &ack);
            segs.push_back(ack.hdr.opcode == PCKT_TRNSFR_ACK ? ack.seg_number : ~0ull);
        }
        return segs;
    }

    std::string pkg_ = std::string(3000, '\0');
};

TEST_F(StreamHandlers, StreamRequestIsCheckedBeforeTheFileIsCreated)
{
    const std::string n99(99, 'n'), n100(100, 'n');
    const struct {
        const char *name;
        byte_vec datagram;
        int sim_switch;      // a sim_failure, or -1
        uint8_t status_code; // 0: accepted
    } cases[] = {
        {"plain name", dgram::stream_req(3000, "pkg_1.0-2.tar.gz"), -1, 0},
        {"largest package", dgram::stream_req(629145600, "big"), -1, 0},
        {"empty package", dgram::stream_req(0, "empty"), -1, 0},
        {"99 characters", dgram::stream_req(10, n99), -1, 0},
        {"one byte too large", dgram::stream_req(629145601, "big"), -1, 1},
        {"100 characters", dgram::stream_req(10, n100), -1, 1},
        {"slash", dgram::stream_req(10, "a/b"), -1, 1},
        {"space", dgram::stream_req(10, "a b"), -1, 1},
        {"empty name", dgram::stream_req(10, ""), -1, 1},
        {"fname_len one short", dgram::stream_req(10, "abcd", 3), -1, 1},
        {"fname_len one long", dgram::stream_req(10, "abcd", 5), -1, 1},
        {"cut before fname_len", dgram::cut(dgram::stream_req(10, ""), 10), -1, 1},
        {"file can't be created", dgram::stream_req(10, "blocked"), -1, 4},
        {"-F", dgram::stream_req(10, "ok"), SIM_INVALID_PKG_NAME, 1},
        {"-L", dgram::stream_req(10, "ok"), SIM_INVALID_PKG_NAME_LEN, 1},
        {"-Z", dgram::stream_req(10, "ok"), SIM_INVALID_PKG_SIZE, 1},
        {"-M", dgram::stream_req(10, "ok"), SIM_MALLOC_FAILURE, 3},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        release_pkg_file(&h.ctx.pkg_file);
        set_status_code(SWU_STAGE_CODE_OK);
        set_stage_complete();
        if (c.sim_switch >= 0)
            sim_failure_arm(static_cast<sim_failure>(c.sim_switch));
        EXPECT_EQ(h.run(SM_STATE_CONNECT, c.datagram),
                  c.status_code == 0 ? SM_EVNT_EXT_STREAM_REQ : SM_EVNT_INT_ERROR);
        EXPECT_EQ(g_status_code, c.status_code);
        auto out = h.sent();
        ASSERT_EQ(out.size(), c.status_code == 0 ? 1u : 0u);
        if (c.status_code == 0) {
            expect_sent(out[0], CLIENT_IP, CLIENT_STREAM_PORT, {0, 0, 0x73, 0, 0xAC, 0x05, 0});
            struct stat st;
            ASSERT_EQ(stat(g_pkg_name, &st), 0);
            EXPECT_EQ(uint64_t(st.st_size), std::max<uint64_t>(g_pkg_size, 1));
            EXPECT_EQ(g_expected_n_pkts, (g_pkg_size + 1451) / 1452);
            EXPECT_EQ(g_stage_complete, 0);
        }
        if (c.sim_switch >= 0) {
            EXPECT_EQ(request(10, "ok"), SM_EVNT_EXT_STREAM_REQ) << "only one request fails";
        }
    }
}

TEST_F(StreamHandlers, ADiskThatCannotHoldThePackageRefusesItAtTheRequest)
{
    if (!plat_is_simulation())
        GTEST_SKIP() << "the full disk is the host simulation's";
    root_.fail("reserve", 1, ENOSPC);
    EXPECT_EQ(request(3000, "full"), SM_EVNT_INT_ERROR);
    EXPECT_EQ(g_status_code, SWU_STAGE_CODE_MEM_ALLOC_FAILURE);
    EXPECT_EQ(request(3000, "room"), SM_EVNT_EXT_STREAM_REQ) << "only while the disk is full";
}

TEST_F(StreamHandlers, APacketTheDiskCannotTakeIsNotCountedAndTheDaemonLives)
{
    ASSERT_EQ(request(), SM_EVNT_EXT_STREAM_REQ);
    ASSERT_EQ(h.run(SM_STATE_STREAM, packet(1)), SM_EVNT_EXT_STREAM_REQ);
    // The file cut short behind the mapping: the next copy faults (SIGBUS).
    ASSERT_EQ(ftruncate(g_pkg_fd, 0), 0);
    testing::internal::CaptureStderr();
    EXPECT_EQ(h.run(SM_STATE_STREAM, packet(2)), SM_EVNT_EXT_STREAM_REQ);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "package write failed at offset 1452\n");
    EXPECT_EQ(h.run(SM_STATE_STREAM, packet(3)), SM_EVNT_NO_EVENT) << "2 is still expected";
    EXPECT_EQ(h.run(SM_STATE_STREAM, dgram::hdr(FILE_STREAM_END)), SM_EVNT_INT_ERROR);
    EXPECT_EQ(g_status_code, SWU_STAGE_CODE_MISSING_PCKTS);
}

TEST_F(StreamHandlers, PacketsAreWrittenInOrderAndTheEndChecksTheCount)
{
    const struct {
        const char *name;
        std::vector<uint64_t> sent, acked;
        bool complete;
    } cases[] = {
        {"in order", {1, 2, 3}, {1, 2, 3}, true},
        {"repeat acknowledged, not rewritten", {1, 2, 2, 3}, {1, 2, 2, 3}, true},
        {"segment 0 and one past the end ignored", {0, 1, 2, 3, 4}, {1, 2, 3}, true},
        {"gap", {1, 3}, {1}, false},
        {"restart counts twice", {1, 2, 1, 2, 3}, {1, 2, 1, 2, 3}, false},
        {"missing last", {1, 2}, {1, 2}, false},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        ASSERT_EQ(request(), SM_EVNT_EXT_STREAM_REQ);
        for (uint64_t seg : c.sent)
            h.run(SM_STATE_STREAM, packet(seg));
        EXPECT_EQ(acked(), c.acked);
        EXPECT_EQ(h.run(SM_STATE_STREAM, dgram::hdr(FILE_STREAM_END)),
                  c.complete ? SM_EVNT_INT_PKG_RECEIVED : SM_EVNT_INT_ERROR);
        EXPECT_EQ(h.ctx.pkg_file, nullptr);
        EXPECT_EQ(g_pkg_fd, 0);
        auto out = h.sent();
        ASSERT_EQ(out.size(), c.complete ? 1u : 0u);
        if (c.complete) {
            expect_sent(out[0], CLIENT_IP, CLIENT_STREAM_PORT, {0, 0, 0x75, 0});
            EXPECT_EQ(root_.read("pkg.bin"), pkg_);
        }
        EXPECT_EQ(std::filesystem::exists("pkg.bin"), c.complete);
        EXPECT_EQ(g_status_code, c.complete ? 0 : SWU_STAGE_CODE_MISSING_PCKTS);
        EXPECT_EQ(g_stage_complete, c.complete ? 1 : 0);
        unlink("pkg.bin");
    }
}

TEST_F(StreamHandlers, MalformedPacketsAreNeitherWrittenNorAcknowledged)
{
    ASSERT_EQ(request(), SM_EVNT_EXT_STREAM_REQ);
    h.run(SM_STATE_STREAM, packet(1));
    h.run(SM_STATE_STREAM, packet(2));
    h.sent();
    const uint8_t junk[PAYLOAD_SIZE + 8] = {0xEE};
    for (const byte_vec &p : {
             dgram::cut(packet(3), 19),                // shorter than the head
             dgram::packet(3, junk, 97),               // one byte past the package
             dgram::packet(1, junk, PAYLOAD_SIZE + 8), // more than a packet carries
             dgram::stream_req(10, "again"),           // a second request
         })
        EXPECT_EQ(h.run(SM_STATE_STREAM, p), SM_EVNT_NO_EVENT);
    EXPECT_TRUE(h.sent().empty());

    // Packets ahead of the expected one, a segment past the last included,
    // are named in the log and refused.
    testing::internal::CaptureStdout();
    EXPECT_EQ(h.run(SM_STATE_STREAM, packet(3)), SM_EVNT_EXT_STREAM_REQ);
    EXPECT_EQ(h.run(SM_STATE_STREAM, dgram::packet(4, junk, 10)), SM_EVNT_NO_EVENT);
    EXPECT_EQ(h.run(SM_STATE_STREAM, dgram::packet(~0ull, junk, 10)), SM_EVNT_NO_EVENT);
    EXPECT_EQ(h.run(SM_STATE_STREAM, dgram::packet(1, junk, 10)), SM_EVNT_EXT_STREAM_REQ);
    EXPECT_EQ(h.run(SM_STATE_STREAM, packet(3)), SM_EVNT_NO_EVENT);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "INVALID PKG SEGMENT # [EXPECTED: 4 | RECEIVED: 4]\n"
              "INVALID PKG SEGMENT # [EXPECTED: 4 | RECEIVED: 18446744073709551615]\n"
              "INVALID PKG SEGMENT # [EXPECTED: 2 | RECEIVED: 3]\n");
    EXPECT_EQ(acked(), (std::vector<uint64_t>{3, 1}));
}

TEST_F(StreamHandlers, StreamEndWithNothingMappedFailsTheStreamOnly)
{
    for (uint32_t size : {3000u, 0u}) {
        ASSERT_EQ(request(size), SM_EVNT_EXT_STREAM_REQ);
        EXPECT_EQ(h.run(SM_STATE_STREAM, dgram::hdr(FILE_STREAM_END)), SM_EVNT_INT_ERROR);
        EXPECT_TRUE(h.sent().empty());
        EXPECT_EQ(g_status_code, SWU_STAGE_CODE_MISSING_PCKTS);
        EXPECT_FALSE(std::filesystem::exists("pkg.bin"));
    }
}

TEST_F(StreamHandlers, SimulatedStreamFailureKeepsTheCompleteFileOnce)
{
    sim_failure_arm(SIM_STREAM_FAILURE);
    ASSERT_EQ(request(), SM_EVNT_EXT_STREAM_REQ);
    for (uint64_t seg : {1, 2, 3})
        h.run(SM_STATE_STREAM, packet(seg));
    EXPECT_EQ(h.run(SM_STATE_STREAM, dgram::hdr(FILE_STREAM_END)), SM_EVNT_INT_ERROR);
    EXPECT_EQ(g_status_code, SWU_STAGE_CODE_MISSING_PCKTS);
    EXPECT_TRUE(std::filesystem::exists("pkg.bin"));
    EXPECT_FALSE(sim_failure_armed(SIM_STREAM_FAILURE));
}

TEST_F(StreamHandlers, RequestAfterAnAcknowledgedErrorReplacesTheUnfinishedStream)
{
    ASSERT_EQ(request(3000, "old.bin"), SM_EVNT_EXT_STREAM_REQ);
    h.run(SM_STATE_STREAM, packet(1));
    ASSERT_EQ(h.run(SM_STATE_ERROR, dgram::hdr(ERROR_RECEIVED)), SM_EVNT_INT_TIMEOUT);
    EXPECT_FALSE(std::filesystem::exists("old.bin"));
    // A smaller package is written within its own size, not the old mapping's.
    ASSERT_EQ(request(100, "new.bin"), SM_EVNT_EXT_STREAM_REQ);
    h.run(SM_STATE_STREAM, dgram::packet(1, pkg_.data(), 100));
    EXPECT_EQ(h.run(SM_STATE_STREAM, dgram::hdr(FILE_STREAM_END)), SM_EVNT_INT_PKG_RECEIVED);
    EXPECT_EQ(root_.read("new.bin"), pkg_.substr(0, 100));
}

} // namespace
